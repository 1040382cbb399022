#pragma once
// Tables of fixed-size rows: the storage under every shared-memory table set.
//
// A row is a trivially copyable struct whose first member, key, is its key;
// keys are made of byte arrays only (no padding), so a row's key is the first
// sizeof(Key) bytes of the row and keys compare and hash as bytes. That is
// what lets the same rows live in a slab mapped by other processes: a
// TableStore decides where rows go, the typed tables above it do not care.
// The in-process store below keeps them in hash tables.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>

namespace KivVarn {

// One table of rows of a fixed size, keyed by their leading key bytes.
class RowTable {
 public:
   virtual ~RowTable() = default;
   // Inserts or replaces the row (its key is its first keySize() bytes).
   // Returns false when nothing was written: an equal row was there already,
   // or the table is full (counted in overflows()).
   virtual bool rowIs( const void * row ) = 0;
   // Returns false when there was no such row.
   virtual bool rowDel( const void * key ) = 0;
   // The stored row, or null; valid until the next write.
   virtual const void * row( const void * key ) const = 0;
   virtual std::size_t size() const = 0;
   virtual void clear() = 0;
   // Every row, in no particular order; the callback must not write.
   virtual void forEach( const std::function< void( const void * ) > & f ) const = 0;

   const std::string & name() const { return name_; }
   std::size_t rowSize() const { return rowSize_; }
   std::size_t keySize() const { return keySize_; }
   std::size_t capacity() const { return capacity_; }
   // Rows written (inserted or changed) and deleted since creation.
   std::uint64_t writes() const { return writes_; }
   std::uint64_t deletes() const { return deletes_; }
   // Inserts refused because the table was full.
   std::uint64_t overflows() const { return overflows_; }

 protected:
   RowTable( const std::string & name, std::size_t rowSize, std::size_t keySize,
             std::size_t capacity )
         : name_( name ), rowSize_( rowSize ), keySize_( keySize ), capacity_( capacity ) {}
   std::uint64_t writes_ = 0;
   std::uint64_t deletes_ = 0;
   std::uint64_t overflows_ = 0;

 private:
   std::string name_;
   std::size_t rowSize_;
   std::size_t keySize_;
   std::size_t capacity_;
};

// Makes the tables of a table set.
class TableStore {
 public:
   virtual ~TableStore() = default;
   virtual std::unique_ptr< RowTable > tableIs( const std::string & name, std::size_t rowSize,
                                                std::size_t keySize, std::size_t capacity ) = 0;
};

// Rows in process memory.
class HeapTableStore : public TableStore {
 public:
   std::unique_ptr< RowTable > tableIs( const std::string & name, std::size_t rowSize,
                                        std::size_t keySize, std::size_t capacity ) override;
   // The process's default store.
   static HeapTableStore & instance();
};

// Typed view of a RowTable for rows of type Row (with Row::Key as first
// member key).
template< class Row >
class Table {
 public:
   using Key = typename Row::Key;
   static_assert( std::is_trivially_copyable_v< Row >, "table rows live in shared memory" );
   static_assert( std::is_standard_layout_v< Row >, "table rows live in shared memory" );
   static_assert( std::is_trivially_copyable_v< Key > && alignof( Key ) == 1,
                  "keys are compared as bytes: byte arrays only" );

   Table() = default;
   explicit Table( std::unique_ptr< RowTable > t ) : t_( std::move( t ) ) {}
   static Table make( TableStore & store, const std::string & name, std::size_t capacity ) {
      static_assert( offsetof( Row, key ) == 0, "the key leads the row" );
      return Table( store.tableIs( name, sizeof( Row ), sizeof( Key ), capacity ) );
   }

   bool rowIs( const Row & r ) { return t_->rowIs( &r ); }
   bool rowDel( const Key & k ) { return t_->rowDel( &k ); }
   std::optional< Row > row( const Key & k ) const {
      const void * p = t_->row( &k );
      if( !p ) return std::nullopt;
      Row r;
      std::memcpy( static_cast< void * >( &r ), p, sizeof( Row ) );
      return r;
   }
   bool has( const Key & k ) const { return t_->row( &k ) != nullptr; }
   std::size_t size() const { return t_->size(); }
   void clear() { t_->clear(); }
   template< class F >
   void forEach( F && f ) const {
      t_->forEach( [ &f ]( const void * p ) {
         Row r;
         std::memcpy( static_cast< void * >( &r ), p, sizeof( Row ) );
         f( r );
      } );
   }
   const RowTable & rowTable() const { return *t_; }

 private:
   std::unique_ptr< RowTable > t_;
};

} // namespace KivVarn

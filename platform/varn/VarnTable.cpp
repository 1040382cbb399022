#include "varn/VarnTable.h"

#include <cassert>

#include "kiv/HashMap.h"

namespace KivVarn {

namespace {

// Rows in hash tables keyed by their key bytes.
class HeapRowTable : public RowTable {
 public:
   HeapRowTable( const std::string & name, std::size_t rowSize, std::size_t keySize,
                 std::size_t capacity )
         : RowTable( name, rowSize, keySize, capacity ) {
      assert( keySize <= rowSize );
   }

   bool rowIs( const void * row ) override {
      const auto * bytes = static_cast< const char * >( row );
      const std::string key( bytes, keySize() );
      if( std::string * old = rows_.find( key ) ) {
         if( std::memcmp( old->data(), bytes, rowSize() ) == 0 ) return false;
         old->assign( bytes, rowSize() );
         ++writes_;
         return true;
      }
      if( rows_.size() >= capacity() ) {
         ++overflows_;
         return false;
      }
      rows_.tryInsert( key, std::string( bytes, rowSize() ) );
      ++writes_;
      return true;
   }
   bool rowDel( const void * key ) override {
      if( !rows_.erase( std::string( static_cast< const char * >( key ), keySize() ) ) ) {
         return false;
      }
      ++deletes_;
      return true;
   }
   const void * row( const void * key ) const override {
      const std::string * r =
         rows_.find( std::string( static_cast< const char * >( key ), keySize() ) );
      return r ? r->data() : nullptr;
   }
   std::size_t size() const override { return rows_.size(); }
   void clear() override {
      deletes_ += rows_.size();
      rows_.clear();
   }
   void forEach( const std::function< void( const void * ) > & f ) const override {
      rows_.forEach( [ & ]( const std::string &, const std::string & r ) { f( r.data() ); } );
   }

 private:
   Kiv::HashMap< std::string, std::string > rows_;
};

} // namespace

std::unique_ptr< RowTable > HeapTableStore::tableIs( const std::string & name,
                                                     std::size_t rowSize, std::size_t keySize,
                                                     std::size_t capacity ) {
   return std::make_unique< HeapRowTable >( name, rowSize, keySize, capacity );
}

HeapTableStore & HeapTableStore::instance() {
   static HeapTableStore store;
   return store;
}

} // namespace KivVarn

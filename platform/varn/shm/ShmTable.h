#pragma once
// Tables in POSIX shared memory, so that other processes can read them.
//
// One shared-memory object per table, named from the owner's state directory
// and the table's path ("routing/pim/status/default/neighbor"), so that
// daemons with different state directories never meet. An object holds a
// header and a fixed number of row slots; every slot carries a sequence
// counter that is odd while the writer changes the slot. The writer never
// waits: it bumps the counter, writes, bumps it again. A reader copies a slot
// and keeps the copy only when the counter was even and unchanged across the
// copy, so it never sees half a row.
//
// Replacing or removing a table marks the old object retired before it is
// unlinked: a reader that still maps it sees the flag and opens the table
// again by name (the generation number tells the two apart). A table whose
// writer process is gone is stale; the next writer to mount it replaces it.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "varn/VarnTable.h"

namespace KivVarn::Shm {

inline constexpr std::uint64_t kMagic = 0x314d48534e524156ull;  // "VARNSHM1"
inline constexpr std::uint32_t kLayoutVersion = 1;

// The start of every object. Fields the writer changes after creation are
// atomics; the rest is fixed before the object is published.
struct Header {
   std::uint64_t magic;
   std::uint32_t version;
   std::uint32_t headerSize;
   std::uint32_t rowSize;
   std::uint32_t keySize;
   std::uint32_t slotSize;
   std::int32_t writerPid;
   std::uint64_t capacity;
   std::uint64_t generation;
   // Slots [0, highWater) have been used; the rest are empty.
   std::atomic< std::uint64_t > highWater;
   std::atomic< std::uint64_t > rows;
   // Bumped by the writer's heartbeat.
   std::atomic< std::uint64_t > heartbeat;
   // The writer's clock at its last heartbeat (a double's bits), 0 when the
   // writer runs on the system's monotonic clock.
   std::atomic< std::uint64_t > clockBits;
   // Set before the object is unlinked.
   std::atomic< std::uint32_t > retired;
   std::uint32_t pad[ 7 ];
};
static_assert( sizeof( Header ) == 112 );
static_assert( std::atomic< std::uint64_t >::is_always_lock_free );

// A slot: sequence counter, presence, then the row (padded to 8 bytes).
struct SlotHeader {
   std::atomic< std::uint64_t > seq;
   std::uint64_t present;
};
inline constexpr std::size_t slotSize( std::size_t rowSize ) {
   return sizeof( SlotHeader ) + ( ( rowSize + 7 ) & ~std::size_t( 7 ) );
}

// The object name of the table at path for the state directory stateDir.
// Characters other than letters, digits, '-' and '_' are escaped, '/' maps to
// '.', and '@' separates the two parts, so the mapping can be reversed.
std::string objectName( const std::string & stateDir, const std::string & path );
// The names of the tables under stateDir that exist now, sorted.
std::vector< std::string > tablePaths( const std::string & stateDir );
// Whether process pid exists.
bool processAlive( int pid );

// A TableStore whose tables are shared-memory objects. The table name a
// store is asked for is the table's full path (the mount adds it).
class ShmTableStore : public TableStore {
 public:
   explicit ShmTableStore( std::string stateDir );
   ~ShmTableStore() override;
   std::unique_ptr< RowTable > tableIs( const std::string & name, std::size_t rowSize,
                                        std::size_t keySize, std::size_t capacity ) override;
   const std::string & stateDir() const { return stateDir_; }
   // Bumps every live table's heartbeat; a writer on a clock of its own
   // (virtual time) passes that clock's seconds so readers can age rows.
   void heartbeat( std::optional< double > clockNow = std::nullopt );

 private:
   friend class ShmRowTable;
   std::string stateDir_;
   std::vector< class ShmRowTable * > tables_;
};

// A table opened by another process for reading.
class TableReader {
 public:
   // Opens the table at path; null and a reason in err when there is none,
   // or it is not a table of this layout.
   static std::unique_ptr< TableReader > open( const std::string & stateDir,
                                               const std::string & path,
                                               std::string * err = nullptr );
   ~TableReader();
   TableReader( const TableReader & ) = delete;
   TableReader & operator=( const TableReader & ) = delete;

   std::size_t rowSize() const { return rowSize_; }
   std::size_t keySize() const { return header_->keySize; }
   std::size_t capacity() const { return capacity_; }
   std::uint64_t generation() const { return header_->generation; }
   int writerPid() const { return header_->writerPid; }
   std::uint64_t heartbeat() const { return header_->heartbeat.load( std::memory_order_acquire ); }
   std::optional< double > writerClock() const;
   // The writer process is gone (nobody will update or remove the table).
   bool stale() const { return !processAlive( header_->writerPid ); }
   // The object was replaced or removed; reopen() follows it.
   bool retired() const { return header_->retired.load( std::memory_order_acquire ) != 0; }
   // Maps the current object at the same path; false when there is none.
   bool reopen( std::string * err = nullptr );

   // Calls f with a consistent copy of every row present. A slot the writer
   // keeps busy for too long is skipped and counted in busySlots().
   void forEach( const std::function< void( const void * row ) > & f );
   // Slots skipped by the last forEach.
   std::size_t busySlots() const { return busy_; }
   // Consistent copy of slot i into out; false when the slot is empty or
   // stayed busy.
   bool readSlot( std::size_t i, void * out, bool * busy = nullptr ) const;
   std::size_t highWater() const { return header_->highWater.load( std::memory_order_acquire ); }

 private:
   TableReader() = default;
   bool map( std::string * err );
   void unmap();
   std::string stateDir_;
   std::string path_;
   void * base_ = nullptr;
   std::size_t length_ = 0;
   const Header * header_ = nullptr;
   // Checked against the object's length when mapped; never read again from
   // the object, so a writer cannot make us read past the end.
   std::size_t rowSize_ = 0;
   std::size_t slotSize_ = 0;
   std::size_t capacity_ = 0;
   std::size_t busy_ = 0;
};

// Typed reading for rows of type Row.
template< class Row >
class TypedReader {
 public:
   explicit TypedReader( std::unique_ptr< TableReader > r ) : r_( std::move( r ) ) {}
   bool valid() const { return r_ && r_->rowSize() == sizeof( Row ); }
   TableReader & raw() { return *r_; }
   template< class F >
   void forEach( F && f ) {
      r_->forEach( [ & ]( const void * p ) {
         Row row;
         std::memcpy( static_cast< void * >( &row ), p, sizeof( Row ) );
         f( row );
      } );
   }
   std::vector< Row > rows() {
      std::vector< Row > v;
      forEach( [ & ]( const Row & r ) { v.push_back( r ); } );
      return v;
   }

 private:
   std::unique_ptr< TableReader > r_;
};

} // namespace KivVarn::Shm

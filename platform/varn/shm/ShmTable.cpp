#include "varn/shm/ShmTable.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kiv/RangeException.h"

namespace KivVarn::Shm {

namespace {

constexpr const char * kShmDir = "/dev/shm/";
// A reader gives up on a slot the writer holds odd for this many tries (a
// writer killed mid-write would otherwise hold it forever).
constexpr int kBusyTries = 1 << 16;

bool plain( char c ) {
   return ( c >= 'a' && c <= 'z' ) || ( c >= 'A' && c <= 'Z' ) || ( c >= '0' && c <= '9' ) ||
          c == '-' || c == '_';
}

std::string escape( const std::string & s ) {
   static const char * hex = "0123456789ABCDEF";
   std::string out;
   for( char c : s ) {
      if( plain( c ) ) {
         out += c;
      } else if( c == '/' ) {
         out += '.';
      } else {
         const auto u = static_cast< unsigned char >( c );
         out += '%';
         out += hex[ u >> 4 ];
         out += hex[ u & 15 ];
      }
   }
   return out;
}

std::string unescape( const std::string & s ) {
   std::string out;
   for( std::size_t i = 0; i < s.size(); ++i ) {
      if( s[ i ] == '.' ) {
         out += '/';
      } else if( s[ i ] == '%' && i + 2 < s.size() ) {
         out += static_cast< char >( std::stoi( s.substr( i + 1, 2 ), nullptr, 16 ) );
         i += 2;
      } else {
         out += s[ i ];
      }
   }
   return out;
}

std::size_t objectLength( std::size_t rowSize, std::size_t capacity ) {
   return sizeof( Header ) + slotSize( rowSize ) * capacity;
}

std::uint64_t hashBytes( const unsigned char * p, std::size_t n ) {
   std::uint64_t h = 0x9e3779b97f4a7c15ull ^ n;
   std::size_t i = 0;
   for( ; i + 8 <= n; i += 8 ) {
      std::uint64_t w;
      std::memcpy( &w, p + i, 8 );
      h = ( h ^ w ) * 0xff51afd7ed558ccdull;
      h ^= h >> 32;
   }
   std::uint64_t tail = 0;
   std::memcpy( &tail, p + i, n - i );
   h = ( h ^ tail ) * 0xc4ceb9fe1a85ec53ull;
   return h ^ ( h >> 29 );
}

} // namespace

std::string objectName( const std::string & stateDir, const std::string & path ) {
   return "/varn" + escape( stateDir ) + "@" + escape( path );
}

std::vector< std::string > tablePaths( const std::string & stateDir ) {
   const std::string prefix = objectName( stateDir, "" ).substr( 1 );
   std::vector< std::string > out;
   DIR * d = opendir( kShmDir );
   if( !d ) return out;
   while( dirent * e = readdir( d ) ) {
      const std::string n = e->d_name;
      if( n.size() > prefix.size() && n.compare( 0, prefix.size(), prefix ) == 0 ) {
         out.push_back( unescape( n.substr( prefix.size() ) ) );
      }
   }
   closedir( d );
   std::sort( out.begin(), out.end() );
   return out;
}

bool processAlive( int pid ) {
   if( pid <= 0 ) return false;
   return kill( pid, 0 ) == 0 || errno == EPERM;
}

// ---- writer ---------------------------------------------------------------------------
class ShmRowTable : public RowTable {
 public:
   ShmRowTable( ShmTableStore & store, const std::string & name, std::size_t rowSize,
                std::size_t keySize, std::size_t capacity )
         : RowTable( name, rowSize, keySize, capacity ), store_( &store ),
           objName_( objectName( store.stateDir(), name ) ), slot_( slotSize( rowSize ) ) {
      assert( keySize <= rowSize && keySize > 0 );
      slots_ = std::min< std::size_t >( capacity, kFirstSlots );
      rebuildIndex();
      create();
      store_->tables_.push_back( this );
   }

   ~ShmRowTable() override {
      if( store_ ) {
         auto & t = store_->tables_;
         t.erase( std::remove( t.begin(), t.end(), this ), t.end() );
      }
      header()->retired.store( 1, std::memory_order_release );
      // Unlink only the object we created; another writer may have replaced it.
      struct stat now;
      const int fd = shm_open( objName_.c_str(), O_RDONLY, 0 );
      if( fd >= 0 ) {
         if( fstat( fd, &now ) == 0 && now.st_ino == ino_ ) shm_unlink( objName_.c_str() );
         close( fd );
      }
      munmap( base_, length_ );
   }

   void detach() { store_ = nullptr; }

   bool rowIs( const void * row ) override {
      const auto * bytes = static_cast< const unsigned char * >( row );
      std::size_t b = bucket( bytes );
      const std::uint32_t found = index_[ b ];
      if( found != kEmpty ) {
         // The key matched already: only the rest can differ.
         const std::size_t k = keySize();
         if( std::memcmp( rowData( found ) + k, bytes + k, rowSize() - k ) == 0 ) return false;
         writeSlot( found, bytes, true );
         ++writes_;
         return true;
      }
      std::uint32_t s;
      if( !free_.empty() ) {
         s = free_.back();
         free_.pop_back();
      } else if( next_ < slots_ ) {
         s = static_cast< std::uint32_t >( next_++ );
      } else if( slots_ < capacity() && grow() ) {
         // A bigger index: the key's bucket moved.
         b = bucket( bytes );
         s = static_cast< std::uint32_t >( next_++ );
      } else {
         ++overflows_;
         return false;
      }
      writeSlot( s, bytes, true );
      index_[ b ] = s;
      ++size_;
      header()->highWater.store( next_, std::memory_order_release );
      header()->rows.store( size_, std::memory_order_relaxed );
      ++writes_;
      return true;
   }

   bool rowDel( const void * key ) override {
      const std::size_t b = bucket( static_cast< const unsigned char * >( key ) );
      const std::uint32_t s = index_[ b ];
      if( s == kEmpty ) return false;
      eraseBucket( b );
      writeSlot( s, nullptr, false );
      free_.push_back( s );
      --size_;
      header()->rows.store( size_, std::memory_order_relaxed );
      ++deletes_;
      return true;
   }

   const void * row( const void * key ) const override {
      const std::uint32_t s = index_[ bucket( static_cast< const unsigned char * >( key ) ) ];
      return s == kEmpty ? nullptr : rowData( s );
   }

   std::size_t size() const override { return size_; }

   void clear() override {
      for( std::uint32_t & s : index_ ) {
         if( s == kEmpty ) continue;
         writeSlot( s, nullptr, false );
         free_.push_back( s );
         s = kEmpty;
         ++deletes_;
      }
      size_ = 0;
      header()->rows.store( 0, std::memory_order_relaxed );
   }

   void forEach( const std::function< void( const void * ) > & f ) const override {
      for( std::uint32_t s : index_ ) {
         if( s != kEmpty ) f( rowData( s ) );
      }
   }

   void heartbeat( std::optional< double > clock ) {
      if( clock ) {
         std::uint64_t bits;
         std::memcpy( &bits, &*clock, sizeof bits );
         header()->clockBits.store( bits, std::memory_order_relaxed );
      }
      header()->heartbeat.fetch_add( 1, std::memory_order_release );
   }

 private:
   static constexpr std::uint32_t kEmpty = 0xffffffffu;
   // Objects start this small and double up to the table's capacity, so
   // memory follows the rows, not the limit.
   static constexpr std::size_t kFirstSlots = 256;

   // Buckets for twice the slots, filled from the rows present.
   void rebuildIndex() {
      std::size_t buckets = 16;
      while( buckets < slots_ * 2 ) buckets <<= 1;
      index_.assign( buckets, kEmpty );
      if( !base_ ) return;
      for( std::uint32_t s = 0; s < next_; ++s ) {
         if( slotHeader( s )->present ) index_[ bucket( rowData( s ) ) ] = s;
      }
   }

   // A bigger object with the same slots is built under a private name and
   // renamed over the table's name; the old one is retired, so a reader that
   // maps it opens the table again. Slot numbers do not move.
   bool grow() {
      const std::size_t slots = std::min( capacity(), slots_ * 2 );
      const std::string tmp =
         "/varn-grow-" + std::to_string( getpid() ) + "-" + std::to_string( ++growths_ );
      const int fd = shm_open( tmp.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644 );
      if( fd < 0 ) return false;
      const std::size_t length = objectLength( rowSize(), slots );
      struct stat st;
      void * p = MAP_FAILED;
      if( ftruncate( fd, static_cast< off_t >( length ) ) == 0 && fstat( fd, &st ) == 0 ) {
         p = mmap( nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0 );
      }
      close( fd );
      if( p == MAP_FAILED ) {
         shm_unlink( tmp.c_str() );
         return false;
      }
      Header * old = header();
      auto * h = static_cast< Header * >( p );
      // No slot is mid-write here: the writer is this thread.
      std::memcpy( static_cast< unsigned char * >( p ) + sizeof( Header ),
                   static_cast< unsigned char * >( base_ ) + sizeof( Header ), slot_ * next_ );
      fillHeader( h, slots, old->generation + 1 );
      h->highWater.store( next_, std::memory_order_relaxed );
      h->rows.store( size_, std::memory_order_relaxed );
      h->heartbeat.store( old->heartbeat.load( std::memory_order_relaxed ), std::memory_order_relaxed );
      h->clockBits.store( old->clockBits.load( std::memory_order_relaxed ), std::memory_order_relaxed );
      publish( h );
      if( std::rename( ( std::string( "/dev/shm" ) + tmp ).c_str(),
                       ( std::string( "/dev/shm" ) + objName_ ).c_str() ) != 0 ) {
         munmap( p, length );
         shm_unlink( tmp.c_str() );
         return false;
      }
      old->retired.store( 1, std::memory_order_release );
      munmap( base_, length_ );
      base_ = p;
      length_ = length;
      ino_ = st.st_ino;
      slots_ = slots;
      rebuildIndex();
      return true;
   }

   void fillHeader( Header * h, std::size_t slots, std::uint64_t generation ) const {
      h->version = kLayoutVersion;
      h->headerSize = sizeof( Header );
      h->rowSize = static_cast< std::uint32_t >( rowSize() );
      h->keySize = static_cast< std::uint32_t >( keySize() );
      h->slotSize = static_cast< std::uint32_t >( slot_ );
      h->writerPid = getpid();
      h->capacity = slots;
      h->generation = generation;
   }

   // Readers check the magic last.
   static void publish( Header * h ) {
      std::atomic_thread_fence( std::memory_order_release );
      reinterpret_cast< std::atomic< std::uint64_t > * >( &h->magic )
         ->store( kMagic, std::memory_order_release );
   }

   Header * header() const { return static_cast< Header * >( base_ ); }
   SlotHeader * slotHeader( std::uint32_t s ) const {
      return reinterpret_cast< SlotHeader * >( static_cast< unsigned char * >( base_ ) +
                                               sizeof( Header ) + slot_ * s );
   }
   unsigned char * rowData( std::uint32_t s ) const {
      return reinterpret_cast< unsigned char * >( slotHeader( s ) ) + sizeof( SlotHeader );
   }

   // The bucket holding key, or the empty bucket where it would go.
   std::size_t bucket( const unsigned char * key ) const {
      const std::size_t mask = index_.size() - 1;
      std::size_t b = hashBytes( key, keySize() ) & mask;
      while( index_[ b ] != kEmpty && std::memcmp( rowData( index_[ b ] ), key, keySize() ) != 0 ) {
         b = ( b + 1 ) & mask;
      }
      return b;
   }

   // Linear probing without tombstones: later entries of the run move up.
   void eraseBucket( std::size_t b ) {
      const std::size_t mask = index_.size() - 1;
      index_[ b ] = kEmpty;
      for( std::size_t j = ( b + 1 ) & mask; index_[ j ] != kEmpty; j = ( j + 1 ) & mask ) {
         const std::size_t home = hashBytes( rowData( index_[ j ] ), keySize() ) & mask;
         // Move j to the hole when its home is not within (b, j].
         const bool between = b <= j ? ( home > b && home <= j ) : ( home > b || home <= j );
         if( !between ) {
            index_[ b ] = index_[ j ];
            index_[ j ] = kEmpty;
            b = j;
         }
      }
   }

   void writeSlot( std::uint32_t s, const unsigned char * bytes, bool present ) {
      SlotHeader * h = slotHeader( s );
#ifndef KIVVARN_SHM_UNLOCKED
      const std::uint64_t seq = h->seq.load( std::memory_order_relaxed );
      h->seq.store( seq + 1, std::memory_order_relaxed );
      std::atomic_thread_fence( std::memory_order_release );
#endif
      h->present = present ? 1 : 0;
      if( bytes ) std::memcpy( rowData( s ), bytes, rowSize() );
#ifndef KIVVARN_SHM_UNLOCKED
      h->seq.store( seq + 2, std::memory_order_release );
#endif
   }

   void create() {
      length_ = objectLength( rowSize(), slots_ );
      std::uint64_t generation = 1;
      int fd = shm_open( objName_.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644 );
      if( fd < 0 && errno == EEXIST ) {
         generation = replaceOld();
         fd = shm_open( objName_.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644 );
      }
      if( fd < 0 ) {
         throw Kiv::RangeException( "KivVarn::Shm cannot create " + objName_ + ": " +
                                    std::strerror( errno ) );
      }
      struct stat st;
      if( ftruncate( fd, static_cast< off_t >( length_ ) ) != 0 || fstat( fd, &st ) != 0 ) {
         const int e = errno;
         close( fd );
         shm_unlink( objName_.c_str() );
         throw Kiv::RangeException( "KivVarn::Shm cannot size " + objName_ + ": " + std::strerror( e ) );
      }
      ino_ = st.st_ino;
      base_ = mmap( nullptr, length_, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0 );
      close( fd );
      if( base_ == MAP_FAILED ) {
         shm_unlink( objName_.c_str() );
         throw Kiv::RangeException( "KivVarn::Shm cannot map " + objName_ );
      }
      // A fresh object reads as zeros: every slot empty, every counter even.
      fillHeader( header(), slots_, generation );
      publish( header() );
   }

   // An object is at our name already: a live writer elsewhere owns it, or it
   // was left behind by a writer that is gone (or by this process). Retires
   // and removes it; returns the generation the new object takes.
   std::uint64_t replaceOld() {
      std::uint64_t generation = 1;
      const int fd = shm_open( objName_.c_str(), O_RDWR, 0 );
      if( fd >= 0 ) {
         struct stat st;
         if( fstat( fd, &st ) == 0 && static_cast< std::size_t >( st.st_size ) >= sizeof( Header ) ) {
            void * p = mmap( nullptr, sizeof( Header ), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0 );
            if( p != MAP_FAILED ) {
               auto * old = static_cast< Header * >( p );
               const int pid = old->writerPid;
               if( pid != getpid() && processAlive( pid ) ) {
                  munmap( p, sizeof( Header ) );
                  close( fd );
                  throw Kiv::RangeException( "KivVarn::Shm " + name() + " is written by live pid " +
                                             std::to_string( pid ) );
               }
               generation = old->generation + 1;
               old->retired.store( 1, std::memory_order_release );
               munmap( p, sizeof( Header ) );
            }
         }
         close( fd );
      }
      shm_unlink( objName_.c_str() );
      return generation;
   }

   ShmTableStore * store_;
   std::string objName_;
   std::size_t slot_;
   std::size_t length_ = 0;
   void * base_ = nullptr;
   ino_t ino_ = 0;
   std::vector< std::uint32_t > index_;
   std::vector< std::uint32_t > free_;
   std::size_t next_ = 0;
   std::size_t size_ = 0;
   // Slots of the object mapped now; grows up to capacity().
   std::size_t slots_ = 0;
   std::uint64_t growths_ = 0;
};

ShmTableStore::ShmTableStore( std::string stateDir ) : stateDir_( std::move( stateDir ) ) {}

ShmTableStore::~ShmTableStore() {
   for( ShmRowTable * t : tables_ ) t->detach();
}

std::unique_ptr< RowTable > ShmTableStore::tableIs( const std::string & name, std::size_t rowSize,
                                                    std::size_t keySize, std::size_t capacity ) {
   return std::make_unique< ShmRowTable >( *this, name, rowSize, keySize, capacity );
}

void ShmTableStore::heartbeat( std::optional< double > clockNow ) {
   for( ShmRowTable * t : tables_ ) t->heartbeat( clockNow );
}

// ---- reader ---------------------------------------------------------------------------
std::unique_ptr< TableReader > TableReader::open( const std::string & stateDir,
                                                  const std::string & path, std::string * err ) {
   std::unique_ptr< TableReader > r( new TableReader );
   r->stateDir_ = stateDir;
   r->path_ = path;
   if( !r->map( err ) ) return nullptr;
   return r;
}

TableReader::~TableReader() { unmap(); }

void TableReader::unmap() {
   if( base_ ) munmap( base_, length_ );
   base_ = nullptr;
   header_ = nullptr;
}

bool TableReader::map( std::string * err ) {
   auto fail = [ & ]( const std::string & why ) {
      if( err ) *err = path_ + ": " + why;
      return false;
   };
   const std::string name = objectName( stateDir_, path_ );
   const int fd = shm_open( name.c_str(), O_RDONLY, 0 );
   if( fd < 0 ) return fail( errno == ENOENT ? "no such table" : std::strerror( errno ) );
   struct stat st;
   if( fstat( fd, &st ) != 0 || static_cast< std::size_t >( st.st_size ) < sizeof( Header ) ) {
      close( fd );
      return fail( "not a table (too short)" );
   }
   void * p = mmap( nullptr, st.st_size, PROT_READ, MAP_SHARED, fd, 0 );
   close( fd );
   if( p == MAP_FAILED ) return fail( std::strerror( errno ) );
   const auto * h = static_cast< const Header * >( p );
   const std::uint64_t magic =
      reinterpret_cast< const std::atomic< std::uint64_t > * >( &h->magic )->load( std::memory_order_acquire );
   std::string why;
   if( magic != kMagic ) {
      why = "not a table (bad magic)";
   } else if( h->version != kLayoutVersion || h->headerSize != sizeof( Header ) ) {
      why = "layout version " + std::to_string( h->version ) + ", expected " +
            std::to_string( kLayoutVersion );
   } else if( h->rowSize == 0 || h->slotSize != slotSize( h->rowSize ) ||
              h->capacity > ( static_cast< std::size_t >( st.st_size ) - sizeof( Header ) ) / h->slotSize ) {
      why = "not a table (sizes disagree)";
   }
   if( !why.empty() ) {
      munmap( p, st.st_size );
      return fail( why );
   }
   base_ = p;
   length_ = st.st_size;
   header_ = h;
   rowSize_ = h->rowSize;
   slotSize_ = h->slotSize;
   capacity_ = h->capacity;
   return true;
}

bool TableReader::reopen( std::string * err ) {
   unmap();
   return map( err );
}

std::optional< double > TableReader::writerClock() const {
   const std::uint64_t bits = header_->clockBits.load( std::memory_order_relaxed );
   if( !bits ) return std::nullopt;
   double d;
   std::memcpy( &d, &bits, sizeof d );
   return d;
}

bool TableReader::readSlot( std::size_t i, void * out, bool * busy ) const {
   const auto * base = static_cast< const unsigned char * >( base_ ) + sizeof( Header ) + slotSize_ * i;
   const auto * h = reinterpret_cast< const SlotHeader * >( base );
   const unsigned char * data = base + sizeof( SlotHeader );
   for( int tries = 0; tries < kBusyTries; ++tries ) {
      const std::uint64_t s1 = h->seq.load( std::memory_order_acquire );
      if( s1 & 1 ) continue;
      const std::uint64_t present = h->present;
      std::memcpy( out, data, rowSize_ );
      std::atomic_thread_fence( std::memory_order_acquire );
      if( h->seq.load( std::memory_order_relaxed ) != s1 ) continue;
      if( busy ) *busy = false;
      return present != 0;
   }
   if( busy ) *busy = true;
   return false;
}

void TableReader::forEach( const std::function< void( const void * row ) > & f ) {
   busy_ = 0;
   // The writer grew or replaced the table since we mapped it.
   if( header_ && retired() ) reopen();
   if( !header_ ) return;
   std::vector< unsigned char > buf( rowSize_ );
   const std::size_t n = std::min< std::size_t >( highWater(), capacity_ );
   for( std::size_t i = 0; i < n; ++i ) {
      bool busy = false;
      if( readSlot( i, buf.data(), &busy ) ) f( buf.data() );
      if( busy ) ++busy_;
   }
}

} // namespace KivVarn::Shm

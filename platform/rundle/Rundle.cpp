#include "rundle/Rundle.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>

#include "kiv/Clock.h"
#include "rundle/RundleFormat.h"

namespace Rundle {

namespace detail {
bool active = false;
}

namespace {

struct Ring {
   std::uint64_t offset = 0;
   std::uint64_t capacity = 0;
   std::uint64_t pos = 0;    // next write offset inside the ring
   std::uint64_t head = 0;   // bytes ever written
   std::uint64_t records = 0;
   std::uint64_t dropped = 0;
};

struct State {
   std::mutex mutex;
   bool multiThreaded = false;
   bool truncate = true;
   int maxLocation = 0;
   int maxText = 512;
   std::string path;
   int fd = -1;
   std::uint8_t * image = nullptr;
   std::size_t size = 0;
   std::vector< std::uint8_t > memory;  // the in-memory image
   std::vector< Ring > rings;
   std::uint64_t seq = 0;
   Stats stats;
};

State & state() {
   static State * s = new State;  // records may come during exit
   return *s;
}

template < typename T >
void put( std::uint8_t * at, const T & v ) {
   std::memcpy( at, &v, sizeof v );
}

void writeDescriptor( State & s, std::size_t i ) {
   const Ring & r = s.rings[ i ];
   Format::RingDesc d{ r.offset, r.capacity, r.head, r.records, r.dropped };
   put( s.image + sizeof( Format::FileHeader ) + i * sizeof( Format::RingDesc ), d );
}

void rotate( const std::string & path, int keep ) {
   if( keep <= 0 ) return;
   for( int i = keep - 1; i >= 1; --i ) {
      const std::string from = path + "." + std::to_string( i );
      const std::string to = path + "." + std::to_string( i + 1 );
      std::rename( from.c_str(), to.c_str() );
   }
   std::rename( path.c_str(), ( path + ".1" ).c_str() );
}

void recordLocked( State & s, int level, const char * file, int line, const char * function,
                   const char * text, std::size_t textLen, bool truncated ) {
   if( textLen > static_cast< std::size_t >( s.maxText ) ) {
      if( !s.truncate ) {
         ++s.stats.dropped;
         return;
      }
      textLen = static_cast< std::size_t >( s.maxText );
      truncated = true;
   }
   if( truncated && !s.truncate ) {
      ++s.stats.dropped;
      return;
   }
   const std::size_t maxLoc = static_cast< std::size_t >( s.maxLocation );
   std::size_t fileLen = file ? std::strlen( file ) : 0;
   if( fileLen > maxLoc ) {
      file += fileLen - maxLoc;  // the tail names the file
      fileLen = maxLoc;
   }
   std::size_t funcLen = function ? std::strlen( function ) : 0;
   funcLen = std::min( funcLen, maxLoc );

   const std::size_t ringIndex =
         static_cast< std::size_t >( std::clamp( level, 0, static_cast< int >( s.rings.size() ) - 1 ) );
   Ring & ring = s.rings[ ringIndex ];
   const std::size_t len = sizeof( Format::RecordHeader ) + fileLen + funcLen + textLen;
   const std::size_t padded = Format::align( len );
   if( padded > ring.capacity ) {
      ++ring.dropped;
      ++s.stats.dropped;
      writeDescriptor( s, ringIndex );
      return;
   }
   std::uint8_t * base = s.image + ring.offset;
   if( ring.pos + padded > ring.capacity ) {
      // Records never straddle the end; the stale tail is cleared so the
      // ring holds one contiguous window of the newest records.
      std::memset( base + ring.pos, 0, ring.capacity - ring.pos );
      ring.head += ring.capacity - ring.pos;
      ring.pos = 0;
   }
   std::uint8_t * at = base + ring.pos;
   // Invalidate first so a concurrent reader never pairs the old magic with
   // half-written contents; the CRC catches the rest.
   put( at, std::uint32_t{ 0 } );
   std::atomic_thread_fence( std::memory_order_release );

   Format::RecordHeader h{};
   h.magic = 0;
   h.length = static_cast< std::uint32_t >( len );
   h.crc = 0;
   h.line = static_cast< std::int32_t >( line );
   h.seq = ++s.seq;
   h.time = Kiv::System::currentTime();
   h.fileLen = static_cast< std::uint16_t >( fileLen );
   h.funcLen = static_cast< std::uint16_t >( funcLen );
   h.textLen = static_cast< std::uint16_t >( textLen );
   h.level = static_cast< std::int8_t >( std::clamp( level, -128, 127 ) );
   h.flags = truncated ? Format::kFlagTruncated : 0;
   std::uint8_t * p = at + sizeof h;
   if( fileLen ) std::memcpy( p, file, fileLen );
   p += fileLen;
   if( funcLen ) std::memcpy( p, function, funcLen );
   p += funcLen;
   if( textLen ) std::memcpy( p, text, textLen );
   std::memset( at + len, 0, padded - len );
   h.crc = Format::recordCrc( h, at + sizeof h );
   put( at, h );  // magic still 0
   std::atomic_thread_fence( std::memory_order_release );
   put( at, Format::kRecordMagic );

   ring.pos += padded;
   ring.head += padded;
   ++ring.records;
   ++s.stats.written;
   if( truncated ) ++s.stats.truncated;
   writeDescriptor( s, ringIndex );
}

} // namespace

bool initialize( const std::string & fileName, const std::vector< int > & sizes, const char * dir,
                 int keepPrevious, int maxLocationBytes, bool multiThreaded, bool truncate,
                 int maxRecordBytes ) {
   shutdown();
   if( std::getenv( "RUNDLE_DISABLE" ) ) return false;
   if( sizes.empty() || sizes.size() > Format::kMaxRings ) return false;
   State & s = state();
   std::lock_guard lock( s.mutex );
   s.multiThreaded = multiThreaded;
   s.truncate = truncate;
   s.maxLocation = std::clamp( maxLocationBytes, 0, 1024 );
   s.maxText = std::clamp( maxRecordBytes, 16, kMaxRecordText );
   s.stats = {};
   s.seq = 0;

   const std::size_t headerBytes =
         sizeof( Format::FileHeader ) + sizes.size() * sizeof( Format::RingDesc );
   std::size_t total = Format::align( headerBytes );
   s.rings.assign( sizes.size(), Ring{} );
   for( std::size_t i = 0; i < sizes.size(); ++i ) {
      const std::uint64_t kib = static_cast< std::uint64_t >( std::clamp( sizes[ i ], 0, 1 << 20 ) );
      s.rings[ i ].offset = total;
      s.rings[ i ].capacity = kib * 1024;
      total += kib * 1024;
   }

   if( fileName.empty() ) {
      s.memory.assign( total, 0 );
      s.image = s.memory.data();
   } else {
      std::string d = dir ? dir : "";
      if( d.empty() ) {
         const char * env = std::getenv( "RUNDLEDIR" );
         d = env && *env ? env : "/tmp";
      }
      s.path = d + "/" + fileName;
      rotate( s.path, keepPrevious );
      s.fd = ::open( s.path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644 );
      void * m = MAP_FAILED;
      if( s.fd >= 0 && ::ftruncate( s.fd, static_cast< off_t >( total ) ) == 0 ) {
         m = ::mmap( nullptr, total, PROT_READ | PROT_WRITE, MAP_SHARED, s.fd, 0 );
      }
      if( m == MAP_FAILED ) {
         std::fprintf( stderr, "rundle: cannot map %s: %s\n", s.path.c_str(), std::strerror( errno ) );
         if( s.fd >= 0 ) ::close( s.fd );
         s.fd = -1;
         s.path.clear();
         s.rings.clear();
         return false;
      }
      s.image = static_cast< std::uint8_t * >( m );
   }
   s.size = total;

   Format::FileHeader fh{};
   std::memcpy( fh.magic, Format::kFileMagic, sizeof fh.magic );
   fh.version = Format::kVersion;
   fh.headerBytes = static_cast< std::uint32_t >( headerBytes );
   fh.ringCount = static_cast< std::uint32_t >( sizes.size() );
   fh.maxRecordBytes = static_cast< std::uint32_t >( s.maxText );
   fh.fileBytes = total;
   fh.pid = static_cast< std::uint32_t >( ::getpid() );
   put( s.image, fh );
   for( std::size_t i = 0; i < s.rings.size(); ++i ) writeDescriptor( s, i );
   detail::active = true;
   return true;
}

void shutdown() {
   State & s = state();
   std::lock_guard lock( s.mutex );
   detail::active = false;
   if( s.fd >= 0 ) {
      ::munmap( s.image, s.size );
      ::close( s.fd );
   }
   s.fd = -1;
   s.image = nullptr;
   s.size = 0;
   s.memory.clear();
   s.memory.shrink_to_fit();
   s.rings.clear();
   s.path.clear();
}

std::string path() {
   State & s = state();
   std::lock_guard lock( s.mutex );
   return s.path;
}

void record( int level, const char * file, int line, const char * function, const char * text,
             std::size_t textLen, bool truncated ) {
   if( !detail::active ) return;
   State & s = state();
   if( s.multiThreaded ) {
      std::lock_guard lock( s.mutex );
      if( s.image ) recordLocked( s, level, file, line, function, text, textLen, truncated );
   } else if( s.image ) {
      recordLocked( s, level, file, line, function, text, textLen, truncated );
   }
}

ReadResult records() {
   State & s = state();
   if( !s.image ) {
      ReadResult r;
      r.error = "rundle not initialized";
      return r;
   }
   return parseImage( s.image, s.size );
}

std::uint8_t * imageData() { return state().image; }
std::size_t imageSize() { return state().size; }

Stats stats() { return state().stats; }

ReadResult readFile( const std::string & path ) {
   std::ifstream in( path, std::ios::binary );
   if( !in ) {
      ReadResult r;
      r.error = "cannot open " + path;
      return r;
   }
   // A copy, not a mapping: the writer may keep writing while we parse.
   std::vector< std::uint8_t > bytes( ( std::istreambuf_iterator< char >( in ) ),
                                      std::istreambuf_iterator< char >() );
   return parseImage( bytes.data(), bytes.size() );
}

// ---- Recorder ----------------------------------------------------------------------
namespace {
// Pointed at the record being formatted; no buffer while none is.
thread_local std::ostream threadStream{ nullptr };
} // namespace

Recorder::Recorder( int level, const char * file, int line, const char * function )
      : level_( level ), file_( file ), line_( line ), function_( function ) {
   // Text beyond the limit reaches overflow(), which marks the record truncated.
   setp( buf_, buf_ + std::min( state().maxText, kMaxRecordText ) );
   std::ostream & s = threadStream;
   if( s.rdbuf() ) {
      own_.emplace( static_cast< std::streambuf * >( this ) );
      stream_ = &*own_;
      return;
   }
   s.rdbuf( this );   // clears the state too
   // What the previous record set (std::hex, a width...) must not leak.
   s.flags( std::ios_base::skipws | std::ios_base::dec );
   s.width( 0 );
   s.precision( 6 );
   s.fill( s.widen( ' ' ) );
   stream_ = &s;
}

Recorder::~Recorder() {
   record( level_, file_, line_, function_, buf_, static_cast< std::size_t >( pptr() - pbase() ),
           truncated_ );
   if( !own_ ) threadStream.rdbuf( nullptr );
}

Recorder::int_type Recorder::overflow( int_type ch ) {
   if( !traits_type::eq_int_type( ch, traits_type::eof() ) ) truncated_ = true;
   return traits_type::eof();
}

} // namespace Rundle

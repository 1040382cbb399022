// Reading a rundle image. Nothing in the image is trusted: every offset and
// length is checked against the image before use.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "rundle/Rundle.h"
#include "rundle/RundleFormat.h"

namespace Rundle {

namespace Format {

namespace {
// Slicing by eight: table k maps a byte to its CRC contribution k bytes
// further on, so eight input bytes cost eight independent lookups instead of
// a chain of eight. The writer computes one CRC per record, on the agent's
// thread; bytewise, that was the largest single cost of tracing a neighbour.
using CrcTables = std::array< std::array< std::uint32_t, 256 >, 8 >;
constexpr CrcTables makeCrcTables() {
   CrcTables t{};
   for( std::uint32_t i = 0; i < 256; ++i ) {
      std::uint32_t c = i;
      for( int k = 0; k < 8; ++k ) c = ( c & 1 ) ? 0xEDB88320u ^ ( c >> 1 ) : c >> 1;
      t[ 0 ][ i ] = c;
   }
   for( std::size_t k = 1; k < 8; ++k ) {
      for( std::size_t i = 0; i < 256; ++i ) {
         t[ k ][ i ] = ( t[ k - 1 ][ i ] >> 8 ) ^ t[ 0 ][ t[ k - 1 ][ i ] & 0xff ];
      }
   }
   return t;
}
constexpr CrcTables kCrcTables = makeCrcTables();
} // namespace

std::uint32_t crc32( std::uint32_t crc, const void * data, std::size_t len ) {
   const auto * p = static_cast< const std::uint8_t * >( data );
   const auto & t = kCrcTables;
   crc = ~crc;
   for( ; len >= 8; p += 8, len -= 8 ) {
      // Bytes assembled one by one: the same on any byte order.
      const std::uint32_t lo = crc ^ ( std::uint32_t( p[ 0 ] ) | std::uint32_t( p[ 1 ] ) << 8 |
                                       std::uint32_t( p[ 2 ] ) << 16 | std::uint32_t( p[ 3 ] ) << 24 );
      crc = t[ 7 ][ lo & 0xff ] ^ t[ 6 ][ ( lo >> 8 ) & 0xff ] ^ t[ 5 ][ ( lo >> 16 ) & 0xff ] ^
            t[ 4 ][ lo >> 24 ] ^ t[ 3 ][ p[ 4 ] ] ^ t[ 2 ][ p[ 5 ] ] ^ t[ 1 ][ p[ 6 ] ] ^ t[ 0 ][ p[ 7 ] ];
   }
   for( ; len; ++p, --len ) crc = t[ 0 ][ ( crc ^ *p ) & 0xff ] ^ ( crc >> 8 );
   return ~crc;
}

std::uint32_t recordCrc( const RecordHeader & h, const std::uint8_t * payload ) {
   RecordHeader copy = h;
   copy.magic = 0;
   copy.crc = 0;
   const std::uint32_t c = crc32( 0, &copy, sizeof copy );
   return crc32( c, payload, std::size_t{ h.fileLen } + h.funcLen + h.textLen );
}

} // namespace Format

namespace {

// Scans one ring for records; returns how many magics failed validation.
std::size_t scanRing( const std::uint8_t * ring, std::size_t capacity, int index,
                      std::vector< Record > & out ) {
   std::size_t damaged = 0;
   std::size_t off = 0;
   while( off + sizeof( Format::RecordHeader ) <= capacity ) {
      std::uint32_t magic;
      std::memcpy( &magic, ring + off, sizeof magic );
      if( magic != Format::kRecordMagic ) {
         off += 8;
         continue;
      }
      Format::RecordHeader h;
      std::memcpy( &h, ring + off, sizeof h );
      const std::size_t payload = std::size_t{ h.fileLen } + h.funcLen + h.textLen;
      const bool fits = h.length == sizeof h + payload && h.length <= capacity - off;
      if( !fits || !std::isfinite( h.time ) ||
          Format::recordCrc( h, ring + off + sizeof h ) != h.crc ) {
         ++damaged;
         off += 8;
         continue;
      }
      const char * p = reinterpret_cast< const char * >( ring + off + sizeof h );
      Record r;
      r.time = h.time;
      r.seq = h.seq;
      r.ring = index;
      r.level = h.level;
      r.line = h.line;
      r.truncated = ( h.flags & Format::kFlagTruncated ) != 0;
      r.file.assign( p, h.fileLen );
      r.function.assign( p + h.fileLen, h.funcLen );
      r.text.assign( p + h.fileLen + h.funcLen, h.textLen );
      out.push_back( std::move( r ) );
      off += Format::align( h.length );
   }
   return damaged;
}

} // namespace

ReadResult parseImage( const void * data, std::size_t size ) {
   ReadResult result;
   const auto * image = static_cast< const std::uint8_t * >( data );
   Format::FileHeader fh;
   if( !image || size < sizeof fh ) {
      result.error = "too short for a rundle file";
      return result;
   }
   std::memcpy( &fh, image, sizeof fh );
   if( std::memcmp( fh.magic, Format::kFileMagic, sizeof fh.magic ) != 0 ) {
      result.error = "not a rundle file";
      return result;
   }
   if( fh.version != Format::kVersion ) {
      result.error = "unsupported rundle version " + std::to_string( fh.version );
      return result;
   }
   if( fh.ringCount == 0 || fh.ringCount > Format::kMaxRings ||
       fh.headerBytes != sizeof fh + fh.ringCount * sizeof( Format::RingDesc ) ||
       fh.headerBytes > size ) {
      result.error = "damaged rundle header";
      return result;
   }
   result.ok = true;
   for( std::uint32_t i = 0; i < fh.ringCount; ++i ) {
      Format::RingDesc d;
      std::memcpy( &d, image + sizeof fh + i * sizeof d, sizeof d );
      const bool sane = d.offset >= fh.headerBytes && d.offset % 8 == 0 && d.offset <= size &&
                        d.capacity <= size - d.offset;
      if( !sane ) {
         result.error = "ring " + std::to_string( i ) + " descriptor damaged";
         continue;
      }
      result.damaged += scanRing( image + d.offset, static_cast< std::size_t >( d.capacity ),
                                  static_cast< int >( i ), result.records );
   }
   std::sort( result.records.begin(), result.records.end(), []( const Record & a, const Record & b ) {
      if( a.time != b.time ) return a.time < b.time;
      return a.seq < b.seq;
   } );
   return result;
}

} // namespace Rundle

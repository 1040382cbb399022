#include "PcapIo.h"

#include <cstring>
#include <fstream>
#include <iterator>

namespace PimWireTest {

namespace {

std::uint32_t rd32( const std::uint8_t * p ) {
   std::uint32_t v;
   std::memcpy( &v, p, 4 );
   return v;
}

std::uint16_t be16( const std::uint8_t * p ) { return std::uint16_t( ( p[ 0 ] << 8 ) | p[ 1 ] ); }

} // namespace

// pcapng in the host's byte order: enhanced packet blocks are the frames,
// other blocks are skipped.
std::optional< std::vector< Bytes > > readCaptureFrames( const std::string & path ) {
   std::ifstream in( path, std::ios::binary );
   const Bytes f( ( std::istreambuf_iterator< char >( in ) ), std::istreambuf_iterator< char >() );
   if ( f.size() < 12 || rd32( f.data() ) != 0x0a0d0d0a || rd32( f.data() + 8 ) != 0x1a2b3c4d ) return std::nullopt;
   std::vector< Bytes > frames;
   for ( std::size_t pos = 0; pos + 12 <= f.size(); ) {
      const std::uint32_t blockLen = rd32( f.data() + pos + 4 );
      if ( blockLen < 12 || blockLen > f.size() - pos ) return std::nullopt;
      const std::uint8_t * body = f.data() + pos + 8;
      if ( rd32( f.data() + pos ) == 6 ) {
         if ( blockLen < 32 || rd32( body + 12 ) > blockLen - 32 ) return std::nullopt;
         frames.emplace_back( body + 20, body + 20 + rd32( body + 12 ) );
      }
      pos += blockLen;
   }
   return frames;
}

std::optional< PimPacket > pimFromFrame( const Bytes & frame ) {
   if ( frame.size() < 34 || be16( frame.data() + 12 ) != 0x0800 ) return std::nullopt;
   const std::uint8_t * ip = frame.data() + 14;
   const std::size_t avail = frame.size() - 14, ihl = std::size_t( ip[ 0 ] & 0xf ) * 4, total = be16( ip + 2 );
   if ( ( ip[ 0 ] >> 4 ) != 4 || ip[ 9 ] != PimWire::kIpProtoPim || ihl < 20 || total < ihl || total > avail ) {
      return std::nullopt;
   }
   PimPacket p;
   p.family = PimWire::Family::ipv4;
   p.src = PimWire::Addr::fromBytes( PimWire::Family::ipv4, ip + 12 );
   p.dst = PimWire::Addr::fromBytes( PimWire::Family::ipv4, ip + 16 );
   p.payload.assign( ip + ihl, ip + total );
   return p;
}

} // namespace PimWireTest

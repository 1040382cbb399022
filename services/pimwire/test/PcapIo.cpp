#include "PcapIo.h"

#include <cstring>
#include <fstream>
#include <iterator>

namespace PimWireTest {

using PimWire::Addr;
using PimWire::Family;

namespace {

std::uint32_t rd32( const std::uint8_t * p, bool swap ) {
   std::uint32_t v;
   std::memcpy( &v, p, 4 );
   return swap ? __builtin_bswap32( v ) : v;
}

std::uint16_t rd16( const std::uint8_t * p, bool swap ) {
   std::uint16_t v;
   std::memcpy( &v, p, 2 );
   return swap ? __builtin_bswap16( v ) : v;
}

std::uint16_t be16( const std::uint8_t * p ) { return std::uint16_t( ( p[ 0 ] << 8 ) | p[ 1 ] ); }

} // namespace

// pcapng of section headers, interface descriptions (Ethernet only) and
// enhanced packet blocks; other blocks are skipped.
std::optional< std::vector< Bytes > > readCaptureFrames( const std::string & path ) {
   std::ifstream in( path, std::ios::binary );
   const Bytes f( ( std::istreambuf_iterator< char >( in ) ), std::istreambuf_iterator< char >() );
   if ( f.size() < 12 || rd32( f.data(), false ) != 0x0a0d0d0a ) return std::nullopt;
   std::vector< Bytes > frames;
   bool swap = false;
   for ( std::size_t pos = 0; pos + 12 <= f.size(); ) {
      std::uint32_t type = rd32( f.data() + pos, false );
      if ( type == 0x0a0d0d0a ) {
         swap = rd32( f.data() + pos + 8, false ) != 0x1a2b3c4d;
      } else {
         type = rd32( f.data() + pos, swap );
      }
      const std::uint32_t blockLen = rd32( f.data() + pos + 4, swap );
      if ( blockLen < 12 || blockLen > f.size() - pos ) return std::nullopt;
      const std::uint8_t * body = f.data() + pos + 8;
      const std::size_t bodyLen = blockLen - 12;
      if ( type == 1 && ( bodyLen < 2 || rd16( body, swap ) != 1 ) ) return std::nullopt; // not Ethernet
      if ( type == 6 ) {
         if ( bodyLen < 20 || rd32( body + 12, swap ) > bodyLen - 20 ) return std::nullopt;
         frames.emplace_back( body + 20, body + 20 + rd32( body + 12, swap ) );
      }
      pos += blockLen;
   }
   return frames;
}

std::optional< PimPacket > pimFromFrame( const Bytes & frame ) {
   std::size_t pos = 12;
   if ( frame.size() < pos + 2 ) return std::nullopt;
   std::uint16_t etherType = be16( frame.data() + pos );
   while ( etherType == 0x8100 && frame.size() >= pos + 6 ) { // VLAN tags
      pos += 4;
      etherType = be16( frame.data() + pos );
   }
   pos += 2;
   const std::uint8_t * ip = frame.data() + pos;
   const std::size_t avail = frame.size() - pos;
   PimPacket p;
   if ( etherType == 0x0800 ) {
      if ( avail < 20 || ( ip[ 0 ] >> 4 ) != 4 || ip[ 9 ] != PimWire::kIpProtoPim ) return std::nullopt;
      const std::size_t ihl = std::size_t( ip[ 0 ] & 0xf ) * 4, total = be16( ip + 2 );
      if ( ihl < 20 || total < ihl || total > avail ) return std::nullopt;
      p.family = Family::ipv4;
      p.src = Addr::fromBytes( Family::ipv4, ip + 12 );
      p.dst = Addr::fromBytes( Family::ipv4, ip + 16 );
      p.payload.assign( ip + ihl, ip + total );
      return p;
   }
   if ( etherType != 0x86dd || avail < 40 || ( ip[ 0 ] >> 4 ) != 6 || ip[ 6 ] != PimWire::kIpProtoPim ||
        be16( ip + 4 ) > avail - 40 ) {
      return std::nullopt;
   }
   p.family = Family::ipv6;
   p.src = Addr::fromBytes( Family::ipv6, ip + 8 );
   p.dst = Addr::fromBytes( Family::ipv6, ip + 24 );
   p.payload.assign( ip + 40, ip + 40 + be16( ip + 4 ) );
   return p;
}

} // namespace PimWireTest

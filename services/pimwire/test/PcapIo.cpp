#include "PcapIo.h"

#include <algorithm>
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

std::uint16_t be16( const std::uint8_t * p ) { return std::uint16_t( ( p[ 0 ] << 8 ) | p[ 1 ] ); }

std::optional< std::vector< Bytes > > readClassic( const Bytes & f ) {
   if ( f.size() < 24 ) {
      return std::nullopt;
   }
   std::uint32_t magic;
   std::memcpy( &magic, f.data(), 4 );
   bool swap = magic == 0xd4c3b2a1 || magic == 0x4d3cb2a1;
   if ( rd32( f.data() + 20, swap ) != 1 ) { // Ethernet only
      return std::nullopt;
   }
   std::vector< Bytes > frames;
   std::size_t pos = 24;
   while ( pos + 16 <= f.size() ) {
      std::uint32_t caplen = rd32( f.data() + pos + 8, swap );
      pos += 16;
      if ( caplen > f.size() - pos ) {
         return std::nullopt;
      }
      frames.emplace_back( f.begin() + long( pos ), f.begin() + long( pos + caplen ) );
      pos += caplen;
   }
   return frames;
}

// pcapng: section header, interface descriptions and enhanced/simple packet
// blocks; every interface must be Ethernet.
std::optional< std::vector< Bytes > > readNg( const Bytes & f ) {
   std::vector< Bytes > frames;
   bool swap = false;
   std::size_t pos = 0;
   while ( pos + 12 <= f.size() ) {
      std::uint32_t type;
      std::memcpy( &type, f.data() + pos, 4 );
      if ( type == 0x0a0d0d0a ) {
         std::uint32_t bom;
         std::memcpy( &bom, f.data() + pos + 8, 4 );
         swap = bom != 0x1a2b3c4d;
      } else {
         type = rd32( f.data() + pos, swap );
      }
      std::uint32_t blockLen = rd32( f.data() + pos + 4, swap );
      if ( blockLen < 12 || blockLen > f.size() - pos ) {
         return std::nullopt;
      }
      const std::uint8_t * body = f.data() + pos + 8;
      std::size_t bodyLen = blockLen - 12;
      if ( type == 1 ) { // interface description
         if ( bodyLen < 2 ) {
            return std::nullopt;
         }
         std::uint16_t link;
         std::memcpy( &link, body, 2 );
         if ( ( swap ? __builtin_bswap16( link ) : link ) != 1 ) {
            return std::nullopt;
         }
      } else if ( type == 6 ) { // enhanced packet
         if ( bodyLen < 20 ) {
            return std::nullopt;
         }
         std::uint32_t caplen = rd32( body + 12, swap );
         if ( caplen > bodyLen - 20 ) {
            return std::nullopt;
         }
         frames.emplace_back( body + 20, body + 20 + caplen );
      } else if ( type == 3 ) { // simple packet
         if ( bodyLen < 4 ) {
            return std::nullopt;
         }
         std::uint32_t origLen = rd32( body, swap );
         std::size_t caplen = std::min< std::size_t >( origLen, bodyLen - 4 );
         frames.emplace_back( body + 4, body + 4 + caplen );
      }
      pos += blockLen;
   }
   return frames;
}

} // namespace

std::optional< std::vector< Bytes > > readCaptureFrames( const std::string & path ) {
   std::ifstream in( path, std::ios::binary );
   if ( !in ) {
      return std::nullopt;
   }
   Bytes f( ( std::istreambuf_iterator< char >( in ) ), std::istreambuf_iterator< char >() );
   if ( f.size() < 4 ) {
      return std::nullopt;
   }
   std::uint32_t magic;
   std::memcpy( &magic, f.data(), 4 );
   if ( magic == 0x0a0d0d0a ) {
      return readNg( f );
   }
   if ( magic == 0xa1b2c3d4 || magic == 0xd4c3b2a1 || magic == 0xa1b23c4d || magic == 0x4d3cb2a1 ) {
      return readClassic( f );
   }
   return std::nullopt;
}

std::optional< PimPacket > pimFromFrame( const Bytes & frame ) {
   std::size_t pos = 12;
   if ( frame.size() < pos + 2 ) {
      return std::nullopt;
   }
   std::uint16_t etherType = be16( frame.data() + pos );
   while ( etherType == 0x8100 && frame.size() >= pos + 6 ) { // VLAN tags
      pos += 4;
      etherType = be16( frame.data() + pos );
   }
   pos += 2;
   const std::uint8_t * ip = frame.data() + pos;
   std::size_t avail = frame.size() - pos;
   PimPacket p;
   if ( etherType == 0x0800 ) {
      if ( avail < 20 || ( ip[ 0 ] >> 4 ) != 4 || ip[ 9 ] != PimWire::kIpProtoPim ) {
         return std::nullopt;
      }
      std::size_t ihl = std::size_t( ip[ 0 ] & 0xf ) * 4;
      std::size_t total = be16( ip + 2 );
      if ( ihl < 20 || total < ihl || total > avail ) {
         return std::nullopt;
      }
      p.family = Family::ipv4;
      p.src = Addr::fromBytes( Family::ipv4, ip + 12 );
      p.dst = Addr::fromBytes( Family::ipv4, ip + 16 );
      p.payload.assign( ip + ihl, ip + total );
      return p;
   }
   if ( etherType == 0x86dd ) {
      if ( avail < 40 || ( ip[ 0 ] >> 4 ) != 6 || ip[ 6 ] != PimWire::kIpProtoPim ) {
         return std::nullopt;
      }
      std::size_t plen = be16( ip + 4 );
      if ( plen > avail - 40 ) {
         return std::nullopt;
      }
      p.family = Family::ipv6;
      p.src = Addr::fromBytes( Family::ipv6, ip + 8 );
      p.dst = Addr::fromBytes( Family::ipv6, ip + 24 );
      p.payload.assign( ip + 40, ip + 40 + plen );
      return p;
   }
   return std::nullopt;
}

} // namespace PimWireTest

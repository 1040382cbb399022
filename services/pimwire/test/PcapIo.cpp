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

void putBe16( std::uint8_t * p, std::uint16_t v ) {
   p[ 0 ] = std::uint8_t( v >> 8 );
   p[ 1 ] = std::uint8_t( v );
}

void putLe32( Bytes & out, std::uint32_t v ) {
   for ( int i = 0; i < 4; ++i ) {
      out.push_back( std::uint8_t( v >> ( 8 * i ) ) );
   }
}

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

std::uint16_t ipv4HeaderChecksum( const std::uint8_t * h ) {
   std::uint32_t sum = 0;
   for ( int i = 0; i < 20; i += 2 ) {
      sum += be16( h + i );
   }
   while ( sum >> 16 ) {
      sum = ( sum & 0xffff ) + ( sum >> 16 );
   }
   return std::uint16_t( ~sum );
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

Bytes frameForPim( const PimPacket & p ) {
   Bytes f;
   const bool v6 = p.family == Family::ipv6;
   // Multicast MAC of the destination group, locally administered source.
   if ( v6 ) {
      f = { 0x33, 0x33, p.dst.bytes[ 12 ], p.dst.bytes[ 13 ], p.dst.bytes[ 14 ], p.dst.bytes[ 15 ] };
   } else {
      f = { 0x01, 0x00, 0x5e, std::uint8_t( p.dst.bytes[ 1 ] & 0x7f ), p.dst.bytes[ 2 ],
            p.dst.bytes[ 3 ] };
   }
   f.insert( f.end(), { 0x02, 0x00, 0x00, 0x00, 0x00, 0x01 } );
   f.push_back( v6 ? 0x86 : 0x08 );
   f.push_back( v6 ? 0xdd : 0x00 );
   if ( v6 ) {
      std::uint8_t h[ 40 ] = { 0x60, 0, 0, 0 };
      putBe16( h + 4, std::uint16_t( p.payload.size() ) );
      h[ 6 ] = PimWire::kIpProtoPim;
      h[ 7 ] = 1;
      std::memcpy( h + 8, p.src.bytes.data(), 16 );
      std::memcpy( h + 24, p.dst.bytes.data(), 16 );
      f.insert( f.end(), h, h + 40 );
   } else {
      std::uint8_t h[ 20 ] = { 0x45, 0xc0 };
      putBe16( h + 2, std::uint16_t( 20 + p.payload.size() ) );
      h[ 8 ] = 1;
      h[ 9 ] = PimWire::kIpProtoPim;
      std::memcpy( h + 12, p.src.bytes.data(), 4 );
      std::memcpy( h + 16, p.dst.bytes.data(), 4 );
      putBe16( h + 10, ipv4HeaderChecksum( h ) );
      f.insert( f.end(), h, h + 20 );
   }
   f.insert( f.end(), p.payload.begin(), p.payload.end() );
   return f;
}

bool writePcap( const std::string & path, const std::vector< Bytes > & frames ) {
   Bytes out;
   putLe32( out, 0xa1b2c3d4 );
   out.insert( out.end(), { 2, 0, 4, 0 } ); // version 2.4
   putLe32( out, 0 );
   putLe32( out, 0 );
   putLe32( out, 65535 );
   putLe32( out, 1 ); // Ethernet
   std::uint32_t sec = 1;
   for ( const Bytes & fr : frames ) {
      putLe32( out, sec++ );
      putLe32( out, 0 );
      putLe32( out, std::uint32_t( fr.size() ) );
      putLe32( out, std::uint32_t( fr.size() ) );
      out.insert( out.end(), fr.begin(), fr.end() );
   }
   std::ofstream o( path, std::ios::binary );
   o.write( reinterpret_cast< const char * >( out.data() ), std::streamsize( out.size() ) );
   return bool( o );
}

} // namespace PimWireTest

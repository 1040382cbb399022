// Real Hellos captured from FRRouting pimd 8.4.4 peers. The expected values
// are what tshark 4.0 prints for the same files (`tshark -r <file> -V`).
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <tuple>

#include "services/pimwire/HelloCodec.h"

using namespace PimWire;

namespace {

using Bytes = std::vector< std::uint8_t >;

std::uint32_t rd32( const std::uint8_t * p ) {
   std::uint32_t v;
   std::memcpy( &v, p, 4 );
   return v;
}

std::uint16_t be16( const std::uint8_t * p ) { return std::uint16_t( ( p[ 0 ] << 8 ) | p[ 1 ] ); }

struct PimPacket {
   Addr src;
   Addr dst;
   Bytes payload;   // the PIM message
};

// The IPv4 PIM packets (no IP options) of a pcapng file in the host's byte
// order: enhanced packet blocks are the Ethernet frames, other blocks are
// skipped.
std::vector< PimPacket > pimPackets( const std::string & file ) {
   std::ifstream in( std::string( PIMNBR_SHARED_CAPTURES ) + "/" + file, std::ios::binary );
   const Bytes f( ( std::istreambuf_iterator< char >( in ) ), std::istreambuf_iterator< char >() );
   std::vector< PimPacket > out;
   EXPECT_TRUE( f.size() >= 12 && rd32( f.data() ) == 0x0a0d0d0a && rd32( f.data() + 8 ) == 0x1a2b3c4d ) << file;
   for ( std::size_t pos = 0, blockLen; pos + 12 <= f.size(); pos += blockLen ) {
      blockLen = rd32( f.data() + pos + 4 );
      const bool frame = rd32( f.data() + pos ) == 6;
      const std::uint8_t * body = f.data() + pos + 8;
      if ( blockLen < 12 || blockLen > f.size() - pos || ( frame && ( blockLen < 32 || rd32( body + 12 ) > blockLen - 32 ) ) ) {
         ADD_FAILURE() << "bad block in " << file;
         return out;
      }
      if ( !frame ) continue;
      const std::uint8_t * ip = body + 20 + 14;
      const std::size_t len = rd32( body + 12 );
      const bool pim = len >= 34 && be16( body + 20 + 12 ) == 0x0800 && ip[ 0 ] == 0x45 && ip[ 9 ] == kIpProtoPim;
      const std::size_t total = pim ? be16( ip + 2 ) : 0;
      EXPECT_TRUE( pim && total >= 20 && total <= len - 14 ) << "non-PIM frame in " << file;
      if ( pim && total >= 20 && total <= len - 14 ) {
         out.push_back( { Addr::fromBytes( Family::ipv4, ip + 12 ), Addr::fromBytes( Family::ipv4, ip + 16 ),
                          Bytes( ip + 20, ip + total ) } );
      }
   }
   return out;
}

} // namespace

TEST( FrrCapture, PimHelloPcapDecodesAndDamagedCopiesAreRejected ) {
   const auto packets = pimPackets( "pim-hello.pcap" );
   ASSERT_EQ( packets.size(), 4u );
   const struct {
      const char * src;
      std::uint32_t drPriority;
      const char * linkLocal;   // the IPv6 address FRR lists in its IPv4 Hello
   } routers[] = { { "192.0.2.1", 10, "fe80::94d1:26ff:fe9a:d21b" }, { "192.0.2.2", 1, "fe80::f0b0:e7ff:fe16:447b" } };
   const Family v4 = Family::ipv4;
   for ( std::size_t i = 0; i < packets.size(); ++i ) {
      const PimPacket & p = packets[ i ];
      const auto & want = routers[ i % 2 ];
      SCOPED_TRACE( want.src );
      EXPECT_EQ( std::tuple( p.src, p.dst ), std::tuple( *Addr::parse( want.src ), *Addr::parse( "224.0.0.13" ) ) );
      DecodeResult r = decodeHello( p.payload.data(), p.payload.size(), v4, p.src, p.dst );
      ASSERT_TRUE( r.ok() ) << r.reason;
      // The IPv6 link-local address is not ours to keep: skipped and counted.
      Hello h;
      h.source = p.src;
      h.destination = p.dst;
      h.holdtimePresent = h.drPriorityPresent = h.generationIdPresent = true;
      h.holdtime = 105;
      h.lanPruneDelay = { true, false, 500, 2500 };
      h.drPriority = want.drPriority;
      h.generationId = 413112462u;
      EXPECT_EQ( r.hello, h ) << r.hello;
      EXPECT_EQ( r.stats, ( DecodeStats{ 5, 0, 0, 0, 1, 0, 0, 0 } ) ) << r.stats;
      // With the skipped address put back, our encoder reproduces pimd's
      // bytes, checksum included.
      h.addressList.push_back( *Addr::parse( want.linkLocal ) );
      EXPECT_EQ( encodeHello( h, v4, p.src, p.dst ), p.payload );
   }
   // Every single-bit flip outside the checksum field is noticed; truncations
   // fail the checksum or overrun an option, never crash.
   const PimPacket & p = packets[ 0 ];
   for ( std::size_t i = 0; i < p.payload.size(); ++i ) {
      for ( int bit = 0; bit < 8 && i != 2 && i != 3; ++bit ) {
         Bytes b = p.payload;
         b[ i ] ^= std::uint8_t( 1 << bit );
         EXPECT_FALSE( decodeHello( b.data(), b.size(), v4, p.src, p.dst ).ok() ) << "byte " << i << " bit " << bit;
      }
      EXPECT_FALSE( decodeHello( p.payload.data(), i, v4, p.src, p.dst ).ok() ) << "length " << i;
   }
}

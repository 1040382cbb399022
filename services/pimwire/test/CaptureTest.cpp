// Real Hellos captured from FRRouting pimd 8.4.4 peers. The expected values
// are what tshark 4.0 prints for the same files (`tshark -r <file> -V`).
#include <gtest/gtest.h>

#include "PcapIo.h"
#include "services/pimwire/HelloCodec.h"

using namespace PimWire;
using namespace PimWireTest;

namespace {

const std::string kCaptures = PIMNBR_SHARED_CAPTURES;

struct Expected {
   const char * src;
   std::uint32_t drPriority;
   const char * linkLocal; // the IPv6 address FRR lists in its IPv4 Hello
};

void checkFrrHello( const PimPacket & p, const Expected & want ) {
   SCOPED_TRACE( want.src );
   ASSERT_EQ( p.family, Family::ipv4 );
   EXPECT_EQ( p.src, *Addr::parse( want.src ) );
   EXPECT_EQ( p.dst, *Addr::parse( "224.0.0.13" ) );
   DecodeResult r = decodeHello( p.payload.data(), p.payload.size(), p.family, p.src, p.dst );
   ASSERT_TRUE( r.ok() ) << r.reason;
   const Hello & h = r.hello;
   EXPECT_TRUE( h.holdtimePresent );
   EXPECT_EQ( h.holdtime, 105 );
   EXPECT_TRUE( h.lanPruneDelay.present );
   EXPECT_FALSE( h.lanPruneDelay.tBit );
   EXPECT_EQ( h.lanPruneDelay.propagationDelay, 500 );
   EXPECT_EQ( h.lanPruneDelay.overrideInterval, 2500 );
   EXPECT_TRUE( h.drPriorityPresent );
   EXPECT_EQ( h.drPriority, want.drPriority );
   EXPECT_TRUE( h.generationIdPresent );
   EXPECT_EQ( h.generationId, 413112462u );
   EXPECT_FALSE( h.bidirCapable );
   EXPECT_FALSE( h.interfaceId.present );
   EXPECT_TRUE( h.addressList.empty() ) << "the IPv6 link-local address is not ours to keep";
   EXPECT_EQ( r.stats.options, 5u );
   EXPECT_EQ( r.stats.otherFamilyAddrs, 1u );
   EXPECT_EQ( r.stats.unknownOptions + r.stats.badLengthOptions, 0u );

   // With the skipped address put back, our encoder reproduces pimd's bytes,
   // checksum included.
   Hello again = h;
   again.addressList.push_back( *Addr::parse( want.linkLocal ) );
   EXPECT_EQ( encodeHello( again, p.family, p.src, p.dst ), p.payload );
}

std::vector< PimPacket > pimPackets( const std::string & file ) {
   std::vector< PimPacket > out;
   auto frames = readCaptureFrames( kCaptures + "/" + file );
   EXPECT_TRUE( frames ) << "cannot read " << file;
   if ( frames ) {
      for ( const Bytes & f : *frames ) {
         auto p = pimFromFrame( f );
         EXPECT_TRUE( p ) << "non-PIM frame in " << file;
         if ( p ) {
            out.push_back( *p );
         }
      }
   }
   return out;
}

} // namespace

TEST( FrrCapture, PimHelloPcapDecodes ) {
   auto packets = pimPackets( "pim-hello.pcap" );
   ASSERT_EQ( packets.size(), 4u );
   const Expected r1{ "192.0.2.1", 10, "fe80::94d1:26ff:fe9a:d21b" };
   const Expected r2{ "192.0.2.2", 1, "fe80::f0b0:e7ff:fe16:447b" };
   checkFrrHello( packets[ 0 ], r1 );
   checkFrrHello( packets[ 1 ], r2 );
   checkFrrHello( packets[ 2 ], r1 );
   checkFrrHello( packets[ 3 ], r2 );
}

TEST( FrrCapture, DamagedCopiesAreRejected ) {
   auto packets = pimPackets( "pim-hello.pcap" );
   ASSERT_FALSE( packets.empty() );
   const PimPacket & p = packets[ 0 ];
   // Every single-bit flip outside the checksum field must be noticed.
   for ( std::size_t i = 0; i < p.payload.size(); ++i ) {
      if ( i == 2 || i == 3 ) {
         continue;
      }
      for ( int bit = 0; bit < 8; ++bit ) {
         Bytes b = p.payload;
         b[ i ] ^= std::uint8_t( 1 << bit );
         DecodeResult r = decodeHello( b.data(), b.size(), p.family, p.src, p.dst );
         EXPECT_FALSE( r.ok() ) << "byte " << i << " bit " << bit;
      }
   }
   // Truncations fail the checksum or overrun an option, never crash.
   for ( std::size_t n = 0; n < p.payload.size(); ++n ) {
      DecodeResult r = decodeHello( p.payload.data(), n, p.family, p.src, p.dst );
      EXPECT_FALSE( r.ok() ) << "length " << n;
   }
}

// Real Hellos captured from FRRouting pimd 8.4.4 peers. The expected values
// are what tshark 4.0 prints for the same files (`tshark -r <file> -V`).
#include <gtest/gtest.h>

#include "PcapIo.h"
#include "services/pimwire/HelloCodec.h"

using namespace PimWire;
using namespace PimWireTest;

namespace {

std::vector< PimPacket > pimPackets( const std::string & file ) {
   std::vector< PimPacket > out;
   const auto frames = readCaptureFrames( std::string( PIMNBR_SHARED_CAPTURES ) + "/" + file );
   EXPECT_TRUE( frames ) << "cannot read " << file;
   for ( const Bytes & f : frames.value_or( std::vector< Bytes >{} ) ) {
      auto p = pimFromFrame( f );
      EXPECT_TRUE( p ) << "non-PIM frame in " << file;
      if ( p ) out.push_back( *p );
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
   for ( std::size_t i = 0; i < packets.size(); ++i ) {
      const PimPacket & p = packets[ i ];
      const auto & want = routers[ i % 2 ];
      SCOPED_TRACE( want.src );
      ASSERT_EQ( p.family, Family::ipv4 );
      EXPECT_EQ( p.src, *Addr::parse( want.src ) );
      EXPECT_EQ( p.dst, *Addr::parse( "224.0.0.13" ) );
      DecodeResult r = decodeHello( p.payload.data(), p.payload.size(), p.family, p.src, p.dst );
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
      EXPECT_EQ( encodeHello( h, p.family, p.src, p.dst ), p.payload );
   }
   // Every single-bit flip outside the checksum field is noticed; truncations
   // fail the checksum or overrun an option, never crash.
   const PimPacket & p = packets[ 0 ];
   for ( std::size_t i = 0; i < p.payload.size(); ++i ) {
      for ( int bit = 0; bit < 8 && i != 2 && i != 3; ++bit ) {
         Bytes b = p.payload;
         b[ i ] ^= std::uint8_t( 1 << bit );
         EXPECT_FALSE( decodeHello( b.data(), b.size(), p.family, p.src, p.dst ).ok() ) << "byte " << i << " bit " << bit;
      }
      EXPECT_FALSE( decodeHello( p.payload.data(), i, p.family, p.src, p.dst ).ok() ) << "length " << i;
   }
}

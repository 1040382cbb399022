// Received Hellos that must be dropped: no message, unknown interface, a
// sender outside the interface's subnet or equal to its own address, and a
// sender whose PIM mode does not fit the interface. Each drop is traced at
// level 1 (or logged) and leaves the neighbour table untouched.
#include "EngineFixture.h"

namespace PimScenario {
namespace {

std::string notInSubnet( const std::string & src, const std::string & intf, const std::string & addrMask ) {
   return "Error - Neighbor " + src + " is not in the same subnet as received interface " + intf +
          " with configured address " + addrMask;
}

TEST( ScenarioHelloRxValidation, EmptyMailboxAndUnknownInterfaceAreTracedAndDropped ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );

   f.rx->messageDel();
   f.rx->intfIdIs( eth1 );
   f.rx->countInc( 1 );
   f.runUntilIdle();
   EXPECT_TRUE( f.traced( EngineFixture::kHelloTrace, 1, "Error - No Message" ) );

   f.receive( ethernet( 9 ), hello( "198.18.0.2" ) );
   EXPECT_TRUE( f.traced( EngineFixture::kHelloTrace, 1, "Error - No Interface - Id: Ethernet9" ) );
   EXPECT_EQ( intf->neighborSize(), 0u );

   // The next good Hello is processed as usual.
   f.receive( eth1, hello( "198.18.0.2" ) );
   EXPECT_TRUE( f.neighbor( eth1, "198.18.0.2" ) );
}

TEST( ScenarioHelloRxValidation, Ipv4SubnetCheckComparesExactlyTheMaskBits ) {
   EngineFixture f;
   auto narrow = f.startIntf( ethernet( 1 ), "198.18.0.1/25" );
   IntfParams p;
   p.ifIndex = 12;
   auto wide = f.startIntf( ethernet( 2 ), "198.18.2.1/23", p );

   f.receive( ethernet( 1 ), hello( "198.18.0.126" ) );
   EXPECT_TRUE( f.neighbor( ethernet( 1 ), "198.18.0.126" ) );
   f.receive( ethernet( 1 ), hello( "198.18.0.129" ) );
   EXPECT_FALSE( f.neighbor( ethernet( 1 ), "198.18.0.129" ) );
   EXPECT_TRUE( f.traced( EngineFixture::kHelloTrace, 1,
                          notInSubnet( "198.18.0.129", "Ethernet1", str( ipm( "198.18.0.1/25" ) ) ) ) );

   f.receive( ethernet( 2 ), hello( "198.18.3.254" ) );
   EXPECT_TRUE( f.neighbor( ethernet( 2 ), "198.18.3.254" ) );
   f.receive( ethernet( 2 ), hello( "198.18.4.2" ) );
   f.receive( ethernet( 2 ), hello( "198.18.1.2" ) );
   EXPECT_EQ( wide->neighborSize(), 1u );
   EXPECT_TRUE( f.traced( EngineFixture::kHelloTrace, 1,
                          notInSubnet( "198.18.4.2", "Ethernet2", str( ipm( "198.18.2.1/23" ) ) ) ) );
   EXPECT_TRUE( f.traced( EngineFixture::kHelloTrace, 1,
                          notInSubnet( "198.18.1.2", "Ethernet2", str( ipm( "198.18.2.1/23" ) ) ) ) );
   EXPECT_EQ( narrow->neighborSize(), 1u );
}

TEST( ScenarioHelloRxValidation, Ipv4MaskLengthZeroAcceptsAnySender ) {
   EngineFixture f;
   auto intf = f.startIntf( ethernet( 1 ), "198.18.0.1/0" );
   f.receive( ethernet( 1 ), hello( "198.19.200.7" ) );
   f.receive( ethernet( 1 ), hello( "198.18.255.9" ) );
   EXPECT_TRUE( f.neighbor( ethernet( 1 ), "198.19.200.7" ) );
   EXPECT_TRUE( f.neighbor( ethernet( 1 ), "198.18.255.9" ) );
   EXPECT_FALSE( f.tracedAnyLevel( EngineFixture::kHelloTrace, "Error" ) );
   // Own address is still refused.
   f.receive( ethernet( 1 ), hello( "198.18.0.1" ) );
   EXPECT_EQ( intf->neighborSize(), 2u );
}

// Our own address, and the network and broadcast addresses of subnets that
// have them, never become neighbours; /31 and /32 have neither.
TEST( ScenarioHelloRxValidation, OwnNetworkAndBroadcastSourcesAreRefusedOnIpv4 ) {
   struct Case {
      const char * intf;
      const char * source;
      bool learnt;
      const char * trace;
      std::uint32_t counted;
   };
   const Case cases[] = {
      { "198.18.0.1/24", "198.18.0.1", false, "Error - Neighbor 198.18.0.1 is the same as interface address for Ethernet1", 0 },
      { "198.18.0.1/24", "198.18.0.0", false, "Error - Neighbor 198.18.0.0 is the network or broadcast address of interface Ethernet1", 1 },
      { "198.18.0.1/24", "198.18.0.255", false, "Error - Neighbor 198.18.0.255 is the network or broadcast address", 1 },
      { "198.18.0.5/30", "198.18.0.7", false, "Error - Neighbor 198.18.0.7 is the network or broadcast address", 1 },
      { "198.18.0.5/30", "198.18.0.6", true, nullptr, 0 },
      { "198.18.0.0/31", "198.18.0.1", true, nullptr, 0 },
      { "198.18.0.1/31", "198.18.0.0", true, nullptr, 0 },
   };
   for( const Case & c : cases ) {
      SCOPED_TRACE( std::string( c.intf ) + " " + c.source );
      EngineFixture f;
      auto intf = f.startIntf( ethernet( 1 ), c.intf );
      f.receive( ethernet( 1 ), hello( c.source ) );
      EXPECT_EQ( intf->neighborSize(), c.learnt ? 1u : 0u );
      EXPECT_EQ( intf->refusedSourceAddressCount(), c.counted );
      if( c.trace ) {
         EXPECT_TRUE( f.traced( EngineFixture::kHelloTrace, 1, c.trace ) );
      }
   }
}

TEST( ScenarioHelloRxValidation, Ipv6SubnetFamilyAndOwnAddressChecks ) {
   EngineFixture f( Lumo::AddressFamily::ipv6 );
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "2001:db8:1::1/64" );
   const std::string mask = str( ipm( "2001:db8:1::1/64" ) );

   f.receive( eth1, hello( "2001:db8:1::2" ) );
   EXPECT_TRUE( f.neighbor( eth1, "2001:db8:1::2" ) );
   f.receive( eth1, hello( "2001:db8:1:0:ffff::9" ) );
   EXPECT_TRUE( f.neighbor( eth1, "2001:db8:1:0:ffff::9" ) );

   f.receive( eth1, hello( "2001:db8:2::2" ) );
   EXPECT_FALSE( f.neighbor( eth1, "2001:db8:2::2" ) );
   EXPECT_TRUE( f.traced( EngineFixture::kHelloTrace, 1,
                          notInSubnet( str( ip( "2001:db8:2::2" ) ), "Ethernet1", mask ) ) );

   // An IPv4 sender on an IPv6 interface.
   f.receive( eth1, hello( "198.18.0.2" ) );
   EXPECT_FALSE( f.neighbor( eth1, "198.18.0.2" ) );
   EXPECT_TRUE( f.traced( EngineFixture::kHelloTrace, 1, notInSubnet( "198.18.0.2", "Ethernet1", mask ) ) );

   f.receive( eth1, hello( "2001:db8:1::1" ) );
   EXPECT_TRUE( f.traced( EngineFixture::kHelloTrace, 1,
                          "Error - Neighbor " + str( ip( "2001:db8:1::1" ) ) +
                             " is the same as interface address for Ethernet1" ) );
   EXPECT_EQ( intf->neighborSize(), 2u );
}

TEST( ScenarioHelloRxValidation, Ipv6SenderOnIpv4InterfaceIsRefused ) {
   EngineFixture f;
   auto intf = f.startIntf( ethernet( 1 ), "198.18.0.1/0" );
   f.receive( ethernet( 1 ), hello( "2001:db8::2" ) );
   EXPECT_EQ( intf->neighborSize(), 0u );
   EXPECT_TRUE( f.traced( EngineFixture::kHelloTrace, 1,
                          notInSubnet( str( ip( "2001:db8::2" ) ), "Ethernet1", str( ipm( "198.18.0.1/0" ) ) ) ) );
}

TEST( ScenarioHelloRxValidation, ModeMismatchIsLoggedAndNeitherCreatesNorRefreshes ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   IntfParams p;
   p.mode = pimModeBidir;
   auto intf = f.startIntf( eth1, "198.18.0.1/24", p );

   f.at( 5.0 );
   f.receive( eth1, hello( "198.18.0.2" ) );
   EXPECT_FALSE( f.neighbor( eth1, "198.18.0.2" ) );
   auto texts = f.logTexts( "PIM_MODE_MISMATCH" );
   ASSERT_EQ( texts.size(), 1u );
   EXPECT_EQ( texts[ 0 ], std::string( "Neighbor 198.18.0.2 is running " ) + modeName( pimModeSparse ) +
                             ", while interface Ethernet1 is running " + modeName( pimModeBidir ) + "." );

   // With the bidir-capable option it forms.
   f.receive( eth1, hello( "198.18.0.2" ).bidirCapable() );
   auto nb = f.neighbor( eth1, "198.18.0.2" );
   ASSERT_TRUE( nb );
   EXPECT_EQ( nb->lastRefreshTime(), f.t0() + 5.0 );

   // The same neighbour without the option: logged, and not refreshed.
   f.at( 20.0 );
   f.receive( eth1, hello( "198.18.0.2" ).dr( 50 ) );
   EXPECT_EQ( f.logged( "PIM_MODE_MISMATCH" ), 2u );
   EXPECT_EQ( nb->lastRefreshTime(), f.t0() + 5.0 );
   EXPECT_EQ( nb->drPriorityOption().valid, false );
   EXPECT_EQ( f.intfSm( eth1 )->neighborSm( ip( "198.18.0.2" ) )->neighborTimerTimeMin(), f.t0() + 5.0 + 105 );

   // Its goodbye skips the mode check and removes it.
   f.at( 30.0 );
   f.receive( eth1, hello( "198.18.0.2" ).hold( 0 ) );
   EXPECT_FALSE( f.neighbor( eth1, "198.18.0.2" ) );
   EXPECT_EQ( f.logged( "PIM_MODE_MISMATCH" ), 2u );
   EXPECT_EQ( intf->neighborSize(), 0u );
}

TEST( ScenarioHelloRxValidation, SparseAndBidirModeAlsoNeedsTheBidirOptionButSparseModeDoesNot ) {
   EngineFixture f;
   IntfParams both;
   both.mode = pimModeSparseBidir;
   f.startIntf( ethernet( 1 ), "198.18.0.1/24", both );
   IntfParams sparse;
   sparse.ifIndex = 12;
   f.startIntf( ethernet( 2 ), "198.18.1.1/24", sparse );

   f.receive( ethernet( 1 ), hello( "198.18.0.2" ) );
   EXPECT_FALSE( f.neighbor( ethernet( 1 ), "198.18.0.2" ) );
   auto texts = f.logTexts( "PIM_MODE_MISMATCH" );
   ASSERT_EQ( texts.size(), 1u );
   EXPECT_EQ( texts[ 0 ], std::string( "Neighbor 198.18.0.2 is running " ) + modeName( pimModeSparse ) +
                             ", while interface Ethernet1 is running " + modeName( pimModeSparseBidir ) + "." );

   f.advanceBy( 2.0 );
   f.receive( ethernet( 2 ), hello( "198.18.1.2" ) );
   f.receive( ethernet( 2 ), hello( "198.18.1.3" ).bidirCapable() );
   EXPECT_TRUE( f.neighbor( ethernet( 2 ), "198.18.1.2" ) );
   EXPECT_TRUE( f.neighbor( ethernet( 2 ), "198.18.1.3" ) );
   EXPECT_EQ( f.logged( "PIM_MODE_MISMATCH" ), 1u );
}

TEST( ScenarioHelloRxValidation, EveryEngineTraceLineCarriesTheVrfPrefix ) {
   EngineFixture f( Lumo::AddressFamily::ipv4, L3::VrfName( "red" ) );
   const auto eth1 = ethernet( 1 );
   f.startIntf( eth1, "198.18.0.1/24" );
   f.receive( eth1, hello( "198.18.0.2" ).dr( 3 ).addrs( { "198.18.0.102" } ) );
   f.receive( eth1, hello( "198.18.9.9" ) );
   f.advanceBy( 200.0 );

   std::size_t checked = 0;
   for( const auto & l : f.trace.lines() ) {
      if( l.handle != EngineFixture::kHelloTrace && l.handle != EngineFixture::kNeighborTrace &&
          l.handle != EngineFixture::kIntfTrace ) {
         continue;
      }
      ++checked;
      EXPECT_EQ( l.text.rfind( "<Vrf:red>", 0 ), 0u ) << l.handle << "/" << l.level << ": " << l.text;
   }
   EXPECT_GT( checked, 20u );
   EXPECT_TRUE( f.traced( EngineFixture::kHelloTrace, 1,
                          notInSubnet( "198.18.9.9", "Ethernet1", str( ipm( "198.18.0.1/24" ) ) ) ) );
}

} // namespace
} // namespace PimScenario

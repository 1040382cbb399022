// Received Hellos that must be dropped: no message, unknown interface, a
// sender outside the interface's subnet or equal to its own address, and a
// sender whose PIM mode does not fit the interface. Each drop leaves the
// neighbour table untouched.
#include "EngineFixture.h"

namespace PimScenario {
namespace {

// Whether a Hello from `sender` on an interface with `addressWithMask`
// forms a neighbour.
TEST( ScenarioHelloRxValidation, SenderMustBeInTheSubnetOfTheFamilyAndNotTheOwnAddress ) {
   struct Case {
      const char * intf;
      const char * sender;
      bool accepted;
      std::uint32_t refusedAsNetworkOrBroadcast = 0;
   };
   const Case cases[] = {
      { "198.18.0.1/25", "198.18.0.126", true },
      { "198.18.0.1/25", "198.18.0.129", false },   // exactly the mask bits
      { "198.18.2.1/23", "198.18.3.254", true },
      { "198.18.2.1/23", "198.18.4.2", false },
      { "198.18.2.1/23", "198.18.1.2", false },
      { "198.18.0.1/0", "198.19.200.7", true },     // mask length 0: any sender
      { "198.18.0.1/0", "198.18.0.1", false },      // but never the own address
      { "198.18.0.1/24", "198.18.0.1", false },
      { "198.18.0.1/0", "2001:db8::2", false },     // the other family
      { "198.18.0.1/24", "198.18.0.0", false, 1 },  // the subnet's network and broadcast
      { "198.18.0.1/24", "198.18.0.255", false, 1 },
      { "198.18.0.5/30", "198.18.0.7", false, 1 },
      { "198.18.0.5/30", "198.18.0.6", true },
      { "198.18.0.0/31", "198.18.0.1", true },      // /31 has neither
      { "198.18.0.1/31", "198.18.0.0", true },
      { "2001:db8:1::1/64", "2001:db8:1::2", true },
      { "2001:db8:1::1/64", "2001:db8:1:0:ffff::9", true },
      { "2001:db8:1::1/64", "2001:db8:2::2", false },
      { "2001:db8:1::1/64", "198.18.0.2", false },
      { "2001:db8:1::1/64", "2001:db8:1::1", false },
   };
   for( const Case & c : cases ) {
      SCOPED_TRACE( std::string( c.sender ) + " on " + c.intf );
      const bool v6 = std::string_view( c.intf ).find( ':' ) != std::string_view::npos;
      EngineFixture f( v6 ? Lumo::AddressFamily::ipv6 : Lumo::AddressFamily::ipv4 );
      auto intf = f.startIntf( eth1, c.intf );
      f.receive( eth1, hello( c.sender ) );
      EXPECT_EQ( intf->neighborSize(), c.accepted ? 1u : 0u );
      EXPECT_EQ( intf->refusedSourceAddressCount(), c.refusedAsNetworkOrBroadcast );
   }
}

TEST( ScenarioHelloRxValidation, EmptyUnknownOrModeMismatchedHellosNeitherCreateNorRefresh ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24", { .mode = pimModeBidir } );
   f.vrf.rx->messageDel();
   f.vrf.rx->intfIdIs( eth1 );
   f.vrf.rx->countInc( 1 );
   f.runUntilIdle();
   f.receive( Lumo::IntfId( "Ethernet9" ), hello( "198.18.0.2" ).bidirCapable() );
   EXPECT_EQ( intf->neighborSize(), 0u );

   f.at( 5.0 );
   f.receive( eth1, hello( "198.18.0.2" ) );
   EXPECT_FALSE( f.neighbor( eth1, "198.18.0.2" ) );
   EXPECT_EQ( f.log.count( "PIM_MODE_MISMATCH" ), 1u );
   // With the bidir-capable option it forms.
   f.receive( eth1, hello( "198.18.0.2" ).bidirCapable() );
   auto nb = f.neighbor( eth1, "198.18.0.2" );
   ASSERT_TRUE( nb );
   EXPECT_EQ( nb->lastRefreshTime(), f.t0() + 5.0 );

   // The same neighbour without the option: logged, and not refreshed.
   f.at( 20.0 );
   f.receive( eth1, hello( "198.18.0.2" ).dr( 50 ) );
   EXPECT_EQ( f.log.count( "PIM_MODE_MISMATCH" ), 2u );
   EXPECT_EQ( nb->lastRefreshTime(), f.t0() + 5.0 );
   EXPECT_EQ( nb->drPriorityOption().valid, false );
   EXPECT_EQ( f.intfSm( eth1 )->neighborSm( ip( "198.18.0.2" ) )->neighborTimerTimeMin(), f.t0() + 5.0 + 105 );

   // Its goodbye skips the mode check and removes it.
   f.at( 30.0 );
   f.receive( eth1, hello( "198.18.0.2" ).hold( 0 ) );
   EXPECT_FALSE( f.neighbor( eth1, "198.18.0.2" ) );
   EXPECT_EQ( f.log.count( "PIM_MODE_MISMATCH" ), 2u );
}

// A Hello without the bidir-capable option forms a neighbour on a sparse
// interface only; with it, on every kind.
TEST( ScenarioHelloRxValidation, SparseAndBidirModeAlsoNeedsTheBidirOptionButSparseModeDoesNot ) {
   for( const Mode mode : { pimModeSparseBidir, pimModeBidir, pimModeSparse } ) {
      SCOPED_TRACE( modeName( mode ) );
      EngineFixture f;
      f.startIntf( eth1, "198.18.0.1/24", { .mode = mode } );
      f.receive( eth1, hello( "198.18.0.2" ) );
      f.receive( eth1, hello( "198.18.0.3" ).bidirCapable() );
      const bool sparse = mode == pimModeSparse;
      EXPECT_EQ( bool( f.neighbor( eth1, "198.18.0.2" ) ), sparse );
      EXPECT_TRUE( f.neighbor( eth1, "198.18.0.3" ) );
      const std::string text = std::string( "Neighbor 198.18.0.2 is running " ) + modeName( pimModeSparse ) +
                               ", while interface Ethernet1 is running " + modeName( mode ) + ".";
      EXPECT_EQ( f.logTexts( "PIM_MODE_MISMATCH" ), sparse ? std::vector< std::string >{}
                                                           : std::vector< std::string >{ text } );
   }
}

} // namespace
} // namespace PimScenario

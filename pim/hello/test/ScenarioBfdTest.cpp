// Neighbours coupled to BFD sessions: a session per neighbour while BFD is on,
// a neighbour whose session goes down is held out of the DR election and the
// delay computation, the session coming back up sends a Hello, and the
// neighbour's next Hello returns it to service.
#include "EngineFixture.h"

namespace PimScenario {
namespace {

Bfd::Peer peer( std::string_view addr ) { return Bfd::Peer( ip( addr ), L3::VrfName( "default" ) ); }

std::string stateChange( Bfd::OperState from, Bfd::OperState to ) {
   return std::string( "neighbor 198.18.0.2 " ) + Bfd::operStateName( from ) + " to " + Bfd::operStateName( to ) +
          " on interface Ethernet1";
}

TEST( ScenarioBfd, EveryNeighborGetsASessionWhileBfdIsOnAndLosesItWhenItGoes ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24", { .bfdEnabled = true } );
   f.receive( eth1, hello( "198.18.0.2" ) );
   f.receive( eth1, hello( "198.18.0.3" ).hold( 30 ) );
   EXPECT_TRUE( f.vrf.bfdAppConfig->peerConfig( peer( "198.18.0.2" ) ) &&
                f.vrf.bfdAppConfig->peerConfig( peer( "198.18.0.3" ) ) );
   EXPECT_TRUE( f.active( eth1, "198.18.0.2" ) );

   f.receive( eth1, hello( "198.18.0.2" ).hold( 0 ) );
   EXPECT_FALSE( f.vrf.bfdAppConfig->peerConfig( peer( "198.18.0.2" ) ) );
   f.advanceBy( 31.0 );
   EXPECT_EQ( f.vrf.bfdAppConfig->peerConfigSize(), 0u );

   // BFD switched off on the interface: no session for new neighbours.
   intf->bfdEnabledIs( false );
   f.runUntilIdle();
   f.receive( eth1, hello( "198.18.0.4" ) );
   EXPECT_EQ( f.vrf.bfdAppConfig->peerConfigSize(), 0u );
   EXPECT_TRUE( f.active( eth1, "198.18.0.4" ) );

   // And on again: every present neighbour gets one.
   intf->bfdEnabledIs( true );
   f.runUntilIdle();
   EXPECT_TRUE( f.vrf.bfdAppConfig->peerConfig( peer( "198.18.0.4" ) ) );
}

TEST( ScenarioBfd, SessionDownHoldsTheNeighborOutUntilItsNextHelloAfterRecovery ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24", { .bfdEnabled = true } );
   auto sm = f.intfSm( eth1 );
   f.receive( eth1, hello( "198.18.0.2" ).dr( 5 ).lpd( 900, 3000, true ) );
   f.receive( eth1, hello( "198.18.0.3" ).dr( 1 ).lpd( 400, 2500, true ) );
   f.vrf.bfdAppStatus->peerStatusIs( peer( "198.18.0.2" ), Bfd::operDown );
   f.runUntilIdle();
   f.advanceBy( 2.0 );
   const std::string served = "dr 198.18.0.2/5 lpd 900/3000/1 lacking 0/0/0";
   EXPECT_EQ( usedState( *intf, *sm ), served );
   const auto countBefore = intf->triggeredHelloCount();
   f.clearSent();

   auto status = f.vrf.bfdAppStatus->peerStatus( peer( "198.18.0.2" ) );
   status->statusIs( Bfd::operUp );
   f.runUntilIdle();
   EXPECT_EQ( f.neighbor( eth1, "198.18.0.2" )->bfdState(), Bfd::operUp );
   EXPECT_TRUE( f.sent().empty() );

   // Down: held out of everything, the entry stays.
   f.advanceBy( 2.0 );
   status->statusIs( Bfd::operDown );
   f.runUntilIdle();
   EXPECT_TRUE( f.neighbor( eth1, "198.18.0.2" ) );
   EXPECT_TRUE( intf->inactiveBfdNeighbor( ip( "198.18.0.2" ) ) );
   EXPECT_FALSE( f.active( eth1, "198.18.0.2" ) );
   // The own 500 beats .3's 400.
   EXPECT_EQ( usedState( *intf, *sm ), "dr 198.18.0.3/1 lpd 500/2500/1 lacking 0/0/0" );
   EXPECT_TRUE( f.sent().empty() );

   // Up again: a Hello at once with the interface's hold time, but the
   // neighbour stays on the down list.
   f.advanceBy( 2.0 );
   status->statusIs( Bfd::operUp );
   f.runUntilIdle();
   ASSERT_EQ( f.sent().size(), 1u );
   EXPECT_EQ( f.sent()[ 0 ].time, f.now() );
   expectFullHello( f.sent()[ 0 ], *intf, 1 );
   EXPECT_EQ( f.logTexts( "PIM_BFD_STATE_CHANGE" ),
              ( std::vector< std::string >{ stateChange( Bfd::operUp, Bfd::operDown ),
                                            stateChange( Bfd::operDown, Bfd::operUp ) } ) );
   EXPECT_TRUE( intf->inactiveBfdNeighbor( ip( "198.18.0.2" ) ) );
   EXPECT_FALSE( f.active( eth1, "198.18.0.2" ) );
   EXPECT_EQ( intf->triggeredHelloCount(), countBefore );

   // Its next Hello returns it: active, DR again, and greeted with a counted Hello.
   f.advanceBy( 2.0 );
   f.clearSent();
   f.receive( eth1, hello( "198.18.0.2" ).dr( 5 ).lpd( 900, 3000, true ) );
   EXPECT_FALSE( intf->inactiveBfdNeighbor( ip( "198.18.0.2" ) ) );
   EXPECT_TRUE( f.active( eth1, "198.18.0.2" ) );
   EXPECT_EQ( usedState( *intf, *sm ), served );
   EXPECT_TRUE( sm->neighborEventTriggeredHello() );
   f.advanceBy( 1.0 );
   EXPECT_EQ( f.sent().size(), 1u );
   EXPECT_EQ( intf->triggeredHelloCount(), countBefore + 1 );
}

TEST( ScenarioBfd, DownFromAnythingButUpChangesNothingAndBfdOffReleases ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24", { .bfdEnabled = true } );
   f.receive( eth1, hello( "198.18.0.2" ) );
   auto status = f.vrf.bfdAppStatus->peerStatusIs( peer( "198.18.0.2" ), Bfd::operDown );
   f.runUntilIdle();

   status->statusIs( Bfd::operInit );
   f.runUntilIdle();
   EXPECT_EQ( f.neighbor( eth1, "198.18.0.2" )->bfdState(), Bfd::operInit );
   status->statusIs( Bfd::operDown );
   f.runUntilIdle();
   EXPECT_EQ( f.neighbor( eth1, "198.18.0.2" )->bfdState(), Bfd::operDown );
   EXPECT_EQ( intf->inactiveBfdNeighborSize(), 0u );
   EXPECT_TRUE( f.active( eth1, "198.18.0.2" ) );

   // Up, Init, then Down: the session was not up just before going down.
   status->statusIs( Bfd::operUp );
   f.runUntilIdle();
   status->statusIs( Bfd::operInit );
   f.runUntilIdle();
   status->statusIs( Bfd::operAdminDown );
   f.runUntilIdle();
   EXPECT_EQ( intf->inactiveBfdNeighborSize(), 0u );
   EXPECT_TRUE( f.active( eth1, "198.18.0.2" ) );
   EXPECT_EQ( f.logged( "PIM_BFD_STATE_CHANGE" ), 0u );

   // Admin down right after up does count as down.
   f.advanceBy( 2.0 );
   status->statusIs( Bfd::operUp );
   f.runUntilIdle();
   status->statusIs( Bfd::operAdminDown );
   f.runUntilIdle();
   EXPECT_TRUE( intf->inactiveBfdNeighbor( ip( "198.18.0.2" ) ) );
   EXPECT_FALSE( f.active( eth1, "198.18.0.2" ) );
   EXPECT_EQ( f.logged( "PIM_BFD_STATE_CHANGE" ), 1u );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.1" ) );

   // Switching BFD off releases the held neighbour, back into the election.
   intf->bfdEnabledIs( false );
   f.runUntilIdle();
   EXPECT_FALSE( f.vrf.bfdAppConfig->peerConfig( peer( "198.18.0.2" ) ) );
   EXPECT_EQ( intf->inactiveBfdNeighborSize(), 0u );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
}

} // namespace
} // namespace PimScenario

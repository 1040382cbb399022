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

// A session for every neighbour while BFD is on; only a session that goes
// down (or admin down) right after up holds its neighbour out; switching
// BFD off releases it and ends every session; a neighbour leaving ends its.
TEST( ScenarioBfd, SessionsFollowTheNeighborsAndOnlyDownRightAfterUpHoldsOut ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24", { .bfdEnabled = true } );
   auto & sessions = *f.vrf.bfdAppConfig;
   f.receive( eth1, hello( "198.18.0.2" ) );
   f.receive( eth1, hello( "198.18.0.3" ).hold( 30 ) );
   EXPECT_TRUE( sessions.peerConfig( peer( "198.18.0.2" ) ) && sessions.peerConfig( peer( "198.18.0.3" ) ) );
   auto status = f.vrf.bfdAppStatus->peerStatusIs( peer( "198.18.0.2" ), Bfd::operDown );
   f.runUntilIdle();
   const struct {
      Bfd::OperState to;
      bool heldOut;
   } steps[] = {
      { Bfd::operInit, false }, { Bfd::operDown, false }, { Bfd::operUp, false }, { Bfd::operInit, false },
      { Bfd::operAdminDown, false }, { Bfd::operUp, false }, { Bfd::operAdminDown, true },
   };
   for( const auto & s : steps ) {
      SCOPED_TRACE( Bfd::operStateName( s.to ) );
      status->statusIs( s.to );
      f.runUntilIdle();
      EXPECT_EQ( f.neighbor( eth1, "198.18.0.2" )->bfdState(), s.to );
      EXPECT_EQ( bool( intf->inactiveBfdNeighbor( ip( "198.18.0.2" ) ) ), s.heldOut );
      EXPECT_NE( f.active( eth1, "198.18.0.2" ), s.heldOut );
      EXPECT_EQ( f.log.count( "PIM_BFD_STATE_CHANGE" ), s.heldOut ? 1u : 0u );
   }

   intf->bfdEnabledIs( false );
   f.runUntilIdle();
   f.receive( eth1, hello( "198.18.0.4" ) );
   EXPECT_EQ( sessions.peerConfigSize(), 0u );
   EXPECT_EQ( intf->inactiveBfdNeighborSize(), 0u );
   EXPECT_TRUE( f.active( eth1, "198.18.0.2" ) );

   intf->bfdEnabledIs( true );
   f.runUntilIdle();
   EXPECT_EQ( sessions.peerConfigSize(), 3u );
   f.receive( eth1, hello( "198.18.0.2" ).hold( 0 ) );
   f.advanceBy( 31.0 );   // .3 expires
   EXPECT_EQ( sessions.peerConfigSize(), 1u );
   EXPECT_TRUE( sessions.peerConfig( peer( "198.18.0.4" ) ) );
}

} // namespace
} // namespace PimScenario

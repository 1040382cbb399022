// Designated router election on one interface: priority mode and
// address-only mode, along the incremental path (a neighbour comes, a
// priority changes) and the full one (the DR weakens or leaves, an option
// appears or disappears), the own priority, and the reload hold-off.
#include "EngineFixture.h"

namespace PimScenario {
namespace {

TEST( ScenarioDrElection, AloneTheRouterIsDrWithItsOwnPriority ) {
   EngineFixture f;
   IntfParams p;
   p.drPriority = 7;
   auto intf = f.startIntf( ethernet( 1 ), "198.18.0.1/24", p );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.1" ) );
   EXPECT_EQ( intf->usedDrPriority(), 7u );
   EXPECT_TRUE( intf->iAmDr() );
}

TEST( ScenarioDrElection, PriorityModeFollowsNeighborsComingChangingAndGoing ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );

   f.receive( eth1, hello( "198.18.0.2" ).dr( 5 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   EXPECT_EQ( intf->usedDrPriority(), 5u );
   EXPECT_FALSE( intf->iAmDr() );
   EXPECT_TRUE( f.traced( EngineFixture::kIntfTrace, 2,
                          "Updated used DR for interface Ethernet1 to 198.18.0.2 with priority 5" ) );
   EXPECT_TRUE( f.traced( EngineFixture::kIntfTrace, 7, "I Am DR is 0 for interface Ethernet1" ) );

   // Equal priority: the higher address wins.
   f.receive( eth1, hello( "198.18.0.3" ).dr( 5 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.3" ) );
   EXPECT_EQ( intf->usedDrPriority(), 5u );

   // Lower priority, higher address: nothing changes. Priority 0 is simply the lowest.
   f.receive( eth1, hello( "198.18.0.4" ).dr( 3 ) );
   f.receive( eth1, hello( "198.18.0.9" ).dr( 0 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.3" ) );

   // The DR weakens: the full election gives it to the next best.
   f.advanceBy( 5.0 );
   f.receive( eth1, hello( "198.18.0.3" ).dr( 2 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   EXPECT_EQ( intf->usedDrPriority(), 5u );

   // The DR strengthens: only the priority changes.
   f.receive( eth1, hello( "198.18.0.2" ).dr( 9 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   EXPECT_EQ( intf->usedDrPriority(), 9u );

   // A non-DR overtakes the DR.
   f.receive( eth1, hello( "198.18.0.4" ).dr( 11 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.4" ) );
   EXPECT_EQ( intf->usedDrPriority(), 11u );

   // The DR leaves: full election among the rest.
   f.receive( eth1, hello( "198.18.0.4" ).hold( 0 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   EXPECT_EQ( intf->usedDrPriority(), 9u );

   // Everybody leaves: the router itself again.
   for( const char * a : { "198.18.0.2", "198.18.0.3", "198.18.0.9" } ) f.receive( eth1, hello( a ).hold( 0 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.1" ) );
   EXPECT_EQ( intf->usedDrPriority(), 1u );
   EXPECT_TRUE( intf->iAmDr() );
   EXPECT_TRUE( f.traced( EngineFixture::kIntfTrace, 7, "I Am DR is 1 for interface Ethernet1" ) );
}

TEST( ScenarioDrElection, OwnPriorityChangeTriggersAHelloOnlyWhenTheRoleChanges ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   f.receive( eth1, hello( "198.18.0.2" ).dr( 5 ) );
   f.advanceBy( 2.0 );
   f.clearSent();

   intf->drPriorityIs( 3 );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   EXPECT_FALSE( intf->triggeredHello() );
   EXPECT_TRUE( f.traced( EngineFixture::kIntfTrace, 7, "DR priority changed for interface Ethernet1 to 3" ) );

   f.random().push( { drawForTenths( 6 ) } );
   const double before = f.now();
   intf->drPriorityIs( 10 );
   f.runUntilIdle();
   EXPECT_TRUE( intf->iAmDr() );
   EXPECT_EQ( intf->usedDrPriority(), 10u );
   EXPECT_TRUE( intf->triggeredHello() );
   EXPECT_TRUE( f.traced( EngineFixture::kIntfTrace, 7, "DR changed due to priority change for interface Ethernet1" ) );
   f.advanceBy( 1.0 );
   ASSERT_EQ( f.sent().size(), 1u );
   EXPECT_NEAR( f.sent()[ 0 ].time - before, 0.6, 1e-6 );
   EXPECT_EQ( f.sent()[ 0 ].drPriority, 10u );

   // Still DR, stronger: no Hello.
   f.clearSent();
   intf->drPriorityIs( 12 );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDrPriority(), 12u );
   EXPECT_FALSE( intf->triggeredHello() );

   // Weaker than the neighbour: the full election hands the role back.
   intf->drPriorityIs( 4 );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   EXPECT_EQ( intf->usedDrPriority(), 5u );
   EXPECT_TRUE( intf->triggeredHello() );
   f.advanceBy( 1.0 );
   ASSERT_EQ( f.sent().size(), 1u );
   EXPECT_EQ( f.sent()[ 0 ].drPriority, 4u );
}

TEST( ScenarioDrElection, NewNeighborWithoutPriorityOnlyChallengesTheCurrentDrByAddress ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   auto sm = f.intfSm( eth1 );
   f.receive( eth1, hello( "198.18.0.5" ).dr( 1 ) );
   f.receive( eth1, hello( "198.18.0.2" ).dr( 10 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );

   // A full address-only election would pick .5; the incremental one only
   // compares .3 with the DR .2.
   f.receive( eth1, hello( "198.18.0.3" ) );
   EXPECT_EQ( sm->neighborNotUsingDrPriority(), 1u );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.3" ) );
   EXPECT_EQ( intf->usedDrPriority(), 0xFFFFFFFFu );

   f.receive( eth1, hello( "198.18.0.4" ) );
   EXPECT_EQ( sm->neighborNotUsingDrPriority(), 2u );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.4" ) );

   // .3 starts sending the option: validity changed, full election, still
   // address-only because .4 lacks it.
   f.advanceBy( 1.0 );
   f.receive( eth1, hello( "198.18.0.3" ).dr( 2 ) );
   EXPECT_EQ( sm->neighborNotUsingDrPriority(), 1u );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.5" ) );
   EXPECT_EQ( intf->usedDrPriority(), 0xFFFFFFFFu );

   // The last one without the option leaves: back to priority mode.
   f.receive( eth1, hello( "198.18.0.4" ).hold( 0 ) );
   EXPECT_EQ( sm->neighborNotUsingDrPriority(), 0u );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   EXPECT_EQ( intf->usedDrPriority(), 10u );
}

TEST( ScenarioDrElection, AddressOnlyUpdatesThatKeepTheDrLeaveItsPriorityAlone ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   auto sm = f.intfSm( eth1 );
   f.receive( eth1, hello( "198.18.0.5" ).dr( 10 ) );
   EXPECT_EQ( intf->usedDrPriority(), 10u );

   f.receive( eth1, hello( "198.18.0.3" ) );
   f.receive( eth1, hello( "198.18.0.2" ) );
   EXPECT_EQ( sm->neighborNotUsingDrPriority(), 2u );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.5" ) );
   EXPECT_EQ( intf->usedDrPriority(), 10u );

   // A non-DR leaves and the election stays address-only: no full run.
   f.receive( eth1, hello( "198.18.0.2" ).hold( 0 ) );
   EXPECT_EQ( sm->neighborNotUsingDrPriority(), 1u );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.5" ) );
   EXPECT_EQ( intf->usedDrPriority(), 10u );

   // The DR leaves: full address-only election.
   f.receive( eth1, hello( "198.18.0.5" ).hold( 0 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.3" ) );
   EXPECT_EQ( intf->usedDrPriority(), 0xFFFFFFFFu );

   // The DR changes its address-only "priority" (the option appears): full run, priority mode.
   f.receive( eth1, hello( "198.18.0.3" ).dr( 0 ) );
   EXPECT_EQ( sm->neighborNotUsingDrPriority(), 0u );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.1" ) );
   EXPECT_EQ( intf->usedDrPriority(), 1u );
}

// When the router was DR on its old address, the role moves with the
// address or to the best neighbour; it never stays on an address that left.
TEST( ScenarioDrElection, OwnAddressChangeReElectsWhenTheOldAddressWasDr ) {
   struct Case {
      const char * neighbor;   // nullptr: the router is alone
      const char * newAddress;
      const char * dr;
   };
   const Case cases[] = {
      { nullptr, "198.18.0.100/24", "198.18.0.100" },
      { nullptr, "198.18.0.250/24", "198.18.0.250" },
      { "198.18.0.150", "198.18.0.100/24", "198.18.0.150" },
      { "198.18.0.150", "198.18.0.250/24", "198.18.0.250" },
   };
   for( const Case & c : cases ) {
      SCOPED_TRACE( std::string( c.neighbor ? c.neighbor : "alone" ) + " -> " + c.newAddress );
      EngineFixture f;
      const auto eth1 = ethernet( 1 );
      auto intf = f.startIntf( eth1, "198.18.0.200/24" );
      if( c.neighbor ) f.receive( eth1, hello( c.neighbor ).dr( 1 ) );
      ASSERT_TRUE( intf->iAmDr() );
      intf->addressWithMaskIs( ipm( c.newAddress ) );
      f.advanceBy( 100.0 );
      EXPECT_EQ( intf->usedDr(), ip( c.dr ) );
      EXPECT_EQ( intf->usedDrPriority(), 1u );
      EXPECT_EQ( intf->iAmDr(), std::string( c.newAddress ).rfind( c.dr, 0 ) == 0 );
   }
}

TEST( ScenarioDrElection, ReloadBidsOneUntilTheDrDelayExpiresAndResetsTheFlag ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   IntfParams p;
   p.drPriority = 100;
   auto intf = f.startIntf( eth1, "198.18.0.1/24", p );
   f.receive( eth1, hello( "198.18.0.2" ).dr( 50 ) );
   EXPECT_TRUE( intf->iAmDr() );
   EXPECT_EQ( intf->usedDrPriority(), 100u );

   f.cellGlobalStatus->reloadIs( true );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   EXPECT_EQ( intf->usedDrPriority(), 50u );

   // The incremental path also counts this router as 1 during reload.
   intf->drPriorityIs( 200 );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   EXPECT_TRUE( f.traced( EngineFixture::kIntfTrace, 8, "updateDr(), Reload is true" ) );

   // DR delay expires while reload is still on: re-elected, still bidding 1.
   f.cellGlobalStatus->drDelayTimerExpiredIs( true );
   f.runUntilIdle();
   EXPECT_FALSE( f.cellGlobalStatus->drDelayTimerExpired() );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );

   // Reload off re-jitters the Hello timer but elects nothing.
   f.cellGlobalStatus->reloadIs( false );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );

   // The next DR delay expiry elects with the real priority.
   f.cellGlobalStatus->drDelayTimerExpiredIs( true );
   f.runUntilIdle();
   EXPECT_FALSE( f.cellGlobalStatus->drDelayTimerExpired() );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.1" ) );
   EXPECT_EQ( intf->usedDrPriority(), 200u );
}

TEST( ScenarioDrElection, ReloadWithoutNeighborsPublishesPriorityOne ) {
   EngineFixture f;
   IntfParams p;
   p.drPriority = 100;
   auto intf = f.startIntf( ethernet( 1 ), "198.18.0.1/24", p );
   f.cellGlobalStatus->reloadIs( true );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.1" ) );
   EXPECT_EQ( intf->usedDrPriority(), 1u );
}

TEST( ScenarioDrElection, Ipv6AddressesBreakTiesByTheirOrder ) {
   EngineFixture f( Lumo::AddressFamily::ipv6 );
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "2001:db8:1::100/64" );
   f.receive( eth1, hello( "2001:db8:1::2" ).dr( 1 ) );
   EXPECT_EQ( intf->usedDr(), ip( "2001:db8:1::100" ) );
   f.receive( eth1, hello( "2001:db8:1:0:1::1" ).dr( 1 ) );
   EXPECT_EQ( intf->usedDr(), ip( "2001:db8:1:0:1::1" ) );
   f.receive( eth1, hello( "2001:db8:1::3" ).dr( 2 ) );
   EXPECT_EQ( intf->usedDr(), ip( "2001:db8:1::3" ) );
   EXPECT_EQ( intf->usedDrPriority(), 2u );
}

} // namespace
} // namespace PimScenario

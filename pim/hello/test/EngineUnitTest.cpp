// Engine behaviour below the Hello exchange itself: DR election (full and
// incremental, with their kept quirks), the used LAN prune delay values and
// T bit, BFD coupling, the per-VRF owner's interface lifecycle and the
// start-up reconciliation of neighbours left by an earlier run.
#include <gtest/gtest.h>

#include "EngineFixture.h"

namespace PimScenario {
namespace {

const Lumo::IntfId kEth1 = ethernet( 1 );

// ---- DR election ------------------------------------------------------------------

TEST( EngineDr, PriorityThenAddressDecideAndEqualPriorityGoesToTheHigherAddress ) {
   EngineFixture f;
   auto intf = f.startIntf( kEth1, "198.18.0.10/24" );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.10" ) );
   EXPECT_EQ( intf->usedDrPriority(), 1u );
   EXPECT_TRUE( intf->iAmDr() );

   f.receive( kEth1, hello( "198.18.0.2" ).dr( 5 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   EXPECT_EQ( intf->usedDrPriority(), 5u );
   EXPECT_FALSE( intf->iAmDr() );

   // Same priority, higher address: takes over.
   f.receive( kEth1, hello( "198.18.0.3" ).dr( 5 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.3" ) );
   // Same priority, lower address: nothing changes.
   f.receive( kEth1, hello( "198.18.0.1" ).dr( 5 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.3" ) );
   EXPECT_EQ( intf->usedDrPriority(), 5u );
   EXPECT_TRUE( f.traced( EngineFixture::kIntfTrace, 2,
                          "Updated used DR for interface Ethernet1 to 198.18.0.3 with priority 5" ) );
}

TEST( EngineDr, TheDrLoweringItsPriorityRunsTheFullElectionAndZeroIsTheLowest ) {
   EngineFixture f;
   auto intf = f.startIntf( kEth1, "198.18.0.10/24" );
   f.receive( kEth1, hello( "198.18.0.2" ).dr( 10 ) );
   f.receive( kEth1, hello( "198.18.0.3" ).dr( 7 ) );
   ASSERT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );

   // Raising: the DR stays, only the priority moves.
   f.receive( kEth1, hello( "198.18.0.2" ).dr( 20 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   EXPECT_EQ( intf->usedDrPriority(), 20u );

   // Lowering below the next candidate: full election.
   f.receive( kEth1, hello( "198.18.0.2" ).dr( 0 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.3" ) );
   EXPECT_EQ( intf->usedDrPriority(), 7u );

   // Priority 0 is just the lowest: with the other neighbour gone the own
   // priority 1 beats it.
   f.receive( kEth1, hello( "198.18.0.3" ).hold( 0 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.10" ) );
   EXPECT_EQ( intf->usedDrPriority(), 1u );
}

TEST( EngineDr, NeighborWithoutPriorityOnlyChecksItsAddressUntilAFullElection ) {
   EngineFixture f;
   auto intf = f.startIntf( kEth1, "198.18.0.10/24" );
   f.receive( kEth1, hello( "198.18.0.5" ).dr( 9 ) );
   ASSERT_EQ( intf->usedDr(), ip( "198.18.0.5" ) );

   // A lower address without the option: address-only mode, but only the
   // incremental check runs, so DR and recorded priority stay as they were.
   f.receive( kEth1, hello( "198.18.0.4" ) );
   EXPECT_EQ( f.intfSm( kEth1 )->neighborNotUsingDrPriority(), 1u );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.5" ) );
   EXPECT_EQ( intf->usedDrPriority(), 9u );

   // The current DR leaves: full election in address-only mode.
   f.receive( kEth1, hello( "198.18.0.5" ).hold( 0 ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.10" ) );
   EXPECT_EQ( intf->usedDrPriority(), kDrPriorityAddressOnly );

   // A higher address without the option wins on the address alone.
   f.receive( kEth1, hello( "198.18.0.20" ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.20" ) );
   EXPECT_EQ( intf->usedDrPriority(), kDrPriorityAddressOnly );

   // Both option-less neighbours start sending it: back to priority mode.
   f.receive( kEth1, hello( "198.18.0.4" ).dr( 3 ) );
   EXPECT_EQ( f.intfSm( kEth1 )->neighborNotUsingDrPriority(), 1u );
   f.receive( kEth1, hello( "198.18.0.20" ).dr( 2 ) );
   EXPECT_EQ( f.intfSm( kEth1 )->neighborNotUsingDrPriority(), 0u );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.4" ) );
   EXPECT_EQ( intf->usedDrPriority(), 3u );
}

TEST( EngineDr, OwnPriorityChangeTriggersAHelloOnlyWhenTheRoleChanges ) {
   EngineFixture f;
   auto intf = f.startIntf( kEth1, "198.18.0.10/24" );
   f.receive( kEth1, hello( "198.18.0.2" ).dr( 5 ) );
   f.advanceBy( 2.0 );   // the neighbour-event Hello goes out
   ASSERT_FALSE( intf->triggeredHello() );

   intf->drPriorityIs( 3 );   // still below the neighbour
   f.runUntilIdle();
   EXPECT_FALSE( intf->iAmDr() );
   EXPECT_FALSE( intf->triggeredHello() );

   intf->drPriorityIs( 8 );   // now above: this router becomes DR
   f.runUntilIdle();
   EXPECT_TRUE( intf->iAmDr() );
   EXPECT_EQ( intf->usedDrPriority(), 8u );
   EXPECT_TRUE( intf->triggeredHello() );
   EXPECT_TRUE( f.traced( EngineFixture::kIntfTrace, 7, "DR changed due to priority change for interface Ethernet1" ) );
}

TEST( EngineDr, ReloadBidsOneInBothElectionsUntilReloadEnds ) {
   EngineFixture f;
   IntfParams p;
   p.drPriority = 100;
   auto intf = f.startIntf( kEth1, "198.18.0.10/24", p );
   f.receive( kEth1, hello( "198.18.0.2" ).dr( 5 ) );
   ASSERT_TRUE( intf->iAmDr() );

   f.cellGlobalStatus->reloadIs( true );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   EXPECT_TRUE( f.intfSm( kEth1 )->drNotifyDelay() );

   // The incremental path also counts the own candidacy as 1.
   intf->drPriorityIs( 200 );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );

   // DR delay expiry: the flag is reset at once, the Hellos advertise the
   // configured priority again, the election still bids 1.
   f.cellGlobalStatus->drDelayTimerExpiredIs( true );
   f.runUntilIdle();
   EXPECT_FALSE( f.cellGlobalStatus->drDelayTimerExpired() );
   EXPECT_FALSE( f.intfSm( kEth1 )->drNotifyDelay() );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );

   f.cellGlobalStatus->reloadIs( false );
   f.runUntilIdle();
   f.intfSm( kEth1 )->updateDr();
   EXPECT_TRUE( intf->iAmDr() );
   EXPECT_EQ( intf->usedDrPriority(), 200u );
}

// ---- LAN prune delay and T bit --------------------------------------------------------

TEST( EngineLanPrune, OneNeighborWithoutTheOptionForcesTheDefaultsUntilItLeaves ) {
   EngineFixture f;
   auto intf = f.startIntf( kEth1, "198.18.0.10/24" );
   EXPECT_FALSE( intf->usedTBit() );   // no active neighbour

   f.receive( kEth1, hello( "198.18.0.2" ).lpd( 700, 3000, true ) );
   EXPECT_EQ( intf->usedPropagationDelay(), 700 );
   EXPECT_EQ( intf->usedOverrideInterval(), 3000 );
   EXPECT_TRUE( intf->usedTBit() );

   f.receive( kEth1, hello( "198.18.0.3" ) );
   EXPECT_EQ( intf->usedPropagationDelay(), kPropagationDelayDefault );
   EXPECT_EQ( intf->usedOverrideInterval(), kOverrideIntervalDefault );
   EXPECT_FALSE( intf->usedTBit() );

   // While it is there, another neighbour's changes are ignored entirely.
   f.receive( kEth1, hello( "198.18.0.2" ).lpd( 900, 3500, false ) );
   EXPECT_EQ( intf->usedPropagationDelay(), kPropagationDelayDefault );
   EXPECT_EQ( f.intfSm( kEth1 )->neighborNotUsingTBit(), 1u );

   f.receive( kEth1, hello( "198.18.0.3" ).hold( 0 ) );
   EXPECT_EQ( intf->usedPropagationDelay(), 900 );
   EXPECT_EQ( intf->usedOverrideInterval(), 3500 );
   // The T-bit change of .2 was skipped, so its clear bit is not counted.
   EXPECT_EQ( f.intfSm( kEth1 )->neighborNotUsingTBit(), 0u );
   EXPECT_TRUE( intf->usedTBit() );
}

TEST( EngineLanPrune, RaisesApplyAtOnceAndDecreasesWaitForAFullUpdate ) {
   EngineFixture f;
   auto intf = f.startIntf( kEth1, "198.18.0.10/24" );
   f.receive( kEth1, hello( "198.18.0.2" ).lpd( 700, 3000, true ) );
   f.receive( kEth1, hello( "198.18.0.2" ).lpd( 800, 2600, true ) );
   EXPECT_EQ( intf->usedPropagationDelay(), 800 );
   EXPECT_EQ( intf->usedOverrideInterval(), 3000 );

   intf->propagationDelayIs( 1200 );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedPropagationDelay(), 1200 );
   intf->propagationDelayIs( 100 );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedPropagationDelay(), 1200 );

   // A neighbour coming runs the full update.
   f.receive( kEth1, hello( "198.18.0.3" ).lpd( 600, 2000, true ) );
   EXPECT_EQ( intf->usedPropagationDelay(), 800 );
   EXPECT_EQ( intf->usedOverrideInterval(), 2600 );
}

TEST( EngineLanPrune, TBitNeedsEveryActiveNeighborToSetIt ) {
   EngineFixture f;
   auto intf = f.startIntf( kEth1, "198.18.0.10/24" );
   f.receive( kEth1, hello( "198.18.0.2" ).lpd( 500, 2500, true ) );
   f.receive( kEth1, hello( "198.18.0.3" ).lpd( 500, 2500, true ) );
   EXPECT_TRUE( intf->usedTBit() );
   f.receive( kEth1, hello( "198.18.0.3" ).lpd( 500, 2500, false ) );
   EXPECT_FALSE( intf->usedTBit() );
   f.receive( kEth1, hello( "198.18.0.3" ).lpd( 500, 2500, true ) );
   EXPECT_TRUE( intf->usedTBit() );
   f.receive( kEth1, hello( "198.18.0.2" ).hold( 0 ) );
   f.receive( kEth1, hello( "198.18.0.3" ).hold( 0 ) );
   EXPECT_FALSE( intf->usedTBit() );
   EXPECT_EQ( f.intfSm( kEth1 )->neighborNotUsingTBit(), 0u );
}

// ---- BFD --------------------------------------------------------------------------------

TEST( EngineBfd, SessionDownHoldsTheNeighborOutUntilItsNextHello ) {
   EngineFixture f;
   IntfParams p;
   p.bfdEnabled = true;
   auto intf = f.startIntf( kEth1, "198.18.0.10/24", p );
   f.receive( kEth1, hello( "198.18.0.2" ).dr( 50 ) );
   const Bfd::Peer peer( ip( "198.18.0.2" ), "default" );
   EXPECT_TRUE( f.bfdAppConfig->peerConfig( peer ) );
   EXPECT_TRUE( f.active( kEth1, "198.18.0.2" ) );

   auto status = f.bfdAppStatus->peerStatusIs( peer, Bfd::operUp );
   f.runUntilIdle();
   EXPECT_EQ( f.neighbor( kEth1, "198.18.0.2" )->bfdState(), Bfd::operUp );
   EXPECT_EQ( f.logged( "PIM_BFD_STATE_CHANGE" ), 0u );

   status->statusIs( Bfd::operDown );
   f.runUntilIdle();
   EXPECT_EQ( f.logged( "PIM_BFD_STATE_CHANGE" ), 1u );
   EXPECT_TRUE( intf->inactiveBfdNeighborHas( ip( "198.18.0.2" ) ) );
   EXPECT_FALSE( f.active( kEth1, "198.18.0.2" ) );
   EXPECT_TRUE( intf->iAmDr() );   // the held-out neighbour no longer counts

   f.advanceBy( 5.0 );
   f.clearSent();
   status->statusIs( Bfd::operUp );
   f.runUntilIdle();
   EXPECT_EQ( f.logged( "PIM_BFD_STATE_CHANGE" ), 2u );
   ASSERT_EQ( f.sentOn( kEth1 ).size(), 1u );
   EXPECT_EQ( f.sentOn( kEth1 )[ 0 ].holdTime, intf->helloHoldTime() );
   EXPECT_FALSE( f.active( kEth1, "198.18.0.2" ) );

   f.receive( kEth1, hello( "198.18.0.2" ).dr( 50 ) );
   EXPECT_FALSE( intf->inactiveBfdNeighborHas( ip( "198.18.0.2" ) ) );
   EXPECT_TRUE( f.active( kEth1, "198.18.0.2" ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
}

TEST( EngineBfd, InitToDownLogsNothingAndDisablingBfdReleasesEverything ) {
   EngineFixture f;
   IntfParams p;
   p.bfdEnabled = true;
   auto intf = f.startIntf( kEth1, "198.18.0.10/24", p );
   f.receive( kEth1, hello( "198.18.0.2" ) );
   const Bfd::Peer peer( ip( "198.18.0.2" ), "default" );
   auto status = f.bfdAppStatus->peerStatusIs( peer, Bfd::operInit );
   f.runUntilIdle();
   status->statusIs( Bfd::operDown );
   f.runUntilIdle();
   EXPECT_EQ( f.logged( "PIM_BFD_STATE_CHANGE" ), 0u );
   EXPECT_TRUE( f.active( kEth1, "198.18.0.2" ) );

   status->statusIs( Bfd::operUp );
   f.runUntilIdle();
   status->statusIs( Bfd::operAdminDown );
   f.runUntilIdle();
   ASSERT_FALSE( f.active( kEth1, "198.18.0.2" ) );

   intf->bfdEnabledIs( false );
   f.runUntilIdle();
   EXPECT_FALSE( f.bfdAppConfig->peerConfig( peer ) );
   EXPECT_FALSE( intf->inactiveBfdNeighborHas( ip( "198.18.0.2" ) ) );
   EXPECT_TRUE( f.active( kEth1, "198.18.0.2" ) );

   // With BFD off a status change is traced and dropped.
   status->statusIs( Bfd::operUp );
   f.runUntilIdle();
   EXPECT_TRUE( f.traced( EngineFixture::kIntfTrace, 5, "BFD is not enabled on interface Ethernet1" ) );
}

// ---- per-VRF owner ---------------------------------------------------------------------

TEST( EngineGlobal, MachineFollowsTheKernelEntryAndTheStatusEntry ) {
   EngineFixture f;
   IntfParams p;
   p.kernelKnown = false;
   f.addIntf( kEth1, "198.18.0.10/24", p );
   EXPECT_FALSE( f.intfSm( kEth1 ) );
   EXPECT_TRUE( f.global->pimIntfHas( kEth1 ) );

   f.random().push( { drawForTenths( 4 ) } );
   f.kernelAdd( kEth1, 42 );
   f.runUntilIdle();
   ASSERT_TRUE( f.intfSm( kEth1 ) );
   EXPECT_EQ( f.intf( kEth1 )->portInterfaceId().ifIndex, 42u );
   EXPECT_DOUBLE_EQ( f.intfSm( kEth1 )->helloTriggeredTimerTimeMin(), f.now() + 0.4 );

   f.kernelDel( kEth1 );
   f.runUntilIdle();
   EXPECT_FALSE( f.intfSm( kEth1 ) );

   f.kernelAdd( kEth1, 42 );
   f.runUntilIdle();
   f.advanceBy( 1.0 );
   f.receive( kEth1, hello( "198.18.0.2" ) );
   f.clearSent();
   f.allStatus->pimIntfDel( kEth1 );
   f.runUntilIdle();
   EXPECT_FALSE( f.intfSm( kEth1 ) );
   EXPECT_FALSE( f.global->pimIntfHas( kEth1 ) );
   EXPECT_TRUE( f.sent().empty() );   // no goodbye on this path
}

TEST( EngineGlobal, NullCollectionArgumentsAreRangeErrorsWithTheFixedTexts ) {
   EngineFixture f;
   try {
      f.global->pimIntfIs( nullptr );
      ADD_FAILURE() << "no exception";
   } catch( const Kiv::RangeException & e ) {
      EXPECT_STREQ( e.what(),
                    "null _pimIntf parameter to mutator for Routing::Pim::GlobalIntfSm::pimIntf not allowed\"" );
   }
   try {
      f.global->peerStatusIs( nullptr );
      ADD_FAILURE() << "no exception";
   } catch( const Kiv::RangeException & e ) {
      EXPECT_STREQ( e.what(),
                    "null _peerStatus parameter to mutator for Routing::Pim::GlobalIntfSm::peerStatus not allowed\"" );
   }
}

TEST( EngineGlobal, StartupDropsBfdPeersWithoutAReason ) {
   EngineFixture f;
   IntfParams bfd;
   bfd.bfdEnabled = true;
   f.startIntf( kEth1, "198.18.0.10/24", bfd );
   f.startIntf( ethernet( 2 ), "198.18.1.10/24" );
   f.receive( kEth1, hello( "198.18.0.2" ) );
   f.receive( ethernet( 2 ), hello( "198.18.1.2" ) );
   const Bfd::Peer kept( ip( "198.18.0.2" ), "default" );
   const Bfd::Peer noNeighbor( ip( "198.18.0.3" ), "default" );
   const Bfd::Peer bfdOff( ip( "198.18.1.2" ), "default" );
   const Bfd::Peer noIntf( ip( "198.18.9.9" ), "default" );
   const Bfd::Peer otherVrf( ip( "198.18.9.9" ), "red" );
   for( const auto & p : { noNeighbor, bfdOff, noIntf, otherVrf } ) f.bfdAppConfig->peerConfigIs( p, true );

   f.global = GlobalIntfSmIs( f.allStatus, f.inputs );
   f.runUntilIdle();
   EXPECT_TRUE( f.bfdAppConfig->peerConfig( kept ) );
   EXPECT_FALSE( f.bfdAppConfig->peerConfig( noNeighbor ) );
   EXPECT_FALSE( f.bfdAppConfig->peerConfig( bfdOff ) );
   EXPECT_FALSE( f.bfdAppConfig->peerConfig( noIntf ) );
   EXPECT_TRUE( f.bfdAppConfig->peerConfig( otherVrf ) );
}

// ---- start-up reconciliation -------------------------------------------------------------

TEST( EngineStartup, EarlierNeighborsAreReconciledAndCounted ) {
   EngineFixture f;
   IntfParams p;
   p.kernelKnown = false;
   auto intf = f.addIntf( kEth1, "198.18.0.10/24", p );
   // State left by an earlier run: one expired and one live neighbour, a
   // stale active entry, a stale down-list entry and a stale secondary map.
   const double now = f.now();
   auto stale = intf->neighborIs( ip( "198.18.0.2" ), kEth1, 105, DrPriorityOption{}, GenerationIdOption{},
                                  LanPruneDelayOption{} );
   stale->lastRefreshTimeIs( now - 200 );
   auto live = intf->neighborIs( ip( "198.18.0.3" ), kEth1, 105, DrPriorityOption{ true, 7 },
                                 GenerationIdOption{}, LanPruneDelayOption{ true, 900, 3000, true } );
   live->lastRefreshTimeIs( now - 10 );
   live->secondaryAddressIs( ip( "198.18.5.5" ), true );
   intf->activeNeighborIs( stale );
   intf->activeNeighborIs( live );
   intf->inactiveBfdNeighborIs( stale );
   intf->nbSecondaryAddressIs( ip( "198.18.6.6" ), ip( "198.18.0.2" ) );
   f.runUntilIdle();

   f.kernelAdd( kEth1, 5 );
   f.runUntilIdle();
   auto sm = f.intfSm( kEth1 );
   ASSERT_TRUE( sm );
   EXPECT_FALSE( intf->neighborHas( ip( "198.18.0.2" ) ) );
   EXPECT_FALSE( intf->activeNeighborHas( ip( "198.18.0.2" ) ) );
   EXPECT_FALSE( intf->inactiveBfdNeighborHas( ip( "198.18.0.2" ) ) );
   EXPECT_FALSE( intf->nbSecondaryAddressHas( ip( "198.18.6.6" ) ) );
   EXPECT_EQ( intf->nbSecondaryAddress( ip( "198.18.5.5" ) ), ip( "198.18.0.3" ) );
   ASSERT_TRUE( sm->neighborSm( ip( "198.18.0.3" ) ) );
   EXPECT_DOUBLE_EQ( sm->neighborSm( ip( "198.18.0.3" ) )->neighborTimerTimeMin(), now - 10 + 105 );
   EXPECT_EQ( sm->neighborNotUsingDrPriority(), 0u );
   EXPECT_EQ( sm->neighborNotUsingLanPrune(), 0u );
   EXPECT_EQ( sm->neighborNotUsingTBit(), 0u );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.3" ) );
   EXPECT_EQ( intf->usedPropagationDelay(), 900 );
   EXPECT_TRUE( intf->usedTBit() );
}

} // namespace
} // namespace PimScenario

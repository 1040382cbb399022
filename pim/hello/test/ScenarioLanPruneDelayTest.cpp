// The interface's used propagation delay, override interval and T bit as
// neighbours come, change and go: the largest advertised values while every
// neighbour sends the option, the defaults while one does not, increases that
// apply at once and decreases that wait for the next full update.
#include "EngineFixture.h"

namespace PimScenario {
namespace {

struct Used {
   std::uint16_t propagationDelay;
   std::uint16_t overrideInterval;
   bool tBit;
   bool operator==( const Used & ) const = default;
};
std::ostream & operator<<( std::ostream & os, const Used & u ) {
   return os << "{pd=" << u.propagationDelay << " oi=" << u.overrideInterval << " T=" << u.tBit << "}";
}
Used used( const Intf & i ) { return Used{ i.usedPropagationDelay(), i.usedOverrideInterval(), i.usedTBit() }; }

IntfParams ownDelays() {
   IntfParams p;
   p.propagationDelay = 400;
   p.overrideInterval = 2000;
   return p;
}

TEST( ScenarioLanPruneDelay, FullUpdatesTakeTheLargestValuesOrTheDefaultsWhileAnyNeighborLacksTheOption ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24", ownDelays() );
   auto sm = f.intfSm( eth1 );
   EXPECT_EQ( used( *intf ), ( Used{ 400, 2000, false } ) );

   f.receive( eth1, hello( "198.18.0.2" ).lpd( 600, 3000, true ) );
   EXPECT_EQ( used( *intf ), ( Used{ 600, 3000, true } ) );
   EXPECT_TRUE( f.traced( EngineFixture::kIntfTrace, 7, "Updated used propagation delay for interface Ethernet1 to 600" ) );
   EXPECT_TRUE( f.traced( EngineFixture::kIntfTrace, 7, "Updated used override interval for interface Ethernet1 to 3000" ) );

   f.receive( eth1, hello( "198.18.0.3" ).lpd( 450, 3500, true ) );
   EXPECT_EQ( used( *intf ), ( Used{ 600, 3500, true } ) );

   f.receive( eth1, hello( "198.18.0.4" ) );
   EXPECT_EQ( sm->neighborNotUsingLanPrune(), 1u );
   EXPECT_EQ( sm->neighborNotUsingTBit(), 1u );
   EXPECT_EQ( used( *intf ), ( Used{ 500, 2500, false } ) );

   // A neighbour with the option but a clear T bit.
   f.receive( eth1, hello( "198.18.0.5" ).lpd( 100, 100, false ) );
   EXPECT_EQ( sm->neighborNotUsingLanPrune(), 1u );
   EXPECT_EQ( sm->neighborNotUsingTBit(), 2u );

   f.receive( eth1, hello( "198.18.0.4" ).hold( 0 ) );
   EXPECT_EQ( sm->neighborNotUsingLanPrune(), 0u );
   EXPECT_EQ( used( *intf ), ( Used{ 600, 3500, false } ) );
   f.receive( eth1, hello( "198.18.0.5" ).hold( 0 ) );
   EXPECT_EQ( sm->neighborNotUsingTBit(), 0u );
   EXPECT_EQ( used( *intf ), ( Used{ 600, 3500, true } ) );

   // The own values count in the maximum.
   f.receive( eth1, hello( "198.18.0.2" ).hold( 0 ) );
   f.receive( eth1, hello( "198.18.0.3" ).hold( 0 ) );
   EXPECT_EQ( used( *intf ), ( Used{ 400, 2000, false } ) );
}

TEST( ScenarioLanPruneDelay, NeighborIncreasesApplyAtOnceDecreasesWaitForTheNextFullUpdate ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24", ownDelays() );
   f.receive( eth1, hello( "198.18.0.2" ).lpd( 600, 3000, true ) );
   f.receive( eth1, hello( "198.18.0.3" ).lpd( 450, 2600, true ) );

   f.advanceBy( 1.0 );
   f.receive( eth1, hello( "198.18.0.3" ).lpd( 800, 2700, true ) );
   EXPECT_EQ( used( *intf ), ( Used{ 800, 3000, true } ) );
   f.receive( eth1, hello( "198.18.0.3" ).lpd( 100, 4000, true ) );
   EXPECT_EQ( used( *intf ), ( Used{ 800, 4000, true } ) );
   f.receive( eth1, hello( "198.18.0.3" ).lpd( 100, 200, true ) );
   EXPECT_EQ( used( *intf ), ( Used{ 800, 4000, true } ) );

   // A neighbour coming is a full update.
   f.receive( eth1, hello( "198.18.0.4" ).lpd( 300, 300, true ) );
   EXPECT_EQ( used( *intf ), ( Used{ 600, 3000, true } ) );
}

TEST( ScenarioLanPruneDelay, OwnIncreaseAppliesAtOnceOwnDecreaseWaitsAndDefaultsWin ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24", ownDelays() );
   f.receive( eth1, hello( "198.18.0.2" ).lpd( 600, 3000, true ) );

   intf->propagationDelayIs( 700 );
   intf->overrideIntervalIs( 5000 );
   f.runUntilIdle();
   EXPECT_EQ( used( *intf ), ( Used{ 700, 5000, true } ) );
   EXPECT_TRUE( f.traced( EngineFixture::kIntfTrace, 7, "Propagation delay changed to 700 for interface Ethernet1" ) );
   EXPECT_TRUE( f.traced( EngineFixture::kIntfTrace, 7, "Override interval changed to 5000 for interface Ethernet1" ) );

   intf->propagationDelayIs( 300 );
   intf->overrideIntervalIs( 1000 );
   f.runUntilIdle();
   EXPECT_EQ( used( *intf ), ( Used{ 700, 5000, true } ) );

   f.receive( eth1, hello( "198.18.0.3" ).lpd( 350, 1500, true ) );
   EXPECT_EQ( used( *intf ), ( Used{ 600, 3000, true } ) );

   // While a neighbour lacks the option the own value has no say.
   f.receive( eth1, hello( "198.18.0.4" ) );
   intf->propagationDelayIs( 9000 );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedPropagationDelay(), 500 );
}

TEST( ScenarioLanPruneDelay, ChangesOfNeighborsWithTheOptionAreIgnoredWhileAnotherLacksIt ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24", ownDelays() );
   auto sm = f.intfSm( eth1 );
   f.receive( eth1, hello( "198.18.0.2" ).lpd( 600, 3000, true ) );
   f.receive( eth1, hello( "198.18.0.3" ).lpd( 450, 2600, true ) );
   f.receive( eth1, hello( "198.18.0.4" ) );
   EXPECT_EQ( sm->neighborNotUsingTBit(), 1u );
   EXPECT_EQ( used( *intf ), ( Used{ 500, 2500, false } ) );

   // .2 clears its T bit and raises its delay: the early return skips both.
   f.advanceBy( 1.0 );
   f.receive( eth1, hello( "198.18.0.2" ).lpd( 900, 3000, false ) );
   EXPECT_EQ( sm->neighborNotUsingTBit(), 1u );
   EXPECT_EQ( used( *intf ), ( Used{ 500, 2500, false } ) );

   // When the neighbour without the option leaves, the full update takes .2's
   // new delay, but the T bit count never saw .2 clear its bit.
   f.receive( eth1, hello( "198.18.0.4" ).hold( 0 ) );
   EXPECT_EQ( sm->neighborNotUsingTBit(), 0u );
   EXPECT_EQ( used( *intf ), ( Used{ 900, 3000, true } ) );
}

TEST( ScenarioLanPruneDelay, OptionValidityChangesRecountAndRecompute ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24", ownDelays() );
   auto sm = f.intfSm( eth1 );
   f.receive( eth1, hello( "198.18.0.2" ).lpd( 600, 3000, true ) );
   f.receive( eth1, hello( "198.18.0.3" ).lpd( 450, 2600, true ) );

   f.advanceBy( 1.0 );
   f.receive( eth1, hello( "198.18.0.2" ) );
   EXPECT_EQ( sm->neighborNotUsingLanPrune(), 1u );
   EXPECT_EQ( sm->neighborNotUsingTBit(), 1u );
   EXPECT_EQ( used( *intf ), ( Used{ 500, 2500, false } ) );

   f.advanceBy( 1.0 );
   f.receive( eth1, hello( "198.18.0.2" ).lpd( 550, 2800, true ) );
   EXPECT_EQ( sm->neighborNotUsingLanPrune(), 0u );
   EXPECT_EQ( sm->neighborNotUsingTBit(), 0u );
   EXPECT_EQ( used( *intf ), ( Used{ 550, 2800, true } ) );

   // The T bit alone going clear and set again.
   f.advanceBy( 1.0 );
   f.receive( eth1, hello( "198.18.0.3" ).lpd( 450, 2600, false ) );
   EXPECT_EQ( sm->neighborNotUsingTBit(), 1u );
   EXPECT_FALSE( intf->usedTBit() );
   f.advanceBy( 1.0 );
   f.receive( eth1, hello( "198.18.0.3" ).lpd( 450, 2600, true ) );
   EXPECT_EQ( sm->neighborNotUsingTBit(), 0u );
   EXPECT_TRUE( intf->usedTBit() );
   EXPECT_TRUE( f.tracedAnyLevel( EngineFixture::kIntfTrace, "Updated suppression bit for interface Ethernet1 to" ) );
}

TEST( ScenarioLanPruneDelay, ExpiryOfTheLastNeighborClearsTheTBitAndRestoresTheOwnValues ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24", ownDelays() );
   f.receive( eth1, hello( "198.18.0.2" ).hold( 20 ).lpd( 600, 3000, true ) );
   EXPECT_EQ( used( *intf ), ( Used{ 600, 3000, true } ) );
   f.advanceBy( 21.0 );
   EXPECT_FALSE( f.neighbor( eth1, "198.18.0.2" ) );
   EXPECT_EQ( used( *intf ), ( Used{ 400, 2000, false } ) );
}

TEST( ScenarioLanPruneDelay, HellosAdvertiseTheConfiguredValuesNotTheUsedOnes ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24", ownDelays() );
   f.receive( eth1, hello( "198.18.0.2" ).lpd( 600, 3000, true ) );
   f.advanceBy( 2.0 );
   ASSERT_EQ( f.sent().size(), 1u );
   EXPECT_EQ( f.sent()[ 0 ].propagationDelay, 400 );
   EXPECT_EQ( f.sent()[ 0 ].overrideInterval, 2000 );
   EXPECT_FALSE( f.sent()[ 0 ].tBit );
   EXPECT_TRUE( intf->usedTBit() );
}

} // namespace
} // namespace PimScenario

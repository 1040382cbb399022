// DR start-up after a reload (with the MLAG hold-off and the DR delay),
// fast-upgrade completion across VRFs, and the clear commands.
#include "ConfigSmFixture.h"

#include <utility>

namespace PimConfigTest {
namespace {

using Vrf = L3::VrfName;

// Counts every raise of drDelayTimerExpired as it happens: the VRF's
// interface owner resets the flag as soon as it has re-run the elections.
struct DrDelayExpiries : CellGlobalStatus::NotifieeConst {
   explicit DrDelayExpiries( const Kiv::Ptr< CellGlobalStatus > & s ) {
      kivImmediateIs( CellGlobalStatus::kivAttr_drDelayTimerExpired, true );
      notifierIs( s );
   }
   void onDrDelayTimerExpiredkivImmediate() override { count += notifier()->drDelayTimerExpired(); }
   int count = 0;
};

class ConfigSmDrStartupTest : public ConfigSmFixture {
 protected:
   void SetUp() override { vrfIs( "default" ); }
   DrDelayExpiries expiries_{ cellGlobalStatus };
};

// After a reload the DR election waits a fixed hold-off (longer while MLAG
// keeps ports error-disabled), then the configured DR delay; once.
TEST_F( ConfigSmDrStartupTest, ReloadHoldsOffThenRunsTheDrDelayOnce ) {
   constexpr double kNo = Kiv::kNever;
   const struct {
      const char * what;
      bool reload;
      double mlagDownFor;   // ports error-disabled for this long
      std::uint16_t drDelay;
      double reloadEnds, expiry;   // seconds after start
   } cases[] = {
      { "no reload", false, 0, 10, kNo, kNo },
      { "reload", true, 0, 10, 50.0, 60.0 },
      { "reload, no DR delay", true, 0, 0, 50.0, 50.0 },
      { "reload, MLAG ports down", true, 120.0, 5, 170.0, 175.0 },
   };
   for( const auto & c : cases ) {
      SCOPED_TRACE( c.what );
      sm_ = nullptr;
      cellGlobalStatus->reloadIs( c.reload );
      mlag->portsErrdisabledIs( c.mlagDownFor > 0 );
      configColl->globalConfig()->drDelayIs( c.drDelay );
      expiries_.count = 0;
      const double t0 = loop_.now();
      start();
      if( c.mlagDownFor > 0 ) {
         ASSERT_TRUE( loop_.advanceTo( t0 + c.mlagDownFor ) );
         EXPECT_TRUE( cellGlobalStatus->reload() );
         EXPECT_EQ( sm_->drDelayTimerTimeMin(), Kiv::kNever );
         mlag->portsErrdisabledIs( false );
         ASSERT_TRUE( settle() );
      }
      if( c.reloadEnds != kNo ) {
         ASSERT_TRUE( loop_.advanceTo( t0 + c.reloadEnds - 0.1 ) );
         EXPECT_TRUE( cellGlobalStatus->reload() );
         ASSERT_TRUE( loop_.advanceTo( t0 + c.reloadEnds ) );
         EXPECT_FALSE( cellGlobalStatus->reload() );
         EXPECT_EQ( expiries_.count, c.expiry == c.reloadEnds ? 1 : 0 );
         ASSERT_TRUE( loop_.advanceTo( t0 + c.expiry - 0.1 ) );
         EXPECT_EQ( expiries_.count, c.expiry == c.reloadEnds ? 1 : 0 );
         ASSERT_TRUE( loop_.advanceTo( t0 + c.expiry ) );
         EXPECT_EQ( expiries_.count, 1 );
      } else {
         EXPECT_EQ( sm_->drInitTimerTimeMin(), Kiv::kNever );
         EXPECT_EQ( sm_->drDelayTimerTimeMin(), Kiv::kNever );
      }
      ASSERT_TRUE( loop_.advanceBy( 3600.0 ) );
      EXPECT_FALSE( cellGlobalStatus->reload() );
      EXPECT_EQ( expiries_.count, c.reload ? 1 : 0 ) << "one start-up sequence";
   }
}

class ConfigSmAsuTest : public ConfigSmFixture {};

// End to end: the shutdown flag reaches every VRF's container, each stretches
// its interfaces' hold time and reports after the notify delay, and the stage
// completes only when the last participating VRF has (here one without PIM,
// whose completion comes from elsewhere).
TEST_F( ConfigSmAsuTest, ShutdownFlowsThroughTheContainersToTheStage ) {
   vrfIs( "default" );
   vrfIs( "red" );
   ipIntfIs( "Ethernet1", "default", "198.18.1.1/24" );
   ipIntfIs( "Ethernet2", "red", "198.18.2.1/24" );
   intfConfigIs( "Ethernet1", pimModeSparse );
   intfConfigIs( "Ethernet2", pimModeSparse );
   start();
   ASSERT_TRUE( hasContainer( "default" ) && hasContainer( "red" ) );
   for( const char * vrf : { "default", "red", "blue" } ) asuVrfStatus->participatingVrfIs( Vrf( vrf ), true );
   const double t0 = loop_.now();
   asuShutdown->shutdownIs( true );
   ASSERT_TRUE( loop_.advanceTo( t0 + 4.9 ) );
   EXPECT_EQ( pimIntf( "default", "Ethernet1" )->helloHoldTime(), 420 );
   EXPECT_EQ( pimIntf( "red", "Ethernet2" )->helloPeriod(), 120 );
   EXPECT_TRUE( stages_.empty() );
   ASSERT_TRUE( loop_.advanceTo( t0 + 5.0 ) );
   EXPECT_TRUE( asuVrfStatus->completedVrf( Vrf( "default" ) ) );
   EXPECT_TRUE( asuVrfStatus->completedVrf( Vrf( "red" ) ) );
   EXPECT_TRUE( stages_.empty() );
   asuVrfStatus->completedVrfIs( Vrf( "blue" ), true );
   ASSERT_TRUE( settle() );
   EXPECT_EQ( stages_, std::vector< std::string >{ "NetworkAgentShutdown" } );
}

class ConfigSmClearTest : public ConfigSmFixture {
 protected:
   void SetUp() override {
      vrfIs( "default" );
      ipIntfIs( "Ethernet1", "default", "198.18.1.1/24" );
      ipIntfIs( "Ethernet2", "default", "198.18.2.1/24" );
      intfConfigIs( "Ethernet1", pimModeSparse );
      intfConfigIs( "Ethernet2", pimModeSparse );
   }
};

// A new request entry is not a request; a request for a VRF without PIM is
// dropped; clearing routes regenerates the generation ids only for the bits
// this agent acts on.
TEST_F( ConfigSmClearTest, ClearCountersAndMulticastRoutesActOnlyWhenTheyApply ) {
   start();
   auto counters = sm_->pimVrfCounters( Vrf( "default" ) );
   ASSERT_TRUE( counters );
   counters->rxInc( 0, 7 );
   counters->txInc( 0, 3 );
   auto clear = clearConfigColl->vrfClearConfigIs( Vrf( "default" ) );
   auto other = clearConfigColl->vrfClearConfigIs( Vrf( "blue" ) );
   ASSERT_TRUE( settle() );
   EXPECT_EQ( counters->rx( 0 ), 7u );
   other->countersCountInc();
   ASSERT_TRUE( settle() );
   EXPECT_FALSE( sm_->pimVrfCounters( Vrf( "blue" ) ) );
   EXPECT_EQ( counters->rx( 0 ), 7u ) << "no other VRF's counters go";
   clear->countersCountInc();
   ASSERT_TRUE( settle() );
   EXPECT_EQ( counters->rx( 0 ) + counters->tx( 0 ), 0u );

   auto e1 = pimIntf( "default", "Ethernet1" );
   auto e2 = pimIntf( "default", "Ethernet2" );
   ASSERT_TRUE( e1 && e2 );
   auto ids = [ & ] { return std::pair( e1->generationId(), e2->generationId() ); };
   auto request = clearMroute->vrfClearMrouteConfigIs( Vrf( "default" ) );
   for( std::uint8_t bit : { 2, 0, 1, 3 } ) {
      const auto before = ids();
      request->requestFlagsIs( std::uint8_t( 1u << bit ) );
      request->routesCountInc();
      ASSERT_TRUE( settle() );
      if( bit == 2 ) {
         EXPECT_EQ( ids(), before ) << "a bit this agent does not act on";
      } else {
         EXPECT_TRUE( ids().first != before.first && ids().second != before.second ) << "bit " << int( bit );
         EXPECT_NE( ids().first, ids().second );
      }
   }
}

} // namespace
} // namespace PimConfigTest

// Fast-upgrade shutdown of one VRF: the advertised hold times are stretched at
// once, and the VRF is reported complete after the notification delay.
#include <gtest/gtest.h>

#include "agent/PimAsuSm.h"
#include "kiv/testing/TestLoop.h"

namespace {

using namespace Routing::Pim;
using McastCommon::AsuShutdownStatus;
using McastCommon::AsuVrfStatus;

Lumo::IpGenAddrWithMask ipm( const char * s ) { return Lumo::IpGenAddrWithMask::fromStrep( s ); }

class AsuSmTest : public ::testing::Test {
 protected:
   AsuSmTest() {
      shortHold_ = allStatus_->pimIntfIs( Lumo::IntfId( "Ethernet1" ), ipm( "198.18.1.1/24" ) );
      longHold_ = allStatus_->pimIntfIs( Lumo::IntfId( "Ethernet2" ), ipm( "198.18.2.1/24" ) );
      longHold_->helloHoldTimeIs( 600 );
      longHold_->helloPeriodIs( 200 );
   }
   Kiv::Ptr< AsuSm > build() { return AsuSmIs( config_, allStatus_, wheel_, shutdown_, vrfStatus_ ); }

   Kiv::Testing::TestLoop loop_{ 1000.0 };
   Kiv::Ptr< Tolm::TimerWheel > wheel_ = Tolm::TimerWheelIs( loop_.clock() );
   L3::VrfName vrf_{ "red" };
   Kiv::Ptr< Config > config_ = Kiv::make< Config >( vrf_ );
   Kiv::Ptr< AllStatus > allStatus_ = Kiv::make< AllStatus >( vrf_ );
   Kiv::Ptr< AsuShutdownStatus > shutdown_ = Kiv::make< AsuShutdownStatus >();
   Kiv::Ptr< AsuVrfStatus > vrfStatus_ = Kiv::make< AsuVrfStatus >();
   Kiv::Ptr< Intf > shortHold_;
   Kiv::Ptr< Intf > longHold_;
};

TEST_F( AsuSmTest, ShutdownStretchesHoldTimesAndReportsAfterTheNotifyDelay ) {
   auto sm = build();
   ASSERT_TRUE( loop_.advanceBy( 30.0 ) );
   EXPECT_EQ( shortHold_->helloHoldTime(), 105 ) << "nothing happens before the shutdown";
   EXPECT_FALSE( vrfStatus_->completedVrfHas( vrf_ ) );

   shutdown_->shutdownIs( true );
   ASSERT_TRUE( loop_.runUntilIdle() );
   const double raised = loop_.now();
   EXPECT_EQ( shortHold_->helloHoldTime(), 420 );
   EXPECT_EQ( shortHold_->helloPeriod(), 120 );
   EXPECT_FALSE( shortHold_->triggeredHello() ) << "the hold time change itself sends the Hello";
   EXPECT_EQ( longHold_->helloHoldTime(), 600 ) << "a longer hold time is kept";
   EXPECT_EQ( longHold_->helloPeriod(), 200 );
   EXPECT_EQ( longHold_->helloDelay(), 0u );
   EXPECT_TRUE( longHold_->triggeredHello() );
   ASSERT_TRUE( loop_.advanceTo( raised + 5.0 ) );
   EXPECT_TRUE( vrfStatus_->completedVrf( vrf_ ) );
   EXPECT_EQ( sm->asuTimerTimeMin(), Kiv::kNever );
}

TEST_F( AsuSmTest, ShutdownRequestedBeforeConstructionIsHonouredAtOnce ) {
   shutdown_->shutdownIs( true );
   auto sm = build();
   // No loop turn yet: the constructor did the work.
   EXPECT_EQ( shortHold_->helloHoldTime(), 420 );
   EXPECT_TRUE( sm->initialized() );
   ASSERT_TRUE( loop_.advanceBy( 5.0 ) );
   EXPECT_TRUE( vrfStatus_->completedVrf( vrf_ ) );
}

TEST_F( AsuSmTest, VrfWithoutInterfacesStillCompletesWithItsOwnDelay ) {
   allStatus_->pimIntfDelAll();
   auto sm = build();
   sm->asuNotifyDelayIs( 2.5 );
   shutdown_->shutdownIs( true );
   ASSERT_TRUE( loop_.advanceBy( 2.4 ) );
   EXPECT_FALSE( vrfStatus_->completedVrf( vrf_ ) );
   ASSERT_TRUE( loop_.advanceBy( 0.1 ) );
   EXPECT_TRUE( vrfStatus_->completedVrf( vrf_ ) );
}

} // namespace

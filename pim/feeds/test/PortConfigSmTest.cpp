// The reliable-transport connection address follows the configured source
// interface's address through the platform's source-interface registry.
#include <gtest/gtest.h>

#include "feeds/PortConfigSm.h"
#include "kiv/RangeException.h"
#include "kiv/testing/TestLoop.h"

namespace {

using namespace Routing::Pim;
using IpGen::SourceIntf::SourceIntfDir;
using IpGen::SourceIntf::VrfSourceIntfSm;

Lumo::IpGenAddr ip( const char * s ) { return Lumo::IpGenAddr::fromStrep( s ); }
Lumo::IpGenAddrWithMask ipm( const char * s ) { return Lumo::IpGenAddrWithMask::fromStrep( s ); }

class PortConfigSmTest : public ::testing::Test {
 protected:
   PortConfigSmTest() {
      ipStatus_->intfVrfIs( Lumo::IntfId( "Loopback0" ), vrf_ );
      ipStatus_->intfPrimaryIs( Lumo::IntfId( "Loopback0" ), ipm( "198.18.0.1/32" ) );
      ipStatus_->intfVrfIs( Lumo::IntfId( "Loopback1" ), vrf_ );
      ipStatus_->intfPrimaryIs( Lumo::IntfId( "Loopback1" ), ipm( "198.18.0.2/32" ) );
      registry_ = Kiv::make< VrfSourceIntfSm >( dir_, IpGen::intfStatusFactory( ipStatus_, vrf_ ) );
   }
   Kiv::Ptr< Reliable::ConfigSm > build() {
      return Reliable::configSmFactory( config_, registry_.ptr(), status_ );
   }
   Lumo::IpGenAddr published() const { return status_->pimsmSctpConnectionId(); }

   Kiv::Testing::TestLoop loop_;
   L3::VrfName vrf_{ "red" };
   Kiv::Ptr< IpGen::Status > ipStatus_ = Kiv::make< IpGen::Ipv4Status >();
   Kiv::Ptr< SourceIntfDir > dir_ = Kiv::make< SourceIntfDir >();
   Kiv::Ptr< VrfSourceIntfSm > registry_;
   Kiv::Ptr< Config > config_ = Kiv::make< Config >( vrf_ );
   Kiv::Ptr< Reliable::Status > status_ = Kiv::make< Reliable::Status >( vrf_ );
};

TEST_F( PortConfigSmTest, NoSourceInterfacePublishesTheUnspecifiedAddress ) {
   status_->pimsmSctpConnectionIdIs( ip( "198.18.9.9" ) );   // stale value from before
   auto sm = build();
   EXPECT_TRUE( published().isEmpty() );
   EXPECT_EQ( dir_->sourceIntfSize(), 0u );
}

// One timeline, every published value recorded: the address follows the
// interface's; a switch releases the old interface, with the unspecified
// address in between; leaving the VRF or clearing the configuration leaves
// no address.
TEST_F( PortConfigSmTest, FollowsTheSourceInterfaceAndSwitchingReleasesTheOldOne ) {
   struct Recorder : Reliable::Status::NotifieeConst {
      std::vector< Lumo::IpGenAddr > seen;
      void onPimsmSctpConnectionIdkivImmediate() override { seen.push_back( notifier()->pimsmSctpConnectionId() ); }
   } recorder;
   recorder.kivImmediateIs( Reliable::Status::kivAttr_pimsmSctpConnectionId, true );
   recorder.notifierIs( status_ );
   config_->sctpSrcIntfIs( Lumo::IntfId( "Loopback0" ) );
   auto sm = build();
   EXPECT_EQ( published(), ip( "198.18.0.1" ) ) << "published during construction";
   EXPECT_EQ( registry_->registrations( Lumo::IntfId( "Loopback0" ) ), 1u );
   ipStatus_->intfPrimaryIs( Lumo::IntfId( "Loopback0" ), ipm( "198.18.0.11/32" ) );
   ASSERT_TRUE( loop_.runUntilIdle() );
   config_->sctpSrcIntfIs( Lumo::IntfId( "Loopback1" ) );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_EQ( registry_->registrations( Lumo::IntfId( "Loopback0" ) ), 0u );
   EXPECT_FALSE( dir_->sourceIntf( Lumo::IntfId( "Loopback0" ) ) );
   EXPECT_EQ( registry_->registrations( Lumo::IntfId( "Loopback1" ) ), 1u );
   ipStatus_->intfVrfIs( Lumo::IntfId( "Loopback1" ), L3::VrfName( "blue" ) );
   ASSERT_TRUE( loop_.runUntilIdle() );
   ipStatus_->intfVrfIs( Lumo::IntfId( "Loopback1" ), vrf_ );
   ASSERT_TRUE( loop_.runUntilIdle() );
   config_->sctpSrcIntfIs( Lumo::IntfId() );
   ASSERT_TRUE( loop_.runUntilIdle() );
   const Lumo::IpGenAddr none;
   EXPECT_EQ( recorder.seen, ( std::vector< Lumo::IpGenAddr >{ ip( "198.18.0.1" ), ip( "198.18.0.11" ), none,
                                                               ip( "198.18.0.2" ), none, ip( "198.18.0.2" ), none } ) );
   EXPECT_EQ( dir_->sourceIntfSize(), 0u );
}

} // namespace

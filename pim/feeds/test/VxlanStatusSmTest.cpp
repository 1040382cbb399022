// The published VXLAN interface set follows three inputs at once: the PIM
// interfaces of the default VRF, the VLAN-to-VNI map and whether a VLAN maps
// to a real VNI.
#include <gtest/gtest.h>

#include "feeds/VxlanStatusSm.h"
#include "kiv/testing/TestLoop.h"

namespace {

using namespace Routing::Pim;
using VniMap = ::Vxlan::EnabledStatus;
using ::Vxlan::VniExtOrNone;

class VxlanStatusSmTest : public ::testing::Test {
 protected:
   Kiv::Testing::TestLoop loop_;
   Kiv::Ptr< VniMap > map_ = Kiv::make< VniMap >();
   Kiv::Ptr< Status > pimStatus_ = Kiv::make< Status >( L3::VrfName( "default" ) );
   Kiv::Ptr< Routing::Multicast::Vxlan::Status > out_ = Kiv::make< Routing::Multicast::Vxlan::Status >();

   Kiv::Ptr< VxlanStatusSm > build() { return VxlanStatusSmIs( map_, pimStatus_, out_ ); }
   bool published( const char * intf ) const { return out_->vxlanIntf( Lumo::IntfId( intf ) ); }
};

TEST_F( VxlanStatusSmTest, VlanInterfaceIsPublishedOnlyWhilePimAndMappedToAVni ) {
   auto sm = build();
   pimStatus_->pimIntfIs( Lumo::IntfId( "Vlan10" ), pimModeSparse );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_FALSE( published( "Vlan10" ) ) << "a PIM VLAN without a VNI is not VXLAN-mapped";

   map_->vlanToVniMapIs( 10, VniExtOrNone( 5010 ) );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_TRUE( published( "Vlan10" ) );

   // The none value counts as no mapping.
   map_->vlanToVniMapIs( 10, VniExtOrNone::none() );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_FALSE( published( "Vlan10" ) );

   map_->vlanToVniMapIs( 10, VniExtOrNone( 5010 ) );
   ASSERT_TRUE( loop_.runUntilIdle() );
   ASSERT_TRUE( published( "Vlan10" ) );
   map_->vlanToVniMapDel( 10 );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_FALSE( published( "Vlan10" ) ) << "removing the map entry withdraws the interface";

   map_->vlanToVniMapIs( 10, VniExtOrNone( 5010 ) );
   ASSERT_TRUE( loop_.runUntilIdle() );
   ASSERT_TRUE( published( "Vlan10" ) );
   pimStatus_->pimIntfDel( Lumo::IntfId( "Vlan10" ) );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_FALSE( published( "Vlan10" ) ) << "an interface that stops running PIM is withdrawn";
}

TEST_F( VxlanStatusSmTest, OnlyVlanInterfacesQualify ) {
   auto sm = build();
   map_->vlanToVniMapIs( 1, VniExtOrNone( 7 ) );
   pimStatus_->pimIntfIs( Lumo::IntfId( "Ethernet1" ), pimModeSparse );
   pimStatus_->pimIntfIs( Lumo::IntfId( "Vlan1" ), pimModeSparse );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_TRUE( published( "Vlan1" ) );
   EXPECT_FALSE( published( "Ethernet1" ) );
   EXPECT_EQ( out_->vxlanIntfSize(), 1u );
}

TEST_F( VxlanStatusSmTest, ConstructionPicksUpMappedPimVlansAndDropsStaleEntries ) {
   map_->vlanToVniMapIs( 20, VniExtOrNone( 100 ) );
   map_->vlanToVniMapIs( 30, VniExtOrNone( 200 ) );
   pimStatus_->pimIntfIs( Lumo::IntfId( "Vlan20" ), pimModeSparse );
   out_->vxlanIntfIs( Lumo::IntfId( "Vlan99" ), true );   // left by an earlier instance
   auto sm = build();
   // The constructor's pass is synchronous.
   EXPECT_TRUE( published( "Vlan20" ) );
   EXPECT_FALSE( published( "Vlan30" ) ) << "mapped but not a PIM interface";
   EXPECT_FALSE( published( "Vlan99" ) );
}

TEST_F( VxlanStatusSmTest, FullVlanPassRemovesInterfacesWhoseVlanLostItsVni ) {
   auto sm = build();
   pimStatus_->pimIntfIs( Lumo::IntfId( "Vlan7" ), pimModeSparse );
   pimStatus_->pimIntfIs( Lumo::IntfId( "Vlan8" ), pimModeSparse );
   map_->vlanToVniMapIs( 7, VniExtOrNone( 1 ) );
   map_->vlanToVniMapIs( 8, VniExtOrNone( 2 ) );
   ASSERT_TRUE( loop_.runUntilIdle() );
   ASSERT_EQ( out_->vxlanIntfSize(), 2u );
   // Change the map behind the machine's back, then run the full pass.
   sm->kivDoZombieReactors( true );
   map_->vlanToVniMapIs( 8, VniExtOrNone::none() );
   sm->handleVlanId();
   EXPECT_TRUE( published( "Vlan7" ) );
   EXPECT_FALSE( published( "Vlan8" ) );
}

} // namespace

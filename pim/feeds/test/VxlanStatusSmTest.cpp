// The published VXLAN interface set follows three inputs at once: the PIM
// interfaces of the default VRF, the VLAN-to-VNI map and whether a VLAN maps
// to a real VNI.
#include <gtest/gtest.h>

#include <functional>

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

// One timeline of input changes, each followed by what is published; only
// VLAN interfaces qualify.
TEST_F( VxlanStatusSmTest, VlanInterfaceIsPublishedOnlyWhilePimAndMappedToAVni ) {
   auto sm = build();
   pimStatus_->pimIntfIs( Lumo::IntfId( "Ethernet1" ), pimModeSparse );
   map_->vlanToVniMapIs( 1, VniExtOrNone( 7 ) );
   const std::function< void() > pim = [ & ] { pimStatus_->pimIntfIs( Lumo::IntfId( "Vlan10" ), pimModeSparse ); };
   const std::function< void() > map = [ & ] { map_->vlanToVniMapIs( 10, VniExtOrNone( 5010 ) ); };
   const struct {
      const char * what;
      std::function< void() > change;
      bool published;
   } steps[] = {
      { "a PIM VLAN without a VNI", pim, false },
      { "mapped", map, true },
      { "the none value is no mapping", [ & ] { map_->vlanToVniMapIs( 10, VniExtOrNone::none() ); }, false },
      { "mapped again", map, true },
      { "the map entry removed", [ & ] { map_->vlanToVniMapDel( 10 ); }, false },
      { "mapped once more", map, true },
      { "no longer PIM", [ & ] { pimStatus_->pimIntfDel( Lumo::IntfId( "Vlan10" ) ); }, false },
   };
   for( const auto & step : steps ) {
      SCOPED_TRACE( step.what );
      step.change();
      ASSERT_TRUE( loop_.runUntilIdle() );
      EXPECT_EQ( published( "Vlan10" ), step.published );
      EXPECT_FALSE( published( "Ethernet1" ) );
   }
}

// The constructor's pass is synchronous; the full pass, run with the map
// changed behind the machine's back, drops a VLAN that lost its VNI.
TEST_F( VxlanStatusSmTest, ConstructionAndTheFullPassPublishExactlyTheMappedPimVlans ) {
   map_->vlanToVniMapIs( 20, VniExtOrNone( 100 ) );
   map_->vlanToVniMapIs( 30, VniExtOrNone( 200 ) );
   map_->vlanToVniMapIs( 40, VniExtOrNone( 300 ) );
   pimStatus_->pimIntfIs( Lumo::IntfId( "Vlan20" ), pimModeSparse );
   pimStatus_->pimIntfIs( Lumo::IntfId( "Vlan40" ), pimModeSparse );
   out_->vxlanIntfIs( Lumo::IntfId( "Vlan99" ), true );   // left by an earlier instance
   auto sm = build();
   EXPECT_TRUE( published( "Vlan20" ) && published( "Vlan40" ) );
   EXPECT_FALSE( published( "Vlan30" ) ) << "mapped but not a PIM interface";
   EXPECT_FALSE( published( "Vlan99" ) );
   sm->kivDoZombieReactors( true );
   map_->vlanToVniMapIs( 40, VniExtOrNone::none() );
   sm->handleVlanId();
   EXPECT_TRUE( published( "Vlan20" ) );
   EXPECT_FALSE( published( "Vlan40" ) );
}

} // namespace

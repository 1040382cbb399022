#include <gtest/gtest.h>

#include <vector>

#include "kiv/Entity.h"
#include "kiv/RangeException.h"
#include "kiv/testing/TestLoop.h"
#include "services/hostinject/HostInject.h"
#include "services/mcast/Multicast.h"
#include "services/mlag/Mlag.h"

namespace {

const Lumo::IpGenAddr kAllPim4 = Lumo::ip4AddrPimRouters;
const Lumo::IpGenAddr kAllPim6 = Lumo::ip6AddrPimRouters;

class GroupWatcher : public IpGen::MulticastGroupsForApplications::NotifieeConst {
 public:
   void onIntfGroup( const IpGen::IntfGroup & g ) override { seen.push_back( g ); }
   std::vector< IpGen::IntfGroup > seen;
};

TEST( MulticastGroups, JoinAndLeaveOnlyMulticastGroupsOfTheFamily ) {
   Kiv::Testing::TestLoop loop;
   auto groups = Kiv::make< IpGen::Ipv4MulticastGroupsForApplications >();
   GroupWatcher w;
   w.notifierIs( groups );

   groups->joinGroup( "Ethernet1", kAllPim4 );
   groups->joinGroup( "Ethernet1", kAllPim4 );   // one membership
   groups->joinGroup( "Ethernet2", kAllPim4 );
   EXPECT_TRUE( groups->isMember( "Ethernet1", kAllPim4 ) );
   EXPECT_FALSE( groups->isMember( "Ethernet3", kAllPim4 ) );
   EXPECT_EQ( groups->intfGroupSize(), 2u );

   EXPECT_THROW( groups->joinGroup( "Ethernet1", Lumo::IpGenAddr::fromStrep( "198.18.0.1" ) ),
                 Kiv::RangeException );
   EXPECT_THROW( groups->joinGroup( "Ethernet1", kAllPim6 ), Kiv::RangeException );
   EXPECT_THROW( groups->joinGroup( Lumo::IntfId(), kAllPim4 ), Kiv::RangeException );

   groups->leaveGroup( "Ethernet1", kAllPim4 );
   groups->leaveGroup( "Ethernet1", kAllPim4 );   // not a member any more: nothing
   EXPECT_FALSE( groups->isMember( "Ethernet1", kAllPim4 ) );
   EXPECT_TRUE( groups->isMember( "Ethernet2", kAllPim4 ) );
   ASSERT_TRUE( loop.runUntilIdle() );
   // Ethernet1 joined and left, Ethernet2 joined: one callback per key.
   EXPECT_EQ( w.seen.size(), 2u );

   auto groups6 = Kiv::make< IpGen::Ipv6MulticastGroupsForApplications >();
   groups6->joinGroup( "Ethernet1", kAllPim6 );
   EXPECT_TRUE( groups6->isMember( "Ethernet1", kAllPim6 ) );
   EXPECT_THROW( groups6->joinGroup( "Ethernet1", kAllPim4 ), Kiv::RangeException );
   EXPECT_STREQ( groups6->typeName(), "Ip6::MulticastGroupsForApplications" );
}

TEST( MulticastGroups, StoreCreatesTheFamilyFormsByName ) {
   auto dir = Kiv::make< Kiv::Dir >( "ip" );
   auto g4 = Kiv::entity_cast< IpGen::MulticastGroupsForApplications >(
      dir->entryIs( "mcGroupsApp", "Ip::MulticastGroupsForApplications" ) );
   auto g6 = Kiv::entity_cast< IpGen::MulticastGroupsForApplications >(
      dir->entryIs( "mcGroupsApp6", "Ip6::MulticastGroupsForApplications" ) );
   ASSERT_TRUE( g4 && g6 );
   EXPECT_EQ( g4->af(), Lumo::AddressFamily::ipv4 );
   EXPECT_EQ( g6->af(), Lumo::AddressFamily::ipv6 );
   EXPECT_THROW( Kiv::make< IpGen::MulticastGroupsForApplications >( Lumo::AddressFamily::none ),
                 Kiv::RangeException );
}

TEST( MulticastInputs, DefaultsAndDerivedValues ) {
   // An unknown VLAN reads as the none VNI, and none is all ones.
   auto vx = Kiv::make< Vxlan::EnabledStatus >();
   EXPECT_TRUE( vx->vlanToVniMap( 10 ).isNone() );
   EXPECT_EQ( vx->vlanToVniMap( 10 ).value(), 0xFFFFFFFFu );
   vx->vlanToVniMapIs( 10, Vxlan::VniExtOrNone( 10010 ) );
   EXPECT_FALSE( vx->vlanToVniMap( 10 ).isNone() );
   EXPECT_EQ( vx->vlanToVniMap( 10 ).value(), 10010u );

   auto asu = Kiv::make< McastCommon::AsuVrfStatus >();
   EXPECT_FALSE( asu->allCompleted() );
   asu->participatingVrfIs( "default" );
   asu->participatingVrfIs( "red" );
   asu->completedVrfIs( "default", true );
   EXPECT_FALSE( asu->allCompleted() );
   asu->completedVrfIs( "red", false );
   EXPECT_FALSE( asu->allCompleted() );
   asu->completedVrfIs( "red", true );
   EXPECT_TRUE( asu->allCompleted() );

   auto vrfIntfs = Kiv::make< McastCommon::AppVrfIntfs >( "PimVrfIntfs" );
   vrfIntfs->vrfIntfIs( "red" )->intfsIs( "Ethernet1" );
   EXPECT_TRUE( vrfIntfs->vrfIntf( "red" )->intfs( "Ethernet1" ) );
   EXPECT_EQ( vrfIntfs->vrfIntf( "red" )->vrfName(), L3::VrfName( "red" ) );

   auto hi = Kiv::make< HostInject::HostInjectConfig >();
   hi->configIs( "Ethernet1", 7u );
   EXPECT_EQ( hi->config( "Ethernet1" )->pref(), 7u );
   EXPECT_STREQ( HostInject::HostInjectConfig::mountPath( Lumo::AddressFamily::ipv6 ),
                 "routing6/attached-host/mcast/config" );

   EXPECT_STREQ( McastCommon::MulticastIntfsForApplications::mountPath( Lumo::AddressFamily::ipv4 ),
                 "multicastIntfs/application/pim" );
   EXPECT_STREQ( McastCommon::MulticastIntfsForApplications::mountPath( Lumo::AddressFamily::ipv6 ),
                 "multicastIntfs6/application/pim6" );
   auto dir = Kiv::make< Kiv::Dir >( "root" );
   EXPECT_TRUE( Kiv::entity_cast< Mlag::ProtoStatus >( dir->entryIs( "mlag", "Mlag::ProtoStatus" ) ) );
   EXPECT_TRUE( Kiv::entity_cast< Routing::Multicast::Fib::VrfEnabledStatus >(
      dir->entryIs( "mfib", "Routing::Multicast::Fib::VrfEnabledStatus" ) ) );
}

} // namespace

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

} // namespace

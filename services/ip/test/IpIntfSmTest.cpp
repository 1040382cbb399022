#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kiv/RangeException.h"
#include "kiv/testing/TestLoop.h"
#include "services/ip/IpIntfSm.h"

namespace {

using Lumo::IntfId;

class MemberWatcher : public IpGen::IntfStatus::NotifieeConst {
 public:
   void onIntf( const IntfId & intf ) override { seen.push_back( std::string( intf.stringValue() ) ); }
   std::vector< std::string > seen;
};

std::vector< std::string > members( const IpGen::IntfStatus & s ) {
   std::vector< std::string > out;
   for( auto it = s.intfIter(); it; ++it ) out.push_back( std::string( it.key().stringValue() ) );
   return out;
}

struct IntfSmFixture : ::testing::Test {
   Kiv::Testing::TestLoop loop;
   Kiv::Ptr< IpGen::Status > status = Kiv::make< IpGen::Ipv4Status >();
   Kiv::Ptr< IpGen::IntfStatus > red = IpGen::intfStatusFactory( status, L3::VrfName( "red" ) );
};

TEST_F( IntfSmFixture, StartsWithTheVrfsInterfacesAndFollowsThoseThatJoinMoveAndLeave ) {
   status->intfVrfIs( "Ethernet1", "red" );
   status->intfVrfIs( "Ethernet3", "blue" );
   status->intfPrimaryIs( "Ethernet4", Lumo::IpGenAddrWithMask::fromStrep( "198.18.4.1/24" ) );
   auto sm = IpGen::intfSmFactory( red );
   EXPECT_EQ( members( *red ), std::vector< std::string >{ "Ethernet1" } );
   MemberWatcher w;
   w.notifierIs( red );

   status->intfVrfIs( "Ethernet2", "red" );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_EQ( members( *red ), ( std::vector< std::string >{ "Ethernet1", "Ethernet2" } ) );

   // Moving out of the VRF, into it, and going away altogether.
   status->intfVrfIs( "Ethernet1", "blue" );
   status->intfVrfIs( "Ethernet3", "red" );
   status->intfDel( "Ethernet2" );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_EQ( members( *red ), std::vector< std::string >{ "Ethernet3" } );

   // An address change is no membership change: nobody hears of it.
   w.seen.clear();
   status->intfPrimaryIs( "Ethernet3", Lumo::IpGenAddrWithMask::fromStrep( "198.18.3.1/24" ) );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_TRUE( w.seen.empty() );

   // An entry replaced under the same name, then a move of the new entry.
   status->intfDel( "Ethernet3" );
   status->intfVrfIs( "Ethernet3", "red" );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_EQ( members( *red ), std::vector< std::string >{ "Ethernet3" } );
   status->intfVrfIs( "Ethernet3", "blue" );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_TRUE( members( *red ).empty() );
}

} // namespace

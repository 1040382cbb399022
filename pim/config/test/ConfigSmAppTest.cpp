// Application-requested PIM interfaces: the requests merged with the
// configuration, and the application machines' life with the default VRF.
#include "ConfigSmFixture.h"

#include <tuple>
#include <utility>

namespace PimConfigTest {
namespace {

using Vrf = L3::VrfName;

class ConfigSmAppTest : public ConfigSmFixture {
 protected:
   void SetUp() override {
      vrfIs( "default" );
      ipIntfIs( "Ethernet1", "default", "198.18.1.1/24" );
      ipIntfIs( "Ethernet2", "default", "198.18.2.1/24" );
      start();
      ASSERT_TRUE( settle() );
   }
};

TEST_F( ConfigSmAppTest, SparseRequestAloneGivesTheDefaultParameters ) {
   auto app = applicationIs( "igmp" );
   app->intfModeIs( "Ethernet1", pimModeSparse );
   ASSERT_TRUE( settle() );
   auto intf = pimIntf( "default", "Ethernet1" );
   ASSERT_TRUE( intf );
   EXPECT_EQ( std::tuple( intf->mode(), intf->helloPeriod(), intf->helloHoldTime(), intf->joinPrunePeriod(),
                          intf->joinPruneHoldTime(), intf->drPriority(), intf->bfdEnabled() ),
              std::tuple( pimModeSparse, 30, 105, 60, 210, 1u, false ) );
   EXPECT_TRUE( inSparseSet( "default", "Ethernet1" ) );
   EXPECT_TRUE( vifRequested( "Ethernet1" ) );

   // Removing the configuration removes the interface even though the
   // application still asks; the application's next event restores it.
   intfConfigIs( "Ethernet1", pimModeSparse )->helloIntervalIs( 10 );
   ASSERT_TRUE( settle() );
   EXPECT_EQ( pimIntf( "default", "Ethernet1" )->helloPeriod(), 10 );
   configColl->intfConfigDel( Lumo::IntfId( "Ethernet1" ) );
   ASSERT_TRUE( settle() );
   EXPECT_FALSE( pimIntf( "default", "Ethernet1" ) );
   app->intfModeIs( "Ethernet1", pimModeBidir );
   app->intfModeIs( "Ethernet1", pimModeSparse );
   ASSERT_TRUE( settle() );
   ASSERT_TRUE( pimIntf( "default", "Ethernet1" ) );
   EXPECT_EQ( pimIntf( "default", "Ethernet1" )->helloPeriod(), 30 );
}

TEST_F( ConfigSmAppTest, ApplicationMachinesLiveWithTheDefaultVrf ) {
   applicationIs( "igmp" )->intfModeIs( "Ethernet1", pimModeSparse );
   applicationIs( "msdp" );
   ASSERT_TRUE( settle() );
   EXPECT_EQ( sm_->appConfigSmSize(), 2u );
   vrfEnabledStatus->vrfIs( Vrf( "default" ), false );
   ASSERT_TRUE( settle() );
   EXPECT_EQ( sm_->appConfigSmSize(), 0u );
   EXPECT_FALSE( pimIntf( "default", "Ethernet1" ) );
   vrfEnabledStatus->vrfIs( Vrf( "default" ), true );
   ASSERT_TRUE( settle() );
   EXPECT_EQ( sm_->appConfigSmSize(), 2u );
   EXPECT_TRUE( pimIntf( "default", "Ethernet1" ) );
   appDir->entryDel( Kiv::Name( "msdp" ) );
   ASSERT_TRUE( settle() );
   EXPECT_EQ( sm_->appConfigSmSize(), 1u );
}

TEST_F( ConfigSmAppTest, InterfaceStaysUntilNoApplicationRequestsIt ) {
   auto a = applicationIs( "igmp" );
   auto b = applicationIs( "msdp" );
   for( auto & app : { a, b } ) app->intfModeIs( "Ethernet1", pimModeSparse );
   for( auto & [ app, stays ] : { std::pair( a, true ), std::pair( b, false ) } ) {
      ASSERT_TRUE( settle() );
      ASSERT_TRUE( pimIntf( "default", "Ethernet1" ) );
      app->intfModeDel( "Ethernet1" );
      ASSERT_TRUE( settle() );
      EXPECT_EQ( bool( pimIntf( "default", "Ethernet1" ) ), stays );
   }
}

} // namespace
} // namespace PimConfigTest

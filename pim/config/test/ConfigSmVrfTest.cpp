// VRF lifecycle: the enabled flags, the per-VRF container with its tables and
// namespace view, VIF and ALL-PIM-ROUTERS requests, and the order in which a
// VRF comes up and goes down.
#include "ConfigSmFixture.h"

#include <set>
#include <string>

namespace PimConfigTest {
namespace {

using Vrf = L3::VrfName;

class ConfigSmVrfTest : public ConfigSmFixture {};

TEST_F( ConfigSmVrfTest, DefaultVrfRunsSparseModeWithoutInterfacesButBidirNeedsConfiguration ) {
   auto config = vrfIs( "default" );
   start();
   EXPECT_TRUE( sparseEnabled( "default" ) );
   EXPECT_TRUE( mcastPimStatus->pimEnabledSparseModeVrf( Vrf( "default" ) ) );
   EXPECT_FALSE( bidirEnabled( "default" ) ) << "no exception for the default VRF";
   EXPECT_FALSE( mcastPimStatus->pimEnabledBidirVrfHas( Vrf( "default" ) ) );
   EXPECT_TRUE( hasContainer( "default" ) );
   EXPECT_TRUE( statusColl->vrfStatusHas( Vrf( "default" ) ) );

   config->pimConfiguredIs( true );
   ASSERT_TRUE( settle() );
   EXPECT_TRUE( bidirEnabled( "default" ) );
   EXPECT_TRUE( mcastPimStatus->pimEnabledBidirVrf( Vrf( "default" ) ) );

   config->pimConfiguredIs( false );
   ASSERT_TRUE( settle() );
   EXPECT_FALSE( globalStatus->pimEnabledBidirVrfHas( Vrf( "default" ) ) ) << "the entry is deleted, not cleared";

   // A bidirectional interface enables bidir on its own.
   ipIntfIs( "Ethernet1", "default", "198.18.1.1/24" );
   intfConfigIs( "Ethernet1", pimModeBidir );
   ASSERT_TRUE( settle() );
   EXPECT_TRUE( bidirEnabled( "default" ) );
}

TEST_F( ConfigSmVrfTest, VrfComesUpAndGoesDownWithItsPimInterfacesAndItsConfiguration ) {
   vrfIs( "red" );
   ipIntfIs( "Ethernet1", "red", "198.18.1.1/24" );
   start();
   EXPECT_FALSE( sparseEnabled( "red" ) ) << "a VRF other than default needs PIM on something";
   EXPECT_FALSE( hasContainer( "red" ) );
   EXPECT_TRUE( kni_->calls.empty() );

   intfConfigIs( "Ethernet1", pimModeSparse );
   ASSERT_TRUE( settle() );
   EXPECT_TRUE( sparseEnabled( "red" ) );
   ASSERT_TRUE( hasContainer( "red" ) );
   EXPECT_EQ( varnDir.entity( "routing/pim/status/red" ), sm_->pimVarnStatus( Vrf( "red" ) ) );
   ASSERT_TRUE( sm_->pimVrfCounters( Vrf( "red" ) ) );
   EXPECT_EQ( varnDir.entity( "routing/pim/counters/red/pim" ), sm_->pimVrfCounters( Vrf( "red" ) ) );
   // The container got the VRF's own pieces.
   const auto container = sm_->pimVrfContainerSm( Vrf( "red" ) );
   EXPECT_EQ( container->args().pimAllStatus, allStatusColl->vrfStatus( Vrf( "red" ) ) );
   EXPECT_EQ( container->args().namespaceName, Lumo::NamespaceName( "ns-red" ) );
   EXPECT_EQ( container->args().pimVarnStatus, sm_->pimVarnStatus( Vrf( "red" ) ) );
   EXPECT_EQ( container->args().bfdPimAppConfig->appName(), "pim" );
   EXPECT_TRUE( bfdDir->entityRef( Kiv::Name( "red" ) ) ) << "the VRF's BFD sub-directory";

   // And goes down with its last PIM interface.
   configColl->intfConfigDel( Lumo::IntfId( "Ethernet1" ) );
   ASSERT_TRUE( settle() );
   EXPECT_FALSE( sparseEnabled( "red" ) || hasContainer( "red" ) || sm_->pimVarnStatusHas( Vrf( "red" ) ) );

   // Removing the VRF's configuration tears everything down and withdraws
   // the requests of its interfaces.
   configColl->vrfConfig( Vrf( "red" ) )->pimConfiguredIs( true );
   intfConfigIs( "Ethernet1", pimModeSparse );
   ASSERT_TRUE( settle() );
   ASSERT_TRUE( pimIntf( "red", "Ethernet1" ) && hasContainer( "red" ) && bidirEnabled( "red" ) );
   ASSERT_TRUE( vifRequested( "Ethernet1" ) );
   configColl->vrfConfigDel( Vrf( "red" ) );
   ASSERT_TRUE( settle() );
   EXPECT_FALSE( statusColl->vrfStatusHas( Vrf( "red" ) ) );
   EXPECT_FALSE( globalStatus->portStatusHas( Vrf( "red" ) ) );
   EXPECT_FALSE( sm_->vrfSparseModeIntfHas( Vrf( "red" ) ) || sm_->vrfBidirIntfHas( Vrf( "red" ) ) );
   EXPECT_FALSE( globalStatus->pimEnabledSparseModeVrfHas( Vrf( "red" ) ) ||
                 mcastPimStatus->pimEnabledSparseModeVrfHas( Vrf( "red" ) ) );
   EXPECT_FALSE( vifRequested( "Ethernet1" ) || allPimRoutersJoined( "Ethernet1", "224.0.0.13" ) );
}

TEST_F( ConfigSmVrfTest, DefaultVrfKeepsItsNamespaceView ) {
   vrfIs( "default" );
   start();
   ASSERT_TRUE( hasContainer( "default" ) );
   EXPECT_EQ( kni_->calls, std::vector< std::string >{ "mount kni/ns/default/status" } );
   vrfEnabledStatus->vrfIs( Vrf( "default" ), false );
   ASSERT_TRUE( settle() );
   EXPECT_FALSE( hasContainer( "default" ) || sparseEnabled( "default" ) );
   EXPECT_EQ( kni_->calls.size(), 1u ) << "never unmounted";
   vrfEnabledStatus->vrfIs( Vrf( "default" ), true );
   ASSERT_TRUE( settle() );
   EXPECT_TRUE( hasContainer( "default" ) );
   EXPECT_EQ( kni_->calls.size(), 1u );
}

TEST_F( ConfigSmVrfTest, AnInterfaceMovedBetweenVrfsKeepsItsVifAndGroup ) {
   // Into a VRF that had no IP interface, back into one that keeps others,
   // and out again: the VRF left behind never withdraws the new VRF's request.
   vrfIs( "red" );
   vrfIs( "blue" );
   ipIntfIs( "Ethernet1", "red", "198.18.1.1/24" );
   ipIntfIs( "Ethernet2", "red", "198.18.2.1/24" );
   intfConfigIs( "Ethernet1", pimModeSparse );
   intfConfigIs( "Ethernet2", pimModeSparse );
   start();
   ASSERT_TRUE( pimIntf( "red", "Ethernet1" ) );
   const char * from = "red";
   for( const char * to : { "blue", "red", "blue" } ) {
      SCOPED_TRACE( std::string( from ) + " -> " + to );
      ipStatus->intfVrfIs( Lumo::IntfId( "Ethernet1" ), L3::VrfName( to ) );
      ASSERT_TRUE( settle() );
      EXPECT_TRUE( pimIntf( to, "Ethernet1" ) );
      EXPECT_FALSE( pimIntf( from, "Ethernet1" ) );
      EXPECT_TRUE( vifRequested( "Ethernet1" ) );
      EXPECT_TRUE( allPimRoutersJoined( "Ethernet1", "224.0.0.13" ) );
      EXPECT_TRUE( vifRequested( "Ethernet2" ) );
      from = to;
   }
   // Leaving PIM altogether still releases both.
   configColl->intfConfigDel( Lumo::IntfId( "Ethernet1" ) );
   ASSERT_TRUE( settle() );
   EXPECT_FALSE( vifRequested( "Ethernet1" ) );
   EXPECT_FALSE( allPimRoutersJoined( "Ethernet1", "224.0.0.13" ) );
}

TEST_F( ConfigSmVrfTest, AnEngineBuiltWithoutATableOrKernelStatusSaysSoAndRecovers ) {
   vrfIs( "red" );
   ipIntfIs( "Ethernet1", "red", "198.18.1.1/24" );
   intfConfigIs( "Ethernet1", pimModeSparse );
   // The status table's path is taken by a table set of another type, and the
   // kernel has not published the namespace yet.
   const std::string path = "routing/pim/status/red";
   auto squatter = Kiv::make< KivVarn::Mount >( varnDir );
   squatter->doMount< Varn::MessageCounters >( path, "w" );
   kni_->missing = true;
   start();
   const auto status = statusColl->vrfStatus( Vrf( "red" ) );
   const auto missing = [ & ] {
      std::set< std::string > m;
      status->missingInputForEach( [ & ]( const std::string & k, bool ) { m.insert( k ); } );
      return m;
   };
   ASSERT_TRUE( hasContainer( "red" ) ) << "the engine runs with what exists";
   EXPECT_FALSE( sm_->pimVrfContainerSm( Vrf( "red" ) )->args().pimVarnStatus );
   EXPECT_EQ( missing(), ( std::set< std::string >{ "statusTable", "kernelStatus" } ) );

   // Still missing at the first retry; both there by the next.
   ASSERT_TRUE( loop_.advanceBy( ConfigSm::kMountRetryInterval ) );
   EXPECT_EQ( missing().size(), 2u );
   squatter->doUnmount( path );
   squatter->cleanup( path );
   kni_->missing = false;
   ASSERT_TRUE( loop_.advanceBy( ConfigSm::kMountRetryInterval ) );
   const auto container = sm_->pimVrfContainerSm( Vrf( "red" ) );
   ASSERT_TRUE( container );
   EXPECT_TRUE( container->args().pimVarnStatus );
   EXPECT_TRUE( container->args().kernelIntfStatusDir );
   EXPECT_TRUE( missing().empty() );
   EXPECT_EQ( sm_->mountRetryTimerTimeMin(), Kiv::kNever );

   // Inputs of the agent itself never come: no engine, and the status says why.
   sm_ = nullptr;
   auto in = inputs();
   in.pimCellGlobalStatus = nullptr;
   start( in );
   EXPECT_FALSE( hasContainer( "red" ) );
   EXPECT_EQ( missing(), std::set< std::string >{ "agentInputs" } );

   // PIM off in the VRF: nothing is missing any more.
   configColl->intfConfigDel( Lumo::IntfId( "Ethernet1" ) );
   ASSERT_TRUE( settle() );
   EXPECT_TRUE( missing().empty() );
}

class ConfigSmVrf6Test : public ConfigSmFixture {
 protected:
   ConfigSmVrf6Test() : ConfigSmFixture( Lumo::AddressFamily::ipv6 ) {}
};

TEST_F( ConfigSmVrf6Test, Ipv6UsesItsOwnGroupTablesAndBfdApplication ) {
   vrfIs( "default" );
   ipIntfIs( "Ethernet1", "default", "2001:db8:1::1/64" );
   intfConfigIs( "Ethernet1", pimModeSparse );
   start();
   ASSERT_TRUE( pimIntf( "default", "Ethernet1" ) );
   EXPECT_TRUE( vifRequested( "Ethernet1" ) );
   EXPECT_TRUE( allPimRoutersJoined( "Ethernet1", "ff02::d" ) );
   EXPECT_TRUE( varnDir.entity( "routing6/pim/status/default" ) );
   EXPECT_TRUE( varnDir.entity( "routing6/pim/counters/default/pim" ) );
   EXPECT_EQ( sm_->bfdPimAppConfig( Vrf( "default" ) )->appName(), "pim6" );

   // The unspecified address counts as no address.
   ipStatus->intfPrimaryIs( Lumo::IntfId( "Ethernet1" ), ipm( "::/0" ) );
   ASSERT_TRUE( settle() );
   EXPECT_FALSE( pimIntf( "default", "Ethernet1" ) );
   EXPECT_FALSE( allPimRoutersJoined( "Ethernet1", "ff02::d" ) );
}

} // namespace
} // namespace PimConfigTest

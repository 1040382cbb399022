// The agent driven through the host library: what it mounts, how it answers
// the stage protocol, the fast-upgrade shutdown end to end, and the
// active/standby transitions.
#include "AgentFixture.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <unistd.h>

#include "rundle/Rundle.h"

namespace PimAgentTest {
namespace {

class AgentTest : public AgentFixture {};

// Each family's mount list, in order, against mounts4.txt and mounts6.txt
// (one "path type mode" a line); PIMAGENT_UPDATE_GOLDEN=1 rewrites them.
TEST_F( AgentTest, MountListsOfBothFamiliesInOrder ) {
   const std::pair< Kiv::Ptr< Agent > ( * )( const std::string & ), const char * > rows[] = {
      { agent4Factory, "mounts4.txt" }, { agent6Factory, "mounts6.txt" } };
   for( const auto & [ factory, golden ] : rows ) {
      AgentBase::AgentHost host( Kiv::make< Dovel::Store >() );
      host.agentIs( factory( "pim" ) );
      host.doInit();
      ASSERT_EQ( host.entityManager()->groups().size(), 1u );
      const auto & group = host.entityManager()->groups()[ 0 ];
      EXPECT_TRUE( group->closed() );
      std::string got;
      for( const auto & m : group->mounts() ) got += m.path + " " + m.typeName + " \"" + m.mode + "\"\n";
      const std::string path = std::string( PIMAGENT_TEST_DIR ) + "/" + golden;
      if( std::getenv( "PIMAGENT_UPDATE_GOLDEN" ) ) std::ofstream( path ) << got;
      std::ifstream in( path );
      EXPECT_EQ( got, std::string( std::istreambuf_iterator< char >( in ), {} ) ) << golden;
      EXPECT_TRUE( dynamic_cast< Agent * >( host.agent().ptr() )->localEntitiesCreated() );
      EXPECT_TRUE( host.entityManager()->getWritableEntity< Interface::AllIntfStatusLocalDir >(
         "cell/1/interface/status/local" ) );
   }
}

TEST_F( AgentTest, BootStagesThenActiveSideMachinesFollowTheRunningVrf ) {
   start( agent4Factory( "pim" ) );
   auto boot = storeEntity< Stage::AgentStatus >( "cell/1/stageAgentStatus/boot/Pim" );
   EXPECT_TRUE( boot->completedStage( "NetworkAgent" ) && boot->completedStage( "PimIntfUpdate" ) );
   EXPECT_TRUE( host_.runStage( Stage::bootStageClass, "RoutingAgents" ) ) << "not waited for: nothing holds it";
   EXPECT_FALSE( boot->completedStage( "RoutingAgents" ) ) << "nor completed";
   EXPECT_TRUE( storeEntity< Stage::AgentStatus >( "cell/1/stageAgentStatus/shutdown/Pim" )
                   ->waitedStage( "NetworkAgentShutdown" ) );

   configureRed();
   const L3::VrfName red( "red" );
   const Lumo::IntfId e7( "Ethernet7" );
   // The reader attached to the table the status writer fills.
   ASSERT_TRUE( table( "red" ) );
   EXPECT_EQ( agent()->pimGlobalStatusReaderSm()->statusTable( red ).ptr(), table( "red" ).ptr() );
   EXPECT_EQ( varnDir_.mounts( Routing::Pim::Varn::statusPath( af(), red ) ), 2u ) << "writer and reader";
   // The mode filter publishes the effective mode of the PIM interface.
   EXPECT_EQ( agent()->pimStatusColl()->vrfStatus( red )->pimIntf( e7 ), pimModeSparse );
   // The attribute log recorded the VRF coming up.
   const auto & lines = Kiv::NboAttrLog::Root::top().outSm( "pim" )->lines();
   EXPECT_NE( std::find( lines.begin(), lines.end(), "pimEnabledSparseModeVrf[red]=true" ), lines.end() );

   // The VRF-interface directory follows the multicast service's entry for
   // the VRF while multicast routing is enabled there.
   auto entry = Kiv::ptr_cast< McastCommon::AppVrfIntfStatus >(
      store_->entityIs( "multicastIntfs/application/pim/red", "McastCommon::AppVrfIntfStatus" ) );
   entry->intfIs( e7 );
   storeEntity< Routing::Multicast::Fib::VrfConfig >( "routing/multicast/vrf/config" )->routingEnabledVrfIs( red );
   ASSERT_TRUE( loop_.runUntilIdle() );
   ASSERT_TRUE( agent()->pimVrfIntfs()->vrfIntf( red ) );
   EXPECT_TRUE( agent()->pimVrfIntfs()->vrfIntf( red )->intfs( e7 ) );

   storeEntity< ConfigColl >( "routing/pim/config" )->vrfConfigDel( red );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_FALSE( agent()->pimGlobalStatusReaderSm()->statusTable( red ) ) << "released with the VRF";
   EXPECT_EQ( lines.back(), "pimEnabledSparseModeVrf[red]=false" );
}

TEST_F( AgentTest, RingBufferTraceFileName ) {
   const auto dir = std::filesystem::temp_directory_path() / ( "pimagent-rundle-" + std::to_string( ::getpid() ) );
   std::filesystem::create_directories( dir );
   struct Row {
      const char * rundleDir;
      std::string want;
   } rows[] = { { dir.c_str(), ( dir / "pimtrace.rnd" ).string() },
                { nullptr, "pimtrace-" + std::to_string( ::getpid() ) + ".rnd" } };
   for( const auto & r : rows ) {
      ::unsetenv( "RUNDLE_DISABLE" );
      if( r.rundleDir ) ::setenv( "RUNDLEDIR", r.rundleDir, 1 ); else ::unsetenv( "RUNDLEDIR" );
      AgentBase::AgentHost host( Kiv::make< Dovel::Store >() );
      host.agentIs( agent4Factory( "pimtrace" ) );
      host.doInit();
      const std::string path = Rundle::path();
      Rundle::shutdown();
      std::filesystem::remove( path );
      EXPECT_NE( path.find( r.want ), std::string::npos ) << path;
   }
   ::unsetenv( "RUNDLEDIR" );
   ::setenv( "RUNDLE_DISABLE", "1", 1 );
   std::filesystem::remove_all( dir );
}

class RedundancyTest : public AgentFixture {
 protected:
   void modeIs( Redundancy::RedundancyMode m, Redundancy::RedundancyProtocol p = Redundancy::protocolUnknown ) {
      host_.redundancyStatus()->protocolIs( p );
      host_.redundancyStatus()->modeIs( m );
      ASSERT_TRUE( loop_.runUntilIdle() );
   }
   // How many of the six active-side machines exist.
   int activeMachines() const {
      return bool( agent()->pimAttrLogSm() ) + bool( agent()->mcastPimVrfIntfDirSm() ) +
             bool( agent()->pimGlobalStatusModeFilterSm() ) + bool( agent()->serviceAclFilterSm() ) +
             bool( agent()->pimConfigSm() ) + bool( agent()->vxlanStatusSm() );
   }
   bool activeSide() const { return activeMachines() == 6; }
   bool noActiveSide() const { return activeMachines() == 0; }
};

TEST_F( RedundancyTest, StandbyTearsDownActiveRebuildsEqualOutcomesRebuildNothing ) {
   start( agent4Factory( "pim" ) );
   configureRed();
   ASSERT_TRUE( activeSide() );
   ASSERT_TRUE( container( "red" ) );
   ConfigSm * first = agent()->pimConfigSm().ptr();

   modeIs( Redundancy::modeActive );
   modeIs( Redundancy::modeStandby, Redundancy::protocolDualActive );
   EXPECT_EQ( agent()->pimConfigSm().ptr(), first ) << "mode 3 with protocol 5 stays active";

   // Only a change of mode is looked at: back to active first.
   modeIs( Redundancy::modeActive, Redundancy::protocolStatefulSwitchover );
   EXPECT_EQ( agent()->pimConfigSm().ptr(), first );
   modeIs( Redundancy::modeStandby, Redundancy::protocolStatefulSwitchover );
   EXPECT_TRUE( agent()->standbyMode() );
   EXPECT_TRUE( noActiveSide() );
   EXPECT_TRUE( agent()->bootStagesHelper() && agent()->pimAllStatusColl() ) << "mounts and stages stay";

   modeIs( Redundancy::modeActive );
   EXPECT_FALSE( agent()->standbyMode() );
   EXPECT_TRUE( activeSide() );
   EXPECT_TRUE( container( "red" ) ) << "rebuilt from the mounted inputs";
   EXPECT_TRUE( receiveHello( "red", "Ethernet7", "198.18.7.2", 30 ) );
   EXPECT_TRUE( hasNeighborRow( "red", "Ethernet7", "198.18.7.2" ) );
   ConfigSm * rebuilt = agent()->pimConfigSm().ptr();
   modeIs( Redundancy::modeActive );
   modeIs( Redundancy::modeDisabled );
   EXPECT_EQ( agent()->pimConfigSm().ptr(), rebuilt ) << "same outcome, nothing rebuilt";
}

TEST_F( RedundancyTest, StandbyAtBootBuildsNothingUntilActive ) {
   host_.redundancyStatus()->modeIs( Redundancy::modeStandby );
   start( agent4Factory( "pim" ) );
   EXPECT_TRUE( noActiveSide() );
   EXPECT_TRUE( storeEntity< Stage::AgentStatus >( "cell/1/stageAgentStatus/boot/Pim" )->completedStage( "NetworkAgent" ) );
   modeIs( Redundancy::modeActive );
   EXPECT_TRUE( activeSide() );
}

TEST_F( RedundancyTest, Ipv6HasNoServiceAclFilter ) {
   start( agent6Factory( "pim6" ) );
   ASSERT_TRUE( agent()->pimConfigSm() );
   EXPECT_FALSE( agent()->serviceAclFilterSm() );
   EXPECT_FALSE( agent()->pimConfigSm()->inputs().containerExtras.serviceAclFilterSm );
}

TEST_F( RedundancyTest, ServiceAclFilterDropsDeniedHellosOfTheVrf ) {
   start( agent4Factory( "pim" ) );
   configureRed();
   ASSERT_TRUE( agent()->pimConfigSm()->inputs().containerExtras.serviceAclFilterSm );
   storeEntity< Acl::Input::Config >( "acl/config/cli" )
      ->standardAclIs( "nbrs", Acl::StandardAcl::fromStrep( "deny 198.18.7.9/32, permit 198.18.7.0/24" ) );
   storeEntity< Acl::Input::CpConfig >( "acl/cpconfig/cli" )
      ->serviceAclIs( Acl::serviceVrfKey( "pim", L3::VrfName( "red" ) ), "nbrs" );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_FALSE( receiveHello( "red", "Ethernet7", "198.18.7.9", 30 ) );
   EXPECT_TRUE( receiveHello( "red", "Ethernet7", "198.18.7.2", 30 ) );
   EXPECT_TRUE( hasNeighborRow( "red", "Ethernet7", "198.18.7.2" ) );
   EXPECT_EQ( storeEntity< Acl::StatusService >( "routing/pim/sacl/status" )->dropped( L3::VrfName( "red" ) ), 1u );
}

} // namespace
} // namespace PimAgentTest

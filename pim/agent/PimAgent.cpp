#include "agent/PimAgent.h"

#include <unistd.h>

#include <cassert>
#include <cstdlib>

#include "kiv/ActivityManager.h"
#include "kiv/Trace.h"
#include "rundle/Rundle.h"

namespace Routing::Pim {

namespace {

KIV_TRACE_HANDLE( "Pim::Agent" );
#define ATRACE( level, expr ) KIV_TRACE( th(), level, expr )

bool v6( Lumo::AddressFamily af ) { return af == Lumo::AddressFamily::ipv6; }
std::string r( Lumo::AddressFamily af, const char * rest ) { return std::string( v6( af ) ? "routing6/" : "routing/" ) + rest; }

} // namespace

// ---- redundancy -------------------------------------------------------------------

RedundancyStatusSm::RedundancyStatusSm( const Kiv::Ptr< const Redundancy::RedundancyStatus > & redundancyStatus,
                                        Agent * agent )
      : redundancyStatus_( Kiv::ValidPtr< const Redundancy::RedundancyStatus >( redundancyStatus ) ),
        agent_( agent ), reactor_( this ) {
   reactor_.notifierIs( redundancyStatus_ );
   handleRedundancyStatus();
}

RedundancyStatusSm::~RedundancyStatusSm() = default;

void RedundancyStatusSm::handleRedundancyStatus() {
   const auto mode = redundancyStatus_->mode();
   const auto protocol = redundancyStatus_->protocol();
   ATRACE( 8, "handleRedundancyStatus" << "(), " << mode << ", " << protocol );
   if( mode != Redundancy::modeStandby ) {
      agent_->standbyModeIs( false );
   } else if( protocol == Redundancy::protocolDualActive ) {
      // A standby supervisor under this protocol keeps running PIM.
      agent_->standbyModeIs( false );
   } else {
      agent_->standbyModeIs( true );
   }
}

Kiv::Ptr< KernelNetInfo::Status > StoreKniMounter::doMount( const std::string & path ) {
   return Kiv::ptr_cast< KernelNetInfo::Status >( store_->entity( path ) );
}

// ---- the agent ----------------------------------------------------------------------

Agent::Agent( const std::string & name, Lumo::AddressFamily af ) : AgentBase::CAgent( name ), addressFamily_( af ) {
   registerStoreTypes();
}

Agent::~Agent() {
   doCleanup();
   pimStatusCollDel();
   pimAllStatusCollDel();
   aclConfigAggregatorSmDel();
   aclCpConfigAggregatorSmDel();
   pimVrfIntfsDel();
   redundancyStatusSmDel();
   bootStagesHelperDel();
   shutdownStagesHelperDel();
}

const char * Agent::stageAgentName() const { return v6( addressFamily_ ) ? "Pim6" : "Pim"; }

std::vector< Dovel::Mount > Agent::mountTable() const {
   const auto af = addressFamily_;
   const bool six = v6( af );
   const std::string stageName = stageAgentName();
   std::vector< Dovel::Mount > t = {
      { r( af, "pim/config" ), "Routing::Pim::ConfigColl", "r" },
      { r( af, "pim/clear/config" ), "Routing::Pim::ClearConfigColl", "r" },
      { r( af, "attached-host/mcast/config" ), "HostInject::HostInjectConfig", "r" },
      { r( af, "pim/application/config" ), "Kiv::Dir", "ri" },
      { GlobalStatus::mountPath( af ), "Routing::Pim::GlobalStatus", "w" },
      { Multicast::Pim::Status::mountPath( af ), "Routing::Multicast::Pim::Status", "w" },
      { Cell::path( r( af, "pim/cellglobal/status" ) ), "Routing::Pim::CellGlobalStatus", "w" },
      // The IP status mounter adds the family's IP status here.
      { IpGen::ipStatusPath( af ), IpGen::ipStatusTypeName( af ), "r" },
      { r( af, "multicast/vrf/config" ), "Routing::Multicast::Fib::VrfConfig", "r" },
      { "acl/cpconfig/input", "Kiv::Dir", "ri" },
      { "acl/cpconfig/cli", "Acl::Input::CpConfig", "r" },
   };
   if( !six ) t.push_back( { "routing/pim/sacl/status", "Acl::StatusService", "w" } );
   const std::vector< Dovel::Mount > rest = {
      { "acl/config/input", "Kiv::Dir", "r" },
      { "acl/config/cli", "Acl::Input::Config", "r" },
      { McastCommon::MulticastIntfsForApplications::mountPath( af ), "Kiv::Dir", "wc" },
      { IpGen::MulticastGroupsForApplications::mountPath( af ), "Kiv::Dir", "wi" },
      { "bfd/status/peer", "Bfd::StatusPeer", "r" },
      { six ? "bfd/config/app*/pim6" : "bfd/config/app*/pim", "Kiv::Dir", "wi" },
      { r( af, "mcastboundary/status" ), "Routing::McastBoundary::Status", "r" },
      { Multicast::Vxlan::Status::mountPath( af ), "Routing::Multicast::Vxlan::Status", "w" },
      { "vxlan/enabledStatus", "Vxlan::EnabledStatus", "r" },
      { "mlag/proto", "Mlag::ProtoStatus", "rO" },
      { Cell::path( "ip/vrf/status/local" ), "Ip::AllVrfStatusLocal", "r" },
      { Stage::agentConfigPath( kBootStageClass, stageName ), "Stage::AgentConfig", "r" },
      { Stage::agentStatusPath( kBootStageClass, stageName ), "Stage::AgentStatus", "wcf" },
      { Stage::progressPath( kBootStageClass ), "Stage::ProgressDir", "r" },
      { Stage::completionStatusPath( kBootStageClass ), "Stage::CompletionStatusDir", "r" },
      { Stage::agentConfigPath( kShutdownStageClass, stageName ), "Stage::AgentConfig", "r" },
      { Stage::agentStatusPath( kShutdownStageClass, stageName ), "Stage::AgentStatus", "wcf" },
      { Stage::progressPath( kShutdownStageClass ), "Stage::ProgressDir", "r" },
      { Stage::completionStatusPath( kShutdownStageClass ), "Stage::CompletionStatusDir", "r" },
      { Multicast::Fib::VrfEnabledStatus::mountPath( af ), "Routing::Multicast::Fib::VrfEnabledStatus", "r" },
      { ClearMrouteConfigColl::mountPath( af, "sparsemode" ), "Routing::Pim::ClearMrouteConfigColl", "" },
      { "bridging/config", "Bridging::Config", "r" },
   };
   t.insert( t.end(), rest.begin(), rest.end() );
   return t;
}

void Agent::doInitFor( const char * traceText ) {
   ATRACE( 8, traceText );
   Kiv::activityManagerConfig().useEpollIs( true );
   if( !std::getenv( "RUNDLE_DISABLE" ) ) {
      std::string file = name();
      if( !std::getenv( "RUNDLEDIR" ) ) file += "-" + std::to_string( ::getpid() );
      file += ".rnd";
      Rundle::initialize( file, std::vector< int >( 10, 10 ), nullptr, 0, 24, false, true, 512 );
   }
   mountGroupIs( getMountGroup() );
   for( const Dovel::Mount & m : mountTable() ) mountGroup()->doMount( m );
   createLocalEntity( "AllIntfConfigDir", "Interface::AllIntfConfigDir", "interface/config/all" );
   createLocalEntity( "AllIntfStatusDir", "Interface::AllIntfStatusDir", "interface/status/all" );
   createLocalEntity( "AllIntfStatusLocalDir", "Interface::AllIntfStatusLocalDir",
                      Cell::path( "interface/status/local" ) );
   localEntitiesCreatedIs( true );
   mountGroup()->doClose( false, "", 0.0 );
}

void Agent4::doInit() { doInitFor( "virtual void Routing::Pim::Agent4::doInit()" ); }
void Agent6::doInit() { doInitFor( "virtual void Routing::Pim::Agent6::doInit()" ); }
void Agent4::doMountsComplete( Dovel::MountStatus s, const Kiv::Ptr< Dovel::EntityManager > & em ) {
   doMountsCompleteFor( s, em );
}
void Agent6::doMountsComplete( Dovel::MountStatus s, const Kiv::Ptr< Dovel::EntityManager > & em ) {
   doMountsCompleteFor( s, em );
}

template< class T >
Kiv::Ptr< const T > Agent::fetch( const std::string & path ) const {
   return entityManager()->getEntity< T >( path );
}

template< class T >
Kiv::Ptr< T > Agent::fetchWritable( const std::string & path ) const {
   return entityManager()->getWritableEntity< T >( path );
}

void Agent::doMountsCompleteFor( Dovel::MountStatus mountStatus, const Kiv::Ptr< Dovel::EntityManager > & em ) {
   ATRACE( 8, "doMountsComplete" << "(), mountStatus: " << Dovel::mountStatusName( mountStatus ) );
   assert( mountStatus == Dovel::mountSuccess_ );
   if( mountStatus != Dovel::mountSuccess_ ) std::abort();
   if( em != entityManager() ) entityManagerIs( em );
   const auto af = addressFamily_;
   // 2. collections
   pimAllStatusCollIs( Kiv::make< AllStatusColl >() );
   pimStatusCollIs( Kiv::make< StatusColl >() );
   // 3. mounted entities
   pimConfigRootIs( fetch< ConfigColl >( r( af, "pim/config" ) ) );
   pimClearConfigRootIs( fetch< ClearConfigColl >( r( af, "pim/clear/config" ) ) );
   mcastHostInjectConfigIs( fetch< HostInject::HostInjectConfig >( r( af, "attached-host/mcast/config" ) ) );
   pimGlobalStatusIs( fetchWritable< GlobalStatus >( GlobalStatus::mountPath( af ) ) );
   mcastPimStatusIs( fetchWritable< Multicast::Pim::Status >( Multicast::Pim::Status::mountPath( af ) ) );
   pimCellGlobalStatusIs( fetchWritable< CellGlobalStatus >( Cell::path( r( af, "pim/cellglobal/status" ) ) ) );
   pimApplicationConfigDirIs( fetch< Kiv::Dir >( r( af, "pim/application/config" ) ) );
   mlagProtoStatusIs( fetch< Mlag::ProtoStatus >( "mlag/proto" ) );
   mfibVrfConfigIs( fetch< Multicast::Fib::VrfConfig >( r( af, "multicast/vrf/config" ) ) );
   // 4. ACL aggregation
   aclConfigIs( Kiv::make< Acl::Config >( Kiv::Name( "aclConfig" ) ) );
   aclCpConfigIs( Kiv::make< Acl::CpConfig >( Kiv::Name( "aclCpConfig" ) ) );
   aclConfigAggregatorSmIs( Kiv::make< Acl::AclConfigAggregatorSm >(
      fetch< Kiv::Dir >( "acl/config/input" ), fetch< Acl::Input::Config >( "acl/config/cli" ), aclConfig() ) );
   aclCpConfigAggregatorSmIs( Kiv::make< Acl::AclCpConfigAggregatorSm >(
      fetch< Kiv::Dir >( "acl/cpconfig/input" ), fetch< Acl::Input::CpConfig >( "acl/cpconfig/cli" ), aclCpConfig() ) );
   // 5. IP status of the family
   ipStatusIs( fetch< IpGen::Status >( IpGen::ipStatusPath( af ) ) );
   // 6.
   clearMrouteCollSparseModeIs( fetch< ClearMrouteConfigColl >( ClearMrouteConfigColl::mountPath( af, "sparsemode" ) ) );
   bridgingConfigIs( fetch< Bridging::Config >( "bridging/config" ) );
   allIntfConfigDirIs( fetchWritable< Interface::AllIntfConfigDir >( "interface/config/all" ) );
   allIntfStatusDirIs( fetchWritable< Interface::AllIntfStatusDir >( "interface/status/all" ) );
   allIntfStatusLocalDirIs( fetchWritable< Interface::AllIntfStatusLocalDir >( Cell::path( "interface/status/local" ) ) );
   // 7. the application's interface directory, its VIF requests, and the
   // group memberships entry.
   const std::string intfsPath = McastCommon::MulticastIntfsForApplications::mountPath( af );
   multicastIntfsDirIs( fetchWritable< Kiv::Dir >( intfsPath ) );
   pimVifRequestsIs( Kiv::ptr_cast< McastCommon::MulticastIntfsForApplications >(
      createLocalEntity( "PimVifRequests", "McastCommon::MulticastIntfsForApplications", intfsPath + "/request" ) ) );
   const std::string groupsPath = std::string( IpGen::MulticastGroupsForApplications::mountPath( af ) ) + "/mcGroupsApp";
   pimMulticastGroupsIs( Kiv::ptr_cast< IpGen::MulticastGroupsForApplications >( em->store()->entityIs(
      groupsPath, v6( af ) ? "Ip6::MulticastGroupsForApplications" : "Ip::MulticastGroupsForApplications" ) ) );
   // 8.
   mcastEnabledStatusIs( fetch< Multicast::Fib::VrfEnabledStatus >( Multicast::Fib::VrfEnabledStatus::mountPath( af ) ) );
   mcastBoundaryStatusIs( fetch< McastBoundary::Status >( r( af, "mcastboundary/status" ) ) );
   mcastVxlanStatusIs( fetchWritable< Multicast::Vxlan::Status >( Multicast::Vxlan::Status::mountPath( af ) ) );
   vxlanEnabledStatusIs( fetch< ::Vxlan::EnabledStatus >( "vxlan/enabledStatus" ) );
   allVrfStatusIs( fetch< Ip::AllVrfStatusLocal >( Cell::path( "ip/vrf/status/local" ) ) );
   // 9.
   pimVrfIntfsIs( Kiv::make< McastCommon::AppVrfIntfs >( Kiv::Name( "PimVrfIntfs" ) ) );
   // 10.
   bfdPimAppConfigRootIs( fetchWritable< Kiv::Dir >( v6( af ) ? "bfd/config/app*/pim6" : "bfd/config/app*/pim" ) );
   bfdAllPeerStatusDirIs( fetch< Bfd::StatusPeer >( "bfd/status/peer" ) );
   // 11, 12.
   stagesHelpersInit();
   // 13.
   asuClientVrfStatusIs( Kiv::make< McastCommon::AsuVrfStatus >( Kiv::Name( "asuClientVrfStatus" ) ) );
   asuClientShutdownStatusIs( Kiv::make< McastCommon::AsuShutdownStatus >( Kiv::Name( "asuClientShutdownStatus" ) ) );
   kniMounterIs( Kiv::make< StoreKniMounter >( em->store() ) );
   // 14, 15.
   redundancyStatusSmIs( Kiv::make< RedundancyStatusSm >( redundancyStatus(), this ) );
   handleStandbyMode();
   // 16.
   bootStagesHelper()->waitForStage( "NetworkAgent" );
   bootStagesHelper()->waitForStage( "PimIntfUpdate" );
   shutdownStagesHelper()->waitForStage( "NetworkAgentShutdown" );
}

// The helpers of the boot and shutdown stages.
void Agent::stagesHelpersInit() {
   const std::string stageName = stageAgentName();
   for( const char * cls : { kBootStageClass, kShutdownStageClass } ) {
      auto helper = Kiv::make< AgentBase::StagesHelper >(
         cls, this, fetch< Stage::AgentConfig >( Stage::agentConfigPath( cls, stageName ) ),
         fetchWritable< Stage::AgentStatus >( Stage::agentStatusPath( cls, stageName ) ),
         fetch< Stage::ProgressDir >( Stage::progressPath( cls ) ),
         fetch< Stage::CompletionStatusDir >( Stage::completionStatusPath( cls ) ) );
      helper->setInstanceCompletionStatusDir( fetch< Stage::CompletionStatusDir >( Stage::completionStatusPath( cls ) ) );
      if( cls == kBootStageClass ) {
         bootStagesHelperIs( helper );
      } else {
         shutdownStagesHelperIs( helper );
      }
   }
}

void Agent::standbyModeIs( bool standby ) {
   if( standby == standbyMode_ ) return;
   standbyMode_ = standby;
   handleStandbyMode();
}

void Agent::handleStandbyMode() {
   ATRACE( 8, "handleStandbyMode" << "(), standby: " << standbyMode_ );
   if( standbyMode_ ) {
      ATRACE( 8, "Standby supe. Cleaning up any instance of Sm" );
      doCleanup();
      return;
   }
   // Before doMountsComplete has run there is nothing to build from.
   if( !pimAllStatusColl() ) return;
   // Built once; a repeated call on the active side rebuilds nothing.
   if( pimConfigSm() ) return;
   pimAttrLogSmIs( Kiv::make< PimAttrLogSm >( Kiv::NboAttrLog::Root::top().outSm( name() ) ) );
   pimAttrLogSm()->globalStatusIs( pimGlobalStatus() );
   mcastPimVrfIntfDirSmIs( Kiv::make< McastCommon::McastAppVrfIntfDirSm >( multicastIntfsDir(), pimVrfIntfs(), mfibVrfConfig() ) );
   pimGlobalStatusReaderSmIs( Kiv::make< Varn::GlobalStatusReaderSm >(
      addressFamily_, pimGlobalStatus(), pimAllStatusColl(), true, Kiv::activityManager().clock(), varnMount() ) );
   pimGlobalStatusModeFilterSmIs( Kiv::make< GlobalStatusModeFilterSm >( pimAllStatusColl(), pimStatusColl(), pimModeSparseBidir ) );
   if( addressFamily_ == Lumo::AddressFamily::ipv4 ) {
      serviceAclFilterSmIs( Kiv::make< Acl::ServiceAclFilterSm >(
         kServiceAclName, aclConfig(), aclCpConfig(), fetchWritable< Acl::StatusService >( "routing/pim/sacl/status" ) ) );
   }
   doBuildConfigSm();
   const L3::VrfName defaultVrf( "default" );
   vxlanStatusSmIs( Kiv::make< VxlanStatusSm >( vxlanEnabledStatus(), pimStatusColl()->vrfStatus( defaultVrf ),
                                               mcastVxlanStatus() ) );
}

// ConfigSm from the agent's inputs.
Kiv::Ptr< ConfigSm > Agent::doBuildConfigSm() {
   ConfigSmInputs in;
   in.af = addressFamily_;
   in.pimConfigColl = pimConfigRoot();
   in.pimClearConfigColl = pimClearConfigRoot();
   in.hostInjectConfig = mcastHostInjectConfig();
   in.appConfigDir = pimApplicationConfigDir();
   in.clearMrouteConfigColl = clearMrouteCollSparseMode();
   in.pimStatusColl = pimStatusColl();
   in.pimAllStatusColl = pimAllStatusColl();
   in.pimGlobalStatus = pimGlobalStatus();
   in.pimCellGlobalStatus = pimCellGlobalStatus();
   in.mcastPimStatus = mcastPimStatus();
   in.mlagProtoStatus = mlagProtoStatus();
   in.ipStatus = ipStatus();
   in.allVrfStatusLocal = allVrfStatus();
   in.appVrfIntfs = pimVrfIntfs();
   in.vrfEnabledStatus = mcastEnabledStatus();
   in.multicastGroups = pimMulticastGroups();
   in.multicastIntfs = pimVifRequests();
   in.bfdAppConfigDir = bfdPimAppConfigRoot();
   in.bfdStatusPeer = bfdAllPeerStatusDir();
   in.varnMount = varnMount();
   in.kniMounter = kniMounter();
   in.asuShutdownStatus = asuClientShutdownStatus();
   in.asuVrfStatus = asuClientVrfStatus();
   in.bridgingConfig = bridgingConfig();
   in.containerExtras.aclTypeConfig = aclConfig();
   in.containerExtras.allIntfConfigDir = allIntfConfigDir();
   in.containerExtras.allIntfStatusDir = allIntfStatusDir();
   in.containerExtras.mcastBoundaryStatus = mcastBoundaryStatus();
   in.containerExtras.pimAttrLogSm = pimAttrLogSm();
   in.containerExtras.serviceAclFilterSm = serviceAclFilterSm();
   in.timerWheel = timerWheel();
   AgentBase::StagesHelper * stages = bootStagesHelper().ptr();
   AgentBase::StagesHelper * shutdown = shutdownStagesHelper().ptr();
   in.stageComplete = [ stages, shutdown ]( const std::string & stage ) {
      // ConfigSm completes the fast-upgrade shutdown stage; others are boot.
      if( stage == ConfigSm::kShutdownStage && shutdown ) {
         shutdown->doStageComplete( stage );
      } else if( stages ) {
         stages->doStageComplete( stage );
      }
   };
   pimConfigSmIs( configSmFactory( in ) );
   return pimConfigSm();
}

void Agent::doCleanup() {
   ATRACE( 8, "void Routing::Pim::Agent::doCleanup()" );
   pimAttrLogSmDel();
   mcastPimVrfIntfDirSmDel();
   pimGlobalStatusModeFilterSmDel();
   serviceAclFilterSmDel();
   pimConfigSmDel();
   vxlanStatusSmDel();
   pimGlobalStatusReaderSmDel();
}

void Agent::doStage( const std::string & stageClass, const std::string & stage ) {
   ATRACE( 8, "doStage" << ", stageClass: " << stageClass << ", stage: " << stage );
   if( stageClass == kBootStageClass ) {
      doBootStage( stage );
   } else if( stageClass == kShutdownStageClass ) {
      doShutdownStage( stage );
   } else {
      assert( false && "unknown stage class" );
      std::abort();
   }
}

void Agent::doBootStage( const std::string & stage ) {
   if( stage == "NetworkAgent" || stage == "PimIntfUpdate" ) bootStagesHelper()->doStageComplete( stage );
}

void Agent::doShutdownStage( const std::string & stage ) {
   if( stage == "NetworkAgentShutdown" ) asuClientShutdownStatus()->shutdownIs( true );
}

Kiv::Ptr< Agent > agentFactory( const std::string & name ) {
   return Kiv::ValidPtr< Agent >( Kiv::make< Agent >( name ) );
}
Kiv::Ptr< Agent > agent4Factory( const std::string & name ) {
   return Kiv::ValidPtr< Agent >( Kiv::Ptr< Agent >( Kiv::make< Agent4 >( name ) ) );
}
Kiv::Ptr< Agent > agent6Factory( const std::string & name ) {
   return Kiv::ValidPtr< Agent >( Kiv::Ptr< Agent >( Kiv::make< Agent6 >( name ) ) );
}

} // namespace Routing::Pim

#pragma once
// Routing::Pim::Agent: the root of the PIM agent, loaded by the agent host
// once per address family (Agent4, Agent6). It mounts everything the PIM
// machines read or write, builds the process-wide collections, the ACL
// aggregators, the stage helpers and the redundancy machine, and on the
// active supervisor the machines of the configuration pipeline (through
// doBuildConfigSm). The redundancy machine sets standbyMode; handleStandbyMode
// builds or tears down the active side.
#include <string>
#include <vector>

#include "agent/PimAgentSms.h"
#include "agenthost/CAgent.h"
#include "agenthost/StagesHelper.h"
#include "config/PimConfigSm.h"
#include "dovel/Dovel.h"
#include "feeds/VxlanStatusSm.h"
#include "kiv/EntityMacros.h"
#include "services/acl/Acl.h"
#include "services/intf/AllIntfDir.h"
#include "services/mcast/McastAppVrfIntfDirSm.h"
#include "services/mcast/McastBoundary.h"
#include "kiv/OwnedReactor.h"

namespace Routing::Pim {

class Agent;

// Watches the host's redundancy status and sets the agent's standbyMode.
class RedundancyStatusSm : public Kiv::StateMachine {
 public:
   // redundancyStatus is required ("null ValidPtr").
   RedundancyStatusSm( const Kiv::Ptr< const Redundancy::RedundancyStatus > & redundancyStatus, Agent * agent );
   ~RedundancyStatusSm() override;
   void handleRedundancyStatus();

 private:
   class KivRedundancyStatus : public Kiv::OwnedReactor< Redundancy::RedundancyStatus::NotifieeConst, RedundancyStatusSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onMode() override { owner_->handleRedundancyStatus(); }
   };
   Kiv::Ptr< const Redundancy::RedundancyStatus > redundancyStatus_;
   Agent * agent_;
   KivRedundancyStatus reactor_;
};

// Looks kernel namespace status up in the state store.
class StoreKniMounter : public KernelNetInfoMounter {
 public:
   explicit StoreKniMounter( const Kiv::Ptr< Dovel::Store > & store ) : store_( store ) {}
   Kiv::Ptr< KernelNetInfo::Status > doMount( const std::string & path ) override;
   void doUnmount( const std::string & ) override {}
 private:
   Kiv::Ptr< Dovel::Store > store_;
};

#define PIM_AGENT_ATTRS( X )                                                                      \
   X( PTR, mountGroup, MountGroup, Dovel::MountGroup )                                            \
   X( PTR, pimConfigRoot, PimConfigRoot, const ConfigColl )                                       \
   X( PTR, pimClearConfigRoot, PimClearConfigRoot, const ClearConfigColl )                        \
   X( PTR, mcastHostInjectConfig, McastHostInjectConfig, const HostInject::HostInjectConfig )     \
   X( PTR, pimApplicationConfigDir, PimApplicationConfigDir, const Kiv::Dir )                     \
   X( PTR, pimGlobalStatus, PimGlobalStatus, GlobalStatus )                                       \
   X( PTR, mcastPimStatus, McastPimStatus, Multicast::Pim::Status )                               \
   X( PTR, pimCellGlobalStatus, PimCellGlobalStatus, CellGlobalStatus )                           \
   X( PTR, pimStatusColl, PimStatusColl, StatusColl )                                             \
   X( PTR, pimAllStatusColl, PimAllStatusColl, AllStatusColl )                                    \
   X( PTR, mlagProtoStatus, MlagProtoStatus, const Mlag::ProtoStatus )                            \
   X( PTR, mfibVrfConfig, MfibVrfConfig, const Multicast::Fib::VrfConfig )                        \
   X( PTR, aclConfig, AclConfig, Acl::Config )                                                    \
   X( PTR, aclCpConfig, AclCpConfig, Acl::CpConfig )                                              \
   X( PTR, aclConfigAggregatorSm, AclConfigAggregatorSm, Acl::AclConfigAggregatorSm )             \
   X( PTR, aclCpConfigAggregatorSm, AclCpConfigAggregatorSm, Acl::AclCpConfigAggregatorSm )       \
   X( PTR, ipStatus, IpStatus, const IpGen::Status )                                              \
   X( PTR, pimMulticastGroups, PimMulticastGroups, IpGen::MulticastGroupsForApplications )        \
   X( PTR, multicastIntfsDir, MulticastIntfsDir, Kiv::Dir )                                       \
   X( PTR, pimVifRequests, PimVifRequests, McastCommon::MulticastIntfsForApplications )           \
   X( PTR, allIntfConfigDir, AllIntfConfigDir, Interface::AllIntfConfigDir )                      \
   X( PTR, allIntfStatusDir, AllIntfStatusDir, Interface::AllIntfStatusDir )                      \
   X( PTR, allIntfStatusLocalDir, AllIntfStatusLocalDir, Interface::AllIntfStatusLocalDir )       \
   X( PTR, allVrfStatus, AllVrfStatus, const Ip::AllVrfStatusLocal )                              \
   X( PTR, clearMrouteCollSparseMode, ClearMrouteCollSparseMode, const ClearMrouteConfigColl )    \
   X( PTR, pimVrfIntfs, PimVrfIntfs, McastCommon::AppVrfIntfs )                                   \
   X( PTR, mcastPimVrfIntfDirSm, McastPimVrfIntfDirSm, McastCommon::McastAppVrfIntfDirSm )        \
   X( PTR, bootStagesHelper, BootStagesHelper, AgentBase::StagesHelper )                          \
   X( PTR, shutdownStagesHelper, ShutdownStagesHelper, AgentBase::StagesHelper )                  \
   X( PTR, asuClientVrfStatus, AsuClientVrfStatus, McastCommon::AsuVrfStatus )                    \
   X( PTR, asuClientShutdownStatus, AsuClientShutdownStatus, McastCommon::AsuShutdownStatus )     \
   X( PTR, bfdPimAppConfigRoot, BfdPimAppConfigRoot, Kiv::Dir )                                   \
   X( PTR, bfdAllPeerStatusDir, BfdAllPeerStatusDir, const Bfd::StatusPeer )                      \
   X( PTR, mcastBoundaryStatus, McastBoundaryStatus, const McastBoundary::Status )                \
   X( PTR, mcastEnabledStatus, McastEnabledStatus, const Multicast::Fib::VrfEnabledStatus )       \
   X( PTR, vxlanEnabledStatus, VxlanEnabledStatus, const ::Vxlan::EnabledStatus )                 \
   X( PTR, mcastVxlanStatus, McastVxlanStatus, Multicast::Vxlan::Status )                         \
   X( PTR, bridgingConfig, BridgingConfig, const Bridging::Config )                               \
   X( PTR, pimAttrLogSm, PimAttrLogSm, PimAttrLogSm )                                             \
   X( PTR, pimGlobalStatusReaderSm, PimGlobalStatusReaderSm, Varn::GlobalStatusReaderSm )         \
   X( PTR, pimGlobalStatusModeFilterSm, PimGlobalStatusModeFilterSm, GlobalStatusModeFilterSm )   \
   X( PTR, serviceAclFilterSm, ServiceAclFilterSm, Acl::ServiceAclFilterSm )                      \
   X( PTR, pimConfigSm, PimConfigSm, ConfigSm )                                                   \
   X( PTR, vxlanStatusSm, VxlanStatusSm, VxlanStatusSm )                                          \
   X( PTR, redundancyStatusSm, RedundancyStatusSm, RedundancyStatusSm )                           \
   X( PTR, kniMounter, KniMounter, StoreKniMounter )

class Agent : public AgentBase::CAgent {
 public:
   static constexpr const char * kBootStageClass = "bootStageClass";
   static constexpr const char * kShutdownStageClass = "shutdownStageClass";
   // The service whose ACL bindings the service ACL filter applies.
   static constexpr const char * kServiceAclName = "pim";

   Agent( const std::string & name, Lumo::AddressFamily af = Lumo::AddressFamily::ipv4 );
   ~Agent() override;
   KIV_ENTITY( Agent, "Routing::Pim::Agent", PIM_AGENT_ATTRS )

   Lumo::AddressFamily addressFamily() const { return addressFamily_; }
   bool standbyMode() const { return standbyMode_; }
   // Stores a changed value and acts on it (handleStandbyMode).
   void standbyModeIs( bool standby );
   void handleStandbyMode();
   void doCleanup() override;

   void doStage( const std::string & stageClass, const std::string & stage ) override;
   void doBootStage( const std::string & stage );
   void doShutdownStage( const std::string & stage );

   // The family's mount list, in order (what doInit declares).
   std::vector< Dovel::Mount > mountTable() const;
   // Builds ConfigSm from the agent's inputs.
   Kiv::Ptr< ConfigSm > doBuildConfigSm();

 protected:
   // The family's paths, for doInit and doMountsComplete.
   struct Paths;
   void doInitFor( const char * traceText );
   void doMountsCompleteFor( Dovel::MountStatus status, const Kiv::Ptr< Dovel::EntityManager > & em );
   void stagesHelpersInit();
   // "Pim" or "Pim6": the agent's name in the stage paths.
   const char * stageAgentName() const;

 private:
   template< class T >
   Kiv::Ptr< const T > fetch( const std::string & path ) const;
   template< class T >
   Kiv::Ptr< T > fetchWritable( const std::string & path ) const;
   const Lumo::AddressFamily addressFamily_;
   bool standbyMode_ = false;
};

class Agent4 : public Agent {
 public:
   explicit Agent4( const std::string & name ) : Agent( name, Lumo::AddressFamily::ipv4 ) {}
   void doInit() override;
   void doMountsComplete( Dovel::MountStatus status, const Kiv::Ptr< Dovel::EntityManager > & em ) override;
};

class Agent6 : public Agent {
 public:
   explicit Agent6( const std::string & name ) : Agent( name, Lumo::AddressFamily::ipv6 ) {}
   void doInit() override;
   void doMountsComplete( Dovel::MountStatus status, const Kiv::Ptr< Dovel::EntityManager > & em ) override;
};

// The factories (a null result would throw "null ValidPtr").
Kiv::Ptr< Agent > agentFactory( const std::string & name );
Kiv::Ptr< Agent > agent4Factory( const std::string & name );
Kiv::Ptr< Agent > agent6Factory( const std::string & name );

// Registers every type the agents mount or create with the state store.
void registerStoreTypes();

} // namespace Routing::Pim

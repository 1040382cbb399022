#pragma once
// ConfigSm: one per address family. Turns configuration and system status
// into PIM status:
//  * per interface: whether it is a PIM interface of its VRF and with which
//    effective parameters (updatePimIntf recomputes one interface whole and
//    writes only what differs);
//  * per VRF: the status entities, the "PIM enabled" flags read by the
//    multicast routing side, the kernel namespace view, the shared-memory
//    tables, the VIF and ALL-PIM-ROUTERS requests of every PIM interface and
//    the per-VRF container of the Hello engine;
//  * the DR start-up timers after a reload (with the MLAG hold-off), the
//    fast-upgrade completion across VRFs and the clear commands;
//  * the application requests (ApplicationConfigSm).
//
// Every input may be missing: a missing input is a traced state that leads
// to the deletion of what was derived from it, never a crash.
#include <functional>
#include <optional>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "config/PimApplicationConfigSm.h"
#include "config/PimContainerSm.h"
#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"
#include "lumo/AddressFamily.h"
#include "lumo/IntfId.h"
#include "lumo/IpGenAddrWithMask.h"
#include "lumo/NamespaceName.h"
#include "lumo/VrfName.h"
#include "model/PimConfig.h"
#include "model/PimStatus.h"
#include "services/bfd/Bfd.h"
#include "services/bfd/BfdApp.h"
#include "services/bridging/BridgingConfig.h"
#include "services/hostinject/HostInject.h"
#include "services/intf/DeviceIntfStatus.h"
#include "services/ip/IpStatus.h"
#include "services/ip/VrfStatus.h"
#include "services/kni/KernelNetInfo.h"
#include "services/mcast/Multicast.h"
#include "services/mlag/Mlag.h"
#include "status/PimVarnStatus.h"
#include "varn/VarnMount.h"
#include "tolm/OwnedTimer.h"
#include "tolm/TimerWheel.h"
#include "kiv/OwnedReactor.h"
#include "kiv/ReactorMap.h"

namespace Routing::Pim {

// How the kernel network information status of a namespace
// ("kni/ns/<namespace>/status") is mounted and released. The agent passes its
// state-store mount; tests pass a map.
class KernelNetInfoMounter : public Kiv::PtrInterface {
 public:
   // The mounted status, or null when nothing of that type is there.
   virtual Kiv::Ptr< KernelNetInfo::Status > doMount( const std::string & path ) = 0;
   virtual void doUnmount( const std::string & path ) = 0;
};

// Declares an agent stage complete (the agent's stage machinery).
using StageCompleteFn = std::function< void( const std::string & stage ) >;

// What ConfigSm reads and writes. Every pointer may be null.
struct ConfigSmInputs {
   Lumo::AddressFamily af = Lumo::AddressFamily::ipv4;
   // Configuration (read-only): PIM configuration root, clear commands,
   // multicast host injection, application requests (a directory of
   // Application::Config by application name), clear-multicast-routes.
   Kiv::Ptr< const ConfigColl > pimConfigColl;
   Kiv::Ptr< const ClearConfigColl > pimClearConfigColl;
   Kiv::Ptr< const HostInject::HostInjectConfig > hostInjectConfig;
   Kiv::Ptr< const Kiv::Dir > appConfigDir;
   Kiv::Ptr< const ClearMrouteConfigColl > clearMrouteConfigColl;
   // PIM status written here: per-VRF status roots, per-VRF interface
   // status, the enabled-VRF flags and reliable-transport status, the
   // reload / DR-delay flags, and the enabled VRFs as multicast routing
   // reads them.
   Kiv::Ptr< StatusColl > pimStatusColl;
   Kiv::Ptr< AllStatusColl > pimAllStatusColl;
   Kiv::Ptr< GlobalStatus > pimGlobalStatus;
   Kiv::Ptr< CellGlobalStatus > pimCellGlobalStatus;
   Kiv::Ptr< Multicast::Pim::Status > mcastPimStatus;
   // System status (read-only): MLAG, IP interfaces, VRFs and their
   // namespaces, kernel interfaces per VRF, multicast routing enablement.
   Kiv::Ptr< const Mlag::ProtoStatus > mlagProtoStatus;
   Kiv::Ptr< const IpGen::Status > ipStatus;
   Kiv::Ptr< const Ip::AllVrfStatusLocal > allVrfStatusLocal;
   Kiv::Ptr< const McastCommon::AppVrfIntfs > appVrfIntfs;
   Kiv::Ptr< const Multicast::Fib::VrfEnabledStatus > vrfEnabledStatus;
   // Requests per PIM interface: ALL-PIM-ROUTERS membership and VIFs.
   Kiv::Ptr< IpGen::MulticastGroupsForApplications > multicastGroups;
   Kiv::Ptr< McastCommon::MulticastIntfsForApplications > multicastIntfs;
   // BFD: the PIM application's configuration directory (one sub-directory
   // per VRF) and the sessions' states.
   Kiv::Ptr< Kiv::Dir > bfdAppConfigDir;
   Kiv::Ptr< const Bfd::StatusPeer > bfdStatusPeer;
   // Mounts: the shared-memory tables and the kernel namespace status.
   Kiv::Ptr< KivVarn::Mount > varnMount;
   Kiv::Ptr< KernelNetInfoMounter > kniMounter;
   // Fast upgrade: the shutdown request and the per-VRF completion.
   Kiv::Ptr< const McastCommon::AsuShutdownStatus > asuShutdownStatus;
   Kiv::Ptr< McastCommon::AsuVrfStatus > asuVrfStatus;
   // Passed on to the containers.
   Kiv::Ptr< const Bridging::Config > bridgingConfig;
   ContainerSmArgs containerExtras;   // only its pass-through inputs are used
   Kiv::Ptr< Tolm::TimerWheel > timerWheel;
   // Declares "NetworkAgentShutdown" complete.
   StageCompleteFn stageComplete;
};

#define PIM_CONFIG_SM_ATTRS( X )                                                                  \
   X( ENTITIES, vrfSparseModeIntf, VrfSparseModeIntf, L3::VrfName, VrfPimIntf )                  \
   X( ENTITIES, vrfBidirIntf, VrfBidirIntf, L3::VrfName, VrfPimIntf )                            \
   X( COLL, appConfigSmColl, AppConfigSmColl, std::string, Kiv::Ptr< ApplicationConfigSm > )     \
   X( COLL, pimVrfContainerSm, PimVrfContainerSm, L3::VrfName, Kiv::Ptr< ContainerSm > )         \
   X( COLL, pimVrfCounters, PimVrfCounters, L3::VrfName, Kiv::Ptr< Varn::MessageCounters > )     \
   X( COLL, pimVarnStatus, PimVarnStatus, L3::VrfName, Kiv::Ptr< Varn::Status > )                \
   X( COLL, namespaceName, NamespaceName, L3::VrfName, Lumo::NamespaceName )                     \
   X( COLL, kernelVrfIntfStatusDir, KernelVrfIntfStatusDir, Lumo::NamespaceName,                 \
      Kiv::Ptr< Interface::DeviceIntfStatusDir > )                                              \
   X( COLL, kniStatus, KniStatus, Lumo::NamespaceName, Kiv::Ptr< KernelNetInfo::Status > )       \
   X( COLL, bfdPimAppConfig, BfdPimAppConfig, L3::VrfName, Kiv::Ptr< Bfd::AppConfig > )          \
   X( COLL, vifHolder, VifHolder, Lumo::IntfId, L3::VrfName )                                    \
   X( COLL, allPimRoutersHolder, AllPimRoutersHolder, Lumo::IntfId, L3::VrfName )                \
   X( SET, incompleteVrf, IncompleteVrf, L3::VrfName )                                           \
   X( SET, reviewedMulticastIntf, ReviewedMulticastIntf, Lumo::IntfId )                          \
   X( SCALAR, initialized, Initialized, bool, false )

class ConfigSm : public Kiv::StateMachine {
 public:
   // Reload hold-off before the router's own DR priority counts again.
   static constexpr double kReloadDelay = 50.0;
   static constexpr const char * kShutdownStage = "NetworkAgentShutdown";
   // How often a VRF whose engine runs without a table or the kernel status
   // tries to get them again.
   static constexpr double kMountRetryInterval = 5.0;

   explicit ConfigSm( const ConfigSmInputs & inputs );
   ~ConfigSm() override;
   KIV_ENTITY( ConfigSm, "Routing::Pim::ConfigSm", PIM_CONFIG_SM_ATTRS )

   const ConfigSmInputs & inputs() const { return inputs_; }
   Lumo::AddressFamily af() const { return inputs_.af; }
   Kiv::Seconds drInitTimerTimeMin() const { return drInitTimer_.timeMin(); }
   Kiv::Seconds drDelayTimerTimeMin() const { return drDelayTimer_.timeMin(); }
   Kiv::Seconds mountRetryTimerTimeMin() const { return mountRetryTimer_.timeMin(); }

   // Start-up: DR timers, every input's reactors, every VRF, the
   // applications; sets initialized last.
   void handleInitialized();

   // ---- interfaces ----
   void updatePimIntf( L3::VrfName vrf, const Lumo::IntfId & intf );
   void deletePimIntf( const L3::VrfName & vrf, const Lumo::IntfId & intf );
   void deletePimIntfFromStatus( const L3::VrfName & vrf, const Lumo::IntfId & intf );
   Mode applicationMode( const Lumo::IntfId & intf, Mode mode ) const;
   void updateAllPimIntf( const L3::VrfName & vrf );
   void doUpdateAllPimIntf( const L3::VrfName & vrf );
   void handleIntfConfig( const Lumo::IntfId & intf );
   void handleIpIntfStatus( const L3::VrfName & vrf, const Lumo::IntfId & intf );
   void handleActiveAddrWithMask( const L3::VrfName & vrf, const Lumo::IntfId & intf );
   void handleActiveSecondary( const L3::VrfName & vrf, const Lumo::IntfId & intf );
   void handleActiveSecondaryWithMask( const Lumo::IntfId & intf, const Lumo::IpGenAddrWithMask & a );
   void handleSourceInject( const Lumo::IntfId & intf );
   void handleBfdIntfDefault( const L3::VrfName & vrf );
   void handleVrfNeighborLimit( const L3::VrfName & vrf );

   // ---- VRFs ----
   bool multicastEnabled( const L3::VrfName & vrf ) const;
   void handleVrf( const L3::VrfName & vrf );
   void doUpdateMulticastEnabled( const L3::VrfName & vrf );
   void doMaybeUpdatePimEnabledSparseModeVrf( const L3::VrfName & vrf );
   void doMaybeUpdatePimEnabledBidirVrf( const L3::VrfName & vrf );
   void doCreateOrDeleteContainer( const L3::VrfName & vrf );
   // Publishes what the VRF's engine lacks (its status entry's missingInput)
   // and keeps the retry timer armed while something can still come.
   void doUpdateMissingInputs( const L3::VrfName & vrf, bool agentInputsMissing );
   void handleMountRetryTimerExpiry();
   void doMounts( const L3::VrfName & vrf );
   void doUnmounts( const L3::VrfName & vrf );
   void doKniInit( const L3::VrfName & vrf );
   void doKniDeinit( const L3::VrfName & vrf );
   void doUpdateVif( const L3::VrfName & vrf, const Lumo::IntfId & intf );
   void doUpdateAllPimRouters( const L3::VrfName & vrf, const Lumo::IntfId & intf );
   void handlePimConfigured( const L3::VrfName & vrf );
   void handlePimIntf( const L3::VrfName & vrf, const Lumo::IntfId & intf );
   void handlePimIntfMode( const L3::VrfName & vrf );
   void handleVrfIntfColl( const L3::VrfName & vrf, const Lumo::IntfId & intf );

   // ---- DR start-up timers, fast upgrade, clear commands ----
   void handleMlagProtoStatus();
   void drInitTimerExpired();
   void handleDrDelayTimerExpiry();
   void handleAsuCompletedVrf();
   void handleClearCountersCount( const L3::VrfName & vrf );
   // Drops every neighbour of the VRF, or of one interface (a non-empty id),
   // as if each had expired.
   void handleClearNeighbors( const L3::VrfName & vrf, const Lumo::IntfId & intf );
   void handleClearIpMroute( const L3::VrfName & vrf );

   // ---- applications ----
   void handleApplication( const std::string & name );
   void handleApplication();
   Kiv::Ptr< ApplicationConfigSm > appConfigSm( const std::string & name ) const {
      return appConfigSmColl( name );
   }
   Kiv::Ptr< ApplicationConfigSm > appConfigSmIs( const std::string & name,
                                                  const Kiv::Ptr< const Application::Config > & config );
   void appConfigSmDel( const std::string & name );
   void appConfigSmDelAll();
   std::size_t appConfigSmSize() const { return appConfigSmCollSize(); }

   // The ALL-PIM-ROUTERS group of the family.
   Lumo::IpGenAddr allPimRoutersGroup() const;

   // Reactors (public so that the per-key reactor maps can name them).
   class KivIntfConfig;
   class KivPimConfig;
   class KivHostInjectIntfConfig;
   class KivIpIntfStatus;
   class KivPimAllStatus;
   class KivPimIntf;
   class KivReliableStatus;
   class KivClearConfig;
   class ClearMrouteSm;
   class KivVrfIntfColl;

 private:
   class KivPimConfigColl : public Kiv::OwnedReactor< ConfigColl::NotifieeConst, ConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onIntfConfig( const Lumo::IntfId & intf ) override;
      void onVrfConfig( const L3::VrfName & vrf ) override;
   };
   class KivHostInjectConfig : public Kiv::OwnedReactor< HostInject::HostInjectConfig::NotifieeConst, ConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onConfig( const Lumo::IntfId & intf ) override;
   };
   class KivIpStatus : public Kiv::OwnedReactor< IpGen::Status::NotifieeConst, ConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onIntfStatus( const Lumo::IntfId & intf ) override;
      void onVrf( const L3::VrfName & vrf ) override { owner_->handleVrf( vrf ); }
   };
   class KivVrfEnabledStatus : public Kiv::OwnedReactor< Multicast::Fib::VrfEnabledStatus::NotifieeConst, ConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onVrf( const L3::VrfName & vrf ) override { owner_->handleVrf( vrf ); }
   };
   class KivAllVrfStatusLocal : public Kiv::OwnedReactor< Ip::AllVrfStatusLocal::NotifieeConst, ConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onVrf( const L3::VrfName & vrf ) override { owner_->handleVrf( vrf ); }
   };
   class KivPimGlobalStatus : public Kiv::OwnedReactor< GlobalStatus::NotifieeConst, ConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onPimEnabledSparseModeVrf( const L3::VrfName & vrf ) override {
         owner_->doCreateOrDeleteContainer( vrf );
      }
      void onPimEnabledBidirVrf( const L3::VrfName & vrf ) override {
         owner_->doCreateOrDeleteContainer( vrf );
      }
   };
   class KivMlagProtoStatus : public Kiv::OwnedReactor< Mlag::ProtoStatus::NotifieeConst, ConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onPortsErrdisabled() override { owner_->handleMlagProtoStatus(); }
   };
   class KivAsuVrfStatus : public Kiv::OwnedReactor< McastCommon::AsuVrfStatus::NotifieeConst, ConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onCompletedVrf( const L3::VrfName & ) override { owner_->handleAsuCompletedVrf(); }
   };
   class KivClearConfigColl : public Kiv::OwnedReactor< ClearConfigColl::NotifieeConst, ConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onVrfClearConfig( const L3::VrfName & vrf ) override;
   };
   class KivClearMrouteConfigColl : public Kiv::OwnedReactor< ClearMrouteConfigColl::NotifieeConst, ConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onVrfClearMrouteConfig( const L3::VrfName & vrf ) override;
   };
   class KivAppConfigDir : public Kiv::OwnedReactor< Kiv::Dir::NotifieeConst, ConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onEntityPtr( const Kiv::Name & name ) override { owner_->handleApplication( name.str() ); }
   };
   class KivAppVrfIntfs : public Kiv::OwnedReactor< McastCommon::AppVrfIntfs::NotifieeConst, ConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onVrfIntf( const L3::VrfName & vrf ) override;
   };
   using KivDrInitTimer = Tolm::OwnedTimer< ConfigSm, &ConfigSm::drInitTimerExpired >;
   using KivMountRetryTimer = Tolm::OwnedTimer< ConfigSm, &ConfigSm::handleMountRetryTimerExpiry >;
   using KivDrDelayTimer = Tolm::OwnedTimer< ConfigSm, &ConfigSm::handleDrDelayTimerExpiry >;

   void updatePimIntfsOf( const L3::VrfName & vrf );
   // A resource of an interface (its VIF, its ALL-PIM-ROUTERS membership)
   // that the VRF running PIM there holds: taken while PIM runs on it,
   // released only by the VRF holding it. take( false ) releases.
   struct HeldText {
      const char * fn;
      const char * take;
      const char * what;
      const char * release;
   };
   void doUpdateHeld( const L3::VrfName & vrf, const Lumo::IntfId & intf, const HeldText & text,
                      const Kiv::HashMap< Lumo::IntfId, L3::VrfName > & holders,
                      const std::function< void( bool ) > & take );
   // The steps of updatePimIntf.
   // Whether IP status, the VRF and multicast routing let the interface run
   // PIM; the reason why not is traced.
   bool pimIntfEligible( const IpGen::Status & ip, const L3::VrfName & vrf, const Lumo::IntfId & intf ) const;
   // The configuration merged with the applications' sparse-mode requests;
   // none (traced) when PIM does not run on the interface.
   std::optional< Mode > effectivePimMode( const Lumo::IntfId & intf, const IntfConfig * config ) const;
   // Membership of the VRF's sparse-mode and bidirectional sets.
   void updateModeSets( const L3::VrfName & vrf, const Lumo::IntfId & intf, Mode mode, bool borderRouter );
   // Drops the secondary addresses and prefixes the interface no longer has.
   void reconcileSecondaries( const IpGen::Status & ip, const Lumo::IntfId & intf,
                              const Lumo::IpGenAddrWithMask & primary, Intf & pimIntf );
   // An interface only applications ask for: the attribute list's defaults.
   void applyDefaultAttributes( const Lumo::IntfId & intf, Intf & pimIntf );
   void applyConfiguredAttributes( const L3::VrfName & vrf, const Lumo::IntfId & intf,
                                   const IntfConfig & config, Intf & pimIntf );
   bool bfdEnabled( const L3::VrfName & vrf, const IntfConfig & config, bool current ) const;
   Reliable::CapabilityFlags portCapabilityFlags( const L3::VrfName & vrf, const IntfConfig & config ) const;
   // The VRF's entry in the global and multicast status sets of one mode.
   // set writes both (false deletes); fn and mode name it in the trace.
   void doMaybeUpdatePimEnabledVrf( const L3::VrfName & vrf, bool wanted, bool enabled, bool present,
                                    const char * fn, const char * mode,
                                    const std::function< void( bool ) > & set );

   // Per-key reactor bookkeeping.
   template< class K, class R, class E >
   void reactorFollows( Kiv::ReactorMap< K, R > & map, const K & key, const Kiv::Ptr< E > & entity, bool keepSame );
   void reactorsInit();
   void doDrTimersInit();
   void intfConfigReactorUpdate( const Lumo::IntfId & intf );
   void vrfConfigReactorUpdate( const L3::VrfName & vrf );
   void hostInjectReactorUpdate( const Lumo::IntfId & intf );
   void ipIntfStatusReactorUpdate( const Lumo::IntfId & intf );
   void clearConfigReactorUpdate( const L3::VrfName & vrf );
   void clearMrouteReactorUpdate( const L3::VrfName & vrf );
   void vrfIntfCollReactorUpdate( const L3::VrfName & vrf );
   void allStatusReactorDel( const L3::VrfName & vrf );
   Kiv::Ptr< VrfPimIntf > sparseModeIntfs( const L3::VrfName & vrf );
   Kiv::Ptr< VrfPimIntf > bidirIntfs( const L3::VrfName & vrf );
   Kiv::Ptr< AllStatus > allStatus( const L3::VrfName & vrf ) const;
   Kiv::Ptr< const IntfConfig > intfConfig( const Lumo::IntfId & intf ) const;
   Kiv::Ptr< const Config > vrfConfig( const L3::VrfName & vrf ) const;
   // Namespace of the VRF as the all-VRF status names it ("default": the
   // default namespace).
   Lumo::NamespaceName vrfNamespace( const L3::VrfName & vrf ) const;
   std::string kniPath( const Lumo::NamespaceName & ns ) const;
   Kiv::Ptr< Bfd::AppConfig > bfdAppConfigFor( const L3::VrfName & vrf );

   ConfigSmInputs inputs_;
   KivPimConfigColl configColl_;
   KivHostInjectConfig hostInjectConfig_;
   KivIpStatus ipStatus_;
   KivVrfEnabledStatus vrfEnabledStatus_;
   KivAllVrfStatusLocal allVrfStatusLocal_;
   KivPimGlobalStatus globalStatus_;
   KivMlagProtoStatus mlagProtoStatus_;
   KivAsuVrfStatus asuVrfStatus_;
   KivClearConfigColl clearConfigColl_;
   KivClearMrouteConfigColl clearMrouteConfigColl_;
   KivAppConfigDir appConfigDir_;
   KivAppVrfIntfs appVrfIntfs_;
   KivDrInitTimer drInitTimer_;
   KivDrDelayTimer drDelayTimer_;
   KivMountRetryTimer mountRetryTimer_;
   Kiv::ReactorMap< Lumo::IntfId, KivIntfConfig > intfConfigReactor_;
   Kiv::ReactorMap< L3::VrfName, KivPimConfig > pimConfigReactor_;
   Kiv::ReactorMap< Lumo::IntfId, KivHostInjectIntfConfig > hostInjectReactor_;
   Kiv::ReactorMap< Lumo::IntfId, KivIpIntfStatus > ipIntfStatusReactor_;
   Kiv::ReactorMap< L3::VrfName, KivPimAllStatus > allStatusReactor_;
   Kiv::ReactorMap< L3::VrfName, KivReliableStatus > reliableStatusReactor_;
   Kiv::ReactorMap< L3::VrfName, KivClearConfig > clearConfigReactor_;
   Kiv::ReactorMap< L3::VrfName, ClearMrouteSm > clearMrouteSm_;
   Kiv::ReactorMap< L3::VrfName, KivVrfIntfColl > pimVrfIntfColl_;
};

// ---- per-key reactors ----------------------------------------------------------------
class ConfigSm::KivIntfConfig : public Kiv::KeyedReactor< IntfConfig::NotifieeConst, ConfigSm, Lumo::IntfId > {
 public:
   // Binding runs the ten handlers of the original attributes in the order
   // of the attribute list; each recomputes the whole interface, so the LAN
   // prune delay values need no run of their own.
   KivIntfConfig( ConfigSm * o, const Lumo::IntfId & intf, const Kiv::Ptr< const IntfConfig > & c );
   void onMode() override { handleMode(); }
   void onBorderRouter() override { handleBorderRouter(); }
   void onHelloInterval() override { handleHelloInterval(); }
   void onHelloCount() override { handleHelloCount(); }
   void onHelloPriority() override { handleHelloPriority(); }
   void onJoinPruneInterval() override { handleJoinPruneInterval(); }
   void onJoinPruneCount() override { handleJoinPruneCount(); }
   void onBfd() override { handleBfd(); }
   void onPortCapabilityFlags() override { handlePort(); }
   void onFastFailover() override { handleFastFailover(); }
   void onPropagationDelay() override { handleLanPruneDelay(); }
   void onOverrideInterval() override { handleLanPruneDelay(); }
   void onNeighborLimit() override { handleNeighborLimit(); }
   void handleMode();
   void handleHelloPriority();
   void handleHelloInterval();
   void handleHelloCount();
   void handleJoinPruneInterval();
   void handleJoinPruneCount();
   void handleBorderRouter();
   void handleBfd();
   void handlePort();
   void handleFastFailover();
   void handleLanPruneDelay();
   void handleNeighborLimit();
 private:
   void update( const char * what );
};

class ConfigSm::KivPimConfig : public Kiv::KeyedReactor< Config::NotifieeConst, ConfigSm, L3::VrfName > {
 public:
   using KeyedReactor::KeyedReactor;
   void onPimConfigured() override { owner_->handlePimConfigured( key_ ); }
   void onBfdIntfDefault() override { handleBfdIntfDefault( key_ ); }
   void onNeighborLimit() override { owner_->handleVrfNeighborLimit( key_ ); }
   void handleBfdIntfDefault( const L3::VrfName & vrf ) { owner_->handleBfdIntfDefault( vrf ); }
};

class ConfigSm::KivHostInjectIntfConfig : public Kiv::KeyedReactor< HostInject::HostInjectIntfConfig::NotifieeConst, ConfigSm, Lumo::IntfId > {
 public:
   using KeyedReactor::KeyedReactor;
   void onPref() override { owner_->handleSourceInject( key_ ); }
};

// Remembers the VRF the interface was last seen in, so that a move from one
// VRF to another removes it from the first.
class ConfigSm::KivIpIntfStatus : public Kiv::KeyedReactor< IpGen::IpIntfStatus::NotifieeConst, ConfigSm, Lumo::IntfId > {
 public:
   KivIpIntfStatus( ConfigSm * o, const Lumo::IntfId & intf,
                    const Kiv::Ptr< const IpGen::IpIntfStatus > & s );
   void onVrf() override;
   void onActiveAddrWithMask() override;
   void onAddr( const Lumo::IpGenAddrWithMask & a ) override {
      owner_->handleActiveSecondaryWithMask( key_, a );
   }
   const L3::VrfName & lastVrf() const { return lastVrf_; }
 private:
   L3::VrfName lastVrf_;
};

class ConfigSm::KivPimIntf : public Kiv::KeyedReactor< Intf::NotifieeConst, ConfigSm, L3::VrfName > {
 public:
   using KeyedReactor::KeyedReactor;
   void onMode() override { owner_->handlePimIntfMode( key_ ); }
};

class ConfigSm::KivPimAllStatus : public Kiv::KeyedReactor< AllStatus::NotifieeConst, ConfigSm, L3::VrfName > {
 public:
   KivPimAllStatus( ConfigSm * o, const L3::VrfName & vrf, const Kiv::Ptr< const AllStatus > & s );
   void onPimIntf( const Lumo::IntfId & intf ) override { owner_->handlePimIntf( key_, intf ); }
   // Interfaces seen and not yet seen leaving.
   Kiv::ReactorMap< Lumo::IntfId, KivPimIntf > & pimIntf() { return pimIntf_; }
 private:
   Kiv::ReactorMap< Lumo::IntfId, KivPimIntf > pimIntf_;
};

class ConfigSm::KivReliableStatus : public Kiv::KeyedReactor< Reliable::Status::NotifieeConst, ConfigSm, L3::VrfName > {
 public:
   using KeyedReactor::KeyedReactor;
   void onPimsmSctpConnectionId() override { owner_->updateAllPimIntf( key_ ); }
};

class ConfigSm::KivClearConfig : public Kiv::KeyedReactor< ClearConfig::NotifieeConst, ConfigSm, L3::VrfName > {
 public:
   using KeyedReactor::KeyedReactor;
   void onCountersCount() override { owner_->handleClearCountersCount( key_ ); }
   void onNeighborsCount() override { owner_->handleClearNeighbors( key_, Lumo::IntfId() ); }
   void onIntfNeighborsCount( const Lumo::IntfId & intf ) override;
};

// Runs the clear-multicast-routes request of one VRF; binding runs it once.
class ConfigSm::ClearMrouteSm : public Kiv::KeyedReactor< ClearMrouteConfig::NotifieeConst, ConfigSm, L3::VrfName > {
 public:
   ClearMrouteSm( ConfigSm * o, const L3::VrfName & vrf, const Kiv::Ptr< const ClearMrouteConfig > & c );
   void onRoutesCount() override { owner_->handleClearIpMroute( key_ ); }
};

class ConfigSm::KivVrfIntfColl : public Kiv::KeyedReactor< McastCommon::VrfIntfColl::NotifieeConst, ConfigSm, L3::VrfName > {
 public:
   using KeyedReactor::KeyedReactor;
   void onIntfs( const Lumo::IntfId & intf ) override { owner_->handleVrfIntfColl( key_, intf ); }
};

// Builds a ConfigSm and runs its start-up.
Kiv::Ptr< ConfigSm > configSmFactory( const ConfigSmInputs & inputs );

} // namespace Routing::Pim

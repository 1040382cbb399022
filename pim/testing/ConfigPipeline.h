#pragma once
// What the platform publishes for the configuration pipeline of one address
// family: every input ConfigSm reads, empty, over a private table directory,
// and the ConfigSmInputs that wire them. The lab's routers and the
// configuration tests fill them in and build ConfigSm on them.
#include <functional>
#include <string>

#include "config/PimConfigSm.h"
#include "varn/VarnMount.h"

namespace Routing::Pim {

class ConfigPipeline {
 public:
   // The status tables are made in `tables` (the process's heap by default).
   explicit ConfigPipeline( Lumo::AddressFamily af,
                            KivVarn::TableStore & tables = KivVarn::HeapTableStore::instance() );
   ConfigPipeline( const ConfigPipeline & ) = delete;
   ConfigPipeline & operator=( const ConfigPipeline & ) = delete;

   // The inputs as ConfigSm takes them, with the caller's kernel view, timer
   // wheel and stage completion.
   ConfigSmInputs inputs( const Kiv::Ptr< KernelNetInfoMounter > & kni, const Kiv::Ptr< Tolm::TimerWheel > & wheel,
                          std::function< void( const std::string & ) > stageComplete =
                             []( const std::string & ) {} ) const;

   Lumo::AddressFamily af;
   KivVarn::Directory varnDir;
   Kiv::Ptr< KivVarn::Mount > varnMount;
   Kiv::Ptr< ConfigColl > configColl;
   Kiv::Ptr< ClearConfigColl > clearConfigColl;
   Kiv::Ptr< HostInject::HostInjectConfig > hostInject;
   Kiv::Ptr< Kiv::Dir > appDir;
   Kiv::Ptr< ClearMrouteConfigColl > clearMroute;
   Kiv::Ptr< StatusColl > statusColl;
   Kiv::Ptr< AllStatusColl > allStatusColl;
   Kiv::Ptr< GlobalStatus > globalStatus;
   Kiv::Ptr< CellGlobalStatus > cellGlobalStatus;
   Kiv::Ptr< Routing::Multicast::Pim::Status > mcastPimStatus;
   Kiv::Ptr< Mlag::ProtoStatus > mlag;
   Kiv::Ptr< IpGen::Status > ipStatus;
   Kiv::Ptr< Ip::AllVrfStatusLocal > allVrfStatusLocal;
   Kiv::Ptr< McastCommon::AppVrfIntfs > appVrfIntfs;
   Kiv::Ptr< Routing::Multicast::Fib::VrfEnabledStatus > vrfEnabledStatus;
   Kiv::Ptr< IpGen::MulticastGroupsForApplications > groups;
   Kiv::Ptr< McastCommon::MulticastIntfsForApplications > vifs;
   Kiv::Ptr< Kiv::Dir > bfdDir;
   Kiv::Ptr< Bfd::StatusPeer > bfdStatusPeer;
   Kiv::Ptr< McastCommon::AsuShutdownStatus > asuShutdown;
   Kiv::Ptr< McastCommon::AsuVrfStatus > asuVrfStatus;
   Kiv::Ptr< Bridging::Config > bridging;
};

} // namespace Routing::Pim

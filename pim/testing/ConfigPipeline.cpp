#include "ConfigPipeline.h"

namespace Routing::Pim {

ConfigPipeline::ConfigPipeline( Lumo::AddressFamily family, KivVarn::TableStore & tables )
      : af( family ), varnDir( tables ) {
   const bool v6 = af == Lumo::AddressFamily::ipv6;
   varnMount = Kiv::make< KivVarn::Mount >( varnDir );
   configColl = Kiv::make< ConfigColl >();
   clearConfigColl = Kiv::make< ClearConfigColl >();
   hostInject = Kiv::make< HostInject::HostInjectConfig >();
   appDir = Kiv::make< Kiv::Dir >( Kiv::Name( "application" ) );
   clearMroute = Kiv::make< ClearMrouteConfigColl >();
   statusColl = Kiv::make< StatusColl >();
   allStatusColl = Kiv::make< AllStatusColl >();
   globalStatus = Kiv::make< GlobalStatus >( af );
   cellGlobalStatus = Kiv::make< CellGlobalStatus >();
   mcastPimStatus = Kiv::make< Routing::Multicast::Pim::Status >();
   mlag = Kiv::make< Mlag::ProtoStatus >();
   ipStatus = v6 ? Kiv::Ptr< IpGen::Status >( Kiv::make< IpGen::Ipv6Status >() )
                 : Kiv::Ptr< IpGen::Status >( Kiv::make< IpGen::Ipv4Status >() );
   allVrfStatusLocal = Kiv::make< Ip::AllVrfStatusLocal >();
   appVrfIntfs = Kiv::make< McastCommon::AppVrfIntfs >();
   vrfEnabledStatus = Kiv::make< Routing::Multicast::Fib::VrfEnabledStatus >();
   groups = v6 ? Kiv::Ptr< IpGen::MulticastGroupsForApplications >(
                    Kiv::make< IpGen::Ipv6MulticastGroupsForApplications >() )
               : Kiv::Ptr< IpGen::MulticastGroupsForApplications >(
                    Kiv::make< IpGen::Ipv4MulticastGroupsForApplications >() );
   vifs = Kiv::make< McastCommon::MulticastIntfsForApplications >();
   bfdDir = Kiv::make< Kiv::Dir >( Kiv::Name( v6 ? "pim6" : "pim" ) );
   bfdStatusPeer = Kiv::make< Bfd::StatusPeer >();
   asuShutdown = Kiv::make< McastCommon::AsuShutdownStatus >();
   asuVrfStatus = Kiv::make< McastCommon::AsuVrfStatus >();
   bridging = Kiv::make< Bridging::Config >();
}

ConfigSmInputs ConfigPipeline::inputs( const Kiv::Ptr< KernelNetInfoMounter > & kni,
                                       const Kiv::Ptr< Tolm::TimerWheel > & wheel,
                                       std::function< void( const std::string & ) > stageComplete ) const {
   ConfigSmInputs in;
   in.af = af;
   in.pimConfigColl = configColl;
   in.pimClearConfigColl = clearConfigColl;
   in.hostInjectConfig = hostInject;
   in.appConfigDir = appDir;
   in.clearMrouteConfigColl = clearMroute;
   in.pimStatusColl = statusColl;
   in.pimAllStatusColl = allStatusColl;
   in.pimGlobalStatus = globalStatus;
   in.pimCellGlobalStatus = cellGlobalStatus;
   in.mcastPimStatus = mcastPimStatus;
   in.mlagProtoStatus = mlag;
   in.ipStatus = ipStatus;
   in.allVrfStatusLocal = allVrfStatusLocal;
   in.appVrfIntfs = appVrfIntfs;
   in.vrfEnabledStatus = vrfEnabledStatus;
   in.multicastGroups = groups;
   in.multicastIntfs = vifs;
   in.bfdAppConfigDir = bfdDir;
   in.bfdStatusPeer = bfdStatusPeer;
   in.varnMount = varnMount;
   in.kniMounter = kni;
   in.asuShutdownStatus = asuShutdown;
   in.asuVrfStatus = asuVrfStatus;
   in.bridgingConfig = bridging;
   in.timerWheel = wheel;
   in.stageComplete = std::move( stageComplete );
   return in;
}

} // namespace Routing::Pim

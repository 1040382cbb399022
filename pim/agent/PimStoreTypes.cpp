// The types the PIM agents mount from the state store or create locally,
// registered by the names their mounts use.
#include "agent/PimAgent.h"
#include "agenthost/Stage.h"
#include "config/PimConfigSm.h"

namespace Routing::Pim {

namespace {

Lumo::AddressFamily familyOf( const std::string & path ) {
   return path.rfind( "routing6/", 0 ) == 0 ? Lumo::AddressFamily::ipv6 : Lumo::AddressFamily::ipv4;
}

// Types whose constructor takes the family, read from the path's prefix.
template< class T >
void familyTypeIs( Dovel::TypeRegistry & t, const char * name ) {
   t.typeIs( name, []( const std::string & path, const std::string & n ) -> Kiv::Ptr< Kiv::Notifier > {
      return Kiv::Ptr< Kiv::Notifier >( new T( Kiv::Name( n ), familyOf( path ) ) );
   } );
}

} // namespace

void registerStoreTypes() {
   static const bool done = [] {
      auto & t = Dovel::TypeRegistry::instance();
      t.typeIs< ConfigColl >( "Routing::Pim::ConfigColl" );
      t.typeIs< ClearConfigColl >( "Routing::Pim::ClearConfigColl" );
      t.typeIs< HostInject::HostInjectConfig >( "HostInject::HostInjectConfig" );
      t.typeIs( "Routing::Pim::GlobalStatus", []( const std::string & path, const std::string & ) {
         return Kiv::Ptr< Kiv::Notifier >( new GlobalStatus( familyOf( path ) ) );
      } );
      familyTypeIs< Multicast::Pim::Status >( t, "Routing::Multicast::Pim::Status" );
      familyTypeIs< Multicast::Vxlan::Status >( t, "Routing::Multicast::Vxlan::Status" );
      familyTypeIs< Multicast::Fib::VrfEnabledStatus >( t, "Routing::Multicast::Fib::VrfEnabledStatus" );
      t.typeIs< CellGlobalStatus >( "Routing::Pim::CellGlobalStatus" );
      t.typeIs< IpGen::Ipv4Status >( "Ip::Status" );
      t.typeIs< IpGen::Ipv6Status >( "Ip6::Status" );
      t.typeIs< Multicast::Fib::VrfConfig >( "Routing::Multicast::Fib::VrfConfig" );
      t.typeIs< Acl::Input::Config >( "Acl::Input::Config" );
      t.typeIs< Acl::Input::CpConfig >( "Acl::Input::CpConfig" );
      t.typeIs< Acl::Config >( "Acl::Config" );
      t.typeIs< Acl::CpConfig >( "Acl::CpConfig" );
      t.typeIs< Acl::StatusService >( "Acl::StatusService" );
      t.typeIs< Bfd::StatusPeer >( "Bfd::StatusPeer" );
      t.typeIs< McastBoundary::Status >( "Routing::McastBoundary::Status" );
      t.typeIs< ::Vxlan::EnabledStatus >( "Vxlan::EnabledStatus" );
      t.typeIs< Mlag::ProtoStatus >( "Mlag::ProtoStatus" );
      t.typeIs< Ip::AllVrfStatusLocal >( "Ip::AllVrfStatusLocal" );
      t.typeIs< ClearMrouteConfigColl >( "Routing::Pim::ClearMrouteConfigColl" );
      t.typeIs< Bridging::Config >( "Bridging::Config" );
      t.typeIs< Interface::AllIntfConfigDir >( "Interface::AllIntfConfigDir" );
      t.typeIs< Interface::AllIntfStatusDir >( "Interface::AllIntfStatusDir" );
      t.typeIs< Interface::AllIntfStatusLocalDir >( "Interface::AllIntfStatusLocalDir" );
      t.typeIs< McastCommon::MulticastIntfsForApplications >( "McastCommon::MulticastIntfsForApplications" );
      t.typeIs< McastCommon::AppVrfIntfStatus >( "McastCommon::AppVrfIntfStatus" );
      t.typeIs< IpGen::Ipv4MulticastGroupsForApplications >( "Ip::MulticastGroupsForApplications" );
      t.typeIs< IpGen::Ipv6MulticastGroupsForApplications >( "Ip6::MulticastGroupsForApplications" );
      t.typeIs< KernelNetInfo::Status >( "KernelNetInfo::Status" );
      t.typeIs< Application::Config >( "Routing::Pim::Application::Config" );
      Stage::registerStoreTypes();
      return true;
   }();
   (void)done;
}

} // namespace Routing::Pim

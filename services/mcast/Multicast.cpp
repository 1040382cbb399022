#include "services/mcast/Multicast.h"

#include "kiv/RangeException.h"

namespace {
bool v6( Lumo::AddressFamily af ) { return af == Lumo::AddressFamily::ipv6; }
} // namespace

namespace Routing::Multicast::Fib {

VrfEnabledStatus::VrfEnabledStatus( const Kiv::Name & name, Lumo::AddressFamily af )
      : Kiv::Entity( name ), af_( af ) {}

const char * VrfEnabledStatus::mountPath( Lumo::AddressFamily af ) {
   return v6( af ) ? "routing6/multicast/vrf/status" : "routing/multicast/vrf/status";
}

VrfConfig::VrfConfig( const Kiv::Name & name ) : Kiv::Entity( name ) {}

const char * VrfConfig::mountPath( Lumo::AddressFamily af ) {
   return v6( af ) ? "routing6/multicast/vrf/config" : "routing/multicast/vrf/config";
}

KIV_REGISTER_ENTITY_TYPE( VrfEnabledStatus, "Routing::Multicast::Fib::VrfEnabledStatus" );
KIV_REGISTER_ENTITY_TYPE( VrfConfig, "Routing::Multicast::Fib::VrfConfig" );

} // namespace Routing::Multicast::Fib

namespace Routing::Multicast::Pim {

Status::Status( const Kiv::Name & name, Lumo::AddressFamily af ) : Kiv::Entity( name ), af_( af ) {}

const char * Status::mountPath( Lumo::AddressFamily af ) {
   return v6( af ) ? "routing6/multicast/pim/status" : "routing/multicast/pim/status";
}

KIV_REGISTER_ENTITY_TYPE( Status, "Routing::Multicast::Pim::Status" );

} // namespace Routing::Multicast::Pim

namespace Routing::Multicast::Vxlan {

Status::Status( const Kiv::Name & name, Lumo::AddressFamily af ) : Kiv::Entity( name ), af_( af ) {}

const char * Status::mountPath( Lumo::AddressFamily af ) {
   return v6( af ) ? "routing6/multicast/vxlan/status" : "routing/multicast/vxlan/status";
}

KIV_REGISTER_ENTITY_TYPE( Status, "Routing::Multicast::Vxlan::Status" );

} // namespace Routing::Multicast::Vxlan

namespace Vxlan {

std::ostream & operator<<( std::ostream & os, VniExtOrNone v ) {
   if( v.isNone() ) return os << "none";
   return os << v.value();
}

EnabledStatus::EnabledStatus( const Kiv::Name & name ) : Kiv::Entity( name ) {}

KIV_REGISTER_ENTITY_TYPE( EnabledStatus, "Vxlan::EnabledStatus" );

} // namespace Vxlan

namespace McastCommon {

MulticastIntfsForApplications::MulticastIntfsForApplications( const Kiv::Name & name )
      : Kiv::Entity( name ) {}

const char * MulticastIntfsForApplications::mountPath( Lumo::AddressFamily af ) {
   return v6( af ) ? "multicastIntfs6/application/pim6" : "multicastIntfs/application/pim";
}

AppVrfIntfs::AppVrfIntfs( const Kiv::Name & name ) : Kiv::Entity( name ) {}

AsuVrfStatus::AsuVrfStatus( const Kiv::Name & name ) : Kiv::Entity( name ) {}

bool AsuVrfStatus::allCompleted() const {
   if( participatingVrfSize() == 0 ) return false;
   bool all = true;
   participatingVrfForEach( [ & ]( const L3::VrfName & vrf, bool ) {
      if( !completedVrf( vrf ) ) all = false;
   } );
   return all;
}

AsuShutdownStatus::AsuShutdownStatus( const Kiv::Name & name ) : Kiv::Entity( name ) {}

KIV_REGISTER_ENTITY_TYPE( MulticastIntfsForApplications,
                          "McastCommon::MulticastIntfsForApplications" );
KIV_REGISTER_ENTITY_TYPE( AppVrfIntfs, "McastCommon::AppVrfIntfs" );
KIV_REGISTER_ENTITY_TYPE( AsuVrfStatus, "McastCommon::AsuVrfStatus" );
KIV_REGISTER_ENTITY_TYPE( AsuShutdownStatus, "McastCommon::AsuShutdownStatus" );

} // namespace McastCommon

namespace IpGen {

std::ostream & operator<<( std::ostream & os, const IntfGroup & g ) {
   return os << g.intf << "/" << g.group;
}

MulticastGroupsForApplications::MulticastGroupsForApplications( Lumo::AddressFamily af,
                                                                const Kiv::Name & name )
      : Kiv::Entity( name ), af_( af ) {
   if( af != Lumo::AddressFamily::ipv4 && af != Lumo::AddressFamily::ipv6 ) {
      throw Kiv::RangeException(
         "IpGen::MulticastGroupsForApplications::af not ipv4 or ipv6 not allowed" );
   }
}

const char * MulticastGroupsForApplications::typeName() const {
   return v6( af_ ) ? "Ip6::MulticastGroupsForApplications" : "Ip::MulticastGroupsForApplications";
}

void MulticastGroupsForApplications::joinGroup( const Lumo::IntfId & intf,
                                                const Lumo::IpGenAddr & group ) {
   if( intf.isEmpty() ) {
      throw Kiv::RangeException( "IpGen::MulticastGroupsForApplications::intf empty not allowed" );
   }
   if( group.af() != af_ || !group.isMulticast() ) {
      throw Kiv::RangeException(
         "IpGen::MulticastGroupsForApplications::group not a multicast address of the family "
         "not allowed" );
   }
   intfGroupIs( IntfGroup( intf, group ), true );
}

void MulticastGroupsForApplications::leaveGroup( const Lumo::IntfId & intf,
                                                 const Lumo::IpGenAddr & group ) {
   intfGroupDel( IntfGroup( intf, group ) );
}

const char * MulticastGroupsForApplications::mountPath( Lumo::AddressFamily af ) {
   return v6( af ) ? "ip6/multicastGroups/application" : "ip/multicastGroups/application";
}

KIV_REGISTER_ENTITY_TYPE( Ipv4MulticastGroupsForApplications, "Ip::MulticastGroupsForApplications" );
KIV_REGISTER_ENTITY_TYPE( Ipv6MulticastGroupsForApplications, "Ip6::MulticastGroupsForApplications" );

} // namespace IpGen

// Out of line: the vtable, and with it this file's type registrations, come
// with any use of the types.
namespace Routing::Multicast::Fib {
const char * VrfEnabledStatus::typeName() const { return "Routing::Multicast::Fib::VrfEnabledStatus"; }
} // namespace Routing::Multicast::Fib
namespace Routing::Multicast::Fib {
const char * VrfConfig::typeName() const { return "Routing::Multicast::Fib::VrfConfig"; }
} // namespace Routing::Multicast::Fib
namespace Routing::Multicast::Pim {
const char * Status::typeName() const { return "Routing::Multicast::Pim::Status"; }
} // namespace Routing::Multicast::Pim
namespace Routing::Multicast::Vxlan {
const char * Status::typeName() const { return "Routing::Multicast::Vxlan::Status"; }
} // namespace Routing::Multicast::Vxlan
namespace Vxlan {
const char * EnabledStatus::typeName() const { return "Vxlan::EnabledStatus"; }
} // namespace Vxlan
namespace McastCommon {
const char * MulticastIntfsForApplications::typeName() const { return "McastCommon::MulticastIntfsForApplications"; }
} // namespace McastCommon
namespace McastCommon {
const char * AppVrfIntfs::typeName() const { return "McastCommon::AppVrfIntfs"; }
} // namespace McastCommon
namespace McastCommon {
const char * AsuVrfStatus::typeName() const { return "McastCommon::AsuVrfStatus"; }
} // namespace McastCommon
namespace McastCommon {
const char * AsuShutdownStatus::typeName() const { return "McastCommon::AsuShutdownStatus"; }
} // namespace McastCommon

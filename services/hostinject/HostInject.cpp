#include "services/hostinject/HostInject.h"

namespace HostInject {

HostInjectConfig::HostInjectConfig( const Kiv::Name & name ) : Kiv::Entity( name ) {}

const char * HostInjectConfig::mountPath( Lumo::AddressFamily af ) {
   return af == Lumo::AddressFamily::ipv6 ? "routing6/attached-host/mcast/config"
                                          : "routing/attached-host/mcast/config";
}

KIV_REGISTER_ENTITY_TYPE( HostInjectConfig, "HostInject::HostInjectConfig" );

} // namespace HostInject

// Out of line: the vtable, and with it this file's type registrations, come
// with any use of the types.
namespace HostInject {
const char * HostInjectConfig::typeName() const { return "HostInject::HostInjectConfig"; }
} // namespace HostInject

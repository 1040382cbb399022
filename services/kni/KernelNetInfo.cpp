#include "services/kni/KernelNetInfo.h"

namespace KernelNetInfo {

Status::Status( const Kiv::Name & name ) : Kiv::Entity( name ) {
   devices_ = Kiv::make< Interface::DeviceIntfStatusDir >();
}

std::string Status::mountPath( const Lumo::NamespaceName & ns ) {
   const std::string_view n = ns.isDefault() ? std::string_view( "default" ) : ns.stringValue();
   return "kni/ns/" + std::string( n ) + "/status";
}

KIV_REGISTER_ENTITY_TYPE( Status, "KernelNetInfo::Status" );

} // namespace KernelNetInfo

// Out of line: the vtable, and with it this file's type registrations, come
// with any use of the types.
namespace KernelNetInfo {
const char * Status::typeName() const { return "KernelNetInfo::Status"; }
} // namespace KernelNetInfo

#pragma once
// The kernel's network information for one network namespace, as the netlink
// feed publishes it at "kni/ns/<namespace>/status". Its "devices" directory
// holds the kernel devices of the namespace (name, ifindex, oper state) by
// interface.
#include <string>

#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"
#include "lumo/NamespaceName.h"
#include "services/intf/DeviceIntfStatus.h"

namespace KernelNetInfo {

#define KNI_STATUS_ATTRS( X ) \
   X( PTR, devices, Devices, Interface::DeviceIntfStatusDir )

class Status : public Kiv::Entity {
 public:
   // Starts with an empty devices directory.
   explicit Status( const Kiv::Name & name = Kiv::Name() );
   const char * typeName() const override;
   KIV_ENTITY( Status, "KernelNetInfo::Status", KNI_STATUS_ATTRS )

   // "kni/ns/<ns>/status"; the default namespace is "default".
   static std::string mountPath( const Lumo::NamespaceName & ns );
};
KIV_NOTIFIEE( Status, KNI_STATUS_ATTRS )

} // namespace KernelNetInfo

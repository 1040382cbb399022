#pragma once
// The kernel's view of interfaces: device name, index and operational state
// per interface, as the netlink feed (or a test) writes it.
#include <cstdint>
#include <ostream>
#include <string>

#include "kiv/EntityMacros.h"
#include "lumo/IntfId.h"

namespace Interface {

struct DeviceIntfStatus {
   std::string deviceName;
   std::uint32_t ifIndex = 0;
   bool operUp = false;
   bool operator==( const DeviceIntfStatus & ) const = default;
   bool empty() const { return deviceName.empty() && ifIndex == 0; }
};
std::ostream & operator<<( std::ostream & os, const DeviceIntfStatus & s );

#define DEVICE_INTF_STATUS_DIR_ATTRS( X ) \
   X( COLL, deviceIntfStatus, DeviceIntfStatus, Lumo::IntfId, DeviceIntfStatus )

class DeviceIntfStatusDir : public Kiv::Notifier {
 public:
   DeviceIntfStatusDir() = default;
   KIV_ENTITY( DeviceIntfStatusDir, "Interface::DeviceIntfStatusDir", DEVICE_INTF_STATUS_DIR_ATTRS )
};
KIV_NOTIFIEE( DeviceIntfStatusDir, DEVICE_INTF_STATUS_DIR_ATTRS )

} // namespace Interface

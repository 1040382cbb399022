#include "services/intf/DeviceIntfStatus.h"

namespace Interface {

std::ostream & operator<<( std::ostream & os, const DeviceIntfStatus & s ) {
   if( s.empty() ) return os << "<none>";
   return os << s.deviceName << "(ifindex " << s.ifIndex << ( s.operUp ? ", up)" : ", down)" );
}

} // namespace Interface

#pragma once
// Bridging configuration: the switch's bridge MAC address.
#include <array>
#include <cstdint>
#include <ostream>

#include "kiv/EntityMacros.h"

namespace Bridging {

struct MacAddr {
   std::array< std::uint8_t, 6 > bytes{};
   bool operator==( const MacAddr & ) const = default;
};
std::ostream & operator<<( std::ostream & os, const MacAddr & m );

#define BRIDGING_CONFIG_ATTRS( X ) \
   X( SCALAR, bridgeMacAddr, BridgeMacAddr, MacAddr, {} )

class Config : public Kiv::Notifier {
 public:
   Config() = default;
   KIV_ENTITY( Config, "Bridging::Config", BRIDGING_CONFIG_ATTRS )
};
KIV_NOTIFIEE( Config, BRIDGING_CONFIG_ATTRS )

} // namespace Bridging

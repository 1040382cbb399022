#pragma once
// The supervisor's redundancy role as the host publishes it to its agents.
#include <cstdint>
#include <ostream>

#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"

namespace Redundancy {

enum RedundancyMode : std::uint8_t {
   modeUnknown = 0,
   modeActive = 1,
   modeDisabled = 2,
   modeStandby = 3,
};

enum RedundancyProtocol : std::uint8_t {
   protocolUnknown = 0,
   protocolColdStandby = 1,
   protocolWarmStandby = 2,
   protocolHotStandby = 3,
   protocolStatefulSwitchover = 4,
   // Both supervisors run the control plane; a standby one keeps its agents.
   protocolDualActive = 5,
};

std::ostream & operator<<( std::ostream & os, RedundancyMode m );
std::ostream & operator<<( std::ostream & os, RedundancyProtocol p );

#define REDUNDANCY_STATUS_ATTRS( X )                                    \
   X( SCALAR, mode, Mode, RedundancyMode, modeActive )                  \
   X( SCALAR, protocol, Protocol, RedundancyProtocol, protocolUnknown )

class RedundancyStatus : public Kiv::Entity {
 public:
   explicit RedundancyStatus( const Kiv::Name & name = Kiv::Name( "redundancy" ) ) : Kiv::Entity( name ) {}
   const char * typeName() const override { return "Redundancy::RedundancyStatus"; }
   KIV_ENTITY( RedundancyStatus, "Redundancy::RedundancyStatus", REDUNDANCY_STATUS_ATTRS )
};
KIV_NOTIFIEE( RedundancyStatus, REDUNDANCY_STATUS_ATTRS )

} // namespace Redundancy

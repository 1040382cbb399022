#include "model/PimTypes.h"

namespace Routing::Pim {

const char * modeName( Mode m ) {
   switch( m ) {
    case pimModeNone: return "none";
    case pimModeSparse: return "sparse-mode";
    case pimModeBidir: return "bidirectional";
    case pimModeSparseBidir: return "sparse-mode and bidirectional";
   }
   return "unknown";
}

std::ostream & operator<<( std::ostream & os, const DrPriorityOption & o ) {
   return os << "DrPriorityOption(valid=" << o.valid << " value=" << o.value << ")";
}

std::ostream & operator<<( std::ostream & os, const GenerationIdOption & o ) {
   return os << "GenerationIdOption(valid=" << o.valid << " value=" << o.value << ")";
}

std::ostream & operator<<( std::ostream & os, const LanPruneDelayOption & o ) {
   return os << "LanPruneDelayOption(valid=" << o.valid << " propagationDelay=" << o.propagationDelay
             << " overrideInterval=" << o.overrideInterval << " tBit=" << o.tBit << ")";
}

std::ostream & operator<<( std::ostream & os, const RefusedSource & r ) {
   return os << "count=" << r.count << " last=" << r.lastTime;
}

namespace Reliable {

std::ostream & operator<<( std::ostream & os, const InterfaceId & id ) {
   return os << id.routerId << ":" << id.ifIndex;
}

std::ostream & operator<<( std::ostream & os, const NeighborInfo & i ) {
   return os << "transport=" << ( i.transport == protocolSctp ? "sctp" : "datagram" )
             << " flags=0x" << std::hex << i.capabilityFlags << std::dec
             << " connection=" << i.connectionAddr << " second=" << i.secondAddr;
}

} // namespace Reliable
} // namespace Routing::Pim

#include "agenthost/Redundancy.h"

namespace Redundancy {

std::ostream & operator<<( std::ostream & os, RedundancyMode m ) { return os << unsigned( m ); }
std::ostream & operator<<( std::ostream & os, RedundancyProtocol p ) { return os << unsigned( p ); }

} // namespace Redundancy

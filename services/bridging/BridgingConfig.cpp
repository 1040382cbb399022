#include "services/bridging/BridgingConfig.h"

#include <cstdio>

namespace Bridging {

std::ostream & operator<<( std::ostream & os, const MacAddr & m ) {
   char buf[ 18 ];
   std::snprintf( buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", m.bytes[ 0 ], m.bytes[ 1 ],
                  m.bytes[ 2 ], m.bytes[ 3 ], m.bytes[ 4 ], m.bytes[ 5 ] );
   return os << buf;
}

} // namespace Bridging

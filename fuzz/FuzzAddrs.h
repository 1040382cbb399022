#pragma once
// Addresses the Hello fuzz target decodes with; the corpus generator uses
// the same ones so that its seeds carry valid checksums.
#include "services/pimwire/Addr.h"

namespace PimWireFuzz {

inline PimWire::Addr src( PimWire::Family f ) {
   return f == PimWire::Family::ipv4
             ? PimWire::Addr::v4( 198, 18, 0, 1 )
             : PimWire::Addr::v6( { 0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1 } );
}

inline PimWire::Addr dst( PimWire::Family f ) {
   return f == PimWire::Family::ipv4
             ? PimWire::Addr::v4( 224, 0, 0, 13 )
             : PimWire::Addr::v6( { 0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x0d } );
}

} // namespace PimWireFuzz

#pragma once
// Writes a configuration, or what changed in it, into the configuration
// entities that one agent (one address family) reads. Everything is written
// synchronously, so the agent sees one batch when its loop next runs, and
// only changed attributes notify.
#include "DaemonConfig.h"
#include "kiv/Ptr.h"
#include "lumo/AddressFamily.h"
#include "model/PimConfig.h"
#include "services/ip/VrfStatus.h"
#include "services/mcast/Multicast.h"
#include "services/mlag/Mlag.h"

namespace Pimnbrd {

struct ConfigTargets {
   Kiv::Ptr< Routing::Pim::ConfigColl > configColl;
   Kiv::Ptr< Routing::Multicast::Fib::VrfEnabledStatus > vrfEnabledStatus;
   Kiv::Ptr< Ip::AllVrfStatusLocal > allVrfStatusLocal;
   Kiv::Ptr< Mlag::ProtoStatus > mlagProtoStatus;
};

// Applies the entries of d, taking their values from to.
void applyConfig( const DaemonConfig & to, const ConfigDiff & d, const ConfigTargets & t );

// The first load: everything in c.
inline void applyConfig( const DaemonConfig & c, const ConfigTargets & t ) {
   applyConfig( c, diff( DaemonConfig{}, c ), t );
}

} // namespace Pimnbrd

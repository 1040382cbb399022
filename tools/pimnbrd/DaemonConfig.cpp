#include "DaemonConfig.h"

namespace Pimnbrd {

ConfigDiff diff( const DaemonConfig & from, const DaemonConfig & to ) {
   ConfigDiff d;
   d.globalsChanged = from.ipv4 != to.ipv4 || from.ipv6 != to.ipv6 || from.drDelay != to.drDelay ||
                      from.role != to.role || from.mlagPortsErrdisabled != to.mlagPortsErrdisabled;
   d.serviceAclChanged = from.serviceAcl4 != to.serviceAcl4 || from.serviceAcl6 != to.serviceAcl6;
   static const VrfSettings none;
   for( const auto & [ name, old ] : from.vrfs ) {
      if( !to.vrfs.count( name ) ) d.vrfsRemoved.push_back( name );
   }
   for( const auto & [ name, now ] : to.vrfs ) {
      const auto it = from.vrfs.find( name );
      const VrfSettings & old = it == from.vrfs.end() ? none : it->second;
      if( it == from.vrfs.end() ) {
         d.vrfsAdded.push_back( name );
      } else {
         VrfSettings a = old, b = now;
         a.interfaces.clear();
         b.interfaces.clear();
         if( !( a == b ) ) d.vrfsChanged.push_back( name );
      }
   }
   // Interfaces by VRF and name: one that moves to another VRF is removed
   // from the old and added to the new.
   for( const auto & [ vrf, old ] : from.vrfs ) {
      const auto it = to.vrfs.find( vrf );
      for( const auto & [ intf, s ] : old.interfaces ) {
         if( it == to.vrfs.end() || !it->second.interfaces.count( intf ) ) d.intfsRemoved.push_back( { vrf, intf } );
      }
   }
   for( const auto & [ vrf, now ] : to.vrfs ) {
      const auto it = from.vrfs.find( vrf );
      for( const auto & [ intf, s ] : now.interfaces ) {
         const IntfSettings * old = nullptr;
         if( it != from.vrfs.end() ) {
            const auto j = it->second.interfaces.find( intf );
            if( j != it->second.interfaces.end() ) old = &j->second;
         }
         if( !old ) {
            d.intfsAdded.push_back( { vrf, intf } );
         } else if( !( *old == s ) ) {
            d.intfsChanged.push_back( { vrf, intf } );
         }
      }
   }
   return d;
}

} // namespace Pimnbrd

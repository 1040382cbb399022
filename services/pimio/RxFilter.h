#pragma once
// A filter the PIM I/O side consults for every received message before it
// reaches a VRF's receive mailbox. deliverHello is the one place where the
// I/O side hands a Hello to the agent: filtered, stored, counted.
#include "kiv/Ptr.h"
#include "lumo/IntfId.h"
#include "lumo/IpGenAddr.h"
#include "lumo/VrfName.h"
#include "services/pimio/MessageInfo.h"

namespace Routing::Pim::IO {

class RxFilter {
 public:
   virtual ~RxFilter() = default;
   // False drops the message; the filter counts its drops.
   virtual bool permitReceived( const L3::VrfName & vrf, const Lumo::IntfId & intf,
                                const Lumo::IpGenAddr & src ) = 0;
};

// Stores the Hello in rx and bumps its count, unless filter (may be null)
// drops it. Returns whether it was delivered.
inline bool deliverHello( MessageInfo & rx, const L3::VrfName & vrf, const Lumo::IntfId & intf,
                          const Kiv::Ptr< Packet::HelloMessage > & hello, RxFilter * filter ) {
   if( filter && !filter->permitReceived( vrf, intf, hello->srcAddr() ) ) return false;
   rx.messageIs( hello );
   rx.intfIdIs( intf );
   rx.countInc( 1 );
   return true;
}

} // namespace Routing::Pim::IO

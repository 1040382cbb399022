#include "services/pimio/HelloAdapter.h"

#include <algorithm>
#include <vector>

namespace Routing::Pim::IO {

PimWire::Family wireFamily( Lumo::AddressFamily af ) {
   switch( af ) {
      case Lumo::AddressFamily::ipv4: return PimWire::Family::ipv4;
      case Lumo::AddressFamily::ipv6: return PimWire::Family::ipv6;
      default: return PimWire::Family::none;
   }
}

Lumo::AddressFamily addressFamily( PimWire::Family f ) {
   switch( f ) {
      case PimWire::Family::ipv4: return Lumo::AddressFamily::ipv4;
      case PimWire::Family::ipv6: return Lumo::AddressFamily::ipv6;
      default: return Lumo::AddressFamily::none;
   }
}

PimWire::Addr wireAddr( const Lumo::IpGenAddr & a ) {
   const PimWire::Family f = wireFamily( a.af() );
   if( f == PimWire::Family::none ) return PimWire::Addr();
   return PimWire::Addr::fromBytes( f, a.bytes().data() );
}

Lumo::IpGenAddr ipGenAddr( const PimWire::Addr & a ) {
   if( a.family == PimWire::Family::ipv4 ) {
      return Lumo::IpGenAddr( Lumo::IpGenAddr::Bytes4{ a.bytes[ 0 ], a.bytes[ 1 ], a.bytes[ 2 ], a.bytes[ 3 ] } );
   }
   if( a.family == PimWire::Family::ipv6 ) return Lumo::IpGenAddr( a.bytes );
   return Lumo::IpGenAddr();
}

Lumo::IpGenAddr allPimRouters( Lumo::AddressFamily af ) {
   if( af == Lumo::AddressFamily::ipv4 ) return Lumo::ip4AddrPimRouters;
   if( af == Lumo::AddressFamily::ipv6 ) return Lumo::ip6AddrPimRouters;
   return Lumo::IpGenAddr();
}

Kiv::Ptr< Packet::HelloMessage > helloMessageFromWire( const PimWire::Hello & wire ) {
   auto msg = Kiv::make< Packet::HelloMessage >();
   helloMessageAssign( *msg, wire );
   return msg;
}

void helloMessageAssign( Packet::HelloMessage & msg, const PimWire::Hello & wire ) {
   msg.srcAddrIs( ipGenAddr( wire.source ) );
   msg.holdTimePresentIs( wire.holdtimePresent );
   msg.holdTimeIs( wire.holdtime );
   msg.lanPruneDelayPresentIs( wire.lanPruneDelay.present );
   msg.propagationDelayIs( wire.lanPruneDelay.propagationDelay );
   msg.overrideIntervalIs( wire.lanPruneDelay.overrideInterval );
   msg.tBitIs( wire.lanPruneDelay.tBit );
   msg.drPriorityPresentIs( wire.drPriorityPresent );
   msg.drPriorityIs( wire.drPriority );
   msg.generationIdPresentIs( wire.generationIdPresent );
   msg.generationIdIs( wire.generationId );
   msg.bidirCapableIs( wire.bidirCapable );
   msg.secondaryAddrDelAll();
   for( const PimWire::Addr & a : wire.addressList ) {
      const Lumo::IpGenAddr addr = ipGenAddr( a );
      if( !addr.isEmpty() ) msg.secondaryAddrIs( addr, true );
   }
   msg.interfaceIdPresentIs( wire.interfaceId.present );
   msg.interfaceIdRouterIdIs( wire.interfaceId.routerId );
   msg.interfaceIdIfIndexIs( wire.interfaceId.ifIndex );
   const bool sctp = wire.sctpCapable.present;
   msg.portOptionPresentIs( sctp );
   msg.portTransportIs( sctp ? kPortTransportSctp : 0 );
   msg.portCapabilityFlagsIs( sctp ? kPortCapabilitySctp | wire.sctpCapable.flags : 0 );
   const bool conn = sctp && wire.sctpCapable.connectionAddr.isSet();
   msg.connectionAddrPresentIs( conn );
   msg.connectionAddrIs( conn ? ipGenAddr( wire.sctpCapable.connectionAddr ) : Lumo::IpGenAddr() );
}

PimWire::Hello wireHelloFrom( const Packet::HelloMessage & msg ) {
   PimWire::Hello h;
   h.source = wireAddr( msg.srcAddr() );
   h.destination = wireAddr( allPimRouters( msg.srcAddr().af() ) );
   h.holdtimePresent = msg.holdTimePresent();
   h.holdtime = msg.holdTime();
   h.lanPruneDelay.present = msg.lanPruneDelayPresent();
   h.lanPruneDelay.tBit = msg.tBit();
   h.lanPruneDelay.propagationDelay = msg.propagationDelay();
   h.lanPruneDelay.overrideInterval = msg.overrideInterval();
   h.drPriorityPresent = msg.drPriorityPresent();
   h.drPriority = msg.drPriority();
   h.generationIdPresent = msg.generationIdPresent();
   h.generationId = msg.generationId();
   h.bidirCapable = msg.bidirCapable();
   std::vector< Lumo::IpGenAddr > secondary;
   secondary.reserve( msg.secondaryAddrSize() );
   msg.secondaryAddrForEach( [ & ]( const Lumo::IpGenAddr & a, bool ) {
      if( !a.isEmpty() ) secondary.push_back( a );
   } );
   // The set iterates in hash order; the wire gets a stable order.
   std::sort( secondary.begin(), secondary.end() );
   for( const Lumo::IpGenAddr & a : secondary ) h.addressList.push_back( wireAddr( a ) );
   h.interfaceId.present = msg.interfaceIdPresent();
   h.interfaceId.routerId = msg.interfaceIdRouterId();
   h.interfaceId.ifIndex = msg.interfaceIdIfIndex();
   // A connection address is only ever advertised with the capability.
   if( msg.portOptionPresent() || msg.connectionAddrPresent() ) {
      h.sctpCapable.present = true;
      h.sctpCapable.flags = msg.portCapabilityFlags() & ~kPortCapabilitySctp & kWireTransportFlagsMask;
      if( msg.connectionAddrPresent() ) h.sctpCapable.connectionAddr = wireAddr( msg.connectionAddr() );
   }
   return h;
}

} // namespace Routing::Pim::IO

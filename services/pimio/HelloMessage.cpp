#include "services/pimio/HelloMessage.h"

namespace Routing::Pim::Packet {

void HelloMessage::propagationDelayIs( std::uint32_t v ) {
   if( v > kHelloPropagationDelayMax ) {
      throw Kiv::RangeException( "HelloPropagationDelay::value < HelloPropagationDelay::min or > "
                                 "HelloPropagationDelay::max not allowed" );
   }
   propagationDelay_ = static_cast< std::uint16_t >( v );
}

std::ostream & operator<<( std::ostream & os, const HelloMessage & h ) {
   os << "Hello src=" << h.srcAddr();
   if( h.holdTimePresent() ) os << " hold=" << h.holdTime();
   if( h.lanPruneDelayPresent() ) {
      os << " lpd=(T=" << h.tBit() << ",pd=" << h.propagationDelay() << ",oi=" << h.overrideInterval()
         << ")";
   }
   if( h.drPriorityPresent() ) os << " prio=" << h.drPriority();
   if( h.generationIdPresent() ) os << " genid=0x" << std::hex << h.generationId() << std::dec;
   if( h.bidirCapable() ) os << " bidir";
   if( h.secondaryAddrSize() ) {
      os << " addrs=[";
      const char * sep = "";
      h.secondaryAddrForEach( [ & ]( const Lumo::IpGenAddr & a, bool ) {
         os << sep << a;
         sep = ",";
      } );
      os << "]";
   }
   if( h.interfaceIdPresent() ) os << " intfid=" << h.interfaceIdRouterId() << ":" << h.interfaceIdIfIndex();
   if( h.portOptionPresent() ) {
      os << " port=(flags=0x" << std::hex << h.portCapabilityFlags() << std::dec;
      if( h.connectionAddrPresent() ) os << ",conn=" << h.connectionAddr();
      os << ")";
   }
   return os;
}

} // namespace Routing::Pim::Packet

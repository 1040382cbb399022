#pragma once
// A PIM Hello as it is on the wire: one presence flag per option, plus the
// IP source and destination the IP layer hands over with the payload.
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "services/pimwire/Addr.h"

namespace PimWire {

// Hello option types this codec knows.
enum class OptionType : std::uint16_t {
   holdtime = 1,
   lanPruneDelay = 2,
   drPriority = 19,
   generationId = 20,
   bidirCapable = 22,
   addressList = 24,
   tcpCapable = 27,
   sctpCapable = 28,
   interfaceId = 31,
};

struct LanPruneDelay {
   bool present = false;
   bool tBit = false;
   // 15 bits on the wire; the encoder refuses larger values.
   std::uint16_t propagationDelay = 0; // ms
   std::uint16_t overrideInterval = 0; // ms
   bool operator==( const LanPruneDelay & ) const = default;
};

// Interface ID option (type 31, length 8). On the wire the 64-bit identifier
// is the router identifier (high 32 bits, sent first) followed by the local
// interface identifier (low 32 bits). A router id of 0 means the interface
// identifier is only unique within the sending router.
struct InterfaceId {
   bool present = false;
   std::uint32_t routerId = 0;
   std::uint32_t ifIndex = 0;
   std::uint64_t value() const { return ( std::uint64_t( routerId ) << 32 ) | ifIndex; }
   bool operator==( const InterfaceId & ) const = default;
};

// PIM-over-TCP-Capable (27) and PIM-over-SCTP-Capable (28) options share one
// layout:
//
//    0                   1                   2                   3
//    0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |          Type = 27/28         |        Length = 4 + X         |
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |  Conn ID AFI  |        Reserved and experimental bits         |
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//   |      Connection ID (X = 0, 4 or 16 bytes, by the AFI)  ...
//   +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//
// The AFI (0, 1 = IPv4, 2 = IPv6) follows from connectionAddr's family and
// need not match the family of the Hello. The Connection ID is a bare
// address, not an encoded-unicast one. flags holds the low 24 bits of the
// first word untouched (reserved and experimental bits); the encoder
// refuses flags that do not fit in 24 bits.
struct TransportCapable {
   bool present = false;
   std::uint32_t flags = 0;
   Addr connectionAddr; // family none: the address is learnt some other way
   bool operator==( const TransportCapable & ) const = default;
};

struct Hello {
   bool holdtimePresent = false;
   std::uint16_t holdtime = 0; // seconds; 0xffff never times out
   LanPruneDelay lanPruneDelay;
   bool drPriorityPresent = false;
   std::uint32_t drPriority = 0;
   bool generationIdPresent = false;
   std::uint32_t generationId = 0;
   // Secondary addresses from the Address List option(s). The decoder keeps
   // only addresses of the Hello's own family.
   std::vector< Addr > addressList;
   bool bidirCapable = false;
   InterfaceId interfaceId;
   TransportCapable tcpCapable;
   TransportCapable sctpCapable;

   // Supplied by the IP layer, not part of the PIM payload.
   Addr source;
   Addr destination;

   // Back to the default state, keeping addressList's capacity.
   void clear();
   bool operator==( const Hello & ) const = default;
};

// Short one-line form, for example
// "src=198.18.0.1 hold=105 lpd=(T=0,pd=500,oi=2500) prio=1 genid=0x1234 addrs=[198.18.0.9]".
std::string toString( const Hello & h );
std::ostream & operator<<( std::ostream & os, const Hello & h );

} // namespace PimWire

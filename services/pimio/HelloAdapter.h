#pragma once
// The edge between the wire codec's Hello (PimWire::Hello, standard library
// only) and the Hello entity the agent reads and fills in
// (Packet::HelloMessage).
//
// Port option: the message's capability flags use bit 0 for "SCTP capable",
// which on the wire is the presence of the PIM-over-SCTP-Capable option; the
// other bits of the message's flags travel in the option's 24 reserved bits
// as they are. The message's transport reads SCTP for such a Hello, and its
// second port address has no field on the wire. The PIM-over-TCP-Capable
// option has no counterpart in the message and is ignored.
#include <cstdint>

#include "kiv/Ptr.h"
#include "lumo/AddressFamily.h"
#include "lumo/IpGenAddr.h"
#include "services/pimwire/Addr.h"
#include "services/pimwire/Hello.h"
#include "services/pimio/HelloMessage.h"

namespace Routing::Pim::IO {

// Bit 0 of a Hello's port capability flags: the sender can run PIM over SCTP.
inline constexpr std::uint32_t kPortCapabilitySctp = 1u << 0;
// The message's transport value for a Hello that offers SCTP.
inline constexpr std::uint8_t kPortTransportSctp = 1;
// The reserved bits of the transport-capable option (24 on the wire).
inline constexpr std::uint32_t kWireTransportFlagsMask = 0x00FFFFFF;

PimWire::Family wireFamily( Lumo::AddressFamily af );
Lumo::AddressFamily addressFamily( PimWire::Family f );
// Family none and the empty address map onto each other.
PimWire::Addr wireAddr( const Lumo::IpGenAddr & a );
Lumo::IpGenAddr ipGenAddr( const PimWire::Addr & a );
// ALL-PIM-ROUTERS of the family (224.0.0.13, ff02::d); empty for none.
Lumo::IpGenAddr allPimRouters( Lumo::AddressFamily af );

// A new message holding every option of the wire Hello; the source becomes
// srcAddr.
Kiv::Ptr< Packet::HelloMessage > helloMessageFromWire( const PimWire::Hello & wire );
// The same into an existing message, every attribute written (a message
// reused for Hello after Hello holds nothing of the one before).
void helloMessageAssign( Packet::HelloMessage & msg, const PimWire::Hello & wire );

// The wire form of a message: source = srcAddr, destination = ALL-PIM-ROUTERS
// of the source's family. Secondary addresses go out sorted (the message
// keeps them as a set), empty ones are left out.
PimWire::Hello wireHelloFrom( const Packet::HelloMessage & msg );

} // namespace Routing::Pim::IO

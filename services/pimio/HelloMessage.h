#pragma once
// A decoded PIM Hello as the I/O service hands it over, and as the agent
// fills it in before sending. Each option has its own presence flag.
#include <cstdint>
#include <ostream>

#include "kiv/EntityMacros.h"
#include "lumo/IpGenAddr.h"

namespace Routing::Pim::Packet {

enum class MessageType : std::uint8_t { hello = 0, registerMsg = 1, joinPrune = 3, assertMsg = 5 };

// Base of decoded PIM messages carried by a MessageInfo.
class Message : public Kiv::Notifier {
 public:
   explicit Message( MessageType t ) : type_( t ) {}
   MessageType type() const { return type_; }
 private:
   MessageType type_;
};

// The LAN prune delay propagation delay is a 15-bit field.
inline constexpr std::uint16_t kHelloPropagationDelayMax = 0x7FFF;

#define PIM_HELLO_MESSAGE_ATTRS( X )                                           \
   X( SCALAR, srcAddr, SrcAddr, Lumo::IpGenAddr, {} )                          \
   X( SCALAR, holdTimePresent, HoldTimePresent, bool, false )                  \
   X( SCALAR, holdTime, HoldTime, std::uint16_t, 0 )                           \
   X( SCALAR, lanPruneDelayPresent, LanPruneDelayPresent, bool, false )        \
   X( SCALAR, overrideInterval, OverrideInterval, std::uint16_t, 0 )           \
   X( SCALAR, drPriorityPresent, DrPriorityPresent, bool, false )              \
   X( SCALAR, drPriority, DrPriority, std::uint32_t, 0 )                       \
   X( SCALAR, generationIdPresent, GenerationIdPresent, bool, false )          \
   X( SCALAR, generationId, GenerationId, std::uint32_t, 0 )                   \
   X( SCALAR, bidirCapable, BidirCapable, bool, false )                        \
   X( SET, secondaryAddr, SecondaryAddr, Lumo::IpGenAddr )                     \
   X( SCALAR, portOptionPresent, PortOptionPresent, bool, false )              \
   X( SCALAR, portCapabilityFlags, PortCapabilityFlags, std::uint32_t, 0 )     \
   X( SCALAR, portTransport, PortTransport, std::uint8_t, 0 )                  \
   X( SCALAR, connectionAddrPresent, ConnectionAddrPresent, bool, false )      \
   X( SCALAR, connectionAddr, ConnectionAddr, Lumo::IpGenAddr, {} )            \
   X( SCALAR, portSecondAddr, PortSecondAddr, Lumo::IpGenAddr, {} )            \
   X( SCALAR, interfaceIdPresent, InterfaceIdPresent, bool, false )            \
   X( SCALAR, interfaceIdRouterId, InterfaceIdRouterId, std::uint32_t, 0 )     \
   X( SCALAR, interfaceIdIfIndex, InterfaceIdIfIndex, std::uint32_t, 0 )

class HelloMessage : public Message {
 public:
   HelloMessage() : Message( MessageType::hello ) {}
   KIV_ENTITY( HelloMessage, "Routing::Pim::Packet::HelloMessage", PIM_HELLO_MESSAGE_ATTRS )

   // The LAN prune delay field's other halves; the propagation delay is range
   // checked because it is a 15-bit field on the wire.
   std::uint16_t propagationDelay() const { return propagationDelay_; }
   void propagationDelayIs( std::uint32_t v );
   bool tBit() const { return tBit_; }
   void tBitIs( bool v ) { tBit_ = v; }

 private:
   std::uint16_t propagationDelay_ = 0;
   bool tBit_ = false;
};
KIV_NOTIFIEE( HelloMessage, PIM_HELLO_MESSAGE_ATTRS )

// Short readable form for the "RX:" / "TX:" traces.
std::ostream & operator<<( std::ostream & os, const HelloMessage & h );

} // namespace Routing::Pim::Packet

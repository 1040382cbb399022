// Conversion between the wire codec's Hello and the agent's Hello entity, in
// both directions, and through the encoder and decoder.
#include <gtest/gtest.h>

#include <tuple>

#include "services/pimwire/HelloCodec.h"
#include "services/pimio/HelloAdapter.h"

namespace {

using namespace Routing::Pim::IO;
using Routing::Pim::Packet::HelloMessage;

Lumo::IpGenAddr ip( const char * s ) { return Lumo::IpGenAddr::fromStrep( s ); }
PimWire::Addr wa( const char * s ) { return *PimWire::Addr::parse( s ); }

// Every option set, addresses already in the order the adapter writes them.
PimWire::Hello fullWireHello( bool v6 ) {
   PimWire::Hello h;
   h.source = wa( v6 ? "2001:db8::1" : "198.18.1.1" );
   h.destination = wa( v6 ? "ff02::d" : "224.0.0.13" );
   h.holdtimePresent = true;
   h.holdtime = 105;
   h.lanPruneDelay = PimWire::LanPruneDelay{ true, true, 0x7fff, 2500 };
   h.drPriorityPresent = true;
   h.drPriority = 0xfffffffe;
   h.generationIdPresent = true;
   h.generationId = 0x12345678;
   h.addressList = { wa( v6 ? "2001:db8::7" : "198.18.1.7" ), wa( v6 ? "2001:db8::8" : "198.18.1.8" ) };
   h.bidirCapable = true;
   h.interfaceId = PimWire::InterfaceId{ true, 0xc6120001, 101 };
   h.sctpCapable.present = true;
   h.sctpCapable.flags = 0x00a50000;   // reserved bits, bit 0 clear
   h.sctpCapable.connectionAddr = wa( v6 ? "2001:db8::100" : "198.18.0.100" );
   return h;
}

TEST( HelloAdapterTest, WireHelloSurvivesTheRoundTripThroughTheMessage ) {
   for( bool v6 : { false, true } ) {
      const PimWire::Hello wire = fullWireHello( v6 );
      const auto msg = helloMessageFromWire( wire );
      SCOPED_TRACE( v6 ? "IPv6" : "IPv4" );
      EXPECT_EQ( msg->srcAddr(), ipGenAddr( wire.source ) );
      EXPECT_TRUE( msg->holdTimePresent() && msg->lanPruneDelayPresent() && msg->tBit() && msg->bidirCapable() &&
                   msg->portOptionPresent() && msg->connectionAddrPresent() );
      EXPECT_EQ( std::tuple( msg->holdTime(), msg->propagationDelay(), msg->overrideInterval(), msg->drPriority(),
                             msg->generationId(), msg->secondaryAddrSize(), msg->interfaceIdRouterId(),
                             msg->interfaceIdIfIndex(), msg->portTransport(), msg->portCapabilityFlags() ),
                 std::tuple( 105, 0x7fff, 2500, 0xfffffffeu, 0x12345678u, 2u, 0xc6120001u, 101u, kPortTransportSctp,
                             0x00a50000u | kPortCapabilitySctp ) );
      EXPECT_EQ( wireHelloFrom( *msg ), wire );
   }
}

TEST( HelloAdapterTest, AbsentOptionsStayAbsentBothWays ) {
   PimWire::Hello bare;
   bare.source = wa( "198.18.1.1" );
   bare.destination = wa( "224.0.0.13" );
   const auto msg = helloMessageFromWire( bare );
   EXPECT_FALSE( msg->holdTimePresent() || msg->lanPruneDelayPresent() || msg->drPriorityPresent() ||
                 msg->generationIdPresent() || msg->bidirCapable() || msg->secondaryAddrSize() ||
                 msg->interfaceIdPresent() || msg->portOptionPresent() || msg->connectionAddrPresent() );
   EXPECT_EQ( wireHelloFrom( *msg ), bare );

   // A goodbye as the agent builds it: hold time 0 and the interface id only.
   HelloMessage goodbye;
   goodbye.srcAddrIs( ip( "198.18.1.1" ) );
   goodbye.holdTimePresentIs( true );
   goodbye.holdTimeIs( 0 );
   goodbye.interfaceIdPresentIs( true );
   bare.holdtimePresent = bare.interfaceId.present = true;
   EXPECT_EQ( wireHelloFrom( goodbye ), bare );
}

TEST( HelloAdapterTest, PortOptionMapsCapabilityToTheSctpOption ) {
   // The agent advertises a connection address without setting the port
   // flags: that is still the SCTP-capable option.
   HelloMessage m;
   m.srcAddrIs( ip( "198.18.1.1" ) );
   m.connectionAddrPresentIs( true );
   m.connectionAddrIs( ip( "198.18.0.1" ) );
   PimWire::Hello w = wireHelloFrom( m );
   EXPECT_EQ( w.sctpCapable, ( PimWire::TransportCapable{ true, 0, wa( "198.18.0.1" ) } ) );
   EXPECT_FALSE( w.tcpCapable.present );

   // Capability flags beyond the option's 24 bits do not reach the wire.
   m.connectionAddrPresentIs( false );
   m.portOptionPresentIs( true );
   m.portCapabilityFlagsIs( 0xff000003 );
   w = wireHelloFrom( m );
   EXPECT_EQ( w.sctpCapable, ( PimWire::TransportCapable{ true, 0x2, PimWire::Addr{} } ) );
   EXPECT_NE( PimWire::encodedHelloSize( w ), 0u );

   // A received SCTP option with all-zero flags means "capable": the message
   // reads capability bit 0, so the receiver does not take it for absent.
   PimWire::Hello in;
   in.source = wa( "198.18.1.9" );
   in.sctpCapable.present = true;
   auto msg = helloMessageFromWire( in );
   EXPECT_EQ( std::tuple( msg->portOptionPresent(), msg->portCapabilityFlags(), msg->connectionAddrPresent() ),
              std::tuple( true, kPortCapabilitySctp, false ) );

   // The TCP-capable option has no place in the message.
   in.sctpCapable.present = false;
   in.tcpCapable = { true, 0, wa( "198.18.0.9" ) };
   msg = helloMessageFromWire( in );
   EXPECT_FALSE( msg->portOptionPresent() || msg->connectionAddrPresent() );
}

} // namespace

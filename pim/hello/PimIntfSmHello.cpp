// IntfSm, Hello side: periodic, triggered and goodbye Hellos, their timers
// and the options they carry.
#include <cstdint>

#include "hello/PimIntfSmImpl.h"
#include "kiv/Clock.h"
#include "kiv/Random.h"

namespace Routing::Pim {

using namespace IntfSmDetail;

namespace {

// A random number of tenths of a second, 1 .. 10 x helloDelay: the draw
// behind the triggered Hello's delay and the periodic Hello's jitter.
//
// The three random delays up to the Hello delay differ on purpose and are
// kept apart: a triggered Hello waits a fraction (0.1 .. helloDelay s,
// handleTriggeredHello), a changed Hello delay re-arms in whole seconds
// below it (0 .. helloDelay - 1, handleHelloDelay, its own draw), and the
// periodic Hello's jitter is whole seconds up to it (0 .. helloDelay,
// resetHelloTimer).
std::uint64_t randomTenths( std::uint32_t helloDelay ) {
   return std::uint64_t( Kiv::rand() ) % ( 10ull * helloDelay ) + 1;
}

} // namespace

void IntfSm::sendHelloMessage( std::uint16_t holdTime ) {
   ITRACE( 8, "sendHelloMessage" << "( " << holdTime << " )" );
   if( !intf_ ) return;
   const Kiv::ValidPtr< Packet::HelloMessage > hello( Kiv::make< Packet::HelloMessage >() );
   hello->holdTimePresentIs( true );
   hello->holdTimeIs( holdTime );
   if( holdTime != kHoldTimeGoodbye ) {
      // The configured values are advertised, not the used ones.
      hello->lanPruneDelayPresentIs( true );
      hello->tBitIs( intf_->tBit() );
      hello->propagationDelayIs( intf_->propagationDelay() );
      hello->overrideIntervalIs( intf_->overrideInterval() );
      const bool bidLowest = ( inputs_.pimCellGlobalStatus && inputs_.pimCellGlobalStatus->reload() ) ||
                             drNotifyDelay();
      hello->drPriorityPresentIs( true );
      hello->drPriorityIs( bidLowest ? 1u : intf_->drPriority() );
      hello->generationIdPresentIs( true );
      hello->generationIdIs( intf_->generationId() );
      intf_->secondaryAddressForEach(
         [ & ]( const Lumo::IpGenAddr & addr, bool ) { hello->secondaryAddrIs( addr, true ); } );
   }
   if( modeIncludesBidir( intf_->mode() ) ) hello->bidirCapableIs( true );
   const Reliable::InterfaceId & interfaceId = intf_->portInterfaceId();
   hello->interfaceIdPresentIs( true );
   hello->interfaceIdRouterIdIs( interfaceId.routerId );
   hello->interfaceIdIfIndexIs( interfaceId.ifIndex );
   if( ( intf_->portCapabilityFlags() & Reliable::kCapabilitySctp ) && inputs_.pimGlobalStatus ) {
      if( const auto portStatus = inputs_.pimGlobalStatus->portStatus( inputs_.vrfName ) ) {
         const Lumo::IpGenAddr & conn = portStatus->pimsmSctpConnectionId();
         if( ( conn.isIpv4() || conn.isIpv6() ) && !conn.isUnspecified() ) {
            hello->connectionAddrPresentIs( true );
            hello->connectionAddrIs( conn );
         }
      }
   }
   // During an address change the goodbye leaves from the old address.
   hello->srcAddrIs( intf_->usedAddressWithMask().address() );

   const Kiv::Ptr< IO::MessageInfo > tx =
      inputs_.pimPamManager ? inputs_.pimPamManager->txMessageInfo() : Kiv::Ptr< IO::MessageInfo >();
   if( !tx ) {
      ITRACE( 1, "Error - No transmit mailbox for interface " << intfId_ );
      return;
   }
   tx->messageIs( hello );
   tx->intfIdIs( intf_->id() );
   tx->countInc( 1 );
   intf_->lastHelloTimeIs( Kiv::System::currentTime() );
   ITRACE( 4, "TX: Intf: " << intfId_ << " <PIM " << *hello << ">" );
}

void IntfSm::handleHelloTimerExpiry() {
   ITRACE( 8, "handleHelloTimerExpiry" << "()" );
   if( !initialized() ) return;
   ITRACE( 6, "Hello timer expired for interface " << intfId_ );
   sendHelloMessage( intf_->helloHoldTime() );
   // The pending triggered Hello is covered by this one.
   if( intf_->triggeredHello() ) triggeredHelloSent();
   const std::uint16_t period = intf_->helloPeriod();
   armTimer( helloTimer_, Kiv::System::currentTime() + period );
   ITRACE( 6, "Hello timer started for interface " << intfId_ << " with expiry in " << period
                                                   << " seconds." );
}

void IntfSm::handleHelloTriggeredTimerExpiry() {
   ITRACE( 8, "handleHelloTriggeredTimerExpiry" << "()" );
   if( !initialized() ) return;
   ITRACE( 6, "Triggered hello timer expired for interface " << intfId_ );
   sendHelloMessage( intf_->helloHoldTime() );
   triggeredHelloSent();
}

void IntfSm::triggeredHelloSent() {
   // Counted only when a neighbour's arrival or change asked for it.
   if( neighborEventTriggeredHello() ) {
      ITRACE( 6, "Triggered hello for neighbor event for interface " << intfId_ );
      intf_->triggeredHelloCountInc( 1 );
   }
   intf_->triggeredHelloIs( false );
}

void IntfSm::handleTriggeredHello() {
   ITRACE( 8, "handleTriggeredHello" << "()" );
   if( !initialized() ) return;
   if( intf_->triggeredHello() ) {
      const std::uint32_t helloDelay = intf_->helloDelay();
      if( helloDelay == 0 ) {
         handleHelloTriggeredTimerExpiry();
         return;
      }
      // 0.1 .. helloDelay seconds in steps of 0.1 (see randomTenths).
      const double delay = double( randomTenths( helloDelay ) ) / 10.0;
      armTimer( helloTriggeredTimer_, Kiv::System::currentTime() + delay );
      ITRACE( 6, "Triggered hello timer started for interface " << intfId_ << " with expiry in "
                                                                << delay << " seconds." );
      return;
   }
   neighborEventTriggeredHelloIs( false );
   armTimer( helloTriggeredTimer_, Kiv::kNever );
   ITRACE( 6, "Triggered hello timer stopped for interface " << intfId_ );
}

void IntfSm::handleHelloPeriod() {
   ITRACE( 8, "handleHelloPeriod" << "()" );
   if( !initialized() ) return;
   handleHelloTimerExpiry();
   ITRACE( 7, "Hello period/holdtime changed for interface " << intfId_ << " to " << intf_->helloPeriod()
                                                             << "/" << intf_->helloHoldTime()
                                                             << ". This will take effect now." );
}

void IntfSm::handleHelloDelay() {
   ITRACE( 8, "handleHelloDelay" << "()" );
   if( !initialized() ) return;
   const std::uint32_t helloDelay = intf_->helloDelay();
   ITRACE( 7, "Hello delay changed for interface " << intfId_ << " to " << helloDelay
                                                   << ". This will take effect " << "immediately." );
   if( !intf_->triggeredHello() ) return;
   if( helloDelay == 0 ) {
      handleHelloTriggeredTimerExpiry();
      return;
   }
   // Whole seconds 0 .. helloDelay - 1, on purpose unlike the other two
   // (see randomTenths).
   const std::uint32_t delay = Kiv::rand() % helloDelay;
   armTimer( helloTriggeredTimer_, Kiv::System::currentTime() + delay );
   ITRACE( 6, "Triggered hello started for interface " << intfId_ << " with  expiry in " << delay
                                                       << " seconds." );
}

void IntfSm::resetHelloTimer( std::uint16_t delay ) {
   ITRACE( 8, "resetHelloTimer" << "( " << delay << " )" );
   if( !initialized() ) return;
   const std::uint32_t helloDelay = intf_->helloDelay();
   // Whole seconds 0 .. helloDelay (see randomTenths); no jitter when the
   // delay is 0.
   const std::uint64_t jitter = helloDelay ? randomTenths( helloDelay ) / 10 : 0;
   armTimer( helloTimer_, Kiv::System::currentTime() + delay + double( jitter ) );
   intf_->triggeredHelloIs( false );
}

void IntfSm::handlePort() {
   ITRACE( 8, "handlePort" << "()" );
   if( !initialized() ) return;
   intf_->triggeredHelloIs( true );
   ITRACE( 7, "Port capability flags changed for interface " << intfId_ << " to "
                                                             << intf_->portCapabilityFlags() );
   for( auto it = neighborSmIter(); it; ++it ) {
      const Kiv::Ptr< NeighborSm > nsm = it.value();
      nsm->handlePort();
   }
}

void IntfSm::handleRouterId() {
   ITRACE( 8, "handleRouterId" << "()" );
   if( !initialized() ) return;
   ITRACE( 7, "Router Id changed for interface " << intfId_ << " to "
                                                 << ( inputs_.routerIdInfo ? inputs_.routerIdInfo->routerId() : 0u ) );
   updateInterfaceIdOption();
}

void IntfSm::updateInterfaceIdOption() {
   ITRACE( 8, "updateInterfaceIdOption" << "()" );
   if( !intf_ ) return;
   Reliable::InterfaceId id;
   id.routerId = inputs_.routerIdInfo ? inputs_.routerIdInfo->routerId() : 0;
   id.ifIndex = inputs_.kernelIntfStatus ? inputs_.kernelIntfStatus->deviceIntfStatus( intfId_ ).ifIndex : 0;
   ITRACE( 8, "PortIntface Id for interface : " << intfId_ << " = " << id );
   intf_->portInterfaceIdIs( id );
}

} // namespace Routing::Pim

#include "hello/PimIntfSm.h"

#include <algorithm>
#include <cstdint>

#include "kiv/Clock.h"
#include "kiv/Log.h"
#include "kiv/Random.h"
#include "kiv/Trace.h"
#include "rundle/Rundle.h"

namespace Routing::Pim {

KIV_TRACE_HANDLE( "Pim::Intf" )
KIV_TRACE_HANDLE_FN( neighborTh, "Pim::Neighbor" )

namespace {

Kiv::LogHandle PIM_NBRCHG( "PIM_NBRCHG", Kiv::LogNotice, "neighbor %s %s on interface %s",
                           "The PIM neighbor state changed on the interface.", Kiv::NoActionRequired,
                           0.0, 1.0, 0 );

bool bfdIsDown( Bfd::OperState s ) {
   return s == Bfd::operAdminDown || s == Bfd::operDown;
}

void armTimer( Tolm::TimerWheel::NotifieeConst & timer, Kiv::Seconds t ) {
   // A machine without a wheel is a traced state; never arm an unbound timer.
   if( timer.notifier() || t == Kiv::kNever ) timer.timeMinIs( t );
}

// The interface of a VRF that a BFD peer belongs to: the one holding the
// neighbour, else the one whose subnet contains the address.
Kiv::Ptr< Intf > intfOfPeer( const AllStatus & allStatus, const Lumo::IpGenAddr & addr ) {
   Kiv::Ptr< Intf > bySubnet;
   for( auto it = allStatus.pimIntfIter(); it; ++it ) {
      const Kiv::Ptr< Intf > & intf = it.value();
      if( intf->neighborHas( addr ) ) return intf;
      if( !bySubnet && intf->addressWithMask().contains( addr ) ) bySubnet = intf;
   }
   return bySubnet;
}

} // namespace

#define ITRACE( level, expr ) \
   KIV_TRACE( th(), level, "<Vrf:" << inputs_.vrfName << ">" << expr )

// ================================================================================
// IntfSm
// ================================================================================

IntfSm::IntfSm( const Lumo::IntfId & intfId, const Kiv::Ptr< Intf > & intf, const IntfSmInputs & inputs )
      : intfId_( intfId ), intf_( intf ), inputs_( inputs ), intfReactor_( this ),
        routerIdReactor_( this ), helloTimer_( this, inputs.timerWheel.ptr() ),
        helloTriggeredTimer_( this, inputs.timerWheel.ptr() ) {
   intfReactor_.kivOwnerIs( this );
   routerIdReactor_.kivOwnerIs( this );
   intfReactor_.kivImmediateIs( Intf::kivAttr_activeNeighbor, true );
   intfReactor_.notifierIs( intf_ );
   if( inputs_.routerIdInfo ) routerIdReactor_.notifierIs( inputs_.routerIdInfo );
   handleInitialized();
}

IntfSm::~IntfSm() {
   kivDoZombieReactors( true );
}

// ---- Hello side ------------------------------------------------------------------

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
   if( intf_->triggeredHello() ) {
      // The pending triggered Hello is covered by this one.
      if( neighborEventTriggeredHello() ) {
         ITRACE( 6, "Triggered hello for neighbor event for interface " << intfId_ );
         intf_->triggeredHelloCountInc( 1 );
      }
      intf_->triggeredHelloIs( false );
   }
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
      // 0.1 .. helloDelay seconds in steps of 0.1.
      const double delay =
         double( std::uint64_t( Kiv::rand() ) % ( 10ull * helloDelay ) + 1 ) / 10.0;
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
   // Whole seconds 0 .. helloDelay - 1 (unlike handleTriggeredHello).
   const std::uint32_t delay = Kiv::rand() % helloDelay;
   armTimer( helloTriggeredTimer_, Kiv::System::currentTime() + delay );
   ITRACE( 6, "Triggered hello started for interface " << intfId_ << " with  expiry in " << delay
                                                       << " seconds." );
}

void IntfSm::resetHelloTimer( std::uint16_t delay ) {
   ITRACE( 8, "resetHelloTimer" << "( " << delay << " )" );
   if( !initialized() ) return;
   const std::uint32_t helloDelay = intf_->helloDelay();
   // Whole seconds 0 .. helloDelay; no jitter when the delay is 0.
   const std::uint64_t jitter =
      helloDelay ? ( std::uint64_t( Kiv::rand() ) % ( 10ull * helloDelay ) + 1 ) / 10 : 0;
   armTimer( helloTimer_, Kiv::System::currentTime() + delay + double( jitter ) );
   intf_->triggeredHelloIs( false );
}

void IntfSm::handleEnabled() {
   ITRACE( 8, "handleEnabled" << "( " << ( intf_ && intf_->enabled() ? "true" : "false" ) << " )" );
   if( !intf_ ) return;
   if( !intf_->enabled() ) {
      sendHelloMessage( kHoldTimeGoodbye );
      intf_->neighborDelAll();
   }
}

void IntfSm::handleAddress() {
   ITRACE( 8, "handleAddress" << "()" );
   if( !initialized() ) return;
   ITRACE( 7, "Address changed for interface " << intfId_ << " from " << intf_->usedAddressWithMask()
                                               << " to " << intf_->addressWithMask() );
   const Lumo::IpGenAddr oldAddress = intf_->usedAddressWithMask().address();
   sendHelloMessage( kHoldTimeGoodbye );
   intf_->neighborDel( intf_->addressWithMask().address() );
   intf_->usedAddressWithMaskIs( intf_->addressWithMask() );
   sendHelloMessage( intf_->helloHoldTime() );
   updateDr( intf_->usedAddressWithMask().address(), intf_->drPriority(), intf_->iAmDr() );
   // The incremental update cannot take the role from an address that no
   // longer exists: when the old address still holds it, re-elect.
   if( intf_->usedDr() == oldAddress && oldAddress != intf_->usedAddressWithMask().address() ) updateDr();
}

void IntfSm::handleMode() {
   ITRACE( 8, "handleMode" << "()" );
   if( !initialized() ) return;
   if( intf_->mode() == pimModeNone ) intf_->neighborDelAll();
}

void IntfSm::handleSecondaryAddress( const Lumo::IpGenAddr & addr ) {
   ITRACE( 8, "handleSecondaryAddress" << "( " << addr << " )" );
   if( !initialized() ) return;
   if( intf_->secondaryAddress( addr ) ) {
      ITRACE( 7, "Secondary address " << addr << " added for interface " << intfId_ );
   } else {
      ITRACE( 7, "Secondary address " << addr << " removed for interface " << intfId_ );
   }
   sendHelloMessage( intf_->helloHoldTime() );
}

void IntfSm::handleInitialized() {
   ITRACE( 8, "handleInitialized" << "()" );
   if( !intf_ ) {
      ITRACE( 1, "Error - No interface for " << intfId_ );
      return;
   }
   if( !inputs_.timerWheel ) {
      ITRACE( 1, "Error - No timer wheel for interface " << intfId_ );
      return;
   }
   const double now = Kiv::System::currentTime();
   initializedIs( true );
   active_.clear();

   // Hello side.
   intf_->neighborDel( intf_->addressWithMask().address() );
   intf_->usedAddressWithMaskIs( intf_->addressWithMask() );
   intf_->helloDelayIs( 1 );   // the first triggered Hello leaves within 0.1 .. 1.0 s
   if( !intf_->triggeredHello() ) {
      intf_->triggeredHelloIs( true );
   } else {
      handleTriggeredHello();
   }
   armTimer( helloTimer_, now + intf_->helloPeriod() );

   // Neighbours left by an earlier run of the agent.
   for( auto it = intf_->neighborIter(); it; ++it ) {
      const Kiv::Ptr< Neighbor > n = it.value();
      // The deadline rule holds for every hold time, 0xFFFF included.
      if( n->lastRefreshTime() + n->holdTime() <= now ) {
         ITRACE( 7, "Deleting neighbor " << it.key() );
         intf_->neighborDel( Lumo::IpGenAddr( it.key() ) );
      }
   }
   for( auto it = intf_->activeNeighborIter(); it; ++it ) {
      const Lumo::IpGenAddr addr = it.key();
      if( !intf_->neighborHas( addr ) ) {
         ITRACE( 7, "Deleting active neighbor " << addr );
         intf_->activeNeighborDel( addr );
      }
   }
   intf_->activeNeighborForEach( [ this ]( const Lumo::IpGenAddr & addr, const Kiv::Ptr< const Neighbor > & n ) {
      active_.insert( addr, n->drPriorityOption(), n->lanPruneDelayOption() );
   } );
   updateDr();
   updatePropagationDelay();
   updateOverrideInterval();
   updateTBit();
   updateInterfaceIdOption();
   for( auto it = intf_->inactiveBfdNeighborIter(); it; ++it ) {
      const Lumo::IpGenAddr addr = it.key();
      if( !intf_->neighborHas( addr ) ) {
         ITRACE( 7, "Deleting inactive BFD neighbor " << addr );
         intf_->inactiveBfdNeighborDel( addr );
      }
   }
   for( auto it = intf_->nbSecondaryAddressIter(); it; ++it ) {
      const Lumo::IpGenAddr secondary = it.key();
      const Lumo::IpGenAddr owner = it.value();
      const Kiv::Ptr< Neighbor > n = intf_->neighbor( owner );
      if( !n || !n->secondaryAddress( secondary ) ) {
         intf_->nbSecondaryAddressDel( secondary );
         ITRACE( 7, "Neighbor secondary address " << secondary << " deleted for neighbor " << owner
                                                  << " for interface " << intfId_ );
      }
   }
   for( auto it = intf_->neighborIter(); it; ++it ) {
      const Lumo::IpGenAddr addr = it.key();
      handleNeighbor( addr );
   }
   if( intf_->bfdEnabled() && inputs_.bfdPimAppStatus ) {
      for( auto it = intf_->neighborIter(); it; ++it ) {
         const Lumo::IpGenAddr addr = it.key();
         const auto peerStatus = inputs_.bfdPimAppStatus->peerStatus( Bfd::Peer( addr, inputs_.vrfName ) );
         if( !peerStatus ) continue;
         ITRACE( 7, "BFD peer state : " << peerStatus->status() );
         if( bfdIsDown( peerStatus->status() ) ) {
            intf_->inactiveBfdNeighborIs( it.value() );
            handleInactiveBfdNeighbor( addr );
         }
      }
   }
}

// ---- DR side -------------------------------------------------------------------------

DrCandidate IntfSm::ownDrCandidate() const {
   // During reload this router bids 1, whatever its configured priority.
   const bool reload = inputs_.pimCellGlobalStatus && inputs_.pimCellGlobalStatus->reload();
   return DrCandidate{ intf_->usedAddressWithMask().address(), reload ? 1u : intf_->drPriority() };
}

void IntfSm::updateDr() {
   ITRACE( 8, "updateDr" << "()" );
   if( !intf_ ) return;
   const bool addressOnly = neighborNotUsingDrPriority() != 0;
   const std::optional< DrCandidate > strongest = active_.strongest( addressOnly );
   const DrResult r = electDr( ownDrCandidate(), strongest ? &*strongest : nullptr, addressOnly );
   intf_->usedDrIs( r.dr );
   intf_->usedDrPriorityIs( r.priority );
   ITRACE( 2, "Updated used DR for interface " << intfId_ << " to " << r.dr << " with priority " << r.priority );
   RUNDLE_RECORD( 2, "IntfSm::" << "updateDr" << "(), Updated used DR for interface " << intfId_ << " to "
                                << r.dr << " with priority " << r.priority );
}

void IntfSm::updateDr( const Lumo::IpGenAddr & addr, std::uint32_t priority, bool isDr ) {
   ITRACE( 8, "updateDr" << "( " << addr << ", " << priority << ", " << isDr << " )" );
   if( !intf_ ) return;
   if( inputs_.pimCellGlobalStatus && inputs_.pimCellGlobalStatus->reload() ) {
      ITRACE( 8, "updateDr" << "(), Reload is " << "true" );
      if( addr == intf_->usedAddressWithMask().address() ) priority = 1;
   }
   const bool addressOnly = neighborNotUsingDrPriority() != 0;
   const DrCandidate holder{ intf_->usedDr(), intf_->usedDrPriority() };
   if( isDr && !addressOnly ) {
      if( priority <= holder.priority ) {
         updateDr();   // the DR may have lost
         return;
      }
      intf_->usedDrPriorityIs( priority );
      ITRACE( 2, "Updated used DR for interface " << intfId_ << " to " << holder.address << " with priority "
                                                  << priority );
      RUNDLE_RECORD( 2, "IntfSm::" << "updateDr" << "(), Updated used DR for interface " << intfId_
                                   << " to " << holder.address << " with priority " << priority );
      return;
   }
   // One challenger against the holder; in address-only mode the recorded
   // priority is left alone unless the role moves.
   const DrCandidate challenger{ addr, priority };
   if( !drOutranks( challenger, holder, addressOnly ) ) return;
   const DrResult r = electDr( holder, &challenger, addressOnly );
   intf_->usedDrIs( r.dr );
   intf_->usedDrPriorityIs( r.priority );
   if( addressOnly ) {
      ITRACE( 2, "Updated used DR for interface " << intfId_ << " to " << r.dr );
      RUNDLE_RECORD( 2, "IntfSm::" << "updateDr" << "(), Updated used DR for interface " << intfId_ << " to "
                                   << r.dr );
      return;
   }
   ITRACE( 2, "Updated used DR for interface " << intfId_ << " to " << r.dr << " with priority " << r.priority );
   if( holder.priority < priority ) {
      RUNDLE_RECORD( 2, "IntfSm::" << "updateDr" << "(), Updated used DR for interface " << intfId_
                                   << " to " << r.dr << " with priority " << r.priority );
   } else {
      RUNDLE_RECORD( 2, "IntfSm::" << "updateDr" << "(), Updated used DR for interface " << intfId_
                                   << " to " << r.dr << " with  priority " << r.priority );
   }
}

void IntfSm::handleDrPriority() {
   ITRACE( 8, "handleDrPriority" << "()" );
   if( !initialized() ) return;
   ITRACE( 7, "DR priority changed for interface " << intfId_ << " to " << intf_->drPriority() );
   const bool wasDr = intf_->iAmDr();
   updateDr( intf_->usedAddressWithMask().address(), intf_->drPriority(), wasDr );
   if( intf_->iAmDr() != wasDr ) {
      ITRACE( 7, "DR changed due to priority change for interface " << intfId_ );
      intf_->triggeredHelloIs( true );
   }
}

void IntfSm::handleUsedDr() {
   ITRACE( 8, "handleUsedDr" << "()" );
   if( !initialized() ) return;
   ITRACE( 7, "I Am DR is " << intf_->iAmDr() << " for interface " << intfId_ );
   RUNDLE_RECORD( 7, "IntfSm::" << "handleUsedDr" << "(), I Am DR is " << intf_->iAmDr()
                                << " for interface " << intfId_ );
}

// ---- neighbour side ------------------------------------------------------------------

void IntfSm::handleNeighbor( const Lumo::IpGenAddr & addr ) {
   ITRACE( 8, "handleNeighbor" << "( " << addr << " )" );
   if( !initialized() ) return;
   const Kiv::Ptr< Neighbor > n = intf_->neighbor( addr );
   Kiv::Ptr< NeighborSm > nsm = neighborSm( addr );
   if( n && nsm && nsm->neighbor() == n ) {
      return;   // already known (start-up and a late notification meet)
   }
   if( !n || nsm ) {
      // Gone, or replaced by a new entry under the same address: the old
      // one leaves first.
      ITRACE( 2, "Neighbor " << addr << " removed for interface " << intfId_ );
      RUNDLE_RECORD( 2, "IntfSm::" << "handleNeighbor" << "(), Neighbor " << addr
                                   << " removed for interface " << intfId_ );
      if( intf_->activeNeighborHas( addr ) ) intf_->activeNeighborDel( addr );
      removeBfd( addr );
      if( nsm ) {
         // The machine's own record: the neighbour's list may already be
         // empty (a goodbye without addresses), and a mapping another
         // neighbour has taken over since stays with it.
         for( auto it = nsm->mappedSecondaryIter(); it; ++it ) {
            const Lumo::IpGenAddr secondary = it.key();
            const Lumo::IpGenAddr * owner = intf_->nbSecondaryAddressColl().find( secondary );
            if( !owner || *owner != addr ) continue;
            ITRACE( 7, "Neighbor secondary address " << secondary << " is removed for interface "
                                                     << intfId_ );
            intf_->nbSecondaryAddressDel( secondary );
         }
         ITRACE( 7, "Removing neighbor " << addr << " state machine on " << "interface " << intfId_ );
         neighborSmDel( addr );
      }
      if( !n ) return;
   }
   ITRACE( 2, "Neighbor " << addr << " added for interface " << intfId_ );
   RUNDLE_RECORD( 2, "IntfSm::" << "handleNeighbor" << "(), Neighbor " << addr << " added for interface "
                                << intfId_ );
   ITRACE( 7, "Adding neighbor " << addr << " state machine on " << "interface " << intfId_ );
   neighborSmIs( addr, n, inputs_.timerWheel, inputs_.pimConfig, this );
   updateBfd( addr, intf_->bfdEnabled() );
}

void IntfSm::handleActiveNeighbor( const Lumo::IpGenAddr & addr ) {
   ITRACE( 8, "handleActiveNeighbor" << "( " << addr << " )" );
   if( !initialized() ) return;
   const bool logChange = inputs_.pimConfig && inputs_.pimConfig->neighborChangeLog();
   if( const Kiv::Ptr< const Neighbor > n = intf_->activeNeighbor( addr ) ) {
      ITRACE( 2, "Neighbor " << addr << " is UP for interface " << intfId_ );
      RUNDLE_RECORD( 2, "IntfSm::" << "handleActiveNeighbor" << "(), Neighbor " << addr
                                   << " is UP for interface " << intfId_ );
      if( logChange ) {
         PIM_NBRCHG.log( Lumo::valueToStrep( addr ), "UP", Lumo::valueToStrep( intfId_ ) );
      }
      const DrPriorityOption dr = n->drPriorityOption();
      const LanPruneDelayOption lpd = n->lanPruneDelayOption();
      // What is counted here is what the NeighborSm compares against later.
      if( const Kiv::Ptr< NeighborSm > nsm = neighborSm( addr ) ) {
         nsm->prevDrPriorityOptionIs( dr );
         nsm->prevLanPruneDelayOptionIs( lpd );
      }
      active_.insert( addr, dr, lpd );
      // Incremental only, also when this neighbour switches the interface
      // to address-only mode.
      updateDr( addr, dr.value, intf_->usedDr() == addr );
      updatePropagationDelay();
      updateOverrideInterval();
      updateTBit();
      neighborEventTriggeredHelloIs( true );
      intf_->triggeredHelloIs( true );
      return;
   }
   ITRACE( 2, "Neighbor " << addr << " is DOWN for interface " << intfId_ );
   RUNDLE_RECORD( 2, "IntfSm::" << "handleActiveNeighbor" << "(), Neighbor " << addr
                                << " is DOWN for interface " << intfId_ );
   if( logChange ) {
      PIM_NBRCHG.log( Lumo::valueToStrep( addr ), "DOWN", Lumo::valueToStrep( intfId_ ) );
   }
   // What was counted for it leaves with it; a neighbour never counted
   // changes nothing.
   if( !active_.erase( addr ) ) return;
   // In address-only mode a departing non-DR cannot change the result.
   if( intf_->usedDr() == addr || neighborNotUsingDrPriority() == 0 ) updateDr();
   updatePropagationDelay();
   updateOverrideInterval();
   updateTBit();
}

void IntfSm::handleInactiveBfdNeighbor( const Lumo::IpGenAddr & addr ) {
   ITRACE( 8, "handleInactiveBfdNeighbor" << "( " << addr << " )" );
   if( !initialized() ) return;
   if( intf_->inactiveBfdNeighborHas( addr ) ) {
      ITRACE( 5, "BFD neighbor " << addr << " is added to down list for interface " << intfId_ );
      intf_->activeNeighborDel( addr );
      return;
   }
   ITRACE( 5, "BFD neighbor " << addr << " is removed from down list for interface " << intfId_ );
   if( const Kiv::Ptr< Neighbor > n = intf_->neighbor( addr ) ) intf_->activeNeighborIs( n );
}

void IntfSm::handleBfdEnabled() {
   ITRACE( 8, "handleBfdEnabled" << "()" );
   if( !initialized() ) return;
   const bool enabled = intf_->bfdEnabled();
   ITRACE( 5, "BFD enabled to " << enabled << " for interface " << intfId_ );
   for( auto it = intf_->neighborIter(); it; ++it ) {
      const Lumo::IpGenAddr addr = it.key();
      updateBfd( addr, enabled );
   }
}

void IntfSm::handlePropagationDelay() {
   ITRACE( 8, "handlePropagationDelay" << "()" );
   if( !initialized() ) return;
   const std::uint16_t own = intf_->propagationDelay();
   ITRACE( 7, "Propagation delay changed to " << own << " for interface " << intfId_ );
   if( neighborNotUsingLanPrune() != 0 ) return;
   // Raising applies at once; lowering waits for the next full update.
   if( intf_->usedPropagationDelay() >= own ) return;
   intf_->usedPropagationDelayIs( own );
   ITRACE( 7, "Updated used propagation delay for interface " << intfId_ << " to " << own );
}

void IntfSm::handleOverrideInterval() {
   ITRACE( 8, "handleOverrideInterval" << "()" );
   if( !initialized() ) return;
   const std::uint16_t own = intf_->overrideInterval();
   ITRACE( 7, "Override interval changed to " << own << " for interface " << intfId_ );
   if( neighborNotUsingLanPrune() != 0 ) return;
   if( intf_->usedOverrideInterval() >= own ) return;
   intf_->usedOverrideIntervalIs( own );
   ITRACE( 7, "Updated used override interval for interface " << intfId_ << " to " << own );
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

void IntfSm::updatePropagationDelay() {
   ITRACE( 8, "updatePropagationDelay" << "()" );
   if( !intf_ ) return;
   std::uint16_t value = kPropagationDelayDefault;
   if( neighborNotUsingLanPrune() == 0 ) {
      value = std::max( intf_->propagationDelay(), active_.maxPropagationDelay() );
   }
   intf_->usedPropagationDelayIs( value );
   ITRACE( 7, "Updated used propagation delay for interface " << intfId_ << " to " << value );
}

void IntfSm::updateOverrideInterval() {
   ITRACE( 8, "updateOverrideInterval" << "()" );
   if( !intf_ ) return;
   std::uint16_t value = kOverrideIntervalDefault;
   if( neighborNotUsingLanPrune() == 0 ) {
      value = std::max( intf_->overrideInterval(), active_.maxOverrideInterval() );
   }
   intf_->usedOverrideIntervalIs( value );
   ITRACE( 7, "Updated used override interval for interface " << intfId_ << " to " << value );
}

void IntfSm::updateTBit() {
   ITRACE( 8, "updateTBit" << "()" );
   if( !intf_ ) return;
   // The interface's own T bit is only advertised, never consulted here.
   const bool value = neighborNotUsingTBit() == 0 && intf_->activeNeighborSize() != 0;
   intf_->usedTBitIs( value );
   ITRACE( 7, "Updated suppression bit for interface " << intfId_ << " to " << value );
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

void IntfSm::addBfd( const Lumo::IpGenAddr & addr ) {
   ITRACE( 8, "addBfd" << "( " << addr << " )" );
   ITRACE( 5, "Enabling BFD on neighbor " << addr << " for interface " << intfId_ );
   if( !inputs_.bfdPimAppConfig ) {
      ITRACE( 5, "No BFD configuration to enable neighbor " << addr << " for interface " << intfId_ );
      return;
   }
   inputs_.bfdPimAppConfig->peerConfigIs( Bfd::Peer( addr, inputs_.vrfName ), true );
}

void IntfSm::removeBfd( const Lumo::IpGenAddr & addr ) {
   ITRACE( 8, "removeBfd" << "( " << addr << " )" );
   if( !inputs_.bfdPimAppConfig ) return;
   const Bfd::Peer peer( addr, inputs_.vrfName );
   if( !inputs_.bfdPimAppConfig->peerConfig( peer ) ) return;
   ITRACE( 5, "Disabling BFD on neighbor " << addr << " for interface " << intfId_ );
   inputs_.bfdPimAppConfig->peerConfigDel( peer );
}

void IntfSm::updateBfd( const Lumo::IpGenAddr & addr, bool enabled ) {
   ITRACE( 8, "updateBfd" << "( " << addr << ", " << enabled << " )" );
   if( !intf_ ) return;
   const Kiv::Ptr< Neighbor > n = intf_->neighbor( addr );
   if( enabled ) {
      addBfd( addr );
      if( n && !intf_->inactiveBfdNeighborHas( addr ) ) intf_->activeNeighborIs( n );
      return;
   }
   removeBfd( addr );
   if( intf_->inactiveBfdNeighborHas( addr ) ) intf_->inactiveBfdNeighborDel( addr );
   if( n ) intf_->activeNeighborIs( n );
}

// ---- what the NeighborSms report --------------------------------------------------

void IntfSm::neighborGenerationIdChanged() {
   neighborEventTriggeredHelloIs( true );
}

void IntfSm::neighborBfdRecovered() {
   sendHelloMessage( intf_->helloHoldTime() );
}

void IntfSm::neighborDrPriorityOptionIs( const Lumo::IpGenAddr & addr, const DrPriorityOption & option ) {
   // A neighbour held out by BFD takes no part in the election and is not
   // counted; its options are counted when it becomes active again.
   const ActiveNeighbors::Counted * counted = active_.find( addr );
   if( !counted ) return;
   const bool validityKept = counted->drPriority.valid == option.valid;
   active_.drPriorityOptionIs( addr, option );
   if( validityKept ) {
      updateDr( addr, option.value, intf_->usedDr() == addr );
   } else {
      updateDr();
   }
}

bool IntfSm::neighborLanPruneDelayOptionIs( const Lumo::IpGenAddr & addr, const LanPruneDelayOption & option ) {
   const ActiveNeighbors::Counted * counted = active_.find( addr );
   if( !counted ) return true;
   const LanPruneDelayOption prev = counted->lanPrune;
   if( option.valid != prev.valid ) {
      active_.lanPruneDelayOptionIs( addr, option );
      updatePropagationDelay();
      updateOverrideInterval();
      if( option.tBit != prev.tBit ) updateTBit();
      return true;
   }
   // The maxima follow what is advertised even when the option itself is
   // not taken in below.
   active_.advertisedDelaysIs( addr, option.propagationDelay, option.overrideInterval );
   // Deliberately leaves the T bit and the neighbour's previous option untouched.
   if( neighborNotUsingLanPrune() != 0 ) return false;
   // Only increases apply here; a decrease waits for a full update. They are
   // reported with the neighbour's option change, under its facility.
   if( option.propagationDelay != prev.propagationDelay &&
       option.propagationDelay > intf_->usedPropagationDelay() ) {
      intf_->usedPropagationDelayIs( option.propagationDelay );
      KIV_TRACE( neighborTh(), 7, "<Vrf:" << inputs_.vrfName << ">"
                                         << "Updated used propagation delay for interface " << intfId_
                                         << " to " << option.propagationDelay );
   }
   if( option.overrideInterval != prev.overrideInterval &&
       option.overrideInterval > intf_->usedOverrideInterval() ) {
      intf_->usedOverrideIntervalIs( option.overrideInterval );
      KIV_TRACE( neighborTh(), 7, "<Vrf:" << inputs_.vrfName << ">"
                                         << "Updated used override interval for interface " << intfId_
                                         << " to " << option.overrideInterval );
   }
   active_.lanPruneDelayOptionIs( addr, option );
   if( option.tBit != prev.tBit ) updateTBit();
   return true;
}

Kiv::Ptr< IntfSm > intfSmFactory( const Lumo::IntfId & intfId, const Kiv::Ptr< Intf > & intf,
                                  const IntfSmInputs & inputs ) {
   return Kiv::make< IntfSm >( intfId, intf, inputs );
}

// ================================================================================
// GlobalIntfSm
// ================================================================================

void GlobalIntfSm::KivPimAllStatus::onPimIntf( const Lumo::IntfId & id ) {
   const Kiv::Ptr< const AllStatus > allStatus = notifier();
   if( !allStatus ) return;
   if( const Kiv::Ptr< Intf > intf = allStatus->pimIntf( id ) ) {
      owner_->pimIntfIs( intf );
   } else {
      owner_->pimIntfDel( id );
   }
}

void GlobalIntfSm::KivBfdPimAppStatus::onPeerStatus( const Bfd::Peer & peer ) {
   const Kiv::Ptr< const Bfd::AppStatus > appStatus = notifier();
   if( !appStatus ) return;
   if( const Kiv::Ptr< Bfd::BfdPeerStatus > status = appStatus->peerStatus( peer ) ) {
      owner_->peerStatusIs( status );
   } else {
      owner_->peerStatusDel( peer );
   }
}

GlobalIntfSm::KivPimIntf::KivPimIntf( GlobalIntfSm * o, const Kiv::Ptr< const Intf > & intf )
      : KeyedReactor( o, intf->id() ) {
   kivOwnerIs( owner_ );
   // It only marks the interface as known: no attribute of it is watched,
   // so it stays off the interface's notification list.
   isRegisteredNotifieeIs( false );
   notifierIs( intf );
}

GlobalIntfSm::KivPeerStatus::KivPeerStatus( GlobalIntfSm * o,
                                            const Kiv::Ptr< const Bfd::BfdPeerStatus > & s )
      : KeyedReactor( o, s->peer() ), lastState_( s->status() ) {
   kivOwnerIs( o );
   notifierIs( s );
}

#define GTRACE( level, expr ) \
   KIV_TRACE( th(), level, "<Vrf:" << inputs_.vrfName << ">" << expr )

GlobalIntfSm::GlobalIntfSm( const Kiv::Ptr< AllStatus > & allStatus, const IntfSmInputs & inputs )
      : allStatus_( Kiv::ValidPtr< AllStatus >( allStatus ) ), inputs_( inputs ),
        cellGlobalStatusReactor_( this ), allStatusReactor_( this ), kernelIntfStatusReactor_( this ),
        bfdAppStatusReactor_( this ) {
   // The interface machines cannot run without a wheel.
   const Kiv::ValidPtr< Tolm::TimerWheel > wheel( inputs.timerWheel );
   cellGlobalStatusReactor_.kivOwnerIs( this );
   allStatusReactor_.kivOwnerIs( this );
   kernelIntfStatusReactor_.kivOwnerIs( this );
   bfdAppStatusReactor_.kivOwnerIs( this );
   if( inputs_.pimCellGlobalStatus ) cellGlobalStatusReactor_.notifierIs( inputs_.pimCellGlobalStatus );
   allStatusReactor_.notifierIs( allStatus_ );
   if( inputs_.kernelIntfStatus ) kernelIntfStatusReactor_.notifierIs( inputs_.kernelIntfStatus );
   if( inputs_.bfdPimAppStatus ) bfdAppStatusReactor_.notifierIs( inputs_.bfdPimAppStatus );
   for( auto it = allStatus_->pimIntfIter(); it; ++it ) {
      const Kiv::Ptr< Intf > intf = it.value();
      pimIntfIs( intf );
   }
   if( inputs_.bfdPimAppStatus ) {
      for( auto it = inputs_.bfdPimAppStatus->peerStatusIter(); it; ++it ) {
         const Kiv::Ptr< Bfd::BfdPeerStatus > status = it.value();
         peerStatusIs( status );
      }
   }
   handleInitialized();
}

GlobalIntfSm::~GlobalIntfSm() {
   kivDoZombieReactors( true );
}

void GlobalIntfSm::pimIntfIs( const Kiv::Ptr< const Intf > & intf ) {
   if( !intf ) Kiv::throwNullParameter( "pimIntf", "Routing::Pim::GlobalIntfSm", "pimIntf" );
   const Lumo::IntfId id = intf->id();
   if( const KivPimIntf * r = pimIntf_.find( id ) ) {
      if( r->notifier() != intf ) {
         // A new entity under the same name: its machine starts afresh.
         handleDel( id );
         pimIntf_.insert( id, std::make_unique< KivPimIntf >( this, intf ) );
      }
   } else {
      pimIntf_.insert( id, std::make_unique< KivPimIntf >( this, intf ) );
   }
   handleNew( id );
}

void GlobalIntfSm::pimIntfDel( const Lumo::IntfId & id ) {
   if( !pimIntf_.contains( id ) ) return;
   handleDel( id );
   pimIntf_.unbind( id );
}

bool GlobalIntfSm::pimIntfHas( const Lumo::IntfId & id ) const {
   return pimIntf_.contains( id );
}

void GlobalIntfSm::peerStatusIs( const Kiv::Ptr< const Bfd::BfdPeerStatus > & peerStatus ) {
   if( !peerStatus ) Kiv::throwNullParameter( "peerStatus", "Routing::Pim::GlobalIntfSm", "peerStatus" );
   const Bfd::Peer peer = peerStatus->peer();
   if( peer.vrf != inputs_.vrfName ) return;   // another VRF's session
   const KivPeerStatus * r = peerStatus_.find( peer );
   if( r && r->notifier() == peerStatus ) return;
   peerStatus_.insert( peer, std::make_unique< KivPeerStatus >( this, peerStatus ) );
   // A session that appears with a state already set is taken in at once, so
   // that the neighbour's state is known before its next change.
   if( initialized() ) handlePeerStatus( peer );
}

void GlobalIntfSm::peerStatusDel( const Bfd::Peer & peer ) {
   peerStatus_.unbind( peer );
}

void GlobalIntfSm::handleInitialized() {
   GTRACE( 8, "handleInitialized" << "()" );
   if( const Kiv::Ptr< Bfd::AppConfig > & config = inputs_.bfdPimAppConfig ) {
      for( auto it = config->peerConfigIter(); it; ++it ) {
         const Bfd::Peer peer = it.key();
         if( peer.vrf != inputs_.vrfName ) continue;
         const Kiv::Ptr< Intf > intf = intfOfPeer( *allStatus_, peer.ip );
         if( !intf ) {
            GTRACE( 5, "No Pim intf deleting peer " << peer );
            config->peerConfigDel( peer );
         } else if( !intf->bfdEnabled() ) {
            GTRACE( 5, "Bfd is disabled" << peer );
            config->peerConfigDel( peer );
         } else if( !intf->neighborHas( peer.ip ) ) {
            GTRACE( 5, "No Pim neighbor deleting peer" << peer );
            config->peerConfigDel( peer );
         }
      }
   }
   initializedIs( true );
}

void GlobalIntfSm::handleDestruction() {
   GTRACE( 8, "handleDestruction" << "()" );
   intfSmDelAll();
}

void GlobalIntfSm::handleIfIndex( const Lumo::IntfId & intfId ) {
   GTRACE( 8, "handleIfIndex" << "( " << intfId << " )" );
   if( pimIntf_.contains( intfId ) ) handleNew( intfId );
}

void GlobalIntfSm::handleNew( const Lumo::IntfId & intfId ) {
   const Interface::DeviceIntfStatus kernelStatus =
      inputs_.kernelIntfStatus ? inputs_.kernelIntfStatus->deviceIntfStatus( intfId )
                               : Interface::DeviceIntfStatus{};
   GTRACE( 8, "handleNew" << "( " << intfId << ", " << kernelStatus << " )" );
   // Without a kernel view every interface counts as known.
   if( inputs_.kernelIntfStatus && kernelStatus.empty() ) {
      handleDel( intfId );
      return;
   }
   if( intfSm( intfId ) ) return;
   const Kiv::Ptr< Intf > intf = allStatus_->pimIntf( intfId );
   if( !intf ) return;
   GTRACE( 3, "Creating state machine for interface " << intfId );
   intfSmIs( intfId, intf, inputs_ );
   GTRACE( 3, "Created state machine for interface " << intfId );
}

void GlobalIntfSm::handleDel( const Lumo::IntfId & intfId ) {
   GTRACE( 8, "handleDel" << "( " << intfId << " )" );
   intfSmDel( intfId );
}

void GlobalIntfSm::handleReloadStatus() {
   const bool reload = inputs_.pimCellGlobalStatus && inputs_.pimCellGlobalStatus->reload();
   GTRACE( 8, "handleReloadStatus()" << " reload " << reload );
   for( auto it = intfSmIter(); it; ++it ) {
      const Kiv::Ptr< IntfSm > sm = it.value();
      if( reload ) {
         sm->updateDr();
         sm->drNotifyDelayIs( true );
      } else {
         sm->resetHelloTimer( 0 );
      }
   }
}

void GlobalIntfSm::updateAllDr() {
   GTRACE( 8, "updateAllDr" << "()" );
   // Reset unconditionally; the reset notifies again and runs a second,
   // harmless pass.
   if( inputs_.pimCellGlobalStatus ) inputs_.pimCellGlobalStatus->drDelayTimerExpiredIs( false );
   if( !initialized() ) return;
   for( auto it = intfSmIter(); it; ++it ) {
      const Kiv::Ptr< IntfSm > sm = it.value();
      sm->updateDr();
      sm->drNotifyDelayIs( false );
   }
}

void GlobalIntfSm::handlePeerStatus( const Bfd::Peer & peer ) {
   KivPeerStatus * slot = peerStatus_.find( peer );
   if( !slot ) return;
   KivPeerStatus & reactor = *slot;
   const Kiv::Ptr< const Bfd::BfdPeerStatus > status = reactor.notifier();
   if( !status ) return;
   const Bfd::OperState oldState = reactor.lastState();
   const Bfd::OperState newState = status->status();
   reactor.lastStateIs( newState );
   const Kiv::Ptr< Intf > intf = intfOfPeer( *allStatus_, peer.ip );
   if( !intf ) {
      GTRACE( 5, "Unable to find interface " << "for " << peer.ip );
      return;
   }
   if( !intf->bfdEnabled() ) {
      GTRACE( 5, "BFD is not enabled on interface " << intf->id() );
      return;
   }
   const Kiv::Ptr< Neighbor > neighbor = intf->neighbor( peer.ip );
   if( !neighbor ) {
      GTRACE( 5, "Unable to find neighbor " << peer.ip << " on interface " << intf->id() );
      return;
   }
   GTRACE( 5, "BFD status changed (" << oldState << " => " << newState << ") for neighbor " << peer.ip
                                     << " on interface " << intf->id() );
   neighbor->bfdStateIs( newState );
}

Kiv::Ptr< GlobalIntfSm > GlobalIntfSmIs( const Kiv::Ptr< AllStatus > & allStatus, const IntfSmInputs & inputs ) {
   return Kiv::make< GlobalIntfSm >( allStatus, inputs );
}

} // namespace Routing::Pim

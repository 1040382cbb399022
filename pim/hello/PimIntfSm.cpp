#include "hello/PimIntfSmImpl.h"

#include <cstdint>

#include "kiv/Clock.h"
#include "kiv/Log.h"

namespace Routing::Pim {

namespace IntfSmDetail {
Kiv::TraceHandle & th() {
   static Kiv::TraceHandle handle( "Pim::Intf" );
   return handle;
}
} // namespace IntfSmDetail

using namespace IntfSmDetail;

namespace {

Kiv::LogHandle PIM_NBRCHG( "PIM_NBRCHG", Kiv::LogNotice, "neighbor %s %s on interface %s",
                           "The PIM neighbor state changed on the interface.", Kiv::NoActionRequired,
                           0.0, 1.0, 0 );

bool bfdIsDown( Bfd::OperState s ) {
   return s == Bfd::operAdminDown || s == Bfd::operDown;
}

} // namespace

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
   updateLanPruneDelay();
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
   if( intf_->bfdEnabled() && inputs_.bfdPimAppStatus ) handleStartupBfdStates();
}

void IntfSm::handleStartupBfdStates() {
   // Neighbours whose BFD session is already down start inactive.
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
      IRECORD( 2, "handleNeighbor", "Neighbor " << addr << " removed for interface " << intfId_ );
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
   IRECORD( 2, "handleNeighbor", "Neighbor " << addr << " added for interface " << intfId_ );
   ITRACE( 7, "Adding neighbor " << addr << " state machine on " << "interface " << intfId_ );
   neighborSmIs( addr, n, inputs_.timerWheel, inputs_.pimConfig, this );
   updateBfd( addr, intf_->bfdEnabled() );
}

void IntfSm::handleActiveNeighbor( const Lumo::IpGenAddr & addr ) {
   ITRACE( 8, "handleActiveNeighbor" << "( " << addr << " )" );
   if( !initialized() ) return;
   const bool logChange = inputs_.pimConfig && inputs_.pimConfig->neighborChangeLog();
   if( const Kiv::Ptr< const Neighbor > n = intf_->activeNeighbor( addr ) ) {
      IRECORD( 2, "handleActiveNeighbor", "Neighbor " << addr << " is UP for interface " << intfId_ );
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
      updateLanPruneDelay();
      updateTBit();
      neighborEventTriggeredHelloIs( true );
      intf_->triggeredHelloIs( true );
      return;
   }
   IRECORD( 2, "handleActiveNeighbor", "Neighbor " << addr << " is DOWN for interface " << intfId_ );
   if( logChange ) {
      PIM_NBRCHG.log( Lumo::valueToStrep( addr ), "DOWN", Lumo::valueToStrep( intfId_ ) );
   }
   // What was counted for it leaves with it; a neighbour never counted
   // changes nothing.
   if( !active_.erase( addr ) ) return;
   // In address-only mode a departing non-DR cannot change the result.
   if( intf_->usedDr() == addr || neighborNotUsingDrPriority() == 0 ) updateDr();
   updateLanPruneDelay();
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

Kiv::Ptr< IntfSm > intfSmFactory( const Lumo::IntfId & intfId, const Kiv::Ptr< Intf > & intf,
                                  const IntfSmInputs & inputs ) {
   return Kiv::make< IntfSm >( intfId, intf, inputs );
}

} // namespace Routing::Pim

// GlobalIntfSm: one per VRF; owns the IntfSms and forwards BFD peer state
// into the neighbour entries.
#include "hello/PimIntfSmImpl.h"
#include "kiv/RangeException.h"

namespace Routing::Pim {

using namespace IntfSmDetail;

namespace {

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

#define GTRACE( level, expr ) \
   KIV_TRACE( th(), level, "<Vrf:" << inputs_.vrfName << ">" << expr )

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
      : KeyedReactor( o, s->peer(), s ), lastState_( s->status() ) {}

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
   const KivPimIntf * r = pimIntf_.find( id );
   if( !r || r->notifier() != intf ) {
      // A new entity under the same name: its machine starts afresh.
      if( r ) handleDel( id );
      pimIntf_.insert( id, std::make_unique< KivPimIntf >( this, intf ) );
   }
   handleNew( id );
}

void GlobalIntfSm::handlePimIntf( const Lumo::IntfId & id ) {
   if( const Kiv::Ptr< Intf > intf = allStatus_->pimIntf( id ) ) {
      pimIntfIs( intf );
   } else {
      pimIntfDel( id );
   }
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

void GlobalIntfSm::handleAppPeerStatus( const Bfd::Peer & peer ) {
   if( const Kiv::Ptr< Bfd::BfdPeerStatus > status = inputs_.bfdPimAppStatus->peerStatus( peer ) ) {
      peerStatusIs( status );
   } else {
      peerStatusDel( peer );
   }
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

#include "hello/PimNeighborSm.h"

#include <ios>

#include "kiv/Log.h"
#include "kiv/Trace.h"
#include "rundle/Rundle.h"

namespace Routing::Pim {

KIV_TRACE_HANDLE( "Pim::Neighbor" )

namespace {

Kiv::LogHandle PIM_NEIGHBOR_SECONDARY_ADDRESS_CONFLICT(
   "PIM_NEIGHBOR_SECONDARY_ADDRESS_CONFLICT", Kiv::LogWarning,
   "Neighbor %s advertised secondary address %s on interface %s, which was previously advertised by "
   "neighbor %s",
   "There is a conflict and the same secondary address was previously advertised by another "
   "neighbor.  The most recently received mapping is maintained.",
   "Check the secondary addresses configured on the two neighbors.", 0.0, 1.0, 0 );

Kiv::LogHandle PIM_BFD_STATE_CHANGE( "PIM_BFD_STATE_CHANGE", Kiv::LogNotice,
                                     "neighbor %s %s to %s on interface %s",
                                     "The BFD state changed on the PIM neighbor.",
                                     Kiv::NoActionRequired, 0.0, 1.0, 0 );

const L3::VrfName & vrfOf( const NeighborSmOwner * owner ) {
   static const L3::VrfName none;
   return owner ? owner->vrfName() : none;
}

bool bfdIsDown( Bfd::OperState s ) {
   return s == Bfd::operAdminDown || s == Bfd::operDown;
}

} // namespace

#define NTRACE( level, expr ) \
   KIV_TRACE( th(), level, "<Vrf:" << vrfOf( owner_ ) << ">" << expr )

NeighborSm::NeighborSm( const Lumo::IpGenAddr & address, const Kiv::Ptr< Neighbor > & neighbor,
                        const Kiv::Ptr< Tolm::TimerWheel > & timerWheel,
                        const Kiv::Ptr< const Config > & pimConfig, NeighborSmOwner * owner )
      : address_( address ), neighbor_( neighbor ), timerWheel_( timerWheel ), pimConfig_( pimConfig ),
        owner_( owner ), neighborReactor_( this ), neighborTimer_( this, timerWheel.ptr() ) {
   neighborReactor_.kivOwnerIs( this );
   neighborReactor_.notifierIs( neighbor_ );
   handleInitialized();
}

NeighborSm::~NeighborSm() {
   kivDoZombieReactors( true );
}

// The handlers act only while the entry this machine was made for is still
// the one in the interface's table.
#define NEIGHBOR_PRESENT_OR_RETURN()                                                      \
   do {                                                                                   \
      if( !initialized() || !neighbor_ || !intf_ ) return;                                \
      const Kiv::Ptr< Neighbor > * kivSlot_ = intf_->neighborColl().find( address_ );    \
      if( !kivSlot_ || kivSlot_->ptr() != neighbor_.ptr() ) return;                      \
   } while( 0 )

void NeighborSm::handleInitialized() {
   intf_ = owner_ ? owner_->intf() : Kiv::Ptr< Intf >();
   if( !neighbor_ || !intf_ || !timerWheel_ ) {
      NTRACE( 1, "Error - Missing neighbor, interface or timer wheel for neighbor " << address_ );
      return;
   }
   initializedIs( true );
   NTRACE( 7, "Enabling state machine for neighbor " << address_ << " on interface " << intf_->id() );
   handleHoldTime();
   handleSecondaryAddress();
   // The owner counts a new neighbour's options itself; these only record them.
   prevDrPriorityOptionIs( neighbor_->drPriorityOption() );
   prevLanPruneDelayOptionIs( neighbor_->lanPruneDelayOption() );
   prevGenerationIdOptionIs( neighbor_->generationIdOption() );
   prevBfdStateIs( neighbor_->bfdState() );
   NTRACE( 7, "Enabled state machine for neighbor " << address_ << " on interface " << intf_->id() );
   handlePort();
}

void NeighborSm::handleHoldTime() {
   NTRACE( 8, "void Routing::Pim::NeighborSm::handleHoldTime()" );
   NEIGHBOR_PRESENT_OR_RETURN();
   const std::uint16_t holdTime = neighbor_->holdTime();
   NTRACE( 7, "Hold time changed to 0x" << std::hex << holdTime << std::dec << " for neighbor "
                                         << address_ << " on interface " << intf_->id() );
   if( holdTime == kHoldTimeGoodbye ) {
      intf_->neighborDel( address_ );
      return;
   }
   if( holdTime == kHoldTimeInfinite ) {
      neighborTimer_.timeMinIs( Kiv::kNever );
      return;
   }
   neighborTimer_.timeMinIs( neighbor_->lastRefreshTime() + holdTime );
   NTRACE( 6, "Neighbor timer started " << address_ << " on interface " << intf_->id()
                                        << " with expiry in " << holdTime << " seconds." );
}

void NeighborSm::handleLastRefreshTime() {
   NTRACE( 8, "void Routing::Pim::NeighborSm::handleLastRefreshTime()" );
   NEIGHBOR_PRESENT_OR_RETURN();
   const std::uint16_t holdTime = neighbor_->holdTime();
   if( holdTime == kHoldTimeInfinite ) {
      neighborTimer_.timeMinIs( Kiv::kNever );
   } else {
      neighborTimer_.timeMinIs( neighbor_->lastRefreshTime() + holdTime );
      NTRACE( 6, "Neighbor timer started " << address_ << " on interface " << intf_->id()
                                           << " with expiry in " << holdTime << " seconds." );
   }
   // A Hello heard again returns a neighbour whose BFD session went down.
   if( intf_->inactiveBfdNeighborHas( address_ ) ) {
      intf_->inactiveBfdNeighborDel( address_ );
   }
}

void NeighborSm::handleNeighborTimerExpiry() {
   NTRACE( 8, "void Routing::Pim::NeighborSm::handleNeighborTimerExpiry()" );
   NEIGHBOR_PRESENT_OR_RETURN();
   NTRACE( 6, "Neighbor timer for " << address_ << " on interface " << intf_->id() << " expired." );
   intf_->neighborDel( address_ );
}

void NeighborSm::handleGenerationIdOption() {
   NTRACE( 8, "void Routing::Pim::NeighborSm::handleGenerationIdOption()" );
   NEIGHBOR_PRESENT_OR_RETURN();
   const GenerationIdOption & option = neighbor_->generationIdOption();
   NTRACE( 7, "Generation Id Option changed for neighbor " << address_ << " on interface "
                                                           << intf_->id() << ".  enabled=" << option.valid
                                                           << " id=" << option.value );
   owner_->neighborGenerationIdChanged();
   intf_->triggeredHelloIs( true );
}

void NeighborSm::handleDrPriorityOption() {
   NTRACE( 8, "void Routing::Pim::NeighborSm::handleDrPriorityOption()" );
   NEIGHBOR_PRESENT_OR_RETURN();
   const DrPriorityOption option = neighbor_->drPriorityOption();
   NTRACE( 7, "DR Priority Option changed for neighbor " << address_ << " on interface "
                                                         << intf_->id() << ".  enabled=" << option.valid
                                                         << " id=" << option.value );
   owner_->neighborDrPriorityOptionIs( address_, option );
   prevDrPriorityOptionIs( option );
}

void NeighborSm::handleLanPruneDelayOption() {
   NTRACE( 8, "void Routing::Pim::NeighborSm::handleLanPruneDelayOption()" );
   NEIGHBOR_PRESENT_OR_RETURN();
   const LanPruneDelayOption option = neighbor_->lanPruneDelayOption();
   NTRACE( 7, "Lan Prune Option changed for neighbor "
                 << address_ << " on interface " << intf_->id() << ".  enabled=" << option.valid
                 << " propagation delay==" << option.propagationDelay
                 << " override interval=" << option.overrideInterval
                 << " suppression bit=" << option.tBit );
   if( owner_->neighborLanPruneDelayOptionIs( address_, option ) ) prevLanPruneDelayOptionIs( option );
}

void NeighborSm::handleSecondaryAddress( const Lumo::IpGenAddr & addr ) {
   NTRACE( 8, "void Routing::Pim::NeighborSm::handleSecondaryAddress(const Lumo::IpGenAddr&)"
                 << " address: " << addr );
   NEIGHBOR_PRESENT_OR_RETURN();
   const Lumo::IpGenAddr * ownerSlot = intf_->nbSecondaryAddressColl().find( addr );
   if( neighbor_->secondaryAddress( addr ) ) {
      // What this neighbour maps is remembered here, not read back from the
      // neighbour: a goodbye may empty its list in the round that deletes it.
      mappedSecondaryIs( addr, true );
      if( !ownerSlot ) {
         intf_->nbSecondaryAddressIs( addr, address_ );
         NTRACE( 7, "Neighbor secondary address " << addr << " added on neighbor " << address_
                                                  << " on interface " << intf_->id() );
         return;
      }
      if( *ownerSlot == address_ ) {
         NTRACE( 1, "Neighbor secondary address " << addr << " already exists on neighbor " << address_
                                                  << " on interface " << intf_->id() );
         return;
      }
      const Lumo::IpGenAddr earlier = *ownerSlot;
      PIM_NEIGHBOR_SECONDARY_ADDRESS_CONFLICT.log( Lumo::valueToStrep( address_ ),
                                                   Lumo::valueToStrep( addr ),
                                                   Lumo::valueToStrep( intf_->id() ),
                                                   Lumo::valueToStrep( earlier ) );
      NTRACE( 1, "Neighbor secondary address " << addr << " is a duplicate on neighbor " << address_
                                               << " on interface " << intf_->id()
                                               << ". Previously, advertized on neighbor " << earlier );
      // The newest advertiser wins.
      if( const Kiv::Ptr< Neighbor > earlierNeighbor = intf_->neighbor( earlier ) ) {
         earlierNeighbor->secondaryAddressDel( addr );
      }
      intf_->nbSecondaryAddressIs( addr, address_ );
      return;
   }
   mappedSecondaryDel( addr );
   if( ownerSlot && *ownerSlot == address_ ) {
      intf_->nbSecondaryAddressDel( addr );
      NTRACE( 7, "Neighbor secondary address " << addr << " removed on neighbor " << address_
                                               << " on interface " << intf_->id() );
   }
}

void NeighborSm::handleSecondaryAddress() {
   NTRACE( 8, "void Routing::Pim::NeighborSm::handleSecondaryAddress()" );
   NEIGHBOR_PRESENT_OR_RETURN();
   for( auto it = neighbor_->secondaryAddressIter(); it; ++it ) {
      const Lumo::IpGenAddr addr = it.key();
      handleSecondaryAddress( addr );
   }
}

void NeighborSm::handlePort() {
   NTRACE( 8, "void Routing::Pim::NeighborSm::handlePort()" );
   NEIGHBOR_PRESENT_OR_RETURN();
   const Reliable::NeighborInfo & info = neighbor_->portInfo();
   const Reliable::CapabilityFlags flags = intf_->portCapabilityFlags();
   if( !( info == Reliable::NeighborInfo{} ) && flags != 0 && ( flags & Reliable::kCapabilitySctp ) &&
       !info.connectionAddr.isEmpty() ) {
      neighbor_->transportProtocolIs( Reliable::protocolSctp );
      NTRACE( 7, "Port operational mode is SCTP" );
      return;
   }
   neighbor_->transportProtocolIs( Reliable::protocolDatagram );
   NTRACE( 7, "Port operational disabled" );
}

void NeighborSm::handleBfdState() {
   NTRACE( 8, "void Routing::Pim::NeighborSm::handleBfdState()" );
   NEIGHBOR_PRESENT_OR_RETURN();
   const Bfd::OperState state = neighbor_->bfdState();
   const Bfd::OperState prev = prevBfdState();
   RUNDLE_TRACE_RECORD( NTRACE, 5, "", "BFD state change for neighbor " << address_ << " on interface "
                                                                     << intf_->id() << ". " << prev << " => "
                                                                     << state );
   if( bfdIsDown( state ) ) {
      if( prev == Bfd::operUp ) {
         PIM_BFD_STATE_CHANGE.log( Lumo::valueToStrep( address_ ), Bfd::operStateName( prev ),
                                   Bfd::operStateName( state ), Lumo::valueToStrep( intf_->id() ) );
         NTRACE( 5, "BFD is up.  Place neighbor " << address_ << " in the down list for interface "
                                                  << intf_->id() );
         intf_->inactiveBfdNeighborIs( neighbor_ );
      }
   } else if( state == Bfd::operUp ) {
      if( intf_->inactiveBfdNeighborHas( address_ ) ) {
         PIM_BFD_STATE_CHANGE.log( Lumo::valueToStrep( address_ ), Bfd::operStateName( prev ),
                                   Bfd::operStateName( state ), Lumo::valueToStrep( intf_->id() ) );
         NTRACE( 5, "BFD is in the down list for neighbor " << address_ << " for interface "
                                                            << intf_->id()
                                                            << ".  Triggering  hello on interface." );
         // The entry stays on the down list until the neighbour's next Hello.
         owner_->neighborBfdRecovered();
      }
   }
   prevBfdStateIs( state );
}

Kiv::Ptr< NeighborSm > NeighborSmIs( const Lumo::IpGenAddr & address, const Kiv::Ptr< Neighbor > & neighbor,
                                     const Kiv::Ptr< Tolm::TimerWheel > & timerWheel,
                                     const Kiv::Ptr< const Config > & pimConfig, NeighborSmOwner * owner ) {
   Kiv::Ptr< NeighborSm > sm = Kiv::make< NeighborSm >( address, neighbor, timerWheel, pimConfig, owner );
   sm->kivDoZombieReactors( false );
   return sm;
}

Kiv::Ptr< NeighborSm > neighborSmFactory( const Lumo::IpGenAddr & address,
                                          const Kiv::Ptr< Neighbor > & neighbor,
                                          const Kiv::Ptr< Tolm::TimerWheel > & timerWheel,
                                          const Kiv::Ptr< const Config > & pimConfig, NeighborSmOwner * owner ) {
   return NeighborSmIs( address, neighbor, timerWheel, pimConfig, owner );
}

} // namespace Routing::Pim

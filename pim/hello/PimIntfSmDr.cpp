// IntfSm, DR side: the election, the used LAN prune delay and T bit, and
// the BFD sessions of the neighbours.
#include <algorithm>
#include <cstdint>
#include <optional>

#include "hello/PimIntfSmImpl.h"

namespace Routing::Pim {

KIV_TRACE_HANDLE_FN( neighborTh, "Pim::Neighbor" )

using namespace IntfSmDetail;

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
   IRECORD( 2, "updateDr", "Updated used DR for interface " << intfId_ << " to " << r.dr << " with priority "
                                                            << r.priority );
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
      IRECORD( 2, "updateDr", "Updated used DR for interface " << intfId_ << " to " << holder.address
                                                               << " with priority " << priority );
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
      IRECORD( 2, "updateDr", "Updated used DR for interface " << intfId_ << " to " << r.dr );
      return;
   }
   if( holder.priority < priority ) {
      IRECORD( 2, "updateDr", "Updated used DR for interface " << intfId_ << " to " << r.dr << " with priority "
                                                               << r.priority );
   } else {
      // The ring buffer's sentence differs from the trace's here (two spaces
      // before the priority), so the two stay written out.
      ITRACE( 2, "Updated used DR for interface " << intfId_ << " to " << r.dr << " with priority " << r.priority );
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
   IRECORD( 7, "handleUsedDr", "I Am DR is " << intf_->iAmDr() << " for interface " << intfId_ );
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

// The two fields of the LAN prune delay are used alike; this names one.
struct IntfSm::LanPruneField {
   const char * handleFn;   // the entry trace of a change of the own value
   const char * updateFn;   // the entry trace of a full update
   const char * Name;       // as a trace sentence starts with it
   const char * name;
   const std::uint16_t & ( Intf::*own )() const;
   const std::uint16_t & ( Intf::*used )() const;
   bool ( Intf::*usedIs )( const std::uint16_t & );
   std::uint16_t ( ActiveNeighbors::*neighborsMax )() const;
   std::uint16_t LanPruneDelayOption::*advertised;
   std::uint16_t fallback;   // used while an active neighbour lacks the option
};

const IntfSm::LanPruneField IntfSm::kPropagationDelayField{
   "handlePropagationDelay", "updatePropagationDelay", "Propagation delay", "propagation delay",
   &Intf::propagationDelay, &Intf::usedPropagationDelay, &Intf::usedPropagationDelayIs,
   &ActiveNeighbors::maxPropagationDelay, &LanPruneDelayOption::propagationDelay, kPropagationDelayDefault };
const IntfSm::LanPruneField IntfSm::kOverrideIntervalField{
   "handleOverrideInterval", "updateOverrideInterval", "Override interval", "override interval",
   &Intf::overrideInterval, &Intf::usedOverrideInterval, &Intf::usedOverrideIntervalIs,
   &ActiveNeighbors::maxOverrideInterval, &LanPruneDelayOption::overrideInterval, kOverrideIntervalDefault };

void IntfSm::handleLanPruneField( const LanPruneField & field ) {
   ITRACE( 8, field.handleFn << "()" );
   if( !initialized() ) return;
   const std::uint16_t own = ( *intf_.*field.own )();
   ITRACE( 7, field.Name << " changed to " << own << " for interface " << intfId_ );
   if( neighborNotUsingLanPrune() != 0 ) return;
   // Raising applies at once; lowering waits for the next full update.
   if( ( *intf_.*field.used )() >= own ) return;
   ( *intf_.*field.usedIs )( own );
   ITRACE( 7, "Updated used " << field.name << " for interface " << intfId_ << " to " << own );
}

void IntfSm::updateLanPruneDelay() {
   for( const LanPruneField * field : { &kPropagationDelayField, &kOverrideIntervalField } ) {
      ITRACE( 8, field->updateFn << "()" );
      if( !intf_ ) continue;
      std::uint16_t value = field->fallback;
      if( neighborNotUsingLanPrune() == 0 ) {
         value = std::max( ( *intf_.*field->own )(), ( active_.*field->neighborsMax )() );
      }
      ( *intf_.*field->usedIs )( value );
      ITRACE( 7, "Updated used " << field->name << " for interface " << intfId_ << " to " << value );
   }
}

void IntfSm::updateTBit() {
   ITRACE( 8, "updateTBit" << "()" );
   if( !intf_ ) return;
   // The interface's own T bit is only advertised, never consulted here.
   const bool value = neighborNotUsingTBit() == 0 && intf_->activeNeighborSize() != 0;
   intf_->usedTBitIs( value );
   ITRACE( 7, "Updated suppression bit for interface " << intfId_ << " to " << value );
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
      updateLanPruneDelay();
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
   for( const LanPruneField * field : { &kPropagationDelayField, &kOverrideIntervalField } ) {
      const std::uint16_t value = option.*field->advertised;
      if( value == prev.*field->advertised || value <= ( *intf_.*field->used )() ) continue;
      ( *intf_.*field->usedIs )( value );
      KIV_TRACE( neighborTh(), 7, "<Vrf:" << inputs_.vrfName << ">"
                                         << "Updated used " << field->name << " for interface " << intfId_
                                         << " to " << value );
   }
   active_.lanPruneDelayOptionIs( addr, option );
   if( option.tBit != prev.tBit ) updateTBit();
   return true;
}

} // namespace Routing::Pim

#include "hello/ActiveNeighbors.h"

#include <cassert>

namespace Routing::Pim {

void ActiveNeighbors::take( std::map< std::uint16_t, std::uint32_t > & values, std::uint16_t v ) {
   ++values[ v ];
}

void ActiveNeighbors::give( std::map< std::uint16_t, std::uint32_t > & values, std::uint16_t v ) {
   const auto it = values.find( v );
   assert( it != values.end() && "a counted delay is in its multiset" );
   if( it == values.end() ) return;
   if( --it->second == 0 ) values.erase( it );
}

// Adds (sign 1) or removes (sign -1) everything one neighbour contributes.
void ActiveNeighbors::count( const Counted & c, int sign ) {
   const auto delta = static_cast< std::uint32_t >( sign );
   if( !c.drPriority.valid ) notUsingDrPriority_ += delta;
   if( !c.lanPrune.valid ) notUsingLanPrune_ += delta;
   if( !c.lanPrune.tBit ) notUsingTBit_ += delta;
}

void ActiveNeighbors::insert( const Lumo::IpGenAddr & addr, const DrPriorityOption & dr,
                              const LanPruneDelayOption & lanPrune ) {
   // Counting a neighbour again replaces what was counted for it.
   erase( addr );
   const Counted c{ dr, lanPrune, lanPrune.propagationDelay, lanPrune.overrideInterval };
   entries_.emplace( addr, c );
   count( c, 1 );
   byPriority_.emplace( dr.value, addr );
   take( propagationDelays_, c.propagationDelay );
   take( overrideIntervals_, c.overrideInterval );
}

std::optional< ActiveNeighbors::Counted > ActiveNeighbors::erase( const Lumo::IpGenAddr & addr ) {
   const auto it = entries_.find( addr );
   if( it == entries_.end() ) return std::nullopt;
   const Counted c = it->second;
   entries_.erase( it );
   count( c, -1 );
   byPriority_.erase( Rank( c.drPriority.value, addr ) );
   give( propagationDelays_, c.propagationDelay );
   give( overrideIntervals_, c.overrideInterval );
   return c;
}

void ActiveNeighbors::clear() {
   entries_.clear();
   byPriority_.clear();
   propagationDelays_.clear();
   overrideIntervals_.clear();
   notUsingDrPriority_ = notUsingLanPrune_ = notUsingTBit_ = 0;
}

void ActiveNeighbors::drPriorityOptionIs( const Lumo::IpGenAddr & addr, const DrPriorityOption & dr ) {
   const auto it = entries_.find( addr );
   if( it == entries_.end() ) return;
   Counted * c = &it->second;
   if( c->drPriority.valid != dr.valid ) notUsingDrPriority_ += dr.valid ? -1u : 1u;
   if( c->drPriority.value != dr.value ) {
      byPriority_.erase( Rank( c->drPriority.value, addr ) );
      byPriority_.emplace( dr.value, addr );
   }
   c->drPriority = dr;
}

void ActiveNeighbors::lanPruneDelayOptionIs( const Lumo::IpGenAddr & addr, const LanPruneDelayOption & lanPrune ) {
   const auto it = entries_.find( addr );
   if( it == entries_.end() ) return;
   Counted * c = &it->second;
   if( c->lanPrune.valid != lanPrune.valid ) notUsingLanPrune_ += lanPrune.valid ? -1u : 1u;
   if( c->lanPrune.tBit != lanPrune.tBit ) notUsingTBit_ += lanPrune.tBit ? -1u : 1u;
   c->lanPrune = lanPrune;
   advertisedDelaysIs( addr, lanPrune.propagationDelay, lanPrune.overrideInterval );
}

void ActiveNeighbors::advertisedDelaysIs( const Lumo::IpGenAddr & addr, std::uint16_t propagationDelay,
                                          std::uint16_t overrideInterval ) {
   const auto it = entries_.find( addr );
   if( it == entries_.end() ) return;
   Counted * c = &it->second;
   if( c->propagationDelay != propagationDelay ) {
      give( propagationDelays_, c->propagationDelay );
      take( propagationDelays_, propagationDelay );
      c->propagationDelay = propagationDelay;
   }
   if( c->overrideInterval != overrideInterval ) {
      give( overrideIntervals_, c->overrideInterval );
      take( overrideIntervals_, overrideInterval );
      c->overrideInterval = overrideInterval;
   }
}

std::optional< DrCandidate > ActiveNeighbors::strongest( bool addressOnly ) const {
   if( addressOnly ) {
      if( entries_.empty() ) return std::nullopt;
      const auto & [ addr, counted ] = *entries_.rbegin();
      return DrCandidate{ addr, counted.drPriority.value };
   }
   if( byPriority_.empty() ) return std::nullopt;
   const Rank & top = *byPriority_.rbegin();
   return DrCandidate{ top.second, top.first };
}

} // namespace Routing::Pim

#pragma once
// What an interface counts of its active neighbours, kept so that every
// question the election and the LAN prune delay ask is answered without a
// scan: who is the strongest DR candidate, what are the largest advertised
// delays, how many neighbours lack an option. A neighbour coming, going or
// changing an option costs O(log N).
//
// The pure functions at the top are the election and its from-scratch form;
// the incremental machinery and any checker use the same comparison.
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "lumo/IpGenAddr.h"
#include "model/PimTypes.h"

namespace Routing::Pim {

// One candidate for DR: an address and the priority it bids.
struct DrCandidate {
   Lumo::IpGenAddr address;
   std::uint32_t priority = 0;
};

// Whether challenger takes the DR role from holder: the higher priority
// (unsigned), then the higher address; the address alone when any active
// neighbour lacks the priority option. Equal candidates never do, so the
// first holder keeps the role.
inline bool drOutranks( const DrCandidate & challenger, const DrCandidate & holder, bool addressOnly ) {
   if( addressOnly || challenger.priority == holder.priority ) return holder.address < challenger.address;
   return holder.priority < challenger.priority;
}

// The outcome as the interface records it: usedDr and usedDrPriority.
struct DrResult {
   Lumo::IpGenAddr dr;
   std::uint32_t priority = 0;
};

// The election: this router against the strongest neighbour (null: none).
inline DrResult electDr( const DrCandidate & self, const DrCandidate * strongest, bool addressOnly ) {
   const DrCandidate & best = strongest && drOutranks( *strongest, self, addressOnly ) ? *strongest : self;
   return DrResult{ best.address, addressOnly ? kDrPriorityAddressOnly : best.priority };
}

// The election from scratch over any sequence of DrCandidate, for checks.
template< class It >
DrResult electDrFromScratch( const DrCandidate & self, It first, It last, bool addressOnly ) {
   std::optional< DrCandidate > strongest;
   for( ; first != last; ++first ) {
      if( !strongest || drOutranks( *first, *strongest, addressOnly ) ) strongest = *first;
   }
   return electDr( self, strongest ? &*strongest : nullptr, addressOnly );
}

// The used LAN prune values after a full update, from scratch over any
// sequence of the active neighbours' LanPruneDelayOption, for checks. The
// engine also raises the used delays between full updates (and never lowers
// them there), so between two full updates its values may lie above these.
struct LanPruneUsed {
   std::uint16_t propagationDelay = kPropagationDelayDefault;
   std::uint16_t overrideInterval = kOverrideIntervalDefault;
   bool tBit = false;
};
template< class It >
LanPruneUsed lanPruneFromScratch( std::uint16_t ownPropagationDelay, std::uint16_t ownOverrideInterval,
                                  It first, It last ) {
   LanPruneUsed used{ ownPropagationDelay, ownOverrideInterval, first != last };
   bool allValid = true;
   for( ; first != last; ++first ) {
      const LanPruneDelayOption & o = *first;
      allValid = allValid && o.valid;
      used.tBit = used.tBit && o.tBit;
      if( o.propagationDelay > used.propagationDelay ) used.propagationDelay = o.propagationDelay;
      if( o.overrideInterval > used.overrideInterval ) used.overrideInterval = o.overrideInterval;
   }
   if( !allValid ) {
      used.propagationDelay = kPropagationDelayDefault;
      used.overrideInterval = kOverrideIntervalDefault;
   }
   return used;
}

class ActiveNeighbors {
 public:
   // What is held for one active neighbour: the options as last taken in
   // (the counters follow them) and the delays it advertises now (the
   // maxima follow those; they may move while the option is not taken in).
   struct Counted {
      DrPriorityOption drPriority;
      LanPruneDelayOption lanPrune;
      std::uint16_t propagationDelay = 0;
      std::uint16_t overrideInterval = 0;
   };

   // A neighbour starts to count (again: the new options replace the old).
   void insert( const Lumo::IpGenAddr & addr, const DrPriorityOption & dr, const LanPruneDelayOption & lanPrune );
   // It stops counting; returns what was counted for it, if anything.
   std::optional< Counted > erase( const Lumo::IpGenAddr & addr );
   void clear();
   const Counted * find( const Lumo::IpGenAddr & addr ) const {
      const auto it = entries_.find( addr );
      return it == entries_.end() ? nullptr : &it->second;
   }
   std::size_t size() const { return entries_.size(); }

   // A counted neighbour's options change (ignored for others).
   void drPriorityOptionIs( const Lumo::IpGenAddr & addr, const DrPriorityOption & dr );
   void lanPruneDelayOptionIs( const Lumo::IpGenAddr & addr, const LanPruneDelayOption & lanPrune );
   // Only the advertised delays move; the counted option stays.
   void advertisedDelaysIs( const Lumo::IpGenAddr & addr, std::uint16_t propagationDelay,
                            std::uint16_t overrideInterval );

   std::uint32_t notUsingDrPriority() const { return notUsingDrPriority_; }
   std::uint32_t notUsingLanPrune() const { return notUsingLanPrune_; }
   std::uint32_t notUsingTBit() const { return notUsingTBit_; }
   // The neighbour that would win the election among the neighbours alone.
   std::optional< DrCandidate > strongest( bool addressOnly ) const;
   // The largest advertised delays; 0 with no neighbour.
   std::uint16_t maxPropagationDelay() const { return propagationDelays_.empty() ? 0 : propagationDelays_.rbegin()->first; }
   std::uint16_t maxOverrideInterval() const { return overrideIntervals_.empty() ? 0 : overrideIntervals_.rbegin()->first; }

 private:
   // Candidates ordered as drOutranks orders them in priority mode; the last
   // one is the strongest. Addresses are unique, so there are no equals.
   using Rank = std::pair< std::uint32_t, Lumo::IpGenAddr >;
   void count( const Counted & c, int sign );
   static void take( std::map< std::uint16_t, std::uint32_t > & values, std::uint16_t v );
   static void give( std::map< std::uint16_t, std::uint32_t > & values, std::uint16_t v );

   // Ordered by address: the record of each neighbour and, at its end, the
   // strongest candidate of an address-only election.
   std::map< Lumo::IpGenAddr, Counted > entries_;
   std::set< Rank > byPriority_;
   // Advertised value -> number of neighbours advertising it.
   std::map< std::uint16_t, std::uint32_t > propagationDelays_;
   std::map< std::uint16_t, std::uint32_t > overrideIntervals_;
   std::uint32_t notUsingDrPriority_ = 0;
   std::uint32_t notUsingLanPrune_ = 0;
   std::uint32_t notUsingTBit_ = 0;
};

} // namespace Routing::Pim

// The incremental answers of ActiveNeighbors (strongest DR candidate, delay
// maxima, counters) against a from-scratch recomputation, over random
// sequences of neighbours coming, changing options and leaving.
#include "hello/ActiveNeighbors.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

namespace Routing::Pim {
namespace {

TEST( ActiveNeighbors, IncrementalAnswersEqualAFromScratchRecomputation ) {
   std::mt19937 rng( 7 );
   auto pick = [ &rng ]( int n ) { return int( rng() % unsigned( n ) ); };
   ActiveNeighbors active;
   std::map< Lumo::IpGenAddr, ActiveNeighbors::Counted > model;
   const DrCandidate self{ Lumo::IpGenAddr::ipv4( 0xC6120010 ), 3 };
   for( int step = 0; step < 20000; ++step ) {
      // Few addresses and values, so that ties and repeats are frequent.
      const Lumo::IpGenAddr addr = Lumo::IpGenAddr::ipv4( 0xC6120000 + unsigned( pick( 40 ) ) );
      const DrPriorityOption dr{ pick( 4 ) != 0, unsigned( pick( 6 ) ) };
      const LanPruneDelayOption lpd{ pick( 5 ) != 0, std::uint16_t( 400 + 50 * pick( 8 ) ),
                                     std::uint16_t( 2400 + 100 * pick( 8 ) ), pick( 2 ) != 0 };
      auto it = model.find( addr );
      switch( pick( 5 ) ) {
       case 0:
         active.insert( addr, dr, lpd );
         model[ addr ] = { dr, lpd, lpd.propagationDelay, lpd.overrideInterval };
         break;
       case 1:
         EXPECT_EQ( active.erase( addr ).has_value(), it != model.end() );
         if( it != model.end() ) model.erase( it );
         break;
       case 2:
         active.drPriorityOptionIs( addr, dr );
         if( it != model.end() ) it->second.drPriority = dr;
         break;
       case 3:
         active.lanPruneDelayOptionIs( addr, lpd );
         if( it != model.end() ) it->second = { it->second.drPriority, lpd, lpd.propagationDelay, lpd.overrideInterval };
         break;
       default:
         active.advertisedDelaysIs( addr, lpd.propagationDelay, lpd.overrideInterval );
         if( it != model.end() ) {
            it->second.propagationDelay = lpd.propagationDelay;
            it->second.overrideInterval = lpd.overrideInterval;
         }
      }

      std::vector< DrCandidate > candidates;
      std::uint32_t noDr = 0, noLanPrune = 0, noTBit = 0;
      std::uint16_t maxPd = 0, maxOi = 0;
      for( const auto & [ a, c ] : model ) {
         candidates.push_back( { a, c.drPriority.value } );
         noDr += !c.drPriority.valid;
         noLanPrune += !c.lanPrune.valid;
         noTBit += !c.lanPrune.tBit;
         maxPd = std::max( maxPd, c.propagationDelay );
         maxOi = std::max( maxOi, c.overrideInterval );
      }
      ASSERT_EQ( active.size(), model.size() );
      ASSERT_EQ( active.notUsingDrPriority(), noDr );
      ASSERT_EQ( active.notUsingLanPrune(), noLanPrune );
      ASSERT_EQ( active.notUsingTBit(), noTBit );
      ASSERT_EQ( active.maxPropagationDelay(), maxPd );
      ASSERT_EQ( active.maxOverrideInterval(), maxOi );
      for( const bool addressOnly : { false, true } ) {
         const auto strongest = active.strongest( addressOnly );
         const DrResult incremental = electDr( self, strongest ? &*strongest : nullptr, addressOnly );
         const DrResult scratch = electDrFromScratch( self, candidates.begin(), candidates.end(), addressOnly );
         ASSERT_EQ( incremental.dr, scratch.dr ) << "step " << step;
         ASSERT_EQ( incremental.priority, scratch.priority ) << "step " << step;
      }
   }
}

} // namespace
} // namespace Routing::Pim

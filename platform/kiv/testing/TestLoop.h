#pragma once
// Test driver: a fresh activity manager on a virtual clock with a seeded
// random source, installed for the lifetime of the object.
#include "kiv/ActivityManager.h"
#include "kiv/Clock.h"
#include "kiv/Random.h"

namespace Kiv::Testing {

class TestLoop {
 public:
   explicit TestLoop( Seconds start = 0.0, std::uint64_t seed = 1 )
         : clock_( start ), random_( seed ), previous_( &activityManager() ) {
      manager_.clockIs( &clock_ );
      manager_.randomIs( &random_ );
      activityManagerIs( &manager_ );
   }
   ~TestLoop() { activityManagerIs( previous_ ); }
   ActivityManager & manager() { return manager_; }
   VirtualClock & clock() { return clock_; }
   SeededRandom & random() { return random_; }
   Seconds now() const { return clock_.now(); }
   // Budget exhaustion is a failure (returns false), never a hang.
   bool runUntilIdle( std::size_t budget = 1'000'000 ) { return manager_.runUntilIdle( budget ); }
   bool advanceTo( Seconds t ) { return manager_.advanceTo( t ); }
   bool advanceBy( Seconds d ) { return manager_.advanceBy( d ); }

 private:
   VirtualClock clock_;
   SeededRandom random_;
   ActivityManager * previous_;
   ActivityManager manager_;
};

} // namespace Kiv::Testing

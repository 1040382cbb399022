// Costs of the timer wheel: re-arming one timer among many (a neighbour
// refresh), and arming plus firing in steady state.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>

#include "kiv/Clock.h"
#include "kiv/testing/TestLoop.h"
#include "tolm/TimerWheel.h"

namespace {

using Tolm::TimerWheel;

// Cheap deterministic stream (xorshift64), so that the generator costs little
// next to what is measured.
struct Rng {
   std::uint64_t s = 0x9e3779b97f4a7c15ull;
   std::uint64_t next() {
      s ^= s << 13;
      s ^= s >> 7;
      s ^= s << 17;
      return s;
   }
   // Uniform in [0, n) by multiply and shift: no division in the loop.
   std::uint64_t below( std::uint64_t n ) { return ( ( next() >> 32 ) * n ) >> 32; }
   // Uniform in [30, 105) s with millisecond steps: a hold time refresh.
   Kiv::Seconds refresh() { return 30.0 + static_cast< double >( below( 75000 ) ) * 1e-3; }
};

constexpr Kiv::Seconds kStart = 1000.0;

void BM_TimerWheelReArm( benchmark::State & state ) {
   Kiv::Testing::TestLoop loop( kStart );
   auto wheel = Tolm::TimerWheelIs( loop.clock() );
   const auto n = static_cast< std::size_t >( state.range( 0 ) );
   std::unique_ptr< TimerWheel::NotifieeConst[] > timers( new TimerWheel::NotifieeConst[ n ] );
   Rng rng;
   for( std::size_t i = 0; i < n; ++i ) {
      timers[ i ].notifierIs( wheel.ptr() );
      timers[ i ].timeMinIs( kStart + rng.refresh() );
   }
   benchmark::DoNotOptimize( wheel->nextDeadline() );
   for( auto _ : state ) {
      TimerWheel::NotifieeConst & t = timers[ rng.below( n ) ];
      t.timeMinIs( kStart + rng.refresh() );
   }
   benchmark::DoNotOptimize( wheel->nextDeadline() );
   state.SetItemsProcessed( state.iterations() );
}
BENCHMARK( BM_TimerWheelReArm )->Arg( 1000 )->Arg( 100'000 )->Arg( 1'000'000 );

// The neighbour workload: time runs on, and a random timer is pushed to
// now + 105 s (a refresh always moves a deadline later). The loop asks for
// the next deadline now and then, so timers left in place by a re-arm are
// re-filed inside the measured time too.
void BM_TimerWheelRefresh( benchmark::State & state ) {
   Kiv::Testing::TestLoop loop( kStart );
   auto wheel = Tolm::TimerWheelIs( loop.clock() );
   const auto n = static_cast< std::size_t >( state.range( 0 ) );
   std::unique_ptr< TimerWheel::NotifieeConst[] > timers( new TimerWheel::NotifieeConst[ n ] );
   Rng rng;
   for( std::size_t i = 0; i < n; ++i ) {
      timers[ i ].notifierIs( wheel.ptr() );
      timers[ i ].timeMinIs( kStart + rng.refresh() );
   }
   // Each timer is refreshed about every 30 s of virtual time.
   const double step = 30.0 / static_cast< double >( n );
   std::uint64_t i = 0;
   for( auto _ : state ) {
      loop.clock().nowIs( loop.now() + step );
      timers[ rng.below( n ) ].timeMinIs( loop.now() + 105.0 );
      if( ( ++i & 63 ) == 0 ) benchmark::DoNotOptimize( wheel->nextDeadline() );
   }
   state.SetItemsProcessed( state.iterations() );
}
BENCHMARK( BM_TimerWheelRefresh )->Arg( 1000 )->Arg( 100'000 )->Arg( 1'000'000 );

// Reference for the figure above: what the memory alone costs when one random
// node of the same size and its two list neighbours are written, which is the
// least any re-arm of an intrusively listed timer does once the timers no
// longer fit in the caches.
void BM_TimerWheelReArmMemoryFloor( benchmark::State & state ) {
   struct Node {
      Node * prev;
      Node * next;
      std::uint64_t payload[ ( sizeof( TimerWheel::NotifieeConst ) - 2 * sizeof( Node * ) ) / 8 ];
   };
   static_assert( sizeof( Node ) == sizeof( TimerWheel::NotifieeConst ) );
   const auto n = static_cast< std::size_t >( state.range( 0 ) );
   std::unique_ptr< Node[] > nodes( new Node[ n ] );
   Rng rng;
   for( std::size_t i = 0; i < n; ++i ) {
      nodes[ i ].prev = &nodes[ rng.below( n ) ];
      nodes[ i ].next = &nodes[ rng.below( n ) ];
   }
   for( auto _ : state ) {
      Node & x = nodes[ rng.below( n ) ];
      x.prev->next = x.next;
      x.next->prev = x.prev;
      x.payload[ 0 ] = rng.s;
   }
   benchmark::DoNotOptimize( nodes[ 0 ] );
   state.SetItemsProcessed( state.iterations() );
}
BENCHMARK( BM_TimerWheelReArmMemoryFloor )->Arg( 1000 )->Arg( 100'000 )->Arg( 1'000'000 );

// Every timer re-arms itself when it fires, as a hello or hold timer does; one
// iteration advances the clock to the earliest deadline and fires it.
class Refresh : public TimerWheel::NotifieeConst {
 public:
   Rng * rng = nullptr;
   const Kiv::VirtualClock * clock = nullptr;
   void onTime() override { timeMinIs( clock->now() + rng->refresh() ); }
};

void BM_TimerWheelArmAndFire( benchmark::State & state ) {
   Kiv::Testing::TestLoop loop( kStart );
   auto wheel = Tolm::TimerWheelIs( loop.clock() );
   const auto n = static_cast< std::size_t >( state.range( 0 ) );
   std::unique_ptr< Refresh[] > timers( new Refresh[ n ] );
   Rng rng;
   for( std::size_t i = 0; i < n; ++i ) {
      timers[ i ].rng = &rng;
      timers[ i ].clock = &loop.clock();
      timers[ i ].notifierIs( wheel.ptr() );
      timers[ i ].timeMinIs( kStart + rng.refresh() );
   }
   for( auto _ : state ) {
      const Kiv::Seconds d = wheel->nextDeadline();
      if( d > loop.clock().now() ) loop.clock().nowIs( d );
      benchmark::DoNotOptimize( wheel->fireNext( loop.clock().now() ) );
   }
   state.SetItemsProcessed( state.iterations() );
}
BENCHMARK( BM_TimerWheelArmAndFire )->Arg( 1000 )->Arg( 100'000 )->Arg( 1'000'000 );

// A short-lived timer: armed, then cancelled before it is due.
void BM_TimerWheelArmDisarm( benchmark::State & state ) {
   Kiv::Testing::TestLoop loop( kStart );
   auto wheel = Tolm::TimerWheelIs( loop.clock() );
   TimerWheel::NotifieeConst other( wheel.ptr() ), t( wheel.ptr() );
   other.timeMinIs( kStart + 1.0 );
   Rng rng;
   for( auto _ : state ) {
      t.timeMinIs( kStart + rng.refresh() );
      t.timeMinIs( Kiv::kNever );
   }
   state.SetItemsProcessed( state.iterations() );
}
BENCHMARK( BM_TimerWheelArmDisarm );

} // namespace

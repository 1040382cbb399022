// Costs of the entity framework: a scalar write plus its deferred delivery,
// keyed collections of a million entities, and memory per entity.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <malloc.h>
#include <memory>
#include <vector>

#include "kiv/EntityMacros.h"
#include "kiv/testing/TestLoop.h"

namespace {

#define BENCH_ENTITY_ATTRS( X )                                   \
   X( SCALAR, lastRefreshTime, LastRefreshTime, double, 0.0 )     \
   X( SCALAR, holdTime, HoldTime, std::uint16_t, 105 )            \
   X( COUNTER, count, Count, std::uint32_t )

class BenchEntity : public Kiv::Notifier {
 public:
   explicit BenchEntity( std::uint32_t key ) : key_( key ) {}
   std::uint32_t key() const { return key_; }
   KIV_ENTITY( BenchEntity, "Bench::Entity", BENCH_ENTITY_ATTRS )
 private:
   std::uint32_t key_;
};
KIV_NOTIFIEE( BenchEntity, BENCH_ENTITY_ATTRS )

#define BENCH_TABLE_ATTRS( X ) \
   X( ENTITIES, entry, Entry, std::uint32_t, BenchEntity )

class BenchTable : public Kiv::Notifier {
 public:
   KIV_ENTITY( BenchTable, "Bench::Table", BENCH_TABLE_ATTRS )
};
KIV_NOTIFIEE( BenchTable, BENCH_TABLE_ATTRS )

struct Counter : BenchEntity::NotifieeConst {
   std::uint64_t calls = 0;
   void onLastRefreshTime() override { ++calls; }
};

// One write and its delivery, one round at a time.
void BM_ScalarWriteAndDeferredDelivery( benchmark::State & state ) {
   Kiv::Testing::TestLoop loop;
   auto e = Kiv::make< BenchEntity >( 1 );
   Counter r;
   r.notifierIs( e );
   double t = 0;
   for( auto _ : state ) {
      e->lastRefreshTimeIs( t += 1.0 );
      loop.runUntilIdle();
   }
   benchmark::DoNotOptimize( r.calls );
   state.SetItemsProcessed( state.iterations() );
}
BENCHMARK( BM_ScalarWriteAndDeferredDelivery );

// Many reactors dirtied, delivered in one round: the amortised figure.
void BM_ScalarWriteAndDeferredDeliveryBatched( benchmark::State & state ) {
   Kiv::Testing::TestLoop loop;
   const int n = static_cast< int >( state.range( 0 ) );
   std::vector< Kiv::Ptr< BenchEntity > > es;
   std::vector< std::unique_ptr< Counter > > rs;
   for( int i = 0; i < n; ++i ) {
      es.push_back( Kiv::make< BenchEntity >( i ) );
      rs.push_back( std::make_unique< Counter >() );
      rs.back()->notifierIs( es.back() );
   }
   double t = 0;
   for( auto _ : state ) {
      t += 1.0;
      for( auto & e : es ) e->lastRefreshTimeIs( t );
      loop.runUntilIdle();
   }
   state.SetItemsProcessed( state.iterations() * n );
}
BENCHMARK( BM_ScalarWriteAndDeferredDeliveryBatched )->Arg( 1000 );

void BM_EqualWriteIsSilent( benchmark::State & state ) {
   Kiv::Testing::TestLoop loop;
   auto e = Kiv::make< BenchEntity >( 1 );
   Counter r;
   r.notifierIs( e );
   for( auto _ : state ) {
      e->holdTimeIs( 105 );
   }
   state.SetItemsProcessed( state.iterations() );
}
BENCHMARK( BM_EqualWriteIsSilent );

constexpr std::uint32_t kMillion = 1'000'000;

std::uint32_t scramble( std::uint32_t i ) { return i * 2654435761u; }

void BM_CollectionInsertMillion( benchmark::State & state ) {
   Kiv::Testing::TestLoop loop;
   for( auto _ : state ) {
      auto table = Kiv::make< BenchTable >();
      for( std::uint32_t i = 0; i < kMillion; ++i ) table->entryIs( scramble( i ) );
      benchmark::DoNotOptimize( table->entrySize() );
      state.PauseTiming();
      table = nullptr;
      state.ResumeTiming();
   }
   state.SetItemsProcessed( state.iterations() * kMillion );
}
BENCHMARK( BM_CollectionInsertMillion )->Unit( benchmark::kMillisecond )->Iterations( 3 );

void BM_CollectionLookupInMillion( benchmark::State & state ) {
   Kiv::Testing::TestLoop loop;
   auto table = Kiv::make< BenchTable >();
   for( std::uint32_t i = 0; i < kMillion; ++i ) table->entryIs( scramble( i ) );
   std::uint32_t i = 0;
   for( auto _ : state ) {
      benchmark::DoNotOptimize( table->entry( scramble( i++ % kMillion ) ) );
   }
   state.SetItemsProcessed( state.iterations() );
}
BENCHMARK( BM_CollectionLookupInMillion );

// Heap bytes per entity in a collection, with one reactor bound to each.
void BM_BytesPerEntityWithOneReactor( benchmark::State & state ) {
   Kiv::Testing::TestLoop loop;
   constexpr std::uint32_t n = 100'000;
   double bytes = 0;
   for( auto _ : state ) {
      malloc_trim( 0 );
      const std::size_t before = mallinfo2().uordblks;
      auto table = Kiv::make< BenchTable >();
      std::vector< std::unique_ptr< Counter > > rs;
      rs.reserve( n );
      const std::size_t reserved = mallinfo2().uordblks;
      for( std::uint32_t i = 0; i < n; ++i ) {
         auto e = table->entryIs( i );
         rs.push_back( std::make_unique< Counter >() );
         rs.back()->notifierIs( e );
      }
      const std::size_t after = mallinfo2().uordblks;
      // Count the reactor-pointer vector too: one slot per entity.
      bytes = static_cast< double >( after - before ) / n;
      benchmark::DoNotOptimize( reserved );
      rs.clear();
   }
   state.counters[ "bytes_per_entity" ] = bytes;
   state.counters[ "sizeof_entity" ] = sizeof( BenchEntity );
   state.counters[ "sizeof_reactor" ] = sizeof( Counter );
}
BENCHMARK( BM_BytesPerEntityWithOneReactor )->Unit( benchmark::kMillisecond )->Iterations( 1 );

} // namespace

// Costs of the neighbour table in shared memory at 100,000 neighbours: the
// writer updating one row (a Hello refresh), and another reader copying every
// consistent row out.
#include <benchmark/benchmark.h>

#include <unistd.h>

#include "status/PimVarnStatus.h"
#include "varn/shm/ShmTable.h"

namespace {

namespace V = Routing::Pim::Varn;
constexpr std::uint32_t kNeighbors = 100'000;

struct Fixture {
   Fixture() : store( "/tmp/tables-bench-" + std::to_string( getpid() ) ) {
      table = KivVarn::Table< V::Neighbor >::make( store, "bench/neighbor", kNeighbors );
      rows.reserve( kNeighbors );
      for( std::uint32_t i = 0; i < kNeighbors; ++i ) {
         // 500 interfaces of 200 neighbours each.
         const Lumo::IntfId intf( "Ethernet" + std::to_string( i / 200 ) );
         const std::uint32_t a = 0xc6120000u + i;  // 198.18.0.0/15
         const Lumo::IpGenAddr addr( Lumo::IpGenAddr::Bytes4{ std::uint8_t( a >> 24 ), std::uint8_t( a >> 16 ),
                                                              std::uint8_t( a >> 8 ), std::uint8_t( a ) } );
         V::Neighbor n( intf, addr );
         n.creationTime = 1.0;
         n.holdTime = 105;
         n.drPriorityOption = { true, 1 };
         rows.push_back( n );
         table.rowIs( n );
      }
   }
   KivVarn::Shm::ShmTableStore store;
   KivVarn::Table< V::Neighbor > table;
   std::vector< V::Neighbor > rows;
};

Fixture & fixture() {
   static Fixture f;
   return f;
}

void BM_WriterRowUpdate( benchmark::State & state ) {
   Fixture & f = fixture();
   std::uint32_t i = 0;
   double t = 2.0;
   for( auto _ : state ) {
      V::Neighbor & n = f.rows[ i ];
      n.lastRefreshTime = t;
      benchmark::DoNotOptimize( f.table.rowIs( n ) );
      if( ++i == kNeighbors ) {
         i = 0;
         t += 1.0;
      }
   }
   state.SetItemsProcessed( state.iterations() );
   state.counters[ "per_row" ] = benchmark::Counter( static_cast< double >( state.iterations() ),
                                                        benchmark::Counter::kIsRate | benchmark::Counter::kInvert );
}
BENCHMARK( BM_WriterRowUpdate );

void BM_ReaderScanPerRow( benchmark::State & state ) {
   Fixture & f = fixture();
   KivVarn::Shm::TypedReader< V::Neighbor > reader(
      KivVarn::Shm::TableReader::open( f.store.stateDir(), "bench/neighbor" ) );
   if( !reader.valid() ) {
      state.SkipWithError( "no table" );
      return;
   }
   std::uint64_t rows = 0;
   for( auto _ : state ) {
      std::uint64_t sum = 0;
      reader.forEach( [ & ]( const V::Neighbor & n ) { sum += n.holdTime; } );
      benchmark::DoNotOptimize( sum );
      rows += kNeighbors;
   }
   state.SetItemsProcessed( static_cast< std::int64_t >( rows ) );
   state.counters[ "per_row" ] = benchmark::Counter( static_cast< double >( rows ),
                                                        benchmark::Counter::kIsRate | benchmark::Counter::kInvert );
}
BENCHMARK( BM_ReaderScanPerRow )->Unit( benchmark::kMillisecond );

} // namespace

// Throughput of the Hello codec on a typical IPv4 Hello: holdtime, LAN prune
// delay, DR priority, generation id and one secondary address.
#include <benchmark/benchmark.h>

#include "services/pimwire/HelloCodec.h"

using namespace PimWire;

namespace {

const Addr kSrc = Addr::v4( 198, 18, 0, 1 );
const Addr kDst = Addr::v4( 224, 0, 0, 13 );

Hello typicalHello() {
   Hello h;
   h.holdtimePresent = true;
   h.holdtime = 105;
   h.lanPruneDelay = { true, false, 500, 2500 };
   h.drPriorityPresent = true;
   h.drPriority = 1;
   h.generationIdPresent = true;
   h.generationId = 0x189f988e;
   h.addressList = { Addr::v4( 198, 18, 1, 1 ) };
   return h;
}

// Decoding into a Hello the caller keeps, as a receive loop does: no
// allocation once the address list has grown to its working size.
void decodeReused( benchmark::State & state ) {
   const auto bytes = encodeHello( typicalHello(), Family::ipv4, kSrc, kDst );
   Hello out;
   DecodeStats stats;
   for ( auto _ : state ) {
      RejectReason r = decodeHello( bytes.data(), bytes.size(), Family::ipv4, kSrc, kDst, out, stats );
      benchmark::DoNotOptimize( r );
      benchmark::DoNotOptimize( out );
   }
   if ( out.addressList.size() != 1 ) {
      state.SkipWithError( "decode lost the address" );
   }
   state.SetItemsProcessed( state.iterations() );
   state.SetBytesProcessed( state.iterations() * std::int64_t( bytes.size() ) );
}
BENCHMARK( decodeReused );

// Decoding into a fresh result each time: one allocation for the address list.
void decodeFresh( benchmark::State & state ) {
   const auto bytes = encodeHello( typicalHello(), Family::ipv4, kSrc, kDst );
   for ( auto _ : state ) {
      DecodeResult r = decodeHello( bytes.data(), bytes.size(), Family::ipv4, kSrc, kDst );
      benchmark::DoNotOptimize( r );
   }
   state.SetItemsProcessed( state.iterations() );
}
BENCHMARK( decodeFresh );

void encodeIntoBuffer( benchmark::State & state ) {
   const Hello h = typicalHello();
   std::uint8_t buf[ 128 ];
   for ( auto _ : state ) {
      std::size_t n = encodeHello( h, Family::ipv4, kSrc, kDst, buf, sizeof( buf ) );
      benchmark::DoNotOptimize( n );
      benchmark::DoNotOptimize( buf );
   }
   state.SetItemsProcessed( state.iterations() );
}
BENCHMARK( encodeIntoBuffer );

} // namespace

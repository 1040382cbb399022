// Receive-path figures of the Hello engine on one VRF: new neighbours per
// second as the table grows, refresh Hellos per second at full size, and heap
// bytes per neighbour (entity, machine, reactors and timer included).
//
// The path measured is the one the I/O service drives: store a decoded Hello
// in the VRF's receive mailbox, bump count, and let the activity loop run
// HelloSm -> NeighborSm -> IntfSm (timers re-armed) until idle.
#include <malloc.h>

#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "hello/PimHelloSm.h"
#include "hello/PimIntfSm.h"
#include "kiv/testing/TestLoop.h"

using namespace Routing::Pim;

namespace {

constexpr int kIntfs = 25;
constexpr int kPerIntf = 4000;   // 100,000 neighbours in 198.18.0.0/15
constexpr int kNeighbors = kIntfs * kPerIntf;

// CPU time of this thread: the figures stay meaningful on a shared machine.
double seconds() {
   timespec ts;
   clock_gettime( CLOCK_THREAD_CPUTIME_ID, &ts );
   return double( ts.tv_sec ) + double( ts.tv_nsec ) * 1e-9;
}

std::size_t heapInUse() {
   return mallinfo2().uordblks;
}

Lumo::IpGenAddr addrOf( int intf, int host ) {
   // Interface k owns 198.18.0.0 + k*4096 /20; .1 is the router itself.
   const std::uint32_t base = ( 198u << 24 ) | ( 18u << 16 );
   return Lumo::IpGenAddr::ipv4( base + std::uint32_t( intf ) * 4096u + std::uint32_t( host ) );
}

struct Vrf {
   Kiv::Ptr< AllStatus > allStatus = Kiv::make< AllStatus >( L3::VrfName( "default" ) );
   Kiv::Ptr< IO::MessageInfo > rx = Kiv::make< IO::MessageInfo >();
   IntfSmInputs in;
   Kiv::Ptr< GlobalIntfSm > global;
   Kiv::Ptr< HelloSm > hello;
   Kiv::Ptr< Interface::DeviceIntfStatusDir > kernel = Kiv::make< Interface::DeviceIntfStatusDir >();

   explicit Vrf( Kiv::Testing::TestLoop & loop ) {
      in.vrfName = L3::VrfName( "default" );
      in.pimGlobalStatus = Kiv::make< GlobalStatus >();
      in.pimCellGlobalStatus = Kiv::make< CellGlobalStatus >();
      in.pimGlobalConfig = Kiv::make< GlobalConfig >();
      in.pimConfig = Kiv::make< Config >( in.vrfName );
      in.pimPamManager = Kiv::make< IO::PamManager >( Lumo::AddressFamily::ipv4, Lumo::NamespaceName(), true );
      in.timerWheel = Tolm::TimerWheelIs( loop.clock() );
      in.bfdPimAppConfig = Kiv::make< Bfd::AppConfig >( "pim" );
      in.bfdPimAppStatus = Kiv::make< Bfd::AppStatus >( "pim" );
      in.kernelIntfStatus = kernel;
      in.routerIdInfo = Kiv::make< RouterIdInfo >( in.vrfName );
      global = GlobalIntfSmIs( allStatus, in );
      hello = HelloSmIs( allStatus, rx );
      // 100,000 neighbours: far beyond the VRF's default limit.
      allStatus->neighborLimitIs( 1u << 20 );
      for( int k = 0; k < kIntfs; ++k ) {
         const Lumo::IntfId id( "et" + std::to_string( k + 1 ) );
         kernel->deviceIntfStatusIs( id, Interface::DeviceIntfStatus{ "eth" + std::to_string( k ), std::uint32_t( k + 2 ), true } );
         auto intf = allStatus->pimIntfIs( id, Lumo::IpGenAddrWithMask( addrOf( k, 1 ), 20 ) );
         intf->modeIs( pimModeSparse );
      }
      loop.runUntilIdle();
   }
};

Kiv::Ptr< Packet::HelloMessage > helloFrom( const Lumo::IpGenAddr & src, std::uint32_t genId ) {
   auto h = Kiv::make< Packet::HelloMessage >();
   h->srcAddrIs( src );
   h->holdTimePresentIs( true );
   h->holdTimeIs( 105 );
   h->drPriorityPresentIs( true );
   h->drPriorityIs( 1 );
   h->generationIdPresentIs( true );
   h->generationIdIs( genId );
   h->lanPruneDelayPresentIs( true );
   h->propagationDelayIs( 500 );
   h->overrideIntervalIs( 2500 );
   return h;
}

} // namespace

int main() {
   Kiv::Testing::TestLoop loop( 1000.0, 42 );
   Vrf vrf( loop );
   std::vector< Lumo::IntfId > ids;
   for( int k = 0; k < kIntfs; ++k ) ids.emplace_back( "et" + std::to_string( k + 1 ) );

   // The decoded Hellos the I/O service would hand over, built up front so
   // that only the agent's receive path is timed.
   std::vector< Kiv::Ptr< Packet::HelloMessage > > hellos;
   hellos.reserve( kNeighbors );
   for( int k = 0; k < kIntfs; ++k ) {
      for( int h = 0; h < kPerIntf; ++h ) hellos.push_back( helloFrom( addrOf( k, h + 2 ), 7 + h ) );
   }
   auto deliver = [ & ]( int i ) {
      vrf.rx->messageIs( hellos[ i ] );
      vrf.rx->intfIdIs( ids[ i / kPerIntf ] );
      vrf.rx->countInc( 1 );
      loop.runUntilIdle();
   };

   malloc_trim( 0 );
   const std::size_t heapBefore = heapInUse();
   std::printf( "new neighbours (one VRF, %d interfaces), rate per 10,000 as the table grows:\n", kIntfs );
   const double t0 = seconds();
   // Interleave interfaces so every interface's table grows together.
   std::vector< int > order;
   order.reserve( kNeighbors );
   for( int h = 0; h < kPerIntf; ++h ) {
      for( int k = 0; k < kIntfs; ++k ) order.push_back( k * kPerIntf + h );
   }
   double chunkStart = t0;
   for( int n = 0; n < kNeighbors; ++n ) {
      deliver( order[ n ] );
      if( ( n + 1 ) % 10000 == 0 ) {
         const double now = seconds();
         std::printf( "  %6d .. %6d: %10.0f new neighbours/s\n", n + 1 - 10000, n + 1, 10000 / ( now - chunkStart ) );
         chunkStart = now;
      }
   }
   const double tNew = seconds() - t0;
   std::size_t count = 0;
   vrf.allStatus->pimIntfForEach( [ & ]( const Lumo::IntfId &, const Kiv::Ptr< Intf > & i ) { count += i->activeNeighborSize(); } );
   if( count != std::size_t( kNeighbors ) ) {
      std::fprintf( stderr, "expected %d active neighbours, found %zu\n", kNeighbors, count );
      return 1;
   }
   const std::size_t heapAfter = heapInUse();
   std::printf( "new neighbours: %d in %.3f s = %.0f per second\n", kNeighbors, tNew, kNeighbors / tNew );
   std::printf( "heap per neighbour (entity, machine, reactors, timer, table slots): %.0f bytes\n",
                double( heapAfter - heapBefore ) / kNeighbors );

   // Refreshes: every neighbour again, a little later each round.
   const int rounds = 5;
   const double t1 = seconds();
   for( int r = 0; r < rounds; ++r ) {
      loop.clock().nowIs( loop.now() + 1.0 );
      for( int n = 0; n < kNeighbors; ++n ) deliver( order[ n ] );
   }
   const double tRef = seconds() - t1;
   std::printf( "refresh Hellos: %d in %.3f s = %.0f per second (one core)\n", rounds * kNeighbors, tRef,
                rounds * kNeighbors / tRef );

   // Sanity: the timers moved with the refreshes.
   auto intf = vrf.allStatus->pimIntf( ids[ 0 ] );
   auto nb = intf->neighbor( addrOf( 0, 2 ) );
   std::printf( "check: neighbour %s last refreshed at %.1f, hold %u\n", "198.18.0.2", nb->lastRefreshTime(), nb->holdTime() );
   return 0;
}

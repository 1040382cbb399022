// Work per neighbour when one interface holds many: learning N neighbours,
// expiring all of them in one tick, and disabling PIM on the interface
// (mode none, and removal of the interface), for
// N = 1,000, 16,384 and 65,535 (or the sizes given on the command line).
// Each figure is CPU time of this thread divided by N, on virtual time.
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

double seconds() {
   timespec ts;
   clock_gettime( CLOCK_THREAD_CPUTIME_ID, &ts );
   return double( ts.tv_sec ) + double( ts.tv_nsec ) * 1e-9;
}

// The interface is 198.18.0.1/15; neighbours count up from 198.18.0.2.
Lumo::IpGenAddr addrOf( int host ) {
   return Lumo::IpGenAddr::ipv4( ( ( 198u << 24 ) | ( 18u << 16 ) ) + std::uint32_t( host ) );
}

const Lumo::IntfId kIntf( "et1" );
constexpr std::uint16_t kHold = 105;

struct Vrf {
   Kiv::Ptr< AllStatus > allStatus = Kiv::make< AllStatus >( L3::VrfName( "default" ) );
   Kiv::Ptr< IO::MessageInfo > rx = Kiv::make< IO::MessageInfo >();
   IntfSmInputs in;
   Kiv::Ptr< GlobalIntfSm > global;
   Kiv::Ptr< HelloSm > hello;
   Kiv::Ptr< Intf > intf;

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
      in.routerIdInfo = Kiv::make< RouterIdInfo >( in.vrfName );
      global = GlobalIntfSmIs( allStatus, in );
      hello = HelloSmIs( allStatus, rx );
      intf = allStatus->pimIntfIs( kIntf, Lumo::IpGenAddrWithMask( addrOf( 1 ), 15 ) );
      intf->modeIs( pimModeSparse );
      // Far beyond the production defaults: the cost per neighbour is measured.
      intf->neighborLimitIs( 1u << 20 );
      allStatus->neighborLimitIs( 1u << 20 );
      loop.runUntilIdle();
   }
};

// Priorities and delays vary so that the DR and the maxima keep moving.
std::vector< Kiv::Ptr< Packet::HelloMessage > > hellosFor( int n ) {
   std::vector< Kiv::Ptr< Packet::HelloMessage > > hellos;
   hellos.reserve( std::size_t( n ) );
   for( int i = 0; i < n; ++i ) {
      auto h = Kiv::make< Packet::HelloMessage >();
      h->srcAddrIs( addrOf( i + 2 ) );
      h->holdTimePresentIs( true );
      h->holdTimeIs( kHold );
      h->drPriorityPresentIs( true );
      h->drPriorityIs( std::uint32_t( i % 7 ) );
      h->generationIdPresentIs( true );
      h->generationIdIs( std::uint32_t( 7 + i ) );
      h->lanPruneDelayPresentIs( true );
      h->propagationDelayIs( std::uint16_t( 500 + i % 1000 ) );
      h->overrideIntervalIs( std::uint16_t( 2500 + i % 3000 ) );
      hellos.push_back( h );
   }
   return hellos;
}

// Learns every neighbour, one Hello at a time, as the I/O service hands them over.
double learn( Kiv::Testing::TestLoop & loop, Vrf & vrf,
              const std::vector< Kiv::Ptr< Packet::HelloMessage > > & hellos ) {
   const double t0 = seconds();
   for( const auto & h : hellos ) {
      vrf.rx->messageIs( h );
      vrf.rx->intfIdIs( kIntf );
      vrf.rx->countInc( 1 );
      loop.runUntilIdle();
   }
   return seconds() - t0;
}

bool check( bool ok, const char * what, int n ) {
   if( !ok ) std::fprintf( stderr, "N=%d: %s\n", n, what );
   return ok;
}

struct Figures {
   double learn = 0;
   double expire = 0;
   bool ok = true;
};

// Learns n neighbours, then lets every one of them time out in the same tick.
void learnAndExpire( int n, const std::vector< Kiv::Ptr< Packet::HelloMessage > > & hellos, Figures & f ) {
   Kiv::Testing::TestLoop loop( 1000.0, 42 );
   Vrf vrf( loop );
   f.learn = learn( loop, vrf, hellos );
   f.ok = check( vrf.intf->activeNeighborSize() == std::size_t( n ), "not all neighbours learnt", n ) && f.ok;
   f.ok = check( loop.advanceTo( loop.now() + kHold - 0.5 ), "loop budget", n ) && f.ok;
   f.ok = check( vrf.intf->neighborSize() == std::size_t( n ), "neighbours left early", n ) && f.ok;
   const double t0 = seconds();
   f.ok = check( loop.advanceTo( loop.now() + 1.0 ), "loop budget", n ) && f.ok;
   f.expire = seconds() - t0;
   f.ok = check( vrf.intf->neighborSize() == 0, "neighbours left after expiry", n ) && f.ok;
   f.ok = check( vrf.intf->usedDr() == addrOf( 1 ), "DR not back on this router", n ) && f.ok;
}

// Learns n neighbours, then disables PIM on the interface. Mode none keeps
// the interface and drops its neighbours one by one (each through the full
// removal path); removing the interface, as the configuration does when PIM
// goes from it altogether, also drops the machine.
double learnAndDisable( int n, const std::vector< Kiv::Ptr< Packet::HelloMessage > > & hellos, bool remove,
                        bool & ok ) {
   Kiv::Testing::TestLoop loop( 1000.0, 42 );
   Vrf vrf( loop );
   learn( loop, vrf, hellos );
   const double t0 = seconds();
   if( remove ) {
      vrf.intf->enabledIs( false );
      vrf.allStatus->pimIntfDel( kIntf );
   } else {
      vrf.intf->modeIs( pimModeNone );
   }
   ok = check( loop.runUntilIdle( 100'000'000 ), "loop budget", n ) && ok;
   const double t = seconds() - t0;
   ok = check( vrf.intf->neighborSize() == 0, "neighbours left after disable", n ) && ok;
   ok = check( remove || vrf.intf->usedDr() == addrOf( 1 ), "DR not back on this router", n ) && ok;
   return t;
}

} // namespace

int main( int argc, char ** argv ) {
   std::vector< int > sizes = { 1000, 16384, 65535 };
   if( argc > 1 ) {
      sizes.clear();
      for( int i = 1; i < argc; ++i ) sizes.push_back( std::atoi( argv[ i ] ) );
   }
   std::printf( "%8s %10s %10s %10s %10s %13s\n", "N", "learn", "expire", "mode none", "remove",
                "expire/learn" );
   std::printf( "%8s %10s %10s %10s %10s\n", "", "us/nbr", "us/nbr", "us/nbr", "us/nbr" );
   bool ok = true;
   for( const int n : sizes ) {
      const auto hellos = hellosFor( n );
      Figures f;
      learnAndExpire( n, hellos, f );
      const double modeNone = learnAndDisable( n, hellos, false, f.ok );
      const double remove = learnAndDisable( n, hellos, true, f.ok );
      ok = ok && f.ok;
      std::printf( "%8d %10.2f %10.2f %10.2f %10.2f %13.2f\n", n, f.learn / n * 1e6, f.expire / n * 1e6,
                   modeNone / n * 1e6, remove / n * 1e6, f.expire / f.learn );
      std::fflush( stdout );
   }
   return ok ? 0 : 1;
}

// Two pimnbrd processes in network namespaces on one LAN (veth legs on a
// bridge in a switch namespace), watched only through pimnbr against each
// daemon's state directory: neighbours form, the DR follows priority, a
// reload changes the DR without dropping the neighbour and a broken file
// changes nothing, a stop says goodbye at once, a killed daemon expires
// after its hold time; a supervisor hears READY, RELOADING and STOPPING; the
// unit file passes systemd's check. Every wait is a bounded poll.
#include "NetnsDaemonFixture.h"

namespace {

using namespace PimnbrdNetns;

constexpr auto kFormWithin = std::chrono::milliseconds( 2000 );

TEST_F( DaemonNetnsTest, Ipv4NeighboursDrReloadAndGoodbye ) {
   Daemon * a = router( "a", "198.18.0.1/24", "2001:db8::1/64" );
   Daemon * b = router( "b", "198.18.0.2/24", "2001:db8::2/64" );
   ASSERT_TRUE( a && b );
   // The lower address has the higher priority: only priority makes it DR.
   a->configIs( configText( a->intf(), "ipv4", 9 ) );
   b->configIs( configText( b->intf(), "ipv4", 1 ) );
   NotifyListener aSupervisor( dir_ + "/notify-a" ), bSupervisor( dir_ + "/notify-b" );
   ASSERT_TRUE( aSupervisor.valid() && bSupervisor.valid() );
   ASSERT_TRUE( a->start( &aSupervisor ) && b->start( &bSupervisor ) );
   EXPECT_TRUE( pollFor( [ & ] { return a->hasNeighbor( "ip", "198.18.0.2" ) && b->hasNeighbor( "ip", "198.18.0.1" ); },
                         kFormWithin ) )
      << "neighbours within 2 s at hello-interval 1";
   EXPECT_TRUE( pollFor( [ & ] { return a->dr( "ip" ) == "198.18.0.1" && b->dr( "ip" ) == "198.18.0.1"; },
                         std::chrono::milliseconds( 1000 ) ) )
      << "a: " << a->dr( "ip" ) << ", b: " << b->dr( "ip" );
   EXPECT_TRUE( aSupervisor.waitFor( "READY=1", std::chrono::milliseconds( 500 ) ) );
   EXPECT_TRUE( bSupervisor.waitFor( "READY=1", std::chrono::milliseconds( 500 ) ) );

   // A file that does not parse changes nothing. Each reload is bracketed
   // for the supervisor; waiting for its end keeps the two signals apart.
   b->configIs( "vrfs: [\n" );
   b->signal( SIGHUP );
   EXPECT_TRUE( bSupervisor.waitFor( "RELOADING=1", std::chrono::milliseconds( 500 ) ) );
   EXPECT_TRUE( bSupervisor.waitFor( "READY=1", std::chrono::milliseconds( 500 ) ) );
   EXPECT_EQ( b->dr( "ip" ), "198.18.0.1" );
   // A new priority moves the DR; the neighbour stays up all along.
   b->configIs( configText( b->intf(), "ipv4", 20 ) );
   b->signal( SIGHUP );
   bool keptNeighbour = true;
   EXPECT_TRUE( pollFor(
      [ & ] {
         keptNeighbour = keptNeighbour && a->hasNeighbor( "ip", "198.18.0.2" );
         return a->dr( "ip" ) == "198.18.0.2" && b->dr( "ip" ) == "198.18.0.2";
      },
      std::chrono::milliseconds( 2000 ) ) )
      << "a: " << a->dr( "ip" ) << ", b: " << b->dr( "ip" );
   EXPECT_TRUE( keptNeighbour );
   EXPECT_TRUE( bSupervisor.waitFor( "READY=1", std::chrono::milliseconds( 500 ) ) );

   // A stop says goodbye: b forgets a at once, long before the hold time.
   const auto t0 = Clock::now();
   a->signal( SIGTERM );
   EXPECT_EQ( a->exited( std::chrono::milliseconds( 1000 ) ), 0 ) << "exit 0 within 1 s";
   EXPECT_TRUE( aSupervisor.waitFor( "STOPPING=1", std::chrono::milliseconds( 100 ) ) );
   EXPECT_TRUE( pollFor( [ & ] { return !b->hasNeighbor( "ip", "198.18.0.1" ); }, std::chrono::milliseconds( 1000 ) ) );
   EXPECT_LT( Clock::now() - t0, std::chrono::milliseconds( 1500 ) );
}

// The unit file with the built binary and plug-in in place of the installed
// paths: systemd's own check has nothing to say about it.
TEST( PimnbrdUnit, PassesSystemdVerify ) {
   if( std::system( "command -v systemd-analyze >/dev/null 2>&1" ) != 0 ) {
      GTEST_SKIP() << "systemd-analyze is not installed (scripts/setup.sh installs systemd)";
   }
   char tmpl[] = "/tmp/pimnbrd-unit-XXXXXX";
   ASSERT_TRUE( ::mkdtemp( tmpl ) );
   const std::string dir = tmpl, unit = dir + "/pimnbrd.service";
   const std::string cmd = std::string( "sed -e 's|/usr/local/sbin/pimnbrd|" ) + PIMNBRD_BINARY +
                           "|g' -e 's|/usr/local/lib/pimnbrd/libpimagent.so|" + PIMNBRD_PLUGIN + "|' '" +
                           PIMNBRD_UNIT + "' > '" + unit + "' && systemd-analyze verify '" + unit + "' 2>&1";
   FILE * p = ::popen( cmd.c_str(), "r" );
   ASSERT_TRUE( p );
   std::string out;
   char buf[ 512 ];
   while( std::fgets( buf, sizeof buf, p ) ) out += buf;
   const int status = ::pclose( p );
   NetnsLab::sh( "rm -rf '" + dir + "'" );
   EXPECT_EQ( status, 0 ) << out;
   EXPECT_EQ( out, "" );
}

TEST_F( DaemonNetnsTest, LinkDownDropsTheNeighbourAndUpBringsItBack ) {
   Daemon * a = router( "a", "198.18.2.1/24", "2001:db8:2::1/64" );
   Daemon * b = router( "b", "198.18.2.2/24", "2001:db8:2::2/64" );
   ASSERT_TRUE( a && b );
   a->configIs( configText( a->intf(), "ipv4", 1 ) );
   b->configIs( configText( b->intf(), "ipv4", 1 ) );
   ASSERT_TRUE( a->start() && b->start() );
   ASSERT_TRUE( pollFor( [ & ] { return a->hasNeighbor( "ip", "198.18.2.2" ) && b->hasNeighbor( "ip", "198.18.2.1" ); },
                         kFormWithin ) );
   // a's leg on the switch goes down: a's interface loses carrier.
   ASSERT_TRUE( NetnsLab::sh( "ip -n " + sw_ + " link set sa down" ) );
   EXPECT_TRUE( pollFor( [ & ] { return !a->hasNeighbor( "ip", "198.18.2.2" ); }, std::chrono::milliseconds( 1000 ) ) )
      << "a's neighbours go with its interface";
   ASSERT_TRUE( NetnsLab::sh( "ip -n " + sw_ + " link set sa up" ) );
   EXPECT_TRUE( pollFor( [ & ] { return a->hasNeighbor( "ip", "198.18.2.2" ) && b->hasNeighbor( "ip", "198.18.2.1" ); },
                         kFormWithin ) );
}

// The daemon in one namespace runs VRF "red" in another; a reload that drops
// the VRF says goodbye from it, one that brings it back finds it again.
TEST_F( DaemonNetnsTest, VrfNamespaceComesAndGoesWithReloads ) {
   Daemon * red = router( "r", "198.18.3.1/24", "2001:db8:3::1/64" );   // no daemon of its own
   Daemon * peer = router( "p", "198.18.3.2/24", "2001:db8:3::2/64" );
   const std::string home = lab_.add( "h" );
   ASSERT_TRUE( red && peer && !home.empty() );
   daemons_.push_back( std::make_unique< Daemon >( home, red->intf(), dir_ ) );
   Daemon * host = daemons_.back().get();
   const std::string withRed = "vrfs:\n  default:\n    pim: true\n  red:\n    namespace: " + red->netns() +
                               "\n    interfaces:\n      " + red->intf() + ":\n        hello-interval: 1\n";
   host->configIs( withRed );
   peer->configIs( configText( peer->intf(), "ipv4", 1 ) );
   NotifyListener supervisor( dir_ + "/notify-h" );
   ASSERT_TRUE( supervisor.valid() );
   ASSERT_TRUE( host->start( &supervisor ) && peer->start() );
   auto hostSeesPeer = [ & ] {
      const Json j = host->show( "ip", "vrf red neighbor" );
      return j.is_object() && j.contains( red->intf() ) && j[ red->intf() ].contains( "198.18.3.2" );
   };
   ASSERT_TRUE( pollFor( [ & ] { return hostSeesPeer() && peer->hasNeighbor( "ip", "198.18.3.1" ); }, kFormWithin ) );

   ASSERT_TRUE( supervisor.waitFor( "READY=1", std::chrono::milliseconds( 500 ) ) );
   host->configIs( "vrfs:\n  default:\n    pim: true\n" );
   host->signal( SIGHUP );
   EXPECT_TRUE( pollFor( [ & ] { return !peer->hasNeighbor( "ip", "198.18.3.1" ); }, std::chrono::milliseconds( 1000 ) ) )
      << "goodbye from the dropped VRF";
   ASSERT_TRUE( supervisor.waitFor( "READY=1", std::chrono::milliseconds( 500 ) ) );
   host->configIs( withRed );
   host->signal( SIGHUP );
   EXPECT_TRUE( pollFor( [ & ] { return hostSeesPeer() && peer->hasNeighbor( "ip", "198.18.3.1" ); }, kFormWithin ) );
}

TEST_F( DaemonNetnsTest, Ipv6NeighboursAndExpiryAfterKill ) {
   Daemon * a = router( "a", "198.18.1.1/24", "2001:db8:1::1/64" );
   Daemon * b = router( "b", "198.18.1.2/24", "2001:db8:1::2/64" );
   ASSERT_TRUE( a && b );
   a->configIs( configText( a->intf(), "ipv6", 1 ) );
   b->configIs( configText( b->intf(), "ipv6", 1 ) );
   ASSERT_TRUE( a->start() && b->start() );
   // Neighbours are known by their link-local addresses; any will do.
   auto hasAny = [ & ]( Daemon * d ) {
      const Json j = d->show( "ipv6", "neighbor" );
      return j.is_object() && j.contains( d->intf() ) && !j[ d->intf() ].empty();
   };
   ASSERT_TRUE( pollFor( [ & ] { return hasAny( a ) && hasAny( b ); }, kFormWithin ) );

   // Killed, b sends nothing: a keeps it until its hold time (3 s) has run
   // from the last Hello, which came at most an interval before the kill.
   const auto t0 = Clock::now();
   b->signal( SIGKILL );
   EXPECT_FALSE( pollFor( [ & ] { return !hasAny( a ); }, std::chrono::milliseconds( 1500 ) ) )
      << "gone before the hold time";
   EXPECT_TRUE( pollFor( [ & ] { return !hasAny( a ); }, std::chrono::milliseconds( 2500 ) ) );
   EXPECT_LT( Clock::now() - t0, std::chrono::milliseconds( 3800 ) );
}

} // namespace

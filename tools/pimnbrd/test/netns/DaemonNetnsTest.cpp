// pimnbrd processes in network namespaces on one LAN (veth legs on a bridge
// in a switch namespace), watched only through pimnbr against each daemon's
// state directory; every wait is a bounded poll. The DR among three routers,
// by priority and then address, is FrrInteropTest's (IPv4) and the DR
// election scenarios' (both families).
#include "NetnsDaemonFixture.h"

namespace {

using namespace PimnbrdNetns;

constexpr auto kFormWithin = std::chrono::milliseconds( 2000 );

// a starts as a standby: it sends and hears nothing. Made active by a reload
// it forms its neighbour in both families, advertises its configured LAN
// prune delay and, by priority only (its address is the lower), is DR. A
// file of b's that does not parse changes nothing; a new priority moves the
// DR without dropping the neighbour. a's fast upgrade then puts the
// stretched hold time on the wire, and b keeps a after it has gone. b's
// supervisor hears READY, RELOADING and STOPPING. That the others forget a
// stopped daemon at once (its goodbye) is FrrInteropTest's, for ours and
// FRR's routers alike.
TEST_F( DaemonNetnsTest, StandbyActiveReloadsFastUpgradeAndStop ) {
   Daemon * a = router( "a", "198.18.0.1/24", "2001:db8::1/64" );
   Daemon * b = router( "b", "198.18.0.2/24", "2001:db8::2/64" );
   ASSERT_TRUE( a && b );
   const std::string active = configText( a->intf(), "ipv4, ipv6", 9 ) +
                              "        propagation-delay: 750\n        override-interval: 3000\n";
   a->configIs( "redundancy: standby\n" + active );
   b->configIs( configText( b->intf(), "ipv4, ipv6", 1 ) );
   NotifyListener supervisor( dir_ + "/notify-b" );
   ASSERT_TRUE( supervisor.valid() );
   ASSERT_TRUE( a->start() && b->start( &supervisor ) );
   EXPECT_TRUE( supervisor.waitFor( "READY=1", std::chrono::milliseconds( 500 ) ) );
   // An active daemon would be seen within an interval or so.
   EXPECT_FALSE( pollFor( [ & ] { return b->hasNeighbor( "ip", "198.18.0.1" ) || a->hasNeighbor( "ip", "198.18.0.2" ); },
                          std::chrono::milliseconds( 1500 ) ) );
   a->configIs( active );
   a->signal( SIGHUP );
   std::string a6;
   EXPECT_TRUE( pollFor(
      [ & ] {
         a6 = a->intfField( "ipv6", "address" );
         return b->hasNeighbor( "ip", "198.18.0.1" ) && a->hasNeighbor( "ip", "198.18.0.2" ) && b->hasNeighbor( "ipv6", a6 );
      },
      kFormWithin ) )
      << "neighbours within 2 s at hello-interval 1";
   EXPECT_TRUE( pollFor( [ & ] { return a->dr( "ip" ) == "198.18.0.1" && b->dr( "ip" ) == "198.18.0.1"; },
                         std::chrono::milliseconds( 1000 ) ) )
      << "a: " << a->dr( "ip" ) << ", b: " << b->dr( "ip" );
   // A field of a as b lists it in "show <family> pim <what> json".
   auto field = [ & ]( const char * family, const std::string & what, const std::string & addr, const char * f ) {
      const Json j = b->show( family, what );
      const bool has = j.is_object() && j.contains( b->intf() ) && j[ b->intf() ].contains( addr );
      return has ? j[ b->intf() ][ addr ].value( f, Json() ) : Json();
   };
   EXPECT_EQ( field( "ip", "neighbor 198.18.0.1", "198.18.0.1", "propagationDelay" ), Json( 750 ) );
   EXPECT_EQ( field( "ip", "neighbor 198.18.0.1", "198.18.0.1", "overrideInterval" ), Json( 3000 ) );

   // Each reload is bracketed for the supervisor; waiting for its end keeps
   // the two signals apart.
   b->configIs( "vrfs: [\n" );
   b->signal( SIGHUP );
   EXPECT_TRUE( supervisor.waitFor( "RELOADING=1", std::chrono::milliseconds( 500 ) ) );
   EXPECT_TRUE( supervisor.waitFor( "READY=1", std::chrono::milliseconds( 500 ) ) );
   EXPECT_EQ( b->dr( "ip" ), "198.18.0.1" );
   b->configIs( configText( b->intf(), "ipv4, ipv6", 20 ) );
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
   EXPECT_TRUE( supervisor.waitFor( "READY=1", std::chrono::milliseconds( 500 ) ) );

   a->signal( SIGUSR1 );
   EXPECT_TRUE( pollFor(
      [ & ] {
         return field( "ip", "neighbor", "198.18.0.1", "holdTimeMax" ) == Json( 420 ) &&
                field( "ipv6", "neighbor", a6, "holdTimeMax" ) == Json( 420 );
      },
      std::chrono::milliseconds( 1000 ) ) );
   // Both families finish their notify delay (5 s) together.
   EXPECT_EQ( a->exited( std::chrono::milliseconds( 7000 ) ), 0 );
   // Long past the 3 s that a advertised before.
   EXPECT_TRUE( b->hasNeighbor( "ip", "198.18.0.1" ) && b->hasNeighbor( "ipv6", a6 ) );

   b->signal( SIGTERM );
   EXPECT_EQ( b->exited( std::chrono::milliseconds( 1000 ) ), 0 ) << "exit 0 within 1 s";
   EXPECT_TRUE( supervisor.waitFor( "STOPPING=1", std::chrono::milliseconds( 100 ) ) );
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
   const std::string out = NetnsLab::output(
      std::string( "sed -e 's|/usr/local/sbin/pimnbrd|" ) + PIMNBRD_BINARY +
      "|g' -e 's|/usr/local/lib/pimnbrd/libpimagent.so|" + PIMNBRD_PLUGIN + "|' '" + PIMNBRD_UNIT + "' > '" + unit +
      "' && systemd-analyze verify '" + unit + "' 2>&1; echo exit $?" );
   NetnsLab::sh( "rm -rf '" + dir + "'" );
   EXPECT_EQ( out, "exit 0\n" );
}

// a's VRF red is a namespace made only after a started (no reload), on
// another bridge, with the very addresses of a's default VRF: it is picked
// up when it appears, and each VRF sees only its own LAN. A reload that
// drops the VRF says goodbye from it, one that brings it back finds it again.
TEST_F( DaemonNetnsTest, LateVrfNamespaceKeepsItsNeighboursAndGoesAndComesWithReloads ) {
   Daemon * a = router( "a", "198.18.6.1/24", "2001:db8:6::1/64" );
   Daemon * b = router( "b", "198.18.6.2/24", "2001:db8:6::2/64" );
   ASSERT_TRUE( NetnsLab::sh( "ip -n " + sw_ + " link add br1 type bridge && ip -n " + sw_ + " link set br1 up" ) );
   Daemon * c = router( "c", "198.18.6.3/24", "2001:db8:6::3/64", "br1" );
   ASSERT_TRUE( a && b && c );
   // The lab's names share the switch's prefix.
   const std::string red = sw_.substr( 0, sw_.size() - 2 ) + "ar";
   const std::string withoutRed = "address-families: [ipv4, ipv6]\nvrfs:\n  default:\n    interfaces:\n      " +
                                  a->intf() + ": {hello-interval: 1}\n";
   const std::string withRed =
      withoutRed + "  red:\n    namespace: " + red + "\n    interfaces:\n      ear: {hello-interval: 1}\n";
   a->configIs( withRed );
   b->configIs( configText( b->intf(), "ipv4, ipv6", 1 ) );
   c->configIs( configText( c->intf(), "ipv4, ipv6", 1 ) );
   NotifyListener supervisor( dir_ + "/notify-a" );
   ASSERT_TRUE( supervisor.valid() );
   ASSERT_TRUE( a->start( &supervisor ) && b->start() && c->start() );
   ASSERT_TRUE( supervisor.waitFor( "READY=1", std::chrono::milliseconds( 2000 ) ) );
   const Daemon * redLeg = router( "ar", "198.18.6.1/24", "2001:db8:6::1/64", "br1" );   // no daemon of its own
   ASSERT_TRUE( redLeg && redLeg->netns() == red );
   struct Want {
      const Daemon * d;
      std::string intf;
      const char * what;
      std::set< std::string > v4;
   };
   const Want wants[] = {
      { a, a->intf(), "neighbor", { "198.18.6.2" } },
      { a, "ear", "vrf red neighbor", { "198.18.6.3" } },
      { b, b->intf(), "neighbor", { "198.18.6.1" } },
      { c, c->intf(), "neighbor", { "198.18.6.1" } },
   };
   auto asWanted = [ & ] {
      for( const Want & w : wants ) {
         if( w.d->neighbours( "ip", w.what, w.intf ) != w.v4 || w.d->neighbours( "ipv6", w.what, w.intf ).size() != 1 ) {
            return false;
         }
      }
      return true;
   };
   EXPECT_TRUE( pollFor( asWanted, kFormWithin ) );
   // Another interval or so: still nothing has crossed over.
   EXPECT_FALSE( pollFor( [ & ] { return !asWanted(); }, std::chrono::milliseconds( 1000 ) ) );

   a->configIs( withoutRed );
   a->signal( SIGHUP );
   EXPECT_TRUE( pollFor( [ & ] { return c->neighbours( "ip" ).empty(); }, std::chrono::milliseconds( 1000 ) ) )
      << "goodbye from the dropped VRF";
   ASSERT_TRUE( supervisor.waitFor( "READY=1", std::chrono::milliseconds( 500 ) ) );
   a->configIs( withRed );
   a->signal( SIGHUP );
   EXPECT_TRUE( pollFor( asWanted, kFormWithin ) );
}

// A link going down drops the neighbours, up brings them back; a's primary
// address goes and a secondary takes its place: the goodbye from the old
// address drops it on b at once (expiry would take the 3 s hold time), and
// the new one comes up; a killed peer expires after its hold time. IPv6
// neighbours are known by their link-local addresses; any will do.
TEST_F( DaemonNetnsTest, LinkDownAndUpAddressChangeThenExpiryAfterKill ) {
   Daemon * a = router( "a", "198.18.1.1/24", "2001:db8:1::1/64" );
   Daemon * b = router( "b", "198.18.1.2/24", "2001:db8:1::2/64" );
   ASSERT_TRUE( a && b );
   a->configIs( configText( a->intf(), "ipv4, ipv6", 1 ) );
   b->configIs( configText( b->intf(), "ipv4, ipv6", 1 ) );
   ASSERT_TRUE( a->start() && b->start() );
   auto hasAny = [ & ]( Daemon * d ) { return !d->neighbours( "ipv6" ).empty(); };
   auto formed4 = [ & ] { return a->hasNeighbor( "ip", "198.18.1.2" ) && b->hasNeighbor( "ip", "198.18.1.1" ); };
   ASSERT_TRUE( pollFor( [ & ] { return formed4() && hasAny( a ) && hasAny( b ); }, kFormWithin ) );
   // a's leg on the switch goes down: a's interface loses carrier.
   ASSERT_TRUE( NetnsLab::sh( "ip -n " + sw_ + " link set sa down" ) );
   EXPECT_TRUE( pollFor( [ & ] { return !a->hasNeighbor( "ip", "198.18.1.2" ); }, std::chrono::milliseconds( 1000 ) ) )
      << "a's neighbours go with its interface";
   ASSERT_TRUE( NetnsLab::sh( "ip -n " + sw_ + " link set sa up" ) );
   EXPECT_TRUE( pollFor( formed4, kFormWithin ) );
   // The link-local address comes back after its duplicate detection.
   ASSERT_TRUE( pollFor( [ & ] { return hasAny( a ) && hasAny( b ); }, std::chrono::milliseconds( 5000 ) ) );

   const std::string addr = "ip -n " + a->netns() + " addr ";
   ASSERT_TRUE( NetnsLab::sh( "ip netns exec " + a->netns() + " sysctl -qw net.ipv4.conf." + a->intf() +
                              ".promote_secondaries=1" ) );
   ASSERT_TRUE( NetnsLab::sh( addr + "add 198.18.1.11/24 dev " + a->intf() ) );
   ASSERT_TRUE( NetnsLab::sh( addr + "del 198.18.1.1/24 dev " + a->intf() ) );
   EXPECT_TRUE( pollFor( [ & ] { return !b->hasNeighbor( "ip", "198.18.1.1" ); }, std::chrono::milliseconds( 1000 ) ) );
   EXPECT_TRUE( pollFor( [ & ] { return b->hasNeighbor( "ip", "198.18.1.11" ); }, kFormWithin ) );
   EXPECT_EQ( a->neighbours( "ip" ), std::set< std::string >{ "198.18.1.2" } );

   // Killed, b sends nothing: a keeps it until its hold time (3 s) has run
   // from the last Hello, which came at most an interval before the kill.
   const auto t0 = Clock::now();
   b->signal( SIGKILL );
   // The hold time itself is timed in release builds only: stretched waits
   // would outlast it.
   if( kSlowdown == 1 ) {
      EXPECT_FALSE( pollFor( [ & ] { return !hasAny( a ); }, std::chrono::milliseconds( 1500 ) ) )
         << "gone before the hold time";
   }
   EXPECT_TRUE( pollFor( [ & ] { return !hasAny( a ); }, std::chrono::milliseconds( 2500 ) ) );
   EXPECT_LT( Clock::now() - t0, std::chrono::milliseconds( 3800 ) * kSlowdown );
}

} // namespace

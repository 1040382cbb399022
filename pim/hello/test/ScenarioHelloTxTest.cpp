// Hellos this router sends: the start-up and periodic Hellos with every
// option, triggered Hellos and their random delays, goodbyes, the address
// change pair, reactions to hold time, period, delay, mode and secondary
// address changes, and which triggered Hellos are counted.
#include <cmath>
#include <functional>
#include <optional>

#include "EngineFixture.h"

namespace PimScenario {
namespace {

TEST( ScenarioHelloTx, StartupHelloAfterThePinnedDelayThenPeriodicHellosWithoutJitter ) {
   EngineFixture f;
   const IntfParams p{ .drPriority = 20, .propagationDelay = 700, .overrideInterval = 3100, .tBit = true,
                       .secondary = { ip( "198.18.0.201" ), ip( "198.18.0.202" ) } };
   f.random().push( { drawForTenths( 5 ) } );
   auto intf = f.addIntf( eth1, "198.18.0.1/24", p );
   EXPECT_TRUE( intf->triggeredHello() );
   f.advanceTo( std::nextafter( f.t0() + 0.5, 0.0 ) );
   EXPECT_TRUE( f.sent().empty() );
   f.at( 95.0 );
   // The start-up Hello, then one every 30 s counted from the start.
   const double times[] = { 0.5, 30.0, 60.0, 90.0 };
   ASSERT_EQ( f.sent().size(), 4u );
   for( int k = 0; k < 4; ++k ) {
      EXPECT_EQ( f.sent()[ k ].time, f.t0() + times[ k ] );
      expectFullHello( f.sent()[ k ], *intf, 20 );
   }
   EXPECT_EQ( intf->lastHelloTime(), f.t0() + 90.0 );
   EXPECT_FALSE( intf->triggeredHello() );
   EXPECT_EQ( intf->triggeredHelloCount(), 0u );
}

// One new neighbour a case: its triggered Hello waits a tenth-second step
// between 0.1 s and the Hello delay `from` (the draw modulo 10 x the delay).
// Setting the delay to another `to` after `after` s re-arms it with its own
// draw, in whole seconds below the new delay; delay 0 sends at once.
TEST( ScenarioHelloTx, TriggeredDelayIsATenthStepAndADelayChangeReArmsItInWholeSeconds ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24", { .helloPeriod = 300 } );
   const struct {
      std::uint16_t from;
      std::uint32_t draw;
      double after;
      std::uint16_t to;
      std::uint32_t redraw;
      double sentAt;
   } cases[] = {
      { 1, 0, 0, 1, 0, 0.1 }, { 1, 1, 0, 1, 0, 0.2 }, { 1, 4, 0, 1, 0, 0.5 }, { 1, 8, 0, 1, 0, 0.9 },
      { 1, 9, 0, 1, 0, 1.0 }, { 3, 29, 0, 3, 0, 3.0 }, { 3, 12, 0, 3, 0, 1.3 }, { 3, 30, 0, 3, 0, 0.1 },
      { 3, 0, 0, 3, 0, 0.1 },
      { 5, 49, 1, 4, 7, 4.0 },   // pending for 5.0 s; after 1 s, 7 mod 4 = 3 s more
      { 4, 10, 0, 1, 0, 0.0 },   // pending for 1.1 s; re-armed at 0 s
      { 4, 5, 0, 0, 0, 0.0 },
   };
   int n = 10;
   for( const auto & c : cases ) {
      SCOPED_TRACE( testing::Message() << "delay " << c.from << " draw " << c.draw << " then " << c.to );
      intf->helloDelayIs( c.from );
      f.runUntilIdle();
      f.clearSent();
      f.random().push( { c.draw } );
      f.receive( eth1, hello( "198.18.0." + std::to_string( n++ ) ) );
      const double start = f.now();
      f.advanceBy( c.after );
      if( c.to != c.from && c.to ) f.random().push( { c.redraw } );
      intf->helloDelayIs( c.to );
      f.runUntilIdle();
      f.advanceBy( 4.0 );
      ASSERT_EQ( f.sent().size(), 1u );
      EXPECT_NEAR( f.sent()[ 0 ].time - start, c.sentAt, 1e-6 );
   }
   EXPECT_EQ( intf->triggeredHelloCount(), 12u );
}

// Each change at its time; the periodic Hellos before it carry the state
// before it. A hold time, period or own secondary address change sends the
// whole Hello at once (only the first two restart the period); a mode change
// sends nothing, and mode none forgets the neighbours. The first Hello also
// covers the new neighbour's triggered Hello, still pending, and counts it.
TEST( ScenarioHelloTx, ChangesSendAtOnceOrWaitForThePeriodicHello ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24", { .secondary = { ip( "198.18.0.201" ) } } );
   intf->helloDelayIs( 40 );
   f.random().push( { 399 } );   // 40.0 s: later than the first change
   f.receive( eth1, hello( "198.18.0.2" ) );
   const struct {
      double at;
      std::function< void() > change;
      std::vector< double > periodic;   // since the previous step
      bool atOnce;
      std::uint32_t neighbors;
   } steps[] = {
      { 10, [ & ] { intf->helloHoldTimeIs( 200 ); }, {}, true, 1 },   // none at the old +30
      { 45, [ & ] { intf->secondaryAddressIs( ip( "198.18.0.210" ), true ); }, { 40 }, true, 1 },
      { 50, [ & ] { intf->helloPeriodIs( 10 ); }, {}, true, 1 },
      { 55, [ & ] { intf->secondaryAddressDel( ip( "198.18.0.201" ) ); }, {}, true, 1 },
      { 62, [ & ] { intf->modeIs( pimModeSparseBidir ); }, { 60 }, false, 1 },
      { 71, [ & ] { intf->modeIs( pimModeNone ); }, { 70 }, false, 0 },
   };
   for( const auto & s : steps ) {
      SCOPED_TRACE( s.at );
      f.clearSent();
      f.at( s.at );
      ASSERT_EQ( f.sent().size(), s.periodic.size() );
      for( std::size_t k = 0; k < s.periodic.size(); ++k ) {
         EXPECT_EQ( f.sent()[ k ].time, f.t0() + s.periodic[ k ] );
         expectFullHello( f.sent()[ k ], *intf, 1 );
      }
      f.clearSent();
      s.change();
      f.runUntilIdle();
      ASSERT_EQ( f.sent().size(), s.atOnce ? 1u : 0u );
      if( s.atOnce ) expectFullHello( f.sent()[ 0 ], *intf, 1 );
      EXPECT_EQ( intf->neighborSize() + intf->activeNeighborSize(), 2 * s.neighbors );
   }
   EXPECT_EQ( intf->triggeredHelloCount(), 1u );
}

// An address change sends a goodbye from the old address, then the Hello
// from the new one; disabling sends only the goodbye (hold time, bidir flag
// where the mode needs it, Interface ID) and forgets every neighbour.
TEST( ScenarioHelloTx, AddressChangeAndDisablingSendGoodbyes ) {
   EngineFixture f;
   Bridging::MacAddr mac;
   mac.bytes = { 0x02, 0x00, 0x5e, 0x10, 0x20, 0x30 };
   f.vrf.routerIdIs( mac );
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   auto bidir = f.startIntf( eth2, "198.18.1.1/24",
                             { .mode = pimModeSparseBidir, .secondary = { ip( "198.18.1.200" ) }, .ifIndex = 12 } );
   f.receive( eth1, hello( "198.18.0.3" ).dr( 1 ) );
   f.receive( eth1, hello( "198.18.0.5" ).dr( 1 ) );
   f.receive( eth2, hello( "198.18.1.2" ).bidirCapable() );
   f.advanceBy( 2.0 );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.5" ) );
   f.clearSent();

   // The new address is a neighbour's: that neighbour is dropped.
   intf->addressWithMaskIs( ipm( "198.18.0.3/24" ) );
   f.runUntilIdle();
   ASSERT_EQ( f.sent().size(), 2u );
   expectGoodbye( f.sent()[ 0 ], *intf, ip( "198.18.0.1" ) );
   expectFullHello( f.sent()[ 1 ], *intf, 1 );
   EXPECT_EQ( f.sent()[ 1 ]->srcAddr(), ip( "198.18.0.3" ) );
   EXPECT_FALSE( f.neighbor( eth1, "198.18.0.3" ) || f.active( eth1, "198.18.0.3" ) );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.5" ) );

   // A higher own address takes the DR role at once.
   f.clearSent();
   intf->addressWithMaskIs( ipm( "198.18.0.200/24" ) );
   f.runUntilIdle();
   ASSERT_EQ( f.sent().size(), 2u );
   expectGoodbye( f.sent()[ 0 ], *intf, ip( "198.18.0.3" ) );
   EXPECT_EQ( f.sent()[ 1 ]->srcAddr(), ip( "198.18.0.200" ) );
   EXPECT_TRUE( intf->iAmDr() );

   f.advanceBy( 2.0 );
   f.clearSent();
   intf->enabledIs( false );
   f.runUntilIdle();
   EXPECT_EQ( intf->neighborSize() + intf->activeNeighborSize(), 0u );
   EXPECT_EQ( bidir->neighborSize(), 1u );
   bidir->enabledIs( false );
   f.runUntilIdle();
   EXPECT_EQ( bidir->neighborSize(), 0u );
   ASSERT_EQ( f.sent().size(), 2u );
   expectGoodbye( f.sent()[ 0 ], *intf, ip( "198.18.0.200" ) );
   expectGoodbye( f.sent()[ 1 ], *bidir, ip( "198.18.1.1" ) );
   EXPECT_EQ( f.sent()[ 0 ]->interfaceIdRouterId(), 0x5E102030u );
   EXPECT_EQ( f.sent()[ 0 ]->interfaceIdIfIndex(), 11u );
}

// The connection address rides in every Hello, goodbyes included, while the
// interface has the capability and the VRF a specified address; the
// capability appearing makes a triggered Hello, not a counted one.
TEST( ScenarioHelloTx, ConnectionAddressIsAdvertisedOnlyWithTheCapabilityAndASpecifiedAddress ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   const L3::VrfName vrf( "default" );
   const auto connection = [ & ]( const char * a ) {
      f.vrf.globalStatus->portStatusIs( vrf )->pimsmSctpConnectionIdIs( ip( a ) );
   };
   connection( "198.18.0.77" );
   const struct {
      const char * what;
      std::function< void() > change;
      std::optional< Lumo::IpGenAddr > sent;
   } steps[] = {
      { "no capability", [ & ] { intf->helloHoldTimeIs( 100 ); }, std::nullopt },
      { "capability", [ & ] { intf->portCapabilityFlagsIs( Reliable::kCapabilitySctp ); }, ip( "198.18.0.77" ) },
      { "unspecified", [ & ] { connection( "0.0.0.0" ), intf->helloHoldTimeIs( 105 ); }, std::nullopt },
      { "no entry", [ & ] { f.vrf.globalStatus->portStatusDel( vrf ), intf->helloHoldTimeIs( 100 ); }, std::nullopt },
      { "goodbye", [ & ] { connection( "198.18.0.78" ), intf->enabledIs( false ); }, ip( "198.18.0.78" ) },
   };
   for( const auto & s : steps ) {
      SCOPED_TRACE( s.what );
      f.clearSent();
      f.random().push( { drawForTenths( 2 ) } );   // only the triggered Hello draws
      s.change();
      f.runUntilIdle();
      f.advanceBy( 0.2 );
      ASSERT_EQ( f.sent().size(), 1u );
      const SentHello & h = f.sent()[ 0 ];
      EXPECT_EQ( h->connectionAddrPresent() ? std::optional( h->connectionAddr() ) : std::nullopt, s.sent );
   }
   expectGoodbye( f.sent()[ 0 ], *intf, ip( "198.18.0.1" ) );
   EXPECT_EQ( intf->triggeredHelloCount(), 0u );
}

// Each change, the Hellos it makes go out within 2 s (the start-up one is
// gone), and the count of neighbour-event Hellos after it.
TEST( ScenarioHelloTx, OnlyNeighborEventHellosAreCounted ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   auto from2 = [ & ]( const HelloBuilder & h ) { return [ &f, h ] { f.receive( eth1, h ); }; };
   const struct {
      const char * what;
      std::function< void() > change;
      std::size_t sent;
      std::uint32_t counted;
   } steps[] = {
      { "a new neighbour", from2( hello( "198.18.0.2" ).genId( 100 ).dr( 1 ) ), 1, 1 },
      { "a plain refresh", from2( hello( "198.18.0.2" ).genId( 100 ).dr( 1 ) ), 0, 1 },
      { "a new generation id", from2( hello( "198.18.0.2" ).genId( 101 ).dr( 1 ) ), 1, 2 },
      { "the generation id option gone", from2( hello( "198.18.0.2" ).dr( 1 ) ), 1, 3 },
      { "this router becoming DR", [ & ] { intf->drPriorityIs( 5 ); }, 1, 3 },
      { "a neighbour leaving", from2( hello( "198.18.0.2" ).hold( 0 ) ), 0, 3 },
   };
   for( const auto & step : steps ) {
      SCOPED_TRACE( step.what );
      f.clearSent();
      f.random().push( { drawForTenths( 4 ) } );
      const double before = f.now();
      step.change();
      f.runUntilIdle();
      f.advanceBy( 2.0 );
      ASSERT_EQ( f.sent().size(), step.sent );
      if( step.sent ) {
         EXPECT_NEAR( f.sent()[ 0 ].time - before, 0.4, 1e-6 );
         expectFullHello( f.sent()[ 0 ], *intf, intf->drPriority() );
      }
      EXPECT_EQ( intf->triggeredHelloCount(), step.counted );
   }
   EXPECT_TRUE( intf->iAmDr() );
}

} // namespace
} // namespace PimScenario

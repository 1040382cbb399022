// Hellos this router sends: the start-up and periodic Hellos with every
// option, triggered Hellos and their random delays, goodbyes, the address
// change pair, reactions to hold time, period, delay, mode and secondary
// address changes, the advertised DR priority around a reload, and which
// triggered Hellos are counted.
#include <cmath>
#include <functional>
#include <limits>
#include <optional>

#include "EngineFixture.h"

namespace PimScenario {
namespace {

constexpr double kInf = std::numeric_limits< double >::infinity();

Bridging::MacAddr routerMac() {
   Bridging::MacAddr m;
   m.bytes = { 0x02, 0x00, 0x5e, 0x10, 0x20, 0x30 };
   return m;
}

TEST( ScenarioHelloTx, StartupHelloAfterThePinnedDelayThenPeriodicHellosWithoutJitter ) {
   EngineFixture f;
   f.startRouterId( routerMac() );
   const auto eth1 = ethernet( 1 );
   IntfParams p;
   p.drPriority = 20;
   p.propagationDelay = 700;
   p.overrideInterval = 3100;
   p.tBit = true;
   p.secondary = { ip( "198.18.0.201" ), ip( "198.18.0.202" ) };
   p.ifIndex = 11;
   f.random().push( { drawForTenths( 5 ) } );
   auto intf = f.addIntf( eth1, "198.18.0.1/24", p );
   auto sm = f.intfSm( eth1 );
   ASSERT_TRUE( sm );
   EXPECT_TRUE( intf->triggeredHello() );
   EXPECT_EQ( sm->helloTimerTimeMin(), f.t0() + 30.0 );

   f.advanceTo( std::nextafter( f.t0() + 0.5, 0.0 ) );
   EXPECT_TRUE( f.sent().empty() );
   f.at( 0.5 );
   ASSERT_EQ( f.sent().size(), 1u );
   const SentHello & s = f.sent()[ 0 ];
   EXPECT_EQ( s.time, f.t0() + 0.5 );
   expectFullHello( s, *intf, 20 );
   EXPECT_EQ( s.secondary().size(), 2u );
   EXPECT_EQ( s->interfaceIdRouterId(), 0x5E102030u );
   EXPECT_EQ( s->interfaceIdIfIndex(), 11u );
   EXPECT_FALSE( s->connectionAddrPresent() );
   EXPECT_EQ( intf->lastHelloTime(), f.t0() + 0.5 );
   EXPECT_FALSE( intf->triggeredHello() );
   EXPECT_EQ( sm->helloTriggeredTimerTimeMin(), kInf );

   f.at( 95.0 );
   ASSERT_EQ( f.sent().size(), 4u );
   for( int k = 1; k <= 3; ++k ) {
      EXPECT_EQ( f.sent()[ k ].time, f.t0() + 30.0 * k );
      expectFullHello( f.sent()[ k ], *intf, 20 );
   }
   EXPECT_EQ( intf->lastHelloTime(), f.t0() + 90.0 );
   EXPECT_EQ( intf->triggeredHelloCount(), 0u );
}

TEST( ScenarioHelloTx, TriggeredDelayIsATenthStepBetweenPointOneAndTheHelloDelay ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   auto sm = f.intfSm( eth1 );
   // One new neighbour a case; with Hello delay 3 the draw is taken modulo 30.
   const struct { std::uint16_t helloDelay; std::uint32_t draw; double delay; } cases[] = {
      { 1, 0, 0.1 }, { 1, 1, 0.2 }, { 1, 4, 0.5 }, { 1, 8, 0.9 }, { 1, 9, 1.0 },
      { 3, 29, 3.0 }, { 3, 12, 1.3 }, { 3, 30, 0.1 }, { 3, 0, 0.1 },
   };
   int n = 10;
   for( const auto & c : cases ) {
      SCOPED_TRACE( testing::Message() << "delay " << c.helloDelay << " draw " << c.draw );
      intf->helloDelayIs( c.helloDelay );
      f.runUntilIdle();
      f.clearSent();
      f.random().push( { c.draw } );
      const double before = f.now();
      f.receive( eth1, hello( ( "198.18.0." + std::to_string( n++ ) ).c_str() ) );
      EXPECT_NEAR( sm->helloTriggeredTimerTimeMin() - before, c.delay, 1e-6 );
      f.advanceBy( 3.1 );
      ASSERT_EQ( f.sent().size(), 1u );
      EXPECT_NEAR( f.sent()[ 0 ].time - before, c.delay, 1e-6 );
   }
   EXPECT_EQ( intf->triggeredHelloCount(), 9u );
}

TEST( ScenarioHelloTx, ChangingTheHelloDelayReArmsAPendingTriggeredHelloInWholeSeconds ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   auto sm = f.intfSm( eth1 );
   intf->helloDelayIs( 5 );
   f.runUntilIdle();

   // Pending for 5.0 s; after one second the delay becomes 4: 7 mod 4 = 3 s.
   f.random().push( { 49 } );
   f.receive( eth1, hello( "198.18.0.2" ) );
   const double start = f.now();
   EXPECT_EQ( sm->helloTriggeredTimerTimeMin(), start + 5.0 );
   f.advanceBy( 1.0 );
   f.random().push( { 7 } );
   intf->helloDelayIs( 4 );
   f.runUntilIdle();
   EXPECT_EQ( sm->helloTriggeredTimerTimeMin(), start + 1.0 + 3.0 );
   f.advanceBy( 5.0 );
   ASSERT_EQ( f.sent().size(), 1u );
   EXPECT_EQ( f.sent()[ 0 ].time, start + 4.0 );

   // Pending again; delay 1 re-arms at 0 s: the Hello leaves at the same time.
   f.clearSent();
   f.random().push( { 10 } );
   f.receive( eth1, hello( "198.18.0.3" ) );
   const double second = f.now();
   EXPECT_NEAR( sm->helloTriggeredTimerTimeMin(), second + 1.1, 1e-6 );   // 10 mod 40
   intf->helloDelayIs( 1 );
   f.runUntilIdle();
   f.advanceBy( 0.0 );
   ASSERT_EQ( f.sent().size(), 1u );
   EXPECT_EQ( f.sent()[ 0 ].time, second );

   // Pending again; delay 0 sends at once.
   f.clearSent();
   intf->helloDelayIs( 4 );
   f.runUntilIdle();
   f.random().push( { 5 } );
   f.receive( eth1, hello( "198.18.0.4" ) );
   EXPECT_TRUE( f.sent().empty() );
   intf->helloDelayIs( 0 );
   f.runUntilIdle();
   EXPECT_EQ( f.sent().size(), 1u );
   EXPECT_FALSE( intf->triggeredHello() );
   EXPECT_EQ( intf->triggeredHelloCount(), 3u );
}

TEST( ScenarioHelloTx, PeriodicHelloCoversAPendingTriggeredHelloAndCountsIt ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   auto sm = f.intfSm( eth1 );
   intf->helloDelayIs( 40 );
   f.runUntilIdle();

   f.at( 5.0 );
   f.random().push( { 399 } );   // 40.0 s: later than the periodic Hello at +30
   f.receive( eth1, hello( "198.18.0.2" ) );
   EXPECT_EQ( sm->helloTriggeredTimerTimeMin(), f.t0() + 45.0 );
   f.at( 30.0 );
   ASSERT_EQ( f.sent().size(), 1u );
   EXPECT_EQ( f.sent()[ 0 ].time, f.t0() + 30.0 );
   EXPECT_EQ( intf->triggeredHelloCount(), 1u );
   EXPECT_FALSE( sm->neighborEventTriggeredHello() );
   EXPECT_EQ( sm->helloTriggeredTimerTimeMin(), kInf );
   f.at( 59.0 );
   EXPECT_EQ( f.sent().size(), 1u );
}

TEST( ScenarioHelloTx, HoldTimeOrPeriodChangeSendsAtOnceAndRestartsThePeriodicTimer ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   auto sm = f.intfSm( eth1 );

   f.at( 10.0 );
   intf->helloHoldTimeIs( 200 );
   f.runUntilIdle();
   EXPECT_EQ( sm->helloTimerTimeMin(), f.t0() + 40.0 );
   f.at( 50.0 );
   intf->helloPeriodIs( 10 );
   f.runUntilIdle();
   f.at( 71.0 );
   // None at the old +30; the period restarts at each change.
   const double times[] = { 10.0, 40.0, 50.0, 60.0, 70.0 };
   ASSERT_EQ( f.sent().size(), 5u );
   for( int k = 0; k < 5; ++k ) {
      EXPECT_EQ( f.sent()[ k ].time, f.t0() + times[ k ] );
      expectFullHello( f.sent()[ k ], *intf, 1 );
      EXPECT_EQ( f.sent()[ k ]->holdTime(), 200 );
   }
}

TEST( ScenarioHelloTx, DisablingSendsOnlyTheGoodbyeOptionsAndForgetsEveryNeighbor ) {
   EngineFixture f;
   f.startRouterId( routerMac() );
   auto sparse = f.startIntf( ethernet( 1 ), "198.18.0.1/24" );
   IntfParams p;
   p.mode = pimModeSparseBidir;
   p.ifIndex = 12;
   p.secondary = { ip( "198.18.1.200" ) };
   auto bidir = f.startIntf( ethernet( 2 ), "198.18.1.1/24", p );
   f.receive( ethernet( 1 ), hello( "198.18.0.2" ) );
   f.receive( ethernet( 1 ), hello( "198.18.0.3" ) );
   f.receive( ethernet( 2 ), hello( "198.18.1.2" ).bidirCapable() );
   f.advanceBy( 2.0 );
   f.clearSent();

   sparse->enabledIs( false );
   f.runUntilIdle();
   ASSERT_EQ( f.sent().size(), 1u );
   expectGoodbye( f.sent()[ 0 ], *sparse, ip( "198.18.0.1" ) );
   EXPECT_EQ( f.sent()[ 0 ]->interfaceIdRouterId(), 0x5E102030u );
   EXPECT_EQ( f.sent()[ 0 ]->interfaceIdIfIndex(), 11u );
   EXPECT_EQ( sparse->neighborSize() + sparse->activeNeighborSize(), 0u );
   EXPECT_EQ( bidir->neighborSize(), 1u );

   f.clearSent();
   bidir->enabledIs( false );
   f.runUntilIdle();
   ASSERT_EQ( f.sent().size(), 1u );
   expectGoodbye( f.sent()[ 0 ], *bidir, ip( "198.18.1.1" ) );
   EXPECT_TRUE( f.sent()[ 0 ]->bidirCapable() );
   EXPECT_EQ( bidir->neighborSize(), 0u );
}

TEST( ScenarioHelloTx, AddressChangeSendsAGoodbyeFromTheOldAddressThenAHelloFromTheNew ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   f.receive( eth1, hello( "198.18.0.3" ).dr( 1 ) );
   f.receive( eth1, hello( "198.18.0.5" ).dr( 1 ) );
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
}

TEST( ScenarioHelloTx, OwnSecondaryAddressChangeSendsTheWholeListAtOnce ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   IntfParams p;
   p.secondary = { ip( "198.18.0.201" ) };
   auto intf = f.startIntf( eth1, "198.18.0.1/24", p );

   f.at( 7.0 );
   intf->secondaryAddressIs( ip( "198.18.0.210" ), true );
   f.runUntilIdle();
   ASSERT_EQ( f.sent().size(), 1u );
   EXPECT_EQ( f.sent()[ 0 ].time, f.t0() + 7.0 );
   EXPECT_EQ( f.sent()[ 0 ].secondary(),
              ( std::set< Lumo::IpGenAddr >{ ip( "198.18.0.201" ), ip( "198.18.0.210" ) } ) );

   intf->secondaryAddressDel( ip( "198.18.0.201" ) );
   f.runUntilIdle();
   ASSERT_EQ( f.sent().size(), 2u );
   EXPECT_EQ( f.sent()[ 1 ].secondary(), ( std::set< Lumo::IpGenAddr >{ ip( "198.18.0.210" ) } ) );
   // The periodic timer was not touched.
   EXPECT_EQ( f.intfSm( eth1 )->helloTimerTimeMin(), f.t0() + 30.0 );
}

TEST( ScenarioHelloTx, ModeChangeSendsNothingAndModeNoneForgetsTheNeighbors ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   f.receive( eth1, hello( "198.18.0.2" ) );
   f.advanceBy( 2.0 );
   f.clearSent();

   intf->modeIs( pimModeSparseBidir );
   f.runUntilIdle();
   EXPECT_TRUE( f.sent().empty() );
   EXPECT_TRUE( f.neighbor( eth1, "198.18.0.2" ) );
   f.at( 30.0 );
   ASSERT_EQ( f.sent().size(), 1u );
   EXPECT_TRUE( f.sent()[ 0 ]->bidirCapable() );

   intf->modeIs( pimModeNone );
   f.runUntilIdle();
   EXPECT_EQ( f.sent().size(), 1u );
   EXPECT_EQ( intf->neighborSize() + intf->activeNeighborSize(), 0u );
}

TEST( ScenarioHelloTx, AdvertisedDrPriorityIsOneDuringReloadAndUntilTheDrDelayExpires ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   IntfParams p;
   p.drPriority = 50;
   auto intf = f.startIntf( eth1, "198.18.0.1/24", p );
   auto sm = f.intfSm( eth1 );

   f.at( 2.0 );
   f.vrf.cellGlobalStatus->reloadIs( true );
   f.runUntilIdle();
   EXPECT_TRUE( sm->drNotifyDelay() );
   f.at( 30.0 );
   ASSERT_EQ( f.sent().size(), 1u );
   expectFullHello( f.sent()[ 0 ], *intf, 1 );

   // Reload over: the periodic Hello is re-jittered (draw 9: 1 s) and still
   // advertises 1 while the DR notify delay runs.
   f.at( 31.0 );
   f.random().push( { 9 } );
   f.vrf.cellGlobalStatus->reloadIs( false );
   f.runUntilIdle();
   EXPECT_EQ( sm->helloTimerTimeMin(), f.t0() + 32.0 );
   f.at( 32.0 );
   ASSERT_EQ( f.sent().size(), 2u );
   EXPECT_EQ( f.sent()[ 1 ].time, f.t0() + 32.0 );
   expectFullHello( f.sent()[ 1 ], *intf, 1 );

   f.at( 33.0 );
   f.vrf.cellGlobalStatus->drDelayTimerExpiredIs( true );
   f.runUntilIdle();
   EXPECT_FALSE( f.vrf.cellGlobalStatus->drDelayTimerExpired() );
   EXPECT_FALSE( sm->drNotifyDelay() );
   f.at( 62.0 );
   ASSERT_EQ( f.sent().size(), 3u );
   EXPECT_EQ( f.sent()[ 2 ].time, f.t0() + 62.0 );
   expectFullHello( f.sent()[ 2 ], *intf, 50 );
}

TEST( ScenarioHelloTx, ConnectionAddressIsAdvertisedOnlyWithTheCapabilityAndASpecifiedAddress ) {
   EngineFixture f;
   auto intf = f.startIntf( ethernet( 1 ), "198.18.0.1/24" );
   const L3::VrfName vrf( "default" );
   f.vrf.globalStatus->portStatusIs( vrf )->pimsmSctpConnectionIdIs( ip( "198.18.0.77" ) );
   // The connection address of the one Hello a change sends, or an empty one.
   using Addr = std::optional< Lumo::IpGenAddr >;
   auto sentConnection = [ & ]( auto change ) -> Addr {
      f.clearSent();
      change();
      f.runUntilIdle();
      f.advanceBy( 0.2 );
      EXPECT_EQ( f.sent().size(), 1u );
      if( f.sent().empty() || !f.sent()[ 0 ]->connectionAddrPresent() ) return std::nullopt;
      return f.sent()[ 0 ]->connectionAddr();
   };
   // No capability, no address.
   EXPECT_EQ( sentConnection( [ & ] { intf->helloHoldTimeIs( 100 ); } ), std::nullopt );
   // The capability appears: a triggered Hello, not a counted neighbour event.
   f.random().push( { drawForTenths( 2 ) } );
   EXPECT_EQ( sentConnection( [ & ] { intf->portCapabilityFlagsIs( Reliable::kCapabilitySctp ); } ),
              Addr( ip( "198.18.0.77" ) ) );
   EXPECT_EQ( intf->triggeredHelloCount(), 0u );
   // An unspecified address is no address, nor is a missing entry.
   EXPECT_EQ( sentConnection( [ & ] {
                 f.vrf.globalStatus->portStatus( vrf )->pimsmSctpConnectionIdIs( ip( "0.0.0.0" ) );
                 intf->helloHoldTimeIs( 105 );
              } ),
              std::nullopt );
   EXPECT_EQ( sentConnection( [ & ] {
                 f.vrf.globalStatus->portStatusDel( vrf );
                 intf->helloHoldTimeIs( 100 );
              } ),
              std::nullopt );
   // A goodbye carries it too.
   EXPECT_EQ( sentConnection( [ & ] {
                 f.vrf.globalStatus->portStatusIs( vrf )->pimsmSctpConnectionIdIs( ip( "198.18.0.78" ) );
                 intf->enabledIs( false );
              } ),
              Addr( ip( "198.18.0.78" ) ) );
   expectGoodbye( f.sent()[ 0 ], *intf, ip( "198.18.0.1" ) );
}

// Each change, the Hellos it makes go out within 2 s (the start-up one is
// gone), and the count of neighbour-event Hellos after it.
TEST( ScenarioHelloTx, OnlyNeighborEventHellosAreCounted ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   auto from2 = [ & ]( const HelloBuilder & h ) { return [ &f, eth1, h ] { f.receive( eth1, h ); }; };
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

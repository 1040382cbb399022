// Neighbours as received Hellos create, refresh and end them: their options,
// their liveness timer counted from the last refresh, goodbyes, the
// never-expiring hold time, the up/down reports and the port option.
#include <cmath>

#include "EngineFixture.h"

namespace PimScenario {
namespace {

// Every advertised option is taken; a Hello without options gets the
// defaults and the interface's hold time (50 here).
TEST( ScenarioNeighborLifecycle, HelloWithoutOptionsGetsDefaultsAndTheInterfaceHoldTime ) {
   const struct {
      const char * name;
      HelloBuilder hello;
      std::uint16_t hold;
      DrPriorityOption dr;
      GenerationIdOption genId;
      LanPruneDelayOption lpd;
   } cases[] = {
      { "every option", hello( "198.18.0.2" ).hold( 105 ).dr( 7 ).genId( 0x1234 ).lpd( 600, 3000, true ), 105,
        { true, 7 }, { true, 0x1234 }, { true, 600, 3000, true } },
      { "no option", hello( "198.18.0.2" ).hold( std::nullopt ), 50, { false, 0xFFFFFFFF }, { false, 0 },
        { false, 500, 2500, false } },
   };
   for( const auto & c : cases ) {
      SCOPED_TRACE( c.name );
      EngineFixture f;
      f.startIntf( eth1, "198.18.0.1/24", { .helloHoldTime = 50 } );
      f.at( 5.0 );
      f.receive( eth1, c.hello );
      auto nb = f.neighbor( eth1, "198.18.0.2" );
      ASSERT_TRUE( nb );
      EXPECT_EQ( nb->creationTime(), f.t0() + 5.0 );
      EXPECT_EQ( nb->lastRefreshTime(), nb->creationTime() );
      EXPECT_EQ( nb->holdTime(), c.hold );
      EXPECT_EQ( nb->drPriorityOption(), c.dr );
      EXPECT_EQ( nb->generationIdOption(), c.genId );
      EXPECT_EQ( nb->lanPruneDelayOption(), c.lpd );
      EXPECT_EQ( nb->portInfo(), Reliable::NeighborInfo{} );
      EXPECT_EQ( nb->transportProtocol(), Reliable::protocolDatagram );
      EXPECT_EQ( nb->secondaryAddressSize(), 0u );
      EXPECT_TRUE( f.active( eth1, "198.18.0.2" ) );
      const double expiry = f.t0() + 5.0 + c.hold;
      f.advanceTo( std::nextafter( expiry, 0.0 ) );
      EXPECT_TRUE( f.neighbor( eth1, "198.18.0.2" ) );
      f.advanceTo( expiry );
      EXPECT_FALSE( f.neighbor( eth1, "198.18.0.2" ) );
   }
}

// A refresh moves the expiry; a changed hold time counts from the last
// refresh, not from now; expiry removes everything at the deadline. Hold
// time 0xFFFF never expires until a finite hold time replaces it.
TEST( ScenarioNeighborLifecycle, ExpiryCountsFromTheLastRefreshAndHoldTimeFfffNeverExpires ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   auto sm = f.intfSm( eth1 );
   f.at( 5.0 );
   f.receive( eth1, hello( "198.18.0.2" ).dr( 1 ).genId( 9 ) );
   f.at( 15.0 );
   f.receive( eth1, hello( "198.18.0.2" ).dr( 1 ).genId( 9 ) );
   auto nb = f.neighbor( eth1, "198.18.0.2" );
   ASSERT_TRUE( nb );
   EXPECT_EQ( nb->creationTime(), f.t0() + 5.0 );
   EXPECT_EQ( nb->lastRefreshTime(), f.t0() + 15.0 );

   f.at( 25.0 );
   nb->holdTimeIs( 48 );
   f.runUntilIdle();
   const double expiry = f.t0() + 15.0 + 48;
   // The deadline counted from the first Hello (+53) passes without effect.
   f.advanceTo( std::nextafter( expiry, 0.0 ) );
   EXPECT_TRUE( f.active( eth1, "198.18.0.2" ) );
   f.advanceTo( expiry );
   EXPECT_FALSE( f.neighbor( eth1, "198.18.0.2" ) || sm->neighborSm( ip( "198.18.0.2" ) ) );
   EXPECT_EQ( intf->activeNeighborSize(), 0u );

   f.at( 70.0 );
   f.receive( eth1, hello( "198.18.0.2" ).hold( 0xFFFF ) );
   f.at( 70000.0 );   // well past 65535 s with no further Hello
   ASSERT_TRUE( f.active( eth1, "198.18.0.2" ) );
   f.receive( eth1, hello( "198.18.0.2" ).hold( 105 ) );
   EXPECT_EQ( sm->neighborSm( ip( "198.18.0.2" ) )->neighborTimerTimeMin(), f.t0() + 70105.0 );
   f.at( 70105.0 );
   EXPECT_FALSE( f.neighbor( eth1, "198.18.0.2" ) );
   // Back to infinite on a refresh: the timer of hold time 30 is disarmed.
   f.receive( eth1, hello( "198.18.0.2" ).hold( 30 ) );
   f.at( 70110.0 );
   f.receive( eth1, hello( "198.18.0.2" ).hold( 0xFFFF ) );
   f.at( 80000.0 );
   EXPECT_TRUE( f.neighbor( eth1, "198.18.0.2" ) );
}

// With the VRF's neighbour change log off, a neighbour comes and goes
// silently; with it on, a stranger's goodbye still logs nothing.
TEST( ScenarioNeighborLifecycle, GoodbyeRemovesAKnownNeighborAtOnceAndIsIgnoredFromAStranger ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   f.at( 5.0 );
   f.receive( eth1, hello( "198.18.0.2" ) );
   f.at( 20.0 );   // the triggered Hello for the new neighbour has gone
   f.clearSent();
   f.receive( eth1, hello( "198.18.0.2" ).hold( 0 ) );
   EXPECT_FALSE( f.neighbor( eth1, "198.18.0.2" ) || f.intfSm( eth1 )->neighborSm( ip( "198.18.0.2" ) ) );
   EXPECT_EQ( intf->activeNeighborSize(), 0u );
   EXPECT_EQ( f.log.count( "PIM_NBRCHG" ), 0u );

   // A stranger's goodbye must not create the neighbour, not even for a moment.
   f.vrf.config->neighborChangeLogIs( true );
   f.runUntilIdle();
   f.log.clear();
   struct Watch : Intf::NotifieeConst {
      std::vector< Lumo::IpGenAddr > seen;
      void onNeighborkivImmediate( const Lumo::IpGenAddr & a ) override { seen.push_back( a ); }
   } watch;
   watch.kivImmediateIs( Intf::kivAttr_neighbor, true );
   watch.notifierIs( intf );
   f.receive( eth1, hello( "198.18.0.3" ).hold( 0 ).dr( 9 ) );
   EXPECT_TRUE( watch.seen.empty() );
   EXPECT_EQ( intf->neighborSize(), 0u );
   EXPECT_TRUE( f.log.messages().empty() );
   f.at( 29.0 );
   EXPECT_TRUE( f.sent().empty() ) << "a leaving neighbour triggers no Hello";

   f.receive( eth1, hello( "198.18.0.4" ) );
   f.at( 30.0 );
   f.receive( eth1, hello( "198.18.0.4" ).hold( 0 ) );
   EXPECT_EQ( f.logTexts( "PIM_NBRCHG" ), ( std::vector< std::string >{
                                            "neighbor 198.18.0.4 UP on interface Ethernet1",
                                            "neighbor 198.18.0.4 DOWN on interface Ethernet1" } ) );
}

// The port option sets the transport only on an interface with the
// capability; flags 0 count as no option, and a Hello without it clears it.
TEST( ScenarioNeighborLifecycle, PortOptionSetsTheTransportAndIsClearedByAHelloWithoutIt ) {
   EngineFixture f;
   f.startIntf( eth1, "198.18.0.1/24", { .portCapabilityFlags = Reliable::kCapabilitySctp } );
   f.startIntf( eth2, "198.18.1.1/24", { .ifIndex = 12 } );
   Reliable::NeighborInfo info;
   info.transport = Reliable::protocolSctp;
   info.capabilityFlags = Reliable::kCapabilitySctp;
   info.connectionAddr = ip( "198.18.0.50" );
   info.secondAddr = ip( "198.18.0.51" );
   Reliable::NeighborInfo zeroFlags = info;
   zeroFlags.capabilityFlags = 0;
   const struct {
      Lumo::IntfId intf;
      const char * from;
      std::optional< Reliable::NeighborInfo > sent;
      Reliable::NeighborInfo kept;
      Reliable::Protocol transport;
   } cases[] = {
      { eth1, "198.18.0.2", info, info, Reliable::protocolSctp },
      { eth2, "198.18.1.2", info, info, Reliable::protocolDatagram },
      { eth1, "198.18.0.3", zeroFlags, {}, Reliable::protocolDatagram },
      { eth1, "198.18.0.2", std::nullopt, {}, Reliable::protocolDatagram },
   };
   for( const auto & c : cases ) {
      SCOPED_TRACE( c.from );
      auto h = hello( c.from );
      h.port = c.sent;
      f.receive( c.intf, h );
      auto nb = f.neighbor( c.intf, c.from );
      ASSERT_TRUE( nb );
      EXPECT_EQ( nb->portInfo(), c.kept );
      EXPECT_EQ( nb->transportProtocol(), c.transport );
   }
}

} // namespace
} // namespace PimScenario

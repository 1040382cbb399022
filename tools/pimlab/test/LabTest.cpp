// The lab end to end: real PIM machines of several routers talking over the
// simulated LAN on virtual time.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Lab.h"
#include "Scenario.h"
#include "kiv/Log.h"

#include <nlohmann/json.hpp>

namespace PimLab {
// Test names print the engine by its name.
inline void PrintTo( Engine e, std::ostream * os ) { *os << engineName( e ); }
} // namespace PimLab

namespace {

using namespace PimLab;

std::vector< LabEvent > eventsOf( const Report & r, const std::string & router, const std::string & kind ) {
   std::vector< LabEvent > out;
   for( const auto & e : r.events ) if( e.router == router && e.kind == kind ) out.push_back( e );
   return out;
}

const LabEvent * firstEvent( const Report & r, const std::string & router, const std::string & kind,
                             const std::string & neighbor, double after = -1.0 ) {
   for( const auto & e : r.events )
      if( e.router == router && e.kind == kind && e.neighbor == neighbor && e.time > after ) return &e;
   return nullptr;
}

std::string drOf( const Snapshot & s, const std::string & router ) {
   for( const auto & i : s.interfaces ) if( i.router == router ) return i.dr;
   return "<router not running>";
}

std::size_t neighborsOf( const Snapshot & s, const std::string & router ) {
   return std::count_if( s.neighbors.begin(), s.neighbors.end(),
                         [ & ]( const NeighborRow & n ) { return n.router == router; } );
}

class LabTest : public ::testing::Test {
 protected:
   // The agent's structured logs are not the subject here.
   void SetUp() override { Kiv::LogHandle::outputIs( Kiv::LogOutput::None ); }
};

TEST_F( LabTest, DefaultScenarioIsReproducibleForASeedAndReportsAsJson ) {
   const Scenario s = defaultScenario();
   const Report a = runScenario( s );
   EXPECT_EQ( renderJson( a ), renderJson( runScenario( s ) ) );
   LabOptions other;
   other.seed = s.seed + 1;
   const Report c = runScenario( s, other );
   EXPECT_NE( renderText( a ), renderText( c ) ) << "generation ids and Hello jitter follow the seed";
   EXPECT_EQ( c.seed, s.seed + 1 );

   // The JSON report carries the events and the tables.
   const auto j = nlohmann::json::parse( renderJson( a ) );
   EXPECT_EQ( j.at( "scenario" ), "dr-failover" );
   EXPECT_EQ( j.at( "engine" ), "pipeline" );
   std::size_t ups = 0, drs = 0, drsWithBoth = 0;
   for( const auto & e : j.at( "events" ) ) {
      ups += e.at( "kind" ) == "up";
      drs += e.at( "kind" ) == "dr";
      drsWithBoth += e.at( "kind" ) == "dr" && e.contains( "dr" ) && e.contains( "previous" );
   }
   EXPECT_EQ( ups, 10u ) << "6 among r1..r3, then r4 and its 2 neighbours both ways";
   EXPECT_GT( drs, 0u );
   EXPECT_EQ( drsWithBoth, drs ) << "a DR event names the new DR and the previous one";
   const auto & end = j.at( "snapshots" ).back();
   EXPECT_EQ( end.at( "name" ), "end" );
   EXPECT_EQ( end.at( "neighbors" ).size(), 6u );
   EXPECT_EQ( end.at( "interfaces" ).at( 0 ).at( "dr" ), "198.18.1.4" );
}

// The same story whichever way the machines are built.
class LabStoryTest : public LabTest, public ::testing::WithParamInterface< Engine > {};

TEST_P( LabStoryTest, DefaultScenarioTellsTheFailoverStory ) {
   const Scenario s = defaultScenario();
   LabOptions o;
   o.engine = GetParam();
   const Report r = runScenario( s, o );
   const std::string r3 = "198.18.1.3", r2 = "198.18.1.2", r4 = "198.18.1.4";

   // Neighbours form and the highest priority (r3) is everyone's DR.
   const Snapshot * formed = r.snapshot( "formed" );
   ASSERT_TRUE( formed );
   for( const char * router : { "r1", "r2", "r3" } ) {
      EXPECT_EQ( neighborsOf( *formed, router ), 2u ) << router;
      EXPECT_EQ( drOf( *formed, router ), r3 ) << router;
   }
   EXPECT_EQ( drOf( *formed, "r4" ), "<router not running>" );

   // r3 stops silently; r1 and r2 drop it only when its hold time has run out
   // since its last Hello, and elect r2 at that very moment.
   const auto stops = eventsOf( r, "r3", "stop" );
   ASSERT_EQ( stops.size(), 1u );
   const double stopAt = stops[ 0 ].time;
   for( const char * router : { "r1", "r2" } ) {
      const LabEvent * down = firstEvent( r, router, "down", r3 );
      ASSERT_TRUE( down ) << router;
      EXPECT_GE( down->time, stopAt + 105.0 - 30.0 ) << "not before a hold time after the last Hello";
      EXPECT_LE( down->time, stopAt + 105.0 + 0.01 );
      EXPECT_NE( down->detail.find( "expired" ), std::string::npos ) << down->detail;
      const LabEvent * dr = firstEvent( r, router, "dr", r2, stopAt );
      ASSERT_TRUE( dr ) << router;
      EXPECT_DOUBLE_EQ( dr->time, down->time );
      // Between the stop and the expiry, no DR change at all.
      for( const auto & e : eventsOf( r, router, "dr" ) ) {
         EXPECT_FALSE( e.time > stopAt && e.time < down->time ) << e.detail;
      }
   }
   const Snapshot * after = r.snapshot( "after-failover" );
   ASSERT_TRUE( after );
   EXPECT_EQ( drOf( *after, "r1" ), r2 );
   EXPECT_EQ( drOf( *after, "r2" ), r2 );
   EXPECT_EQ( neighborsOf( *after, "r1" ), 1u );

   // r4 joins with priority 40 and takes over within its first Hello's delay.
   const auto starts = eventsOf( r, "r4", "start" );
   ASSERT_EQ( starts.size(), 1u );
   for( const char * router : { "r1", "r2" } ) {
      const LabEvent * dr = firstEvent( r, router, "dr", r4 );
      ASSERT_TRUE( dr ) << router;
      EXPECT_GT( dr->time, starts[ 0 ].time );
      EXPECT_LE( dr->time, starts[ 0 ].time + 1.1 );
      EXPECT_EQ( dr->priority, std::optional< std::uint32_t >( 40 ) );
   }
   const Snapshot * end = r.snapshot( "end" );
   ASSERT_TRUE( end );
   for( const char * router : { "r1", "r2", "r4" } ) {
      EXPECT_EQ( drOf( *end, router ), r4 ) << router;
      EXPECT_EQ( neighborsOf( *end, router ), 2u ) << router;
   }
   for( const auto & c : end->counters ) EXPECT_EQ( c.rejected + c.lost, 0u ) << c.router;
}

INSTANTIATE_TEST_SUITE_P( Engines, LabStoryTest, ::testing::Values( Engine::pipeline, Engine::direct ),
                          []( const ::testing::TestParamInfo< Engine > & i ) { return std::string( engineName( i.param ) ); } );

TEST_P( LabStoryTest, StoppedRouterReturnsWithANewGenerationIdAndUnpluggedOneIsForgotten ) {
   LabOptions o;
   o.engine = GetParam();
   const Report r = runScenario( scenarioFromJson( R"({ "name": "t", "seed": 5, "duration": 340,
      "segments": [ { "name": "lan" } ], "routers": [
      { "name": "a", "interfaces": [ { "name": "Ethernet1", "segment": "lan", "address": "198.18.2.1/24", "drPriority": 5 } ] },
      { "name": "b", "interfaces": [ { "name": "Ethernet1", "segment": "lan", "address": "198.18.2.2/24", "drPriority": 50 } ] },
      { "name": "c", "interfaces": [ { "name": "Ethernet1", "segment": "lan", "address": "198.18.2.3/24", "drPriority": 7 } ] } ],
      "events": [ { "at": 20, "action": "checkpoint", "name": "before" }, { "at": 25, "action": "stop", "router": "a" },
                  { "at": 160, "action": "start", "router": "a" }, { "at": 165, "action": "detach", "router": "c" },
                  { "at": 170, "action": "checkpoint", "name": "back" },
                  { "at": 290, "action": "checkpoint", "name": "unplugged" },
                  { "at": 291, "action": "attach", "router": "c" },
                  { "at": 330, "action": "checkpoint", "name": "replugged" } ] })" ),
                                 o );
   auto genIdOf = []( const Snapshot & s, const std::string & router, const std::string & nb ) {
      for( const auto & n : s.neighbors )
         if( n.router == router && n.neighbor == nb && n.generationId ) return *n.generationId;
      return 0u;
   };
   const std::uint32_t before = genIdOf( *r.snapshot( "before" ), "b", "198.18.2.1" );
   const std::uint32_t after = genIdOf( *r.snapshot( "back" ), "b", "198.18.2.1" );
   EXPECT_TRUE( before && after ) << "a is a neighbour of b before and after";
   EXPECT_NE( before, after ) << "a restarted router comes back with a new generation id";
   EXPECT_EQ( neighborsOf( *r.snapshot( "back" ), "a" ), 2u );
   // c unplugged: everybody forgets it after the hold time, it forgets everybody.
   EXPECT_EQ( neighborsOf( *r.snapshot( "unplugged" ), "c" ), 0u );
   EXPECT_EQ( neighborsOf( *r.snapshot( "unplugged" ), "a" ), 1u );
   EXPECT_EQ( drOf( *r.snapshot( "unplugged" ), "c" ), "198.18.2.3" );
   EXPECT_EQ( neighborsOf( *r.snapshot( "replugged" ), "c" ), 2u );
   EXPECT_EQ( drOf( *r.snapshot( "replugged" ), "c" ), "198.18.2.2" );
}

std::string fileText( const std::filesystem::path & p ) {
   std::ifstream in( p );
   std::stringstream ss;
   ss << in.rdbuf();
   return ss.str();
}

// The example scenarios shipped with the lab load, run reproducibly and tell
// the story their events promise.
TEST_F( LabTest, ShippedScenariosRun ) {
   std::size_t files = 0;
   for( const auto & f : std::filesystem::directory_iterator( PIMLAB_SCENARIO_DIR ) ) {
      if( f.path().extension() != ".json" ) continue;
      ++files;
      const Scenario s = scenarioFromJson( fileText( f.path() ) );
      const Report r = runScenario( s );
      EXPECT_EQ( renderText( r ), renderText( runScenario( s ) ) ) << f.path();
      ASSERT_TRUE( r.snapshot( "end" ) ) << f.path();
   }
   EXPECT_GT( files, 0u );

   const Report r = runScenario( scenarioFromJson( fileText( std::filesystem::path( PIMLAB_SCENARIO_DIR ) / "two-segments.json" ) ) );
   auto drOn = []( const Snapshot & s, const std::string & router, const std::string & intf ) {
      for( const auto & i : s.interfaces ) if( i.router == router && i.interface == intf ) return i.dr;
      return std::string( "<none>" );
   };
   EXPECT_EQ( drOn( *r.snapshot( "formed" ), "core", "Ethernet2" ), "198.18.20.3" ) << "equal priorities: higher address";
   EXPECT_EQ( drOn( *r.snapshot( "lan-a-cut" ), "core", "Ethernet2" ), "198.18.20.2" ) << "after the priority change";
   EXPECT_EQ( drOn( *r.snapshot( "lan-a-cut" ), "edge1", "Ethernet1" ), "198.18.10.2" ) << "alone behind the cut";
   std::uint64_t cut = 0;
   for( const auto & c : r.snapshot( "lan-a-cut" )->counters ) cut += c.cut;
   EXPECT_GT( cut, 0u );
   EXPECT_EQ( drOn( *r.snapshot( "edge2-gone" ), "edge1", "Ethernet1" ), "198.18.10.1" ) << "healed";
   EXPECT_EQ( drOn( *r.snapshot( "edge2-gone" ), "core", "Ethernet2" ), "198.18.20.3" );
   EXPECT_EQ( drOn( *r.snapshot( "edge3-unplugged" ), "core", "Ethernet2" ), "198.18.20.1" );
}

TEST_F( LabTest, UntilShortensTheRunAndSkipsLaterEvents ) {
   LabOptions o;
   o.until = 150;
   const Report r = runScenario( defaultScenario(), o );
   EXPECT_DOUBLE_EQ( r.snapshot( "end" )->time, 150.0 );
   EXPECT_FALSE( r.snapshot( "after-failover" ) );
   EXPECT_FALSE( firstEvent( r, "r1", "down", "198.18.1.3" ) ) << "the hold time has not run out at 150 s";
   EXPECT_EQ( drOf( *r.snapshot( "end" ), "r1" ), "198.18.1.3" );
}

TEST_F( LabTest, ScenarioFilesAreCheckedAndRoundTrip ) {
   const Scenario d = defaultScenario();
   const Scenario again = scenarioFromJson( scenarioToJson( d ) );
   EXPECT_EQ( scenarioToJson( again ), scenarioToJson( d ) );
   EXPECT_FALSE( again.router( "r4" )->start );

   auto error = []( const std::string & json ) {
      try {
         scenarioFromJson( json );
      } catch( const std::runtime_error & e ) {
         return std::string( e.what() );
      }
      return std::string( "<accepted>" );
   };
   const std::string r1 =
      R"({ "name": "r1", "interfaces": [ { "name": "Ethernet1", "segment": "lan", "address": "198.18.1.1/24" } ] })";
   const std::string routers = R"({ "routers": [ )" + r1;
   const std::pair< std::string, const char * > cases[] = {
      { "{", "not valid JSON" },
      { R"({ "routers": [] })", "at least one router" },
      { routers + R"( ], "events": [ { "at": 1, "action": "explode" } ] })", "unknown action \"explode\"" },
      { routers + R"( ], "events": [ { "at": 1, "action": "stop", "router": "r9" } ] })", "unknown router \"r9\"" },
      { routers + "," + r1 + " ] }", "duplicate router" },
      { R"({ "routers": [ { "name": "x", "interfaces": [ { "name": "e", "segment": "s", "address": "bogus" } ] } ] })",
        "not an address with mask" },
      { R"({ "duration": 10, "routers": [ )" + r1 + R"( ], "events": [ { "at": 11, "action": "checkpoint" } ] })",
        "outside the duration" },
      { routers + R"( ], "events": [ { "at": 1, "action": "loss", "segment": "lan", "value": 2 } ] })",
        "loss must lie in [0, 1]" },
   };
   for( const auto & [ json, want ] : cases ) EXPECT_NE( error( json ).find( want ), std::string::npos ) << json;
}

} // namespace

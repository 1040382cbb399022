// The lab end to end: real PIM machines of several routers talking over the
// simulated LAN on virtual time.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
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

std::string drOf( const Snapshot & s, const std::string & router ) {
   for( const auto & i : s.interfaces ) if( i.router == router ) return i.dr;
   return "<router not running>";
}

class LabTest : public ::testing::Test {
 protected:
   // The agent's structured logs are not the subject here.
   void SetUp() override { Kiv::LogHandle::outputIs( Kiv::LogOutput::None ); }
};

// Reproducibility itself is the golden comparisons' matter.
TEST_F( LabTest, DefaultScenarioIsReproducibleForASeedAndReportsAsJson ) {
   const Scenario s = defaultScenario();
   const Report a = runScenario( s );
   LabOptions other;
   other.seed = s.seed + 1;
   const Report c = runScenario( s, other );
   EXPECT_NE( renderText( a ), renderText( c ) ) << "generation ids and Hello jitter follow the seed";

   // The JSON report carries the events and the tables.
   const auto j = nlohmann::json::parse( renderJson( a ) );
   EXPECT_EQ( std::tuple( j.at( "scenario" ), j.at( "engine" ), j.at( "events" ).size(), j.at( "snapshots" ).size() ),
              std::tuple( "dr-failover", "pipeline", a.events.size(), a.snapshots.size() ) );
   std::size_t drs = 0, drsWithBoth = 0;
   for( const auto & e : j.at( "events" ) ) {
      drs += e.at( "kind" ) == "dr";
      drsWithBoth += e.at( "kind" ) == "dr" && e.contains( "dr" ) && e.contains( "previous" );
   }
   EXPECT_GT( drs, 0u );
   EXPECT_EQ( drsWithBoth, drs ) << "a DR event names the new DR and the previous one";
   EXPECT_EQ( j.at( "snapshots" ).back().at( "interfaces" ).at( 0 ).at( "dr" ), "198.18.1.4" );
}

std::string fileText( const std::filesystem::path & p ) {
   std::ifstream in( p );
   std::stringstream ss;
   ss << in.rdbuf();
   return ss.str();
}

// Compares a report's text with the golden file of that name in the test
// folder; PIMLAB_UPDATE_GOLDEN=1 rewrites it.
void expectGolden( const std::string & name, const Report & r ) {
   const auto path = std::filesystem::path( PIMLAB_TEST_DIR ) / name;
   if( std::getenv( "PIMLAB_UPDATE_GOLDEN" ) ) std::ofstream( path ) << renderText( r );
   EXPECT_EQ( renderText( r ), fileText( path ) ) << name;
}

// The same story whichever way the machines are built.
class LabStoryTest : public LabTest, public ::testing::WithParamInterface< Engine > {
 protected:
   Report run( const Scenario & s ) {
      LabOptions o;
      o.engine = GetParam();
      return runScenario( s, o );
   }
};

// Neighbours form and the highest priority (r3) is everyone's DR; r3 stops
// silently and r1 and r2 drop it when its hold time has run out since its
// last Hello, electing r2 at that very moment; r4 joins with priority 40 and
// takes over within its first Hello's delay.
TEST_P( LabStoryTest, DefaultScenarioTellsTheFailoverStory ) {
   expectGolden( "dr-failover.txt", run( defaultScenario() ) );
}

INSTANTIATE_TEST_SUITE_P( Engines, LabStoryTest, ::testing::Values( Engine::pipeline, Engine::direct ),
                          []( const ::testing::TestParamInfo< Engine > & i ) { return std::string( engineName( i.param ) ); } );

TEST_P( LabStoryTest, StoppedRouterReturnsWithANewGenerationIdAndUnpluggedOneIsForgotten ) {
   const Report r = run( scenarioFromJson( fileText( std::filesystem::path( PIMLAB_TEST_DIR ) / "restart-and-replug.json" ) ) );
   expectGolden( "restart-and-replug.txt", r );
   auto genIdOf = []( const Snapshot & s, const std::string & router, const std::string & nb ) {
      for( const auto & n : s.neighbors )
         if( n.router == router && n.neighbor == nb && n.generationId ) return *n.generationId;
      return 0u;
   };
   const std::uint32_t before = genIdOf( *r.snapshot( "before" ), "b", "198.18.2.1" );
   const std::uint32_t after = genIdOf( *r.snapshot( "back" ), "b", "198.18.2.1" );
   EXPECT_TRUE( before && after ) << "a is a neighbour of b before and after";
   EXPECT_NE( before, after ) << "a restarted router comes back with a new generation id";
}

// The example scenarios shipped with the lab load and tell the story their
// events promise, reproducibly: each against its golden text.
TEST_F( LabTest, ShippedScenariosRun ) {
   std::size_t files = 0;
   for( const auto & f : std::filesystem::directory_iterator( PIMLAB_SCENARIO_DIR ) ) {
      if( f.path().extension() != ".json" ) continue;
      ++files;
      expectGolden( f.path().stem().string() + ".txt", runScenario( scenarioFromJson( fileText( f.path() ) ) ) );
   }
   EXPECT_GT( files, 0u );
}

TEST_F( LabTest, UntilShortensTheRunAndSkipsLaterEvents ) {
   LabOptions o;
   o.until = 150;
   const Report r = runScenario( defaultScenario(), o );
   EXPECT_DOUBLE_EQ( r.snapshot( "end" )->time, 150.0 );
   EXPECT_FALSE( r.snapshot( "after-failover" ) );
   EXPECT_EQ( drOf( *r.snapshot( "end" ), "r1" ), "198.18.1.3" ) << "r3's hold time has not run out at 150 s";
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

// The configuration file: the corpus of good and bad files with their
// expected verdicts, the difference between two configurations, and what
// applying it writes into the configuration entities.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

#include "ConfigApply.h"
#include "ConfigFile.h"
#include "kiv/ActivityManager.h"

namespace Pimnbrd {
namespace {

namespace fs = std::filesystem;

std::string slurp( const fs::path & p ) {
   std::ifstream in( p );
   std::ostringstream ss;
   ss << in.rdbuf();
   return ss.str();
}

TEST( ConfigCorpus, FullFileReadsIntoTheRightFields ) {
   const ParseResult r = parseConfigFile( std::string( PIMNBRD_CONFIGS ) + "/good-full.yaml" );
   ASSERT_TRUE( r.config ) << ( r.errors.empty() ? "" : r.errors[ 0 ].text() );
   const DaemonConfig & c = *r.config;
   EXPECT_TRUE( c.ipv4 && c.ipv6 && c.mlagPortsErrdisabled && c.drDelay == 10 && c.role == Role::standby );
   EXPECT_EQ( c.serviceAcl4, ( std::vector< AclRule >{ { false, "198.18.99.0/24" }, { true, "198.18.0.0/15" } } ) );
   EXPECT_EQ( c.serviceAcl6, ( std::vector< AclRule >{ { true, "2001:db8::/32" } } ) );
   const auto & d = c.vrfs.at( "default" );
   EXPECT_TRUE( d.bfdDefault && d.neighborChangeLog && d.multicastRouting && d.netns.empty() );
   const auto & a = d.interfaces.at( "veth-a" );
   EXPECT_EQ( std::tuple( a.mode, a.helloInterval, a.holdTime(), a.drPriority, a.neighborLimit, a.propagationDelay,
                          a.overrideInterval, a.joinPruneInterval, a.fastFailover, a.bfd == Bfd::disabled ),
              std::tuple( 1, 1, 3, 4294967295u, 100u, 32767, 65535, 30, true, true ) );
   const auto & b = d.interfaces.at( "veth-b" );
   EXPECT_EQ( std::tuple( b.mode, b.holdTime(), b.drPriority ), std::tuple( 3, 25, 0u ) );
   const auto & red = c.vrfs.at( "red" );
   EXPECT_EQ( std::tuple( red.netns, red.multicastRouting, red.interfaces.at( "red0" ).mode ),
              std::tuple( "pimnbr-red", false, 2 ) );
}

// A hold time given in seconds comes back exactly, whatever the interval
// divides it into.
TEST( ConfigHoldTime, SecondsSurviveTheMultiplier ) {
   for( unsigned interval : { 1u, 3u, 7u, 30u, 999u } ) {
      for( unsigned hold : { interval + 1, 10 * interval + 1, 65534u } ) {
         const std::string text = "vrfs: {default: {interfaces: {e: {hello-interval: " + std::to_string( interval ) +
                                  ", hello-holdtime: " + std::to_string( hold ) + "}}}}";
         const ParseResult r = parseConfigText( text, "t" );
         ASSERT_TRUE( r.config ) << text;
         EXPECT_EQ( r.config->vrfs.at( "default" ).interfaces.at( "e" ).holdTime(), hold ) << text;
      }
   }
}

DaemonConfig parse( const std::string & text ) {
   const ParseResult r = parseConfigText( text, "t" );
   EXPECT_TRUE( r.config ) << ( r.errors.empty() ? "" : r.errors[ 0 ].text() );
   return r.config.value_or( DaemonConfig{} );
}

const char * kBase = R"(
vrfs:
  default:
    interfaces:
      a: {dr-priority: 1}
      b: {dr-priority: 2}
  red:
    namespace: ns-red
    interfaces:
      r: {}
)";

using Keys = std::vector< ConfigDiff::IntfKey >;

TEST( ConfigDiffTest, NamesOnlyWhatChanged ) {
   struct Case {
      const char * what;
      const char * to;
      Keys removed, added, changed;
      std::vector< std::string > vrfsRemoved, vrfsAdded, vrfsChanged;
      bool globals;
   };
   const Case cases[] = {
      { "same", kBase, {}, {}, {}, {}, {}, {}, false },
      { "priority",
        "vrfs: {default: {interfaces: {a: {dr-priority: 9}, b: {dr-priority: 2}}}, red: {namespace: ns-red, interfaces: {r: {}}}}",
        {}, {}, { { "default", "a" } }, {}, {}, {}, false },
      { "moved and dropped",
        "vrfs: {default: {interfaces: {a: {dr-priority: 1}}}, red: {namespace: ns-red, interfaces: {r: {}, b: {}}}}",
        { { "default", "b" } }, { { "red", "b" } }, {}, {}, {}, {}, false },
      { "vrf gone, settings changed",
        "dr-delay: 3\nvrfs: {default: {bfd: true, interfaces: {a: {dr-priority: 1}, b: {dr-priority: 2}}}}",
        { { "red", "r" } }, {}, {}, { "red" }, {}, { "default" }, true },
      { "vrf added", "vrfs: {default: {interfaces: {a: {dr-priority: 1}, b: {dr-priority: 2}}}, red: {namespace: ns-red, interfaces: {r: {}}}, "
                     "blue: {namespace: ns-blue, interfaces: {x: {}}}}",
        {}, { { "blue", "x" } }, {}, {}, { "blue" }, {}, false },
   };
   const DaemonConfig from = parse( kBase );
   for( const auto & c : cases ) {
      const ConfigDiff d = diff( from, parse( c.to ) );
      EXPECT_EQ( std::tie( d.intfsRemoved, d.intfsAdded, d.intfsChanged, d.vrfsRemoved, d.vrfsAdded, d.vrfsChanged,
                           d.globalsChanged ),
                 std::tie( c.removed, c.added, c.changed, c.vrfsRemoved, c.vrfsAdded, c.vrfsChanged, c.globals ) )
         << c.what;
      EXPECT_EQ( d.empty(), std::string( c.what ) == "same" ) << c.what;
   }
}

struct Targets : ConfigTargets {
   Targets() {
      configColl = Kiv::make< Routing::Pim::ConfigColl >();
      vrfEnabledStatus = Kiv::make< Routing::Multicast::Fib::VrfEnabledStatus >();
      allVrfStatusLocal = Kiv::make< Ip::AllVrfStatusLocal >();
      mlagProtoStatus = Kiv::make< Mlag::ProtoStatus >();
   }
};

// Counts the notifications of one interface's configuration entity.
struct IntfWatch : Routing::Pim::IntfConfig::NotifieeConst {
   int priority = 0, other = 0;
   void onHelloPriority() override { ++priority; }
   void onHelloInterval() override { ++other; }
   void onHelloCount() override { ++other; }
   void onMode() override { ++other; }
};

TEST( ConfigApplyTest, ReloadTouchesOnlyTheDifference ) {
   Targets t;
   const DaemonConfig first = parse( kBase );
   applyConfig( first, t );
   auto a = t.configColl->intfConfig( Lumo::IntfId( "a" ) );
   auto b = t.configColl->intfConfig( Lumo::IntfId( "b" ) );
   ASSERT_TRUE( a && b && t.configColl->intfConfig( Lumo::IntfId( "r" ) ) );
   EXPECT_EQ( b->helloPriority(), 2u );
   EXPECT_EQ( a->mode(), Routing::Pim::pimModeSparse );
   EXPECT_TRUE( t.configColl->vrfConfig( L3::VrfName( "red" ) )->pimConfigured() );
   EXPECT_TRUE( t.vrfEnabledStatus->vrf( L3::VrfName( "red" ) ) );
   EXPECT_EQ( t.allVrfStatusLocal->vrf( L3::VrfName( "red" ) )->namespaceName(), Lumo::NamespaceName( "ns-red" ) );

   IntfWatch wa, wb;
   wa.notifierIs( a );
   wb.notifierIs( b );
   Kiv::activityManager().runUntilIdle();
   wa.priority = wa.other = wb.priority = wb.other = 0;

   const DaemonConfig second = parse(
      "dr-delay: 7\nvrfs: {default: {interfaces: {a: {dr-priority: 9, propagation-delay: 750, override-interval: 3000}, "
      "b: {dr-priority: 2}}}}" );
   applyConfig( second, diff( first, second ), t );
   Kiv::activityManager().runUntilIdle();
   // The same entities: their neighbours stay.
   EXPECT_EQ( t.configColl->intfConfig( Lumo::IntfId( "a" ) ), a );
   EXPECT_EQ( t.configColl->intfConfig( Lumo::IntfId( "b" ) ), b );
   EXPECT_EQ( std::tuple( a->helloPriority(), a->propagationDelay(), a->overrideInterval() ), std::tuple( 9u, 750, 3000 ) );
   EXPECT_EQ( wa.priority, 1 );
   EXPECT_EQ( wa.other + wb.priority + wb.other, 0 );
   EXPECT_FALSE( t.configColl->intfConfig( Lumo::IntfId( "r" ) ) );
   EXPECT_FALSE( t.configColl->vrfConfig( L3::VrfName( "red" ) ) );
   EXPECT_FALSE( t.vrfEnabledStatus->vrfHas( L3::VrfName( "red" ) ) );
   EXPECT_FALSE( t.allVrfStatusLocal->vrf( L3::VrfName( "red" ) ) );
   EXPECT_EQ( t.configColl->globalConfig()->drDelay(), 7 );
   wa.notifierIs( nullptr );
   wb.notifierIs( nullptr );
}

struct ProcessResult {
   int exitCode = -1;
   std::string out;
};

ProcessResult run( const std::string & args ) {
   ProcessResult r;
   // Run from the corpus folder, so that the messages name the file as the
   // .expect files do.
   const std::string cmd = std::string( "cd '" ) + PIMNBRD_CONFIGS + "' && '" + PIMNBRD_BINARY + "' " + args;
   FILE * p = ::popen( cmd.c_str(), "r" );
   if( !p ) return r;
   char buf[ 512 ];
   while( std::fgets( buf, sizeof buf, p ) ) r.out += buf;
   const int status = ::pclose( p );
   r.exitCode = WIFEXITED( status ) ? WEXITSTATUS( status ) : -1;
   return r;
}

// The daemon's --check over the whole corpus: each NAME.yaml has
// NAME.expect, "exit N" and then every error line in order.
TEST( PimnbrdCheck, CorpusVerdictsFromTheCommandLine ) {
   std::size_t files = 0;
   for( const auto & e : fs::directory_iterator( PIMNBRD_CONFIGS ) ) {
      if( e.path().extension() != ".yaml" ) continue;
      ++files;
      const std::string name = e.path().filename().string();
      auto expectPath = e.path();
      expectPath.replace_extension( ".expect" );
      ASSERT_TRUE( fs::exists( expectPath ) ) << name << " has no .expect file";
      const ProcessResult r = run( "--check -c " + name + " 2>&1 >/dev/null" );
      const std::string actual = "exit " + std::to_string( r.exitCode ) + "\n" + r.out;
      EXPECT_EQ( slurp( expectPath ), actual ) << name;
   }
   EXPECT_GE( files, 10u );
}

TEST( PimnbrdCheck, OptionsAndTheRunPath ) {
   struct Case {
      const char * args;
      int exitCode;
      const char * says;
   } const cases[] = {
      { "--version", 0, "pimnbrd " },
      { "--check -c good-full.yaml", 0, "good-full.yaml: valid" },
      { "--check -c no-such-file.yaml 2>&1", 1, "no-such-file.yaml:0:0: (file): cannot be read" },
      { "--log journal 2>&1", 105, "--log" },
      // The run path stops before anything runs when the plug-in is missing.
      { "-c good-minimal.yaml --plugin /nonexistent/libnothing.so 2>&1", 69, "cannot load" },
   };
   for( const auto & c : cases ) {
      const ProcessResult r = run( c.args );
      EXPECT_EQ( r.exitCode, c.exitCode ) << c.args << "\n" << r.out;
      EXPECT_NE( r.out.find( c.says ), std::string::npos ) << c.args << "\n" << r.out;
   }
}

} // namespace
} // namespace Pimnbrd

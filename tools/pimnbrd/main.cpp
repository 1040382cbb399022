// pimnbrd: the PIM neighbour agent on a Linux host.
//
// Reads and checks the configuration file, then hosts the agent plug-in
// (Daemon.h) until SIGTERM or SIGINT.
#include <cstdio>
#include <string>

#include <CLI/CLI.hpp>

#include "ConfigFile.h"
#include "Daemon.h"

namespace {
constexpr const char * kVersion = "0.1.0";
}

int main( int argc, char ** argv ) {
   CLI::App app( "PIM neighbour agent for Linux network namespaces", "pimnbrd" );
   std::string configPath = "/etc/pimnbrd/pimnbrd.yaml";
   std::string logTarget = "stderr";
   std::string stateDir = "/run/pimnbrd";
   bool check = false;
   bool foreground = false;
   std::string pluginPath = PIMNBRD_DEFAULT_PLUGIN;
   unsigned rxCoalesceMs = 10;
   app.add_option( "-c,--config", configPath, "configuration file (YAML)" )->capture_default_str();
   app.add_flag( "--check", check, "validate the configuration file and exit: 0 when valid, 1 with every error" );
   app.add_flag( "--foreground", foreground, "stay in the foreground" );
   app.add_option( "--log", logTarget, "where logs go" )->check( CLI::IsMember( { "stderr", "syslog" } ) )->capture_default_str();
   app.add_option( "--state-dir", stateDir, "directory for the ring-buffer trace and the shared-memory tables" )
      ->capture_default_str();
   app.add_option( "--plugin", pluginPath, "the agent plug-in to load" )->capture_default_str();
   app.add_option( "--rx-coalesce-ms", rxCoalesceMs,
                   "after a wake-up that read few Hellos, wait this long before reading again (0: never)" )
      ->check( CLI::Range( 0u, 100u ) )
      ->capture_default_str();
   app.set_version_flag( "--version", std::string( "pimnbrd " ) + kVersion );
   CLI11_PARSE( app, argc, argv );

   const Pimnbrd::ParseResult r = Pimnbrd::parseConfigFile( configPath );
   for( const auto & e : r.errors ) std::fprintf( stderr, "%s\n", e.text().c_str() );
   if( !r.config ) return 1;
   if( check ) {
      std::printf( "%s: valid\n", configPath.c_str() );
      return 0;
   }
   // Supervisors run it in the foreground; there is no self-daemonising.
   (void)foreground;
   Pimnbrd::Daemon daemon( { configPath, stateDir, pluginPath, logTarget == "syslog", rxCoalesceMs / 1000.0 },
                           *r.config );
   return daemon.run();
}

// pimlab: several routers on simulated LAN segments under virtual time.
// Without arguments it runs the embedded default scenario.
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

#include <CLI/CLI.hpp>

#include "Lab.h"
#include "Scenario.h"
#include "kiv/Log.h"
#include "kiv/Trace.h"

int main( int argc, char ** argv ) {
   CLI::App app{ "pimlab: PIM routers on a simulated LAN under virtual time. Without arguments it runs the "
                 "default scenario: three routers, the DR stops, the next one takes over after the hold time, "
                 "and a fourth router with a higher priority joins." };
   std::string scenarioFile;
   std::uint64_t seed = 0;
   double until = 0.0;
   bool json = false;
   bool dumpScenario = false;
   std::string trace;
   std::string engine = "pipeline";
   std::string shmDir;
   app.add_option( "--scenario", scenarioFile, "Scenario file (JSON)" )->check( CLI::ExistingFile );
   auto * seedOpt = app.add_option( "--seed", seed, "Random seed (overrides the scenario's)" );
   auto * untilOpt = app.add_option( "--until", until, "Virtual seconds to run (overrides the scenario's duration)" )
                        ->check( CLI::PositiveNumber );
   app.add_flag( "--json", json, "Print the report as JSON" );
   app.add_flag( "--dump-scenario", dumpScenario, "Print the scenario as JSON and exit" );
   auto * traceOpt = app.add_option( "--trace", trace,
                                     "Trace selection, e.g. 'Pim::*/1-4,SimLan/5' (lines go to stderr; "
                                     "structured logs too)" );
   app.add_option( "--engine", engine,
                   "How each router's PIM machines are built: 'pipeline' (from configuration, the default) or "
                   "'direct' (the Hello engine alone)" )
      ->check( CLI::IsMember( { "pipeline", "direct" } ) );
   app.add_option( "--shm", shmDir,
                   "Publish each router's status tables in shared memory under the state directory DIR/<router> "
                   "and, after the report, keep them until SIGINT or SIGTERM (read them with "
                   "'pimnbr --state-dir DIR/<router> show ip pim neighbor')" )
      ->type_name( "DIR" );
   CLI11_PARSE( app, argc, argv );

   try {
      PimLab::Scenario scenario;
      if( scenarioFile.empty() ) {
         scenario = PimLab::defaultScenario();
      } else {
         std::ifstream in( scenarioFile );
         std::stringstream ss;
         ss << in.rdbuf();
         scenario = PimLab::scenarioFromJson( ss.str() );
      }
      if( dumpScenario ) {
         std::cout << PimLab::scenarioToJson( scenario ) << "\n";
         return 0;
      }
      if( *traceOpt ) {
         for( const auto & err : Kiv::TraceHandle::configIs( trace ) ) std::cerr << "pimlab: --trace: " << err << "\n";
         Kiv::LogHandle::outputIs( Kiv::LogOutput::Stderr );
      } else {
         // The tables tell the story; the agent's own logs would only repeat
         // it. (KIV_TRACE in the environment still selects traces.)
         Kiv::LogHandle::outputIs( Kiv::LogOutput::None );
      }
      PimLab::LabOptions options;
      if( *seedOpt ) options.seed = seed;
      if( *untilOpt ) options.until = until;
      options.engine = engine == "direct" ? PimLab::Engine::direct : PimLab::Engine::pipeline;
      if( !shmDir.empty() ) {
         options.shmDir = shmDir;
         options.atEnd = [ & ] {
            // The tables live as long as the routers: hold them here.
            std::cerr << "pimlab: tables published under " << shmDir
                      << "/<router>; waiting for SIGINT or SIGTERM" << std::endl;
            sigset_t set;
            sigemptyset( &set );
            sigaddset( &set, SIGINT );
            sigaddset( &set, SIGTERM );
            int sig;
            sigwait( &set, &sig );
         };
         // Blocked, so sigwait takes them rather than the default action.
         sigset_t set;
         sigemptyset( &set );
         sigaddset( &set, SIGINT );
         sigaddset( &set, SIGTERM );
         sigprocmask( SIG_BLOCK, &set, nullptr );
      }
      const PimLab::Report report = PimLab::runScenario( scenario, options );
      std::cout << ( json ? PimLab::renderJson( report ) : PimLab::renderText( report ) );
      std::cout.flush();
   } catch( const std::exception & e ) {
      std::cerr << "pimlab: " << e.what() << "\n";
      return 2;
   }
   return 0;
}

// pimnbr: shows the PIM neighbours and interfaces an agent publishes in
// shared memory; it never talks to the agent itself.
#include <cstdlib>
#include <iostream>

#include <CLI/CLI.hpp>

#include "Show.h"

int main( int argc, char ** argv ) {
   CLI::App app{ "pimnbr: show the PIM neighbours, interfaces and message counters that a PIM agent publishes "
                 "in shared memory.\n"
                 "  show (ip|ipv6) pim [vrf NAME|all] neighbor [ADDR] [detail] [json]\n"
                 "  show (ip|ipv6) pim [vrf NAME|all] interface [IFNAME] [detail] [json]\n"
                 "  show (ip|ipv6) pim [vrf NAME|all] interface traffic [json]" };
   const char * env = std::getenv( "PIMNBR_STATE_DIR" );
   std::string stateDir = env && *env ? env : "/run/pimnbr";
   std::vector< std::string > words;
   app.add_option( "--state-dir", stateDir,
                   "The agent's state directory, which names its tables (default $PIMNBR_STATE_DIR, else "
                   "/run/pimnbr)" )
      ->type_name( "DIR" );
   app.add_option( "command", words, "show ..." )->required();
   CLI11_PARSE( app, argc, argv );

   PimNbr::Request req;
   req.stateDir = stateDir;
   const bool json = !words.empty() && words.back() == "json";
   std::string error = words.front() == "show" ? std::string()
                                                : "unknown command '" + words.front() + "' (try 'show')";
   if( error.empty() ) error = PimNbr::parseWords( { words.begin() + 1, words.end() }, req );
   if( !error.empty() ) {
      std::cerr << "pimnbr: " << error << "\n";
      if( json ) std::cout << "{}\n";
      return 2;
   }
   return PimNbr::show( req, std::cout, std::cerr );
}

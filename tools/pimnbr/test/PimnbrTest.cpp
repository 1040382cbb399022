// pimnbr against the tables a lab run publishes in shared memory: text
// output against golden files, JSON output against the schema.
// PIMNBR_UPDATE_GOLDEN=1 rewrites the golden files from the run.
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <valijson/adapters/nlohmann_json_adapter.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validator.hpp>

#include "Lab.h"
#include "Scenario.h"
#include "Show.h"
#include "kiv/Log.h"

namespace {

// Two IPv4 routers on one LAN (r1 has a second, empty one), two IPv6 routers on another; r2 stops
// sending at 100 s, so at 150 s r1 still holds it with a short hold time
// left, and the IPv6 LAN has elected c.
constexpr const char * kScenario = R"({
  "name": "pimnbr-golden", "seed": 11, "duration": 150,
  "segments": [ { "name": "lan4", "delay": 0.001 }, { "name": "stub", "delay": 0.001 },
                { "name": "lan6", "delay": 0.001 } ],
  "routers": [
    { "name": "r1", "interfaces": [
      { "name": "Ethernet1", "segment": "lan4", "address": "198.18.1.1/24", "drPriority": 10 },
      { "name": "Ethernet2", "segment": "stub", "address": "198.18.2.1/24", "drPriority": 1 } ] },
    { "name": "r2", "interfaces": [
      { "name": "Ethernet1", "segment": "lan4", "address": "198.18.1.2/24", "drPriority": 1 } ] },
    { "name": "a", "interfaces": [
      { "name": "Ethernet1", "segment": "lan6", "address": "2001:db8:2::1/64", "drPriority": 5 } ] },
    { "name": "c", "interfaces": [
      { "name": "Ethernet1", "segment": "lan6", "address": "2001:db8:2::3/64", "drPriority": 7 } ] }
  ],
  "events": [ { "at": 100, "action": "stop", "router": "r2" } ]
})";

struct Case {
   const char * golden;  // file under the golden directory
   const char * router;
   const char * command; // words after "show"
   int status;
};

const Case kCases[] = {
   { "nbr.txt", "r1", "ip pim neighbor", 0 },
   { "nbr_detail.txt", "r1", "ip pim neighbor detail", 0 },
   { "nbr.json", "r1", "ip pim neighbor json", 0 },
   { "nbr_addr.json", "r1", "ip pim neighbor 198.18.1.2 json", 0 },
   { "nbr_detail.json", "r1", "ip pim neighbor detail json", 0 },
   { "nbr_vrf_all.json", "r1", "ip pim vrf all neighbor json", 0 },
   { "nbr_none.json", "r1", "ip pim neighbor 198.18.9.9 json", 1 },
   { "intf.txt", "r1", "ip pim interface", 0 },
   { "intf_vrf_all.txt", "r1", "ip pim vrf all interface", 0 },
   { "intf_detail.txt", "r1", "ip pim interface detail", 0 },
   { "intf.json", "r1", "ip pim interface json", 0 },
   { "intf_eth1.json", "r1", "ip pim interface Ethernet1 json", 0 },
   { "intf_none.json", "r1", "ip pim interface Ethernet9 json", 1 },
   { "traffic.txt", "r1", "ip pim interface traffic", 0 },
   { "traffic.json", "r1", "ip pim interface traffic json", 0 },
   { "nbr6.txt", "a", "ipv6 pim neighbor", 0 },
   { "nbr6.json", "a", "ipv6 pim neighbor json", 0 },
   { "intf6.txt", "a", "ipv6 pim interface", 0 },
   { "nbr6_none.json", "a", "ip pim neighbor json", 1 },
};

std::string readFile( const std::string & path ) {
   std::ifstream in( path );
   std::stringstream ss;
   ss << in.rdbuf();
   return ss.str();
}

std::vector< std::string > words( const std::string & s ) {
   std::istringstream in( s );
   std::vector< std::string > w;
   for( std::string x; in >> x; ) w.push_back( x );
   return w;
}

TEST( Pimnbr, OutputOfALabRunMatchesGoldenFilesAndSchema ) {
   Kiv::LogHandle::outputIs( Kiv::LogOutput::None );
   const std::string dir = "/tmp/pimnbr-test-" + std::to_string( getpid() );
   const bool update = std::getenv( "PIMNBR_UPDATE_GOLDEN" ) != nullptr;
   const auto schemaDoc = nlohmann::json::parse( readFile( PIMNBR_SCHEMA ) );
   valijson::Schema schema;
   valijson::SchemaParser().populateSchema( valijson::adapters::NlohmannJsonAdapter( schemaDoc ), schema );
   PimLab::LabOptions options;
   options.shmDir = dir;
   bool ran = false;
   options.atEnd = [ & ] {
      ran = true;
      for( const Case & c : kCases ) {
         SCOPED_TRACE( c.command );
         PimNbr::Request req;
         req.stateDir = dir + "/" + c.router;
         ASSERT_EQ( PimNbr::parseWords( words( c.command ), req ), "" );
         std::ostringstream out, err;
         EXPECT_EQ( PimNbr::show( req, out, err ), c.status ) << err.str();
         EXPECT_EQ( err.str().empty(), c.status == 0 ) << err.str();
         const std::string golden = std::string( PIMNBR_GOLDEN_DIR ) + "/" + c.golden;
         if( update ) std::ofstream( golden ) << out.str();
         EXPECT_EQ( out.str(), readFile( golden ) );
         if( req.json ) {
            const auto doc = nlohmann::json::parse( out.str() );
            const valijson::adapters::NlohmannJsonAdapter adapter( doc );
            EXPECT_TRUE( valijson::Validator().validate( schema, adapter, nullptr ) ) << "against the schema";
         }
      }
   };
   PimLab::runScenario( PimLab::scenarioFromJson( kScenario ), options );
   EXPECT_TRUE( ran );
}

TEST( Pimnbr, CommandWordsParseOrAreRefused ) {
   const std::pair< const char *, bool > cases[] = { { "ip pim vrf red neighbor 198.18.0.1 detail json", true },
                                                     { "ipv6 pim interface traffic json", true },
                                                     { "ip pim interface Ethernet1 detail", true },
                                                     { "ip igmp neighbor", false },
                                                     { "ip pim vrf", false },
                                                     { "ip pim neighbor json 198.18.0.1", false },
                                                     { "ip pim interface traffic detail", false },
                                                     { "ip pim route", false } };
   for( const auto & [ command, ok ] : cases ) {
      PimNbr::Request req;
      EXPECT_EQ( PimNbr::parseWords( words( command ), req ).empty(), ok ) << command;
   }
}

} // namespace

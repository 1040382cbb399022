// The built plug-in as a host loads it: what it exports, the ABI check, and
// an IPv4 agent run end to end through dlopen on virtual time.
#include <cstdio>
#include <set>
#include <string>

#include "../../agent/test/AgentFixture.h"

namespace PimAgentTest {
namespace {

std::set< std::string > definedDynamicSymbols( const std::string & path ) {
   std::set< std::string > out;
   FILE * p = ::popen( ( "nm -D --defined-only '" + path + "' 2>/dev/null" ).c_str(), "r" );
   if( !p ) return out;
   char line[ 512 ];
   while( std::fgets( line, sizeof line, p ) ) {
      std::string s( line );
      while( !s.empty() && ( s.back() == '\n' || s.back() == ' ' ) ) s.pop_back();
      const auto sp = s.rfind( ' ' );
      if( sp != std::string::npos ) out.insert( s.substr( sp + 1 ) );
   }
   ::pclose( p );
   return out;
}

TEST( PluginTest, ExportsExactlyTheFactoriesAndTheDescriptor ) {
   const std::set< std::string > want = {
      "agentFactory",      "agent4Factory",     "agent6Factory",     "configSmFactory",
      "containerSmFactory", "intfSmFactory",    "neighborSmFactory", "helloSmFactory",
      "asuSmFactory",      "routerIdSmFactory", "vrfPimIntfFactory", "rpConfigCheckSmFactory",
      "agentPluginDescriptor",
   };
   EXPECT_EQ( definedDynamicSymbols( PIMAGENT_PLUGIN ), want );
   auto plugin = AgentBase::Plugin::load( PIMAGENT_PLUGIN );
   for( const auto & f : want ) {
      if( f != "agentPluginDescriptor" ) {
         EXPECT_TRUE( plugin->factorySymbol( f ) ) << f << " listed in the descriptor";
      }
   }
}

TEST( PluginTest, RefusesAnotherAbiVersionAndWhatIsNoPlugin ) {
   // The bad plug-in declares the version after this host's.
   const std::string badAbi = "plug-in ABI version " + std::to_string( AgentBase::kPluginAbiVersion + 1 ) +
                              ", this host needs " + std::to_string( AgentBase::kPluginAbiVersion );
   struct Row {
      std::string path;
      std::string message;
   } rows[] = {
      { PIMAGENT_BADABI_PLUGIN, badAbi },
      { "/nonexistent/libnothing.so", "cannot load" },
   };
   for( const auto & r : rows ) {
      try {
         AgentBase::Plugin::load( r.path );
         ADD_FAILURE() << r.path << " loaded";
      } catch( const AgentBase::PluginError & e ) {
         EXPECT_NE( std::string( e.what() ).find( r.message ), std::string::npos ) << e.what();
      }
   }
}

class PluginProcessTest : public AgentFixture {};

TEST_F( PluginProcessTest, ConfigurationInTheStoreBecomesANeighbourInTheStatusTable ) {
   auto plugin = AgentBase::Plugin::load( PIMAGENT_PLUGIN );
   host_.agentIs( plugin, "agent4Factory", "pim" );
   startHosted();
   ASSERT_TRUE( agent() ) << "the plug-in's agent is a Routing::Pim::Agent";
   configureRed();
   ASSERT_TRUE( receiveHello( "red", "Ethernet7", "198.18.7.2", 30 ) );
   EXPECT_TRUE( hasNeighborRow( "red", "Ethernet7", "198.18.7.2" ) );
   EXPECT_FALSE( Kiv::NboAttrLog::Root::top().outSm( "pim" )->lines().empty() )
      << "the attribute log saw the VRF enabled";
}

} // namespace
} // namespace PimAgentTest

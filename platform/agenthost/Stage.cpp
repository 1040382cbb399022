#include "agenthost/Stage.h"

#include "dovel/Dovel.h"

namespace Stage {

std::string classPathName( const std::string & stageClass ) {
   if( stageClass == bootStageClass ) return "boot";
   if( stageClass == shutdownStageClass ) return "shutdown";
   return std::string();
}

std::string progressPath( const std::string & c ) {
   return Cell::path( "stage/" + classPathName( c ) + "/progress" );
}
std::string completionStatusPath( const std::string & c ) {
   return Cell::path( "stage/" + classPathName( c ) + "/completionstatus" );
}
std::string agentConfigPath( const std::string & c, const std::string & agent ) {
   return Cell::path( "stageInput/" + classPathName( c ) + "/" + agent );
}
std::string agentStatusPath( const std::string & c, const std::string & agent ) {
   return Cell::path( "stageAgentStatus/" + classPathName( c ) + "/" + agent );
}

void registerStoreTypes() {
   auto & t = Dovel::TypeRegistry::instance();
   t.typeIs< AgentConfig >( "Stage::AgentConfig" );
   t.typeIs< AgentStatus >( "Stage::AgentStatus" );
   t.typeIs< ProgressDir >( "Stage::ProgressDir" );
   t.typeIs< CompletionStatusDir >( "Stage::CompletionStatusDir" );
}

} // namespace Stage

#include "agenthost/AgentHost.h"

#include <dlfcn.h>

#include <cassert>
#include <cstring>

#include "agenthost/AttrLog.h"
#include "kiv/ActivityManager.h"

namespace AgentBase {

Kiv::Ptr< Plugin > Plugin::load( const std::string & path ) {
   // Entities made by the plug-in's code may outlive any one host: the
   // library is never unmapped.
   void * handle = ::dlopen( path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE );
   if( !handle ) {
      const char * err = ::dlerror();
      throw PluginError( path + ": cannot load: " + ( err ? err : "unknown error" ) );
   }
   const auto * d = static_cast< const PluginDescriptor * >( ::dlsym( handle, kPluginDescriptorSymbol ) );
   if( !d ) {
      ::dlclose( handle );
      throw PluginError( path + ": not an agent plug-in (no " + kPluginDescriptorSymbol + ")" );
   }
   if( d->abiVersion != kPluginAbiVersion ) {
      const std::uint32_t v = d->abiVersion;
      ::dlclose( handle );
      throw PluginError( path + ": plug-in ABI version " + std::to_string( v ) + ", this host needs " +
                         std::to_string( kPluginAbiVersion ) );
   }
   return Kiv::Ptr< Plugin >( new Plugin( path, handle, d ) );
}

void * Plugin::factorySymbol( const std::string & name ) const {
   for( const char * const * f = descriptor_->factories; f && *f; ++f ) {
      if( name == *f ) return ::dlsym( handle_, *f );
   }
   return nullptr;
}

Kiv::Ptr< CAgent > Plugin::agentIs( const std::string & factoryName, const std::string & agentName ) const {
   auto fn = reinterpret_cast< AgentFactoryFn >( factorySymbol( factoryName ) );
   if( !fn ) throw PluginError( path_ + ": no factory " + factoryName );
   Kiv::Ptr< CAgent > agent = fn( agentName.c_str() );
   if( !agent ) throw PluginError( path_ + ": " + factoryName + " returned no agent" );
   return agent;
}

AgentHost::AgentHost( const Kiv::Ptr< Dovel::Store > & store )
      : store_( store ), entityManager_( Kiv::make< Dovel::EntityManager >( store ) ),
        redundancy_( Kiv::make< Redundancy::RedundancyStatus >() ) {
   Stage::registerStoreTypes();
   for( const char * c : { Stage::bootStageClass, Stage::shutdownStageClass } ) {
      store_->entityIs( Stage::progressPath( c ), "Stage::ProgressDir" );
      store_->entityIs( Stage::completionStatusPath( c ), "Stage::CompletionStatusDir" );
   }
}

AgentHost::~AgentHost() {
   if( agent_ ) agentDel();
}

Kiv::Ptr< CAgent > AgentHost::agentIs( const Kiv::Ptr< Plugin > & plugin, const std::string & factoryName,
                                       const std::string & agentName ) {
   return agentIs( plugin->agentIs( factoryName, agentName ) );
}

Kiv::Ptr< CAgent > AgentHost::agentIs( const Kiv::Ptr< CAgent > & agent ) {
   assert( !agent_ && "one agent per host" );
   agent_ = agent;
   agent_->entityManagerIs( entityManager_ );
   agent_->redundancyStatusIs( redundancy_ );
   if( varnDirectory_ ) agent_->varnDirectoryIs( varnDirectory_ );
   Kiv::NboAttrLog::Root::top().outSmIs( agent_->name() );
   return agent_;
}

void AgentHost::doInit() {
   agent_->doPreInit();
   agent_->doInit();
}

std::size_t AgentHost::publishMissing() {
   std::size_t n = 0;
   for( const Dovel::Mount & m : allMounts() ) {
      Dovel::MountMode mode;
      if( store_->entity( m.path ) || !Dovel::MountMode::parse( m.mode, mode ) || mode.create ) continue;
      if( !store_->types().hasType( m.typeName ) ) continue;
      store_->entityIs( m.path, m.typeName );
      ++n;
   }
   return n;
}

Dovel::MountStatus AgentHost::doMount() {
   entityManager_->doMountClosedGroups();
   for( const Dovel::Mount & m : allMounts() ) {
      if( m.typeName == "Stage::AgentStatus" ) statusPaths_.push_back( m.path );
   }
   return entityManager_->lastStatus();
}

std::vector< Dovel::Mount > AgentHost::allMounts() const {
   std::vector< Dovel::Mount > out;
   for( const auto & g : entityManager_->groups() ) {
      if( g->closed() ) out.insert( out.end(), g->mounts().begin(), g->mounts().end() );
   }
   return out;
}

Kiv::Ptr< Stage::ProgressDir > AgentHost::progress( const std::string & stageClass ) {
   return store_->entity< Stage::ProgressDir >( Stage::progressPath( stageClass ) );
}

bool AgentHost::stageDone( const std::string & stageClass, const std::string & stage ) const {
   const std::string prefix = Cell::path( "stageAgentStatus/" + Stage::classPathName( stageClass ) + "/" );
   for( const std::string & p : statusPaths_ ) {
      if( p.compare( 0, prefix.size(), prefix ) != 0 ) continue;
      auto s = store_->entity< Stage::AgentStatus >( p );
      if( s && !s->done( stage ) ) return false;
   }
   return true;
}

void AgentHost::stageStart( const std::string & stageClass, const std::string & stage ) {
   auto p = progress( stageClass );
   assert( p && "the host publishes its progress entities" );
   p->startedStageIs( stage );
   p->currentStageIs( stage );
}

void AgentHost::stageCompleteIs( const std::string & stageClass, const std::string & stage ) {
   auto done = store_->entity< Stage::CompletionStatusDir >( Stage::completionStatusPath( stageClass ) );
   done->stageCompleteIs( stage );
}

bool AgentHost::runStage( const std::string & stageClass, const std::string & stage, double timeout ) {
   stageStart( stageClass, stage );
   Kiv::ActivityManager & loop = Kiv::activityManager();
   const double deadline = loop.clock().now() + timeout;
   loop.runUntilIdle();
   while( !stageDone( stageClass, stage ) ) {
      const double now = loop.clock().now();
      if( now >= deadline ) return false;
      if( loop.virtualClock() ) {
         double next = loop.nextDeadline();
         if( !( next > now ) || next > deadline ) next = deadline;
         loop.advanceTo( next );
      } else {
         loop.runOnce( std::min( 0.1, deadline - now ) );
      }
   }
   stageCompleteIs( stageClass, stage );
   loop.runUntilIdle();
   return true;
}

bool AgentHost::doBoot( const std::vector< std::string > & stages, double timeout ) {
   for( const auto & s : stages ) {
      if( !runStage( Stage::bootStageClass, s, timeout ) ) return false;
   }
   return true;
}

bool AgentHost::doShutdown( const std::vector< std::string > & stages, double timeout ) {
   for( const auto & s : stages ) {
      if( !runStage( Stage::shutdownStageClass, s, timeout ) ) return false;
   }
   return true;
}

void AgentHost::agentDel() {
   Kiv::Ptr< CAgent > a = std::move( agent_ );
   if( !a ) return;
   a->doCleanup();
   Kiv::NboAttrLog::Root::top().outSmDel( a->name() );
}

} // namespace AgentBase

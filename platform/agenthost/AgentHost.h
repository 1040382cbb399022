#pragma once
// The agent host library: loads an agent plug-in and drives one agent through
// its life on the process's activity loop. Tests and daemons use it alike.
//
//   auto store = Kiv::make< Dovel::Store >();        // the caller's store
//   auto plugin = AgentBase::Plugin::load( "libpimagent.so" );  // throws PluginError
//   AgentBase::AgentHost host( store );
//   host.agentIs( plugin, "agent4Factory", "pim" );  // construct
//   host.doInit();                                    // doPreInit + doInit
//   host.publishMissing();                            // optional, see below
//   host.doMount();                                   // mount + doMountsComplete
//   host.doBoot( { "NetworkAgent", "PimIntfUpdate" } );
//   ... run the loop; write configuration entities into the store ...
//   host.doShutdown( { "NetworkAgentShutdown" } );
//   host.agentDel();                                  // doCleanup + destruction
//
// The store is the caller's: a daemon writes its configuration entities into
// it (Store::entityIs) before or after mounting; the agent sees them because
// it mounts the same objects. Everything runs on Kiv::activityManager(): on a
// virtual clock the host moves time itself while it waits for a stage, on the
// real clock it turns the loop.
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "agenthost/CAgent.h"
#include "agenthost/Redundancy.h"
#include "agenthost/Stage.h"
#include "dovel/Dovel.h"

namespace AgentBase {

// The one data symbol a plug-in exports next to its factories, named
// kPluginDescriptorSymbol. The host refuses a plug-in whose abiVersion
// differs from kPluginAbiVersion (the layout of CAgent and of the runtime).
inline constexpr std::uint32_t kPluginAbiVersion = 2;
inline constexpr const char * kPluginDescriptorSymbol = "agentPluginDescriptor";
struct PluginDescriptor {
   std::uint32_t abiVersion;
   const char * name;
   // The exported factory names, null-terminated.
   const char * const * factories;
};
// An agent factory (exported with C linkage, so found by its plain name).
using AgentFactoryFn = Kiv::Ptr< CAgent > ( * )( const char * name );

class PluginError : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

class Plugin : public Kiv::PtrInterface {
 public:
   // dlopen + descriptor check. Throws PluginError with the reason: the
   // loader's message, a missing descriptor, or "<path>: plug-in ABI version
   // N, this host needs M". The library stays mapped for the process's life.
   static Kiv::Ptr< Plugin > load( const std::string & path );
   const std::string & path() const { return path_; }
   const PluginDescriptor & descriptor() const { return *descriptor_; }
   // A symbol the descriptor lists; null for one it does not.
   void * factorySymbol( const std::string & name ) const;
   Kiv::Ptr< CAgent > agentIs( const std::string & factoryName, const std::string & agentName ) const;

 private:
   Plugin( std::string path, void * handle, const PluginDescriptor * d )
         : path_( std::move( path ) ), handle_( handle ), descriptor_( d ) {}
   std::string path_;
   void * handle_;
   const PluginDescriptor * descriptor_;
};

class AgentHost {
 public:
   explicit AgentHost( const Kiv::Ptr< Dovel::Store > & store );
   ~AgentHost();
   AgentHost( const AgentHost & ) = delete;
   AgentHost & operator=( const AgentHost & ) = delete;

   const Kiv::Ptr< Dovel::Store > & store() const { return store_; }
   const Kiv::Ptr< Dovel::EntityManager > & entityManager() const { return entityManager_; }
   // The redundancy role the agent sees; write mode/protocol to switch it.
   const Kiv::Ptr< Redundancy::RedundancyStatus > & redundancyStatus() const { return redundancy_; }
   const Kiv::Ptr< CAgent > & agent() const { return agent_; }
   // Shared-memory tables of the agent go there (default: the process's).
   void varnDirectoryIs( KivVarn::Directory * dir ) { varnDirectory_ = dir; }

   // Construction: from a plug-in's factory, or an agent built by the caller.
   // Also registers the agent's attribute-log output under its name.
   Kiv::Ptr< CAgent > agentIs( const Kiv::Ptr< Plugin > & plugin, const std::string & factoryName,
                               const std::string & agentName );
   Kiv::Ptr< CAgent > agentIs( const Kiv::Ptr< CAgent > & agent );
   // doPreInit then doInit.
   void doInit();
   // Stands in for the rest of a system: publishes an empty entity of the
   // mounted type at every path of the agent's closed mount groups that
   // nobody has published yet and that its mount does not create ("c").
   // Returns how many it published.
   std::size_t publishMissing();
   // Mounts and calls doMountsComplete; returns the mount status.
   Dovel::MountStatus doMount();
   // Starts the stage and waits (at most timeout seconds of loop time) until
   // every agent that waits for it has completed it; then records it complete.
   bool runStage( const std::string & stageClass, const std::string & stage, double timeout = 30.0 );
   bool doBoot( const std::vector< std::string > & stages, double timeout = 30.0 );
   bool doShutdown( const std::vector< std::string > & stages, double timeout = 30.0 );
   // The three steps of runStage, for a caller that runs one stage on
   // several hosts at once and turns the loop itself.
   void stageStart( const std::string & stageClass, const std::string & stage );
   bool stageDone( const std::string & stageClass, const std::string & stage ) const;
   void stageCompleteIs( const std::string & stageClass, const std::string & stage );
   // doCleanup, then drops the agent (destroyed with its last reference).
   void agentDel();

 private:
   std::vector< Dovel::Mount > allMounts() const;
   Kiv::Ptr< Stage::ProgressDir > progress( const std::string & stageClass );
   Kiv::Ptr< Dovel::Store > store_;
   Kiv::Ptr< Dovel::EntityManager > entityManager_;
   Kiv::Ptr< Redundancy::RedundancyStatus > redundancy_;
   Kiv::Ptr< CAgent > agent_;
   KivVarn::Directory * varnDirectory_ = nullptr;
   std::vector< std::string > statusPaths_;
};

} // namespace AgentBase

#pragma once
// The stage protocol between the agent host and its agents. Per stage class
// ("bootStageClass", "shutdownStageClass") the host publishes its progress
// (the stage now running) and the stages completed overall; each agent has an
// input of its own (whether it takes part) and reports, in its status, the
// stages it waits for and those it has completed. The host moves to the next
// stage once every agent that waits for the current one has completed it.
#include <string>

#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"
#include "kiv/String.h"

namespace Stage {

inline constexpr const char * bootStageClass = "bootStageClass";
inline constexpr const char * shutdownStageClass = "shutdownStageClass";
// "boot" / "shutdown": the path element of a stage class ("" for another).
std::string classPathName( const std::string & stageClass );
// Per-cell paths of the host's entities and of one agent's.
std::string progressPath( const std::string & stageClass );
std::string completionStatusPath( const std::string & stageClass );
std::string agentConfigPath( const std::string & stageClass, const std::string & agent );
std::string agentStatusPath( const std::string & stageClass, const std::string & agent );

// What the host asks of one agent: nothing is delivered while disabled.
#define STAGE_AGENT_CONFIG_ATTRS( X ) \
   X( SCALAR, enabled, Enabled, bool, true )

class AgentConfig : public Kiv::Entity {
 public:
   explicit AgentConfig( const Kiv::Name & name = Kiv::Name() ) : Kiv::Entity( name ) {}
   const char * typeName() const override { return "Stage::AgentConfig"; }
   KIV_ENTITY( AgentConfig, "Stage::AgentConfig", STAGE_AGENT_CONFIG_ATTRS )
};
KIV_NOTIFIEE( AgentConfig, STAGE_AGENT_CONFIG_ATTRS )

// What one agent reports.
#define STAGE_AGENT_STATUS_ATTRS( X )                 \
   X( SET, waitedStage, WaitedStage, Kiv::String )    \
   X( SET, completedStage, CompletedStage, Kiv::String )

class AgentStatus : public Kiv::Entity {
 public:
   explicit AgentStatus( const Kiv::Name & name = Kiv::Name() ) : Kiv::Entity( name ) {}
   const char * typeName() const override { return "Stage::AgentStatus"; }
   KIV_ENTITY( AgentStatus, "Stage::AgentStatus", STAGE_AGENT_STATUS_ATTRS )
   // Nothing left to do for stage: not waited for, or completed.
   bool done( const std::string & stage ) const {
      return !waitedStage( Kiv::String( stage ) ) || completedStage( Kiv::String( stage ) );
   }
};
KIV_NOTIFIEE( AgentStatus, STAGE_AGENT_STATUS_ATTRS )

// The host's progress through a stage class: the stages started so far, the
// last one being the current one.
#define STAGE_PROGRESS_DIR_ATTRS( X )                 \
   X( SCALAR, currentStage, CurrentStage, Kiv::String, {} ) \
   X( SET, startedStage, StartedStage, Kiv::String )

class ProgressDir : public Kiv::Entity {
 public:
   explicit ProgressDir( const Kiv::Name & name = Kiv::Name() ) : Kiv::Entity( name ) {}
   const char * typeName() const override { return "Stage::ProgressDir"; }
   KIV_ENTITY( ProgressDir, "Stage::ProgressDir", STAGE_PROGRESS_DIR_ATTRS )
};
KIV_NOTIFIEE( ProgressDir, STAGE_PROGRESS_DIR_ATTRS )

// The stages every agent has completed.
#define STAGE_COMPLETION_STATUS_DIR_ATTRS( X ) \
   X( SET, stageComplete, StageComplete, Kiv::String )

class CompletionStatusDir : public Kiv::Entity {
 public:
   explicit CompletionStatusDir( const Kiv::Name & name = Kiv::Name() ) : Kiv::Entity( name ) {}
   const char * typeName() const override { return "Stage::CompletionStatusDir"; }
   KIV_ENTITY( CompletionStatusDir, "Stage::CompletionStatusDir", STAGE_COMPLETION_STATUS_DIR_ATTRS )
};
KIV_NOTIFIEE( CompletionStatusDir, STAGE_COMPLETION_STATUS_DIR_ATTRS )

// Registers the four types with the store.
void registerStoreTypes();

} // namespace Stage

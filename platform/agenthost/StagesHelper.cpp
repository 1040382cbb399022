#include "agenthost/StagesHelper.h"

#include "agenthost/CAgent.h"

namespace AgentBase {

StagesHelper::StagesHelper( const std::string & stageClass, CAgent * agent,
                            const Kiv::Ptr< const Stage::AgentConfig > & agentConfig,
                            const Kiv::Ptr< Stage::AgentStatus > & agentStatus,
                            const Kiv::Ptr< const Stage::ProgressDir > & progress,
                            const Kiv::Ptr< const Stage::CompletionStatusDir > & completionStatus )
      : stageClass_( stageClass ), agent_( agent ), agentConfig_( agentConfig ),
        agentStatus_( Kiv::ValidPtr< Stage::AgentStatus >( agentStatus ) ), progress_( progress ),
        completionStatus_( completionStatus ), progressReactor_( this ), agentConfigReactor_( this ) {
   progressReactor_.notifierIs( progress_ );
   agentConfigReactor_.notifierIs( agentConfig_ );
}

StagesHelper::~StagesHelper() = default;

void StagesHelper::waitForStage( const std::string & stage ) { agentStatus_->waitedStageIs( stage ); }

void StagesHelper::doStageComplete( const std::string & stage ) { agentStatus_->completedStageIs( stage ); }

void StagesHelper::setInstanceCompletionStatusDir( const Kiv::Ptr< const Stage::CompletionStatusDir > & dir ) {
   completionStatus_ = dir;
}

void StagesHelper::handleProgress() {
   if( !progress_ || !agent_ ) return;
   if( agentConfig_ && !agentConfig_->enabled() ) return;
   const std::string stage = progress_->currentStage().str();
   if( stage.empty() || delivered_.contains( stage ) ) return;
   if( completionStatus_ && completionStatus_->stageComplete( Kiv::String( stage ) ) ) return;
   delivered_.insertOrAssignFn( stage, true );
   agent_->doStage( stageClass_, stage );
}

} // namespace AgentBase

#pragma once
// AgentBase::StagesHelper: one agent's side of one stage class. It delivers
// every stage the host starts to the agent's doStage (while the agent's stage
// input is enabled), once per stage; records the stages the agent waits for
// (the host waits for those) and the ones it declares complete.
#include <string>

#include "agenthost/Stage.h"
#include "kiv/Notifiee.h"
#include "kiv/Ptr.h"
#include "kiv/OwnedReactor.h"

namespace AgentBase {

class CAgent;

class StagesHelper : public Kiv::StateMachine {
 public:
   // agentStatus is required ("null ValidPtr"); the others may be missing
   // (nothing is then delivered).
   StagesHelper( const std::string & stageClass, CAgent * agent,
                 const Kiv::Ptr< const Stage::AgentConfig > & agentConfig,
                 const Kiv::Ptr< Stage::AgentStatus > & agentStatus,
                 const Kiv::Ptr< const Stage::ProgressDir > & progress,
                 const Kiv::Ptr< const Stage::CompletionStatusDir > & completionStatus );
   ~StagesHelper() override;

   const std::string & stageClass() const { return stageClass_; }
   void waitForStage( const std::string & stage );
   void doStageComplete( const std::string & stage );
   // Stages completed overall, as the host records them: a stage already
   // complete there is not delivered again.
   void setInstanceCompletionStatusDir( const Kiv::Ptr< const Stage::CompletionStatusDir > & dir );
   const Kiv::Ptr< Stage::AgentStatus > & agentStatus() const { return agentStatus_; }

   void handleProgress();

 private:
   class KivProgress : public Kiv::OwnedReactor< Stage::ProgressDir::NotifieeConst, StagesHelper > {
    public:
      using OwnedReactor::OwnedReactor;
      void onCurrentStage() override { owner_->handleProgress(); }
   };
   class KivAgentConfig : public Kiv::OwnedReactor< Stage::AgentConfig::NotifieeConst, StagesHelper > {
    public:
      using OwnedReactor::OwnedReactor;
      void onEnabled() override { owner_->handleProgress(); }
   };

   const std::string stageClass_;
   CAgent * agent_;
   Kiv::Ptr< const Stage::AgentConfig > agentConfig_;
   Kiv::Ptr< Stage::AgentStatus > agentStatus_;
   Kiv::Ptr< const Stage::ProgressDir > progress_;
   Kiv::Ptr< const Stage::CompletionStatusDir > completionStatus_;
   Kiv::HashMap< std::string, bool > delivered_;
   KivProgress progressReactor_;
   KivAgentConfig agentConfigReactor_;
};

} // namespace AgentBase

#pragma once
// AgentBase::CAgent: the base of an agent that a host runs. Its life, driven
// by the host (AgentHost.h):
//   construction (by a factory) -> doPreInit -> doInit (declares mounts in a
//   mount group and closes it; creates local entities) -> mounting ->
//   doMountsComplete -> doStage callbacks -> doCleanup -> destruction.
// The agent runs on the process's activity loop: every callback and every
// reaction of its machines runs there, one at a time.
#include <string>

#include "dovel/Dovel.h"
#include "agenthost/Redundancy.h"
#include "kiv/Notifiee.h"
#include "kiv/Ptr.h"
#include "tolm/TimerWheel.h"
#include "varn/VarnMount.h"

namespace AgentBase {

class CAgent : public Kiv::StateMachine, public Dovel::Mounter {
 public:
   explicit CAgent( const std::string & name );
   ~CAgent() override;
   const std::string & name() const { return name_; }

   // ---- what an agent overrides ----
   virtual void doPreInit() {}
   virtual void doInit() {}
   void doMountsComplete( Dovel::MountStatus, const Kiv::Ptr< Dovel::EntityManager > & ) override {}
   virtual void doStage( const std::string & stageClass, const std::string & stage );
   virtual void doCleanup() {}

   // ---- what the host sets before doInit ----
   void entityManagerIs( const Kiv::Ptr< Dovel::EntityManager > & em ) { entityManager_ = em; }
   const Kiv::Ptr< Dovel::EntityManager > & entityManager() const { return entityManager_; }
   void redundancyStatusIs( const Kiv::Ptr< Redundancy::RedundancyStatus > & r ) { redundancyStatus_ = r; }
   // The host's redundancy status (a default active one until the host sets it).
   const Kiv::Ptr< Redundancy::RedundancyStatus > & redundancyStatus() const { return redundancyStatus_; }
   void varnDirectoryIs( KivVarn::Directory * dir );

   // ---- facilities ----
   // A new mount group of this agent in the entity manager.
   Kiv::Ptr< Dovel::MountGroup > getMountGroup();
   // An entity that lives only in this agent, found by path like mounted ones.
   Kiv::Ptr< Kiv::Notifier > createLocalEntity( const std::string & name, const std::string & typeName,
                                                const std::string & path );
   bool localEntitiesCreated() const { return localEntitiesCreated_; }
   void localEntitiesCreatedIs( bool b ) { localEntitiesCreated_ = b; }
   // The agent's timer wheel on the loop's clock, and its table mount.
   const Kiv::Ptr< Tolm::TimerWheel > & timerWheel() const { return timerWheel_; }
   const Kiv::Ptr< KivVarn::Mount > & varnMount() const { return varnMount_; }

 private:
   const std::string name_;
   Kiv::Ptr< Dovel::EntityManager > entityManager_;
   Kiv::Ptr< Redundancy::RedundancyStatus > redundancyStatus_;
   Kiv::Ptr< Tolm::TimerWheel > timerWheel_;
   Kiv::Ptr< KivVarn::Mount > varnMount_;
   bool localEntitiesCreated_ = false;
};

} // namespace AgentBase

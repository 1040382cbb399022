#pragma once
// One simulated router of the lab: its platform inputs, its PIM machines for
// the default VRF and its endpoint on the simulated LAN.
//
// Two ways to build the machines:
//  * pipeline (default): the configuration pipeline (ConfigSm) gets the
//    router's inputs as the platform would publish them (PIM configuration,
//    IP interface status, kernel interfaces, multicast enablement, table and
//    namespace mounts) and creates the VRF's container, status writer and
//    engines from them. The endpoint binds to the PIM socket handle of the
//    container once the container exists.
//  * direct: the interface owner (GlobalIntfSm) and the Hello processor
//    (HelloSm) are built with the entities they need, and the PIM interface
//    entries are written here. Useful to tell a pipeline fault from an engine
//    fault.
// Everything that depends on how the machines are built stays inside this
// class: the lab sees the status collection, the endpoint and a handful of
// operations.
#include <cstdint>
#include <memory>
#include <string>

#include "Scenario.h"
#include "model/PimStatus.h"
#include "services/simlan/SimLan.h"
#include "tolm/TimerWheel.h"

namespace Routing::Pim {
class VrfPipeline;
}

namespace PimLab {

enum class Engine { pipeline, direct };
const char * engineName( Engine e );

class Router {
 public:
   static constexpr const char * kVrf = "default";

   // index (from 1) makes the router's bridge MAC address and ifindexes.
   Router( const RouterDesc & desc, std::uint32_t index, SimLan::Lan & lan,
           const Kiv::Ptr< Tolm::TimerWheel > & wheel, Engine engine = Engine::pipeline );
   ~Router();
   Router( const Router & ) = delete;
   Router & operator=( const Router & ) = delete;

   const RouterDesc & desc() const { return desc_; }
   const std::string & name() const { return desc_.name; }
   bool running() const { return running_; }

   Engine engine() const { return engine_; }
   // Status of every VRF; a new one at every start.
   const Kiv::Ptr< Routing::Pim::AllStatusColl > & allStatusColl() const { return allStatusColl_; }
   // The endpoint while running, else null.
   SimLan::Endpoint * endpoint() const { return endpoint_.get(); }
   // Counters of every endpoint the router has had, the current one included.
   SimLan::EndpointCounters counters() const;

   // Brings the router up: a fresh generation id on every interface.
   void start();
   // Silent stop: the router vanishes without a goodbye.
   void stop();
   // PIM off on every interface: goodbye Hellos. The caller runs the loop
   // before stop() so that the goodbyes leave before the endpoint goes down.
   void goodbyeIs();
   // The interface's configured DR priority.
   void drPriorityIs( const std::string & intf, std::uint32_t priority );
   // Publish the status tables in shared memory under stateDir/<name>
   // from the next start on (empty: keep them in process memory).
   void shmDirIs( const std::string & stateDir ) { shmDir_ = stateDir; }
   // Tells readers of the shared tables the lab's virtual time.
   void publishClock( double now );
   // Unplugs / plugs back one interface (empty: all of them).
   void detach( const std::string & intf );
   void attach( const std::string & intf );

 private:
   void startDirect();
   void startPipeline();
   // Binds the endpoint to the PIM socket handle the VRF has now (pipeline).
   void bindEndpoint();
   // Binds it once the cascade that may (re)create the VRF's container has
   // settled: a timer due now fires before any Hello timer of new machines.
   void handlePimEnablement();
   void endpointIs( const Kiv::Ptr< Routing::Pim::IO::PamManager > & pam );
   Kiv::Ptr< Routing::Pim::Intf > intf( const std::string & name ) const;

   RouterDesc desc_;
   std::uint32_t index_;
   std::string shmDir_;
   SimLan::Lan & lan_;
   Kiv::Ptr< Tolm::TimerWheel > wheel_;
   Engine engine_;
   bool running_ = false;
   Kiv::Ptr< Routing::Pim::AllStatusColl > allStatusColl_;
   SimLan::EndpointCounters pastCounters_;

   // Built by start(), dropped by stop().
   struct Pipeline;
   std::unique_ptr< Routing::Pim::VrfPipeline > direct_;
   std::unique_ptr< Pipeline > pipeline_;
   std::unique_ptr< SimLan::Endpoint > endpoint_;
};

} // namespace PimLab

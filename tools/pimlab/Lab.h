#pragma once
// Runs a scenario on virtual time: builds the LAN and the routers, applies
// the timed events, watches every router's status (active neighbours and the
// elected DR of every interface) and collects what happened into a report,
// which renders as text tables or as JSON.
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Router.h"
#include "Scenario.h"

namespace PimLab {

// One line of the running story.
struct LabEvent {
   double time = 0.0;
   std::string router;
   std::string kind;        // up, down, dr, start, stop, shutdown, priority, cut, heal, loss, detach, attach
   std::string interface;
   std::string neighbor;    // up, down: the neighbour; dr: the new DR (empty: none)
   std::string previous;    // dr: the previous DR
   std::optional< std::uint32_t > priority;   // up: its DR priority; dr: the DR's priority
   std::string detail;      // readable rest
};

struct NeighborRow {
   std::string router;
   std::string interface;
   std::string neighbor;
   double uptime = 0.0;
   std::optional< double > expiresIn;          // none: never expires
   std::optional< std::uint32_t > drPriority;  // none: the Hello had no DR priority
   std::optional< std::uint32_t > generationId;
};

struct IntfRow {
   std::string router;
   std::string interface;
   std::string address;
   std::uint32_t drPriority = 0;   // own, configured
   std::string dr;                 // elected DR
   std::uint32_t drDrPriority = 0;
   bool iAmDr = false;
   std::size_t neighbors = 0;
};

struct CounterRow {
   std::string router;
   bool running = false;
   std::uint64_t tx = 0;
   std::uint64_t rx = 0;
   std::uint64_t lost = 0;
   std::uint64_t cut = 0;
   std::uint64_t detached = 0;
   std::uint64_t rejected = 0;
};

struct Snapshot {
   std::string name;   // checkpoint name, or "end"
   double time = 0.0;
   std::vector< IntfRow > interfaces;     // running routers only
   std::vector< NeighborRow > neighbors;
   std::vector< CounterRow > counters;
};

struct Report {
   std::string scenario;
   std::uint64_t seed = 0;
   double until = 0.0;
   std::string engine;
   std::size_t routers = 0;
   std::vector< LabEvent > events;
   std::vector< Snapshot > snapshots;
   // The snapshot of that name, or null.
   const Snapshot * snapshot( const std::string & name ) const;
};

struct LabOptions {
   std::optional< std::uint64_t > seed;   // overrides the scenario's
   std::optional< double > until;         // overrides the scenario's duration
   Engine engine = Engine::pipeline;       // how each router's machines are built
   // When set, each router publishes its status tables in shared memory under
   // shmDir/<router>, and atEnd runs once the run is over, while the tables
   // are still there.
   std::string shmDir;
   std::function< void() > atEnd;
};

// Runs the whole scenario (it installs its own activity manager on a virtual
// clock for the duration of the call). Throws std::runtime_error when the
// loop does not settle (a notification storm).
Report runScenario( const Scenario & scenario, const LabOptions & options = {} );

std::string renderText( const Report & r );
std::string renderJson( const Report & r );

} // namespace PimLab

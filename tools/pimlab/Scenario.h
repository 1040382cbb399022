#pragma once
// A lab scenario: routers with their interfaces on named segments, a seed, a
// duration and timed events. Read from JSON (or the embedded default).
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lumo/IpGenAddrWithMask.h"

namespace PimLab {

struct IntfDesc {
   std::string name;                   // e.g. "Ethernet1"
   std::string segment;                // segment the interface is plugged into
   Lumo::IpGenAddrWithMask address;    // primary address and mask
   std::uint32_t drPriority = 1;
   std::uint16_t helloInterval = 30;   // seconds
   double holdMultiplier = 3.5;        // hold time = interval x multiplier
   std::uint16_t holdTime() const;
};

struct RouterDesc {
   std::string name;
   // Virtual time at which the router comes up; none: only a "start" event
   // brings it up.
   std::optional< double > start = 0.0;
   std::vector< IntfDesc > interfaces;
};

struct SegmentDesc {
   std::string name;
   double delay = 0.001;   // seconds
   double loss = 0.0;      // probability of losing one copy of a frame
};

enum class Action {
   start,       // bring a router up (a new generation id)
   stop,        // silent stop: no goodbye, neighbours expire it
   shutdown,    // goodbye Hellos, then stop
   priority,    // change an interface's DR priority
   cut,         // a segment stops carrying frames
   heal,        // and carries them again
   loss,        // set a segment's loss probability
   detach,      // unplug one interface of a router
   attach,      // plug it back into its segment
   checkpoint,  // print the tables
};
const char * actionName( Action a );

struct Event {
   double at = 0.0;
   Action action = Action::checkpoint;
   std::string router;      // start, stop, shutdown, priority, detach, attach
   std::string interface;   // priority, detach, attach (empty: every interface)
   std::string segment;     // cut, heal, loss
   std::string name;        // checkpoint
   double value = 0.0;      // priority, loss
};

struct Scenario {
   std::string name;
   std::uint64_t seed = 1;
   double duration = 600.0;
   std::vector< SegmentDesc > segments;   // optional; others are created on use
   std::vector< RouterDesc > routers;
   std::vector< Event > events;           // kept in time order (stable)

   const RouterDesc * router( const std::string & name ) const;
   // Consistency: unique names, events naming known routers, interfaces and
   // segments, times within [0, duration]. Throws std::runtime_error.
   void validate() const;
};

// Throws std::runtime_error with a readable message on malformed input.
Scenario scenarioFromJson( const std::string & text );
std::string scenarioToJson( const Scenario & s );
// Three routers on 198.18.1.0/24; the DR stops silently and is expired after
// its hold time; a fourth router with a higher priority joins and takes over.
Scenario defaultScenario();

} // namespace PimLab

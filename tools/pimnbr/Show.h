#pragma once
// The show commands of pimnbr: they read the PIM status and counter tables
// that an agent publishes in shared memory, and nothing else.
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace PimNbr {

struct Request {
   enum class What { neighbor, interface, traffic };
   std::string stateDir;
   bool ipv6 = false;
   // Empty: the default VRF; "all": every VRF with tables.
   std::string vrf = "default";
   What what = What::neighbor;
   // A neighbour address (neighbor) or an interface name (interface).
   std::string filter;
   bool detail = false;
   bool json = false;
   // The time rows are aged against; by default the writer's published clock,
   // else the system's monotonic clock.
   std::optional< double > now;
};

// Parses the words after "show" ("ip pim vrf all neighbor detail json").
// Returns an error message, or empty.
std::string parseWords( const std::vector< std::string > & words, Request & req );

// Runs the request: output on out, messages on err. Returns the exit status:
// 0 when something was shown, 1 when there was nothing to show or an error.
// In JSON mode a failure still prints "{}" on out.
int show( const Request & req, std::ostream & out, std::ostream & err );

} // namespace PimNbr

#pragma once
// The daemon's configuration file as plain data: what the host turns into
// configuration entities. Kept free of the YAML library so that whoever
// applies it needs only this header.
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "pim/model/PimTypes.h"

namespace Pimnbrd {

enum class Bfd : std::uint8_t { vrfDefault = 0, enabled = 1, disabled = 2 };
enum class Role : std::uint8_t { active, standby };

// Per interface; the defaults are those of the configuration entities.
struct IntfSettings {
   std::uint8_t mode = 1;               // 1 sparse, 2 bidir, 3 both
   bool borderRouter = false;
   std::uint16_t helloInterval = 30;    // seconds
   double helloMultiplier = 3.5;        // hold time = interval x multiplier
   std::uint32_t drPriority = 1;
   std::uint16_t joinPruneInterval = 60;
   double joinPruneMultiplier = 3.5;
   Bfd bfd = Bfd::vrfDefault;
   bool fastFailover = false;
   // Advertised LAN prune delay, milliseconds.
   std::uint16_t propagationDelay = 500;
   std::uint16_t overrideInterval = 2500;
   std::uint32_t neighborLimit = Routing::Pim::kIntfNeighborLimitDefault;

   std::uint16_t holdTime() const;
   friend bool operator==( const IntfSettings &, const IntfSettings & ) = default;
};

struct AclRule {
   bool permit = true;
   std::string prefix;   // canonical text of the prefix
   friend bool operator==( const AclRule &, const AclRule & ) = default;
};

struct VrfSettings {
   std::string netns;                // empty: the daemon's own namespace
   bool multicastRouting = true;
   bool pimConfigured = true;
   bool bfdDefault = false;          // BFD on interfaces whose bfd is "default"
   bool neighborChangeLog = false;
   std::uint32_t neighborLimit = Routing::Pim::kVrfNeighborLimitDefault;
   std::map< std::string, IntfSettings > interfaces;
   friend bool operator==( const VrfSettings &, const VrfSettings & ) = default;
};

struct DaemonConfig {
   bool ipv4 = true;
   bool ipv6 = false;
   std::uint16_t drDelay = 0;        // seconds
   Role role = Role::active;
   bool mlagPortsErrdisabled = false;
   std::vector< AclRule > serviceAcl4;   // first match wins; no match permits
   std::vector< AclRule > serviceAcl6;
   std::map< std::string, VrfSettings > vrfs;
   friend bool operator==( const DaemonConfig &, const DaemonConfig & ) = default;
};

// What changed from one configuration to the next. Every entry holds the new
// value; a SIGHUP applies exactly these in one batch.
struct ConfigDiff {
   struct IntfKey {
      std::string vrf;
      std::string intf;
      friend auto operator<=>( const IntfKey &, const IntfKey & ) = default;
   };
   bool globalsChanged = false;      // address families, DR delay, role, MLAG
   bool serviceAclChanged = false;
   std::vector< std::string > vrfsRemoved;
   std::vector< std::string > vrfsAdded;
   std::vector< std::string > vrfsChanged;   // VRF-level settings only
   std::vector< IntfKey > intfsRemoved;
   std::vector< IntfKey > intfsAdded;
   std::vector< IntfKey > intfsChanged;
   bool empty() const {
      return !globalsChanged && !serviceAclChanged && vrfsRemoved.empty() && vrfsAdded.empty() &&
             vrfsChanged.empty() && intfsRemoved.empty() && intfsAdded.empty() && intfsChanged.empty();
   }
};

ConfigDiff diff( const DaemonConfig & from, const DaemonConfig & to );

} // namespace Pimnbrd

#pragma once
// What the static RP check found in one VRF's rules, kept for the show
// command: group prefixes served by more than one RP, and prefixes of one
// rule that lie inside a wider prefix of another rule.
//
// A rule's groups are read as the fewest prefixes that cover them exactly
// (a list "permit 239.0.0.0/9, permit 239.128.0.0/9" serves 239.0.0.0/8), so
// both findings depend on the groups a rule serves, not on how its list
// happens to be written.
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"
#include "kiv/String.h"
#include "lumo/IpGenAddr.h"
#include "lumo/IpGenPrefix.h"
#include "lumo/VrfName.h"
#include "rpcheck/StaticRpConfig.h"

namespace Routing::Pim {

// RP addresses, ascending, without repeats.
using RpSet = std::vector< Lumo::IpGenAddr >;
std::string rpSetText( const RpSet & rps ); // "198.18.0.1, 198.18.0.2"

// prefix, one of rule's prefixes, lies strictly inside widerPrefix, one of
// widerRule's prefixes.
struct RpOverlap {
   StaticRpRule rule;
   Lumo::IpGenPrefix prefix;
   StaticRpRule widerRule;
   Lumo::IpGenPrefix widerPrefix;
   std::size_t hash() const noexcept;
   friend bool operator==( const RpOverlap &, const RpOverlap & ) = default;
   friend std::strong_ordering operator<=>( const RpOverlap &, const RpOverlap & ) = default;
};
// "239.1.0.0/16 (198.18.0.2 group 239.1.0.0/16) inside 239.0.0.0/8 (198.18.0.1 access-list A)"
std::ostream & operator<<( std::ostream & os, const RpOverlap & o );

} // namespace Routing::Pim

template<>
struct std::hash< Routing::Pim::RpOverlap > {
   std::size_t operator()( const Routing::Pim::RpOverlap & o ) const noexcept {
      return o.hash();
   }
};

namespace Routing::Pim {

// conflict: each group prefix that more than one RP serves, with those RPs.
// overlap: every (prefix, wider prefix) pair as above.
// missingAcl: list names that rules use but the ACL configuration lacks;
// such a rule serves no group.
// checkCount, lastCheckTime: runs of the check and the time of the last.
#define PIM_RP_CONFIG_CHECK_RESULT_ATTRS( X )                         \
   X( COLL, conflict, Conflict, Lumo::IpGenPrefix, RpSet )            \
   X( SET, overlap, Overlap, RpOverlap )                              \
   X( SET, missingAcl, MissingAcl, Kiv::String )                      \
   X( SCALAR, ruleCount, RuleCount, std::uint32_t, 0 )                \
   X( COUNTER, checkCount, CheckCount, std::uint32_t )                \
   X( SCALAR, lastCheckTime, LastCheckTime, double, 0.0 )

class RpConfigCheckResult : public Kiv::Entity {
 public:
   explicit RpConfigCheckResult( const L3::VrfName & vrfName );
   const L3::VrfName & vrfName() const { return vrfName_; }
   const char * typeName() const override;
   KIV_ENTITY( RpConfigCheckResult, "Routing::Pim::RpConfigCheckResult",
               PIM_RP_CONFIG_CHECK_RESULT_ATTRS )
 private:
   const L3::VrfName vrfName_;
};
KIV_NOTIFIEE( RpConfigCheckResult, PIM_RP_CONFIG_CHECK_RESULT_ATTRS )

#define PIM_RP_CONFIG_CHECK_RESULT_COLL_ATTRS( X ) \
   X( ENTITIES, vrfResult, VrfResult, L3::VrfName, RpConfigCheckResult )

class RpConfigCheckResultColl : public Kiv::Entity {
 public:
   explicit RpConfigCheckResultColl( const Kiv::Name & name = Kiv::Name() )
         : Kiv::Entity( name ) {}
   const char * typeName() const override;
   KIV_ENTITY( RpConfigCheckResultColl, "Routing::Pim::RpConfigCheckResultColl",
               PIM_RP_CONFIG_CHECK_RESULT_COLL_ATTRS )
};
KIV_NOTIFIEE( RpConfigCheckResultColl, PIM_RP_CONFIG_CHECK_RESULT_COLL_ATTRS )

// The result as the show command prints it, lines sorted.
std::string rpConfigCheckText( const RpConfigCheckResult & result );

} // namespace Routing::Pim

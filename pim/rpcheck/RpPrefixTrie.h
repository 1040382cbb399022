#pragma once
// The computations behind the static RP check, apart from any entity: the
// groups a standard access list permits as prefixes, and the findings over
// a set of rules (see RpConfigCheckResult.h).
#include <map>
#include <set>
#include <vector>

#include "kiv/String.h"
#include "lumo/AddressFamily.h"
#include "lumo/IpGenPrefix.h"
#include "rpcheck/RpConfigCheckResult.h"
#include "rpcheck/StaticRpConfig.h"
#include "services/acl/StandardAcl.h"

namespace Routing::Pim {

// The addresses of family af that acl permits, as the fewest prefixes that
// cover them exactly, in address order.
std::vector< Lumo::IpGenPrefix > expandStandardAcl( const Acl::StandardAcl & acl,
                                                    Lumo::AddressFamily af );

struct RpCheckFindings {
   std::map< Lumo::IpGenPrefix, RpSet > conflicts;
   std::set< RpOverlap > overlaps;
   std::set< Kiv::String > missingAcls;
   friend bool operator==( const RpCheckFindings &, const RpCheckFindings & ) = default;
};

// acls may be null: every rule that names a list then serves nothing.
RpCheckFindings checkStaticRpRules( const std::vector< StaticRpRule > & rules,
                                    const Acl::StandardAclConfig * acls );

} // namespace Routing::Pim

#pragma once
// Static rendezvous-point configuration of one VRF: each rule names an RP
// address and the groups it serves, either one group prefix or a standard
// access list (Acl::StandardAclConfig) whose permitted groups it serves.
#include <compare>
#include <cstddef>
#include <ostream>
#include <string>

#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"
#include "kiv/String.h"
#include "lumo/IpGenAddr.h"
#include "lumo/IpGenPrefix.h"
#include "lumo/Strep.h"
#include "lumo/VrfName.h"

namespace Routing::Pim {

// The identity of a rule: the RP and its groups. Exactly one of groupPrefix
// and aclName is set, and a group prefix has the RP's address family.
class StaticRpRule {
 public:
   StaticRpRule() = default;
   // Throw Kiv::RangeException for an empty RP, an empty prefix or name, or
   // a prefix of the other address family.
   static StaticRpRule forPrefix( const Lumo::IpGenAddr & rpAddr,
                                  const Lumo::IpGenPrefix & groupPrefix );
   static StaticRpRule forAcl( const Lumo::IpGenAddr & rpAddr, const Kiv::String & aclName );

   const Lumo::IpGenAddr & rpAddr() const noexcept { return rpAddr_; }
   const Lumo::IpGenPrefix & groupPrefix() const noexcept { return groupPrefix_; }
   const Kiv::String & aclName() const noexcept { return aclName_; }
   bool usesAcl() const noexcept { return !aclName_.empty(); }
   std::size_t hash() const noexcept;

   friend bool operator==( const StaticRpRule &, const StaticRpRule & ) = default;
   // By RP, then group prefix, then list name.
   friend std::strong_ordering operator<=>( const StaticRpRule &,
                                            const StaticRpRule & ) = default;

 private:
   Lumo::IpGenAddr rpAddr_;
   Lumo::IpGenPrefix groupPrefix_;
   Kiv::String aclName_;
};

// "198.18.0.1 group 239.0.0.0/8", "198.18.0.1 access-list RP-GROUPS"
std::string valueToStrep( const StaticRpRule & r );
std::ostream & operator<<( std::ostream & os, const StaticRpRule & r );

} // namespace Routing::Pim

// Before any collection keyed by rules.
template<>
struct std::hash< Routing::Pim::StaticRpRule > {
   std::size_t operator()( const Routing::Pim::StaticRpRule & r ) const noexcept {
      return r.hash();
   }
};

namespace Routing::Pim {

// override: the static RP wins over RPs learned dynamically for the same
// groups. It does not change which static RPs a group maps to.
struct StaticRpRuleOptions {
   bool override = false;
   friend bool operator==( const StaticRpRuleOptions &, const StaticRpRuleOptions & ) = default;
};
std::ostream & operator<<( std::ostream & os, const StaticRpRuleOptions & o );

#define PIM_STATIC_RP_CONFIG_ATTRS( X ) \
   X( COLL, rule, Rule, StaticRpRule, StaticRpRuleOptions )

class StaticRpConfig : public Kiv::Entity {
 public:
   explicit StaticRpConfig( const L3::VrfName & vrfName );
   const L3::VrfName & vrfName() const { return vrfName_; }
   const char * typeName() const override;
   KIV_ENTITY( StaticRpConfig, "Routing::Pim::StaticRpConfig", PIM_STATIC_RP_CONFIG_ATTRS )
 private:
   const L3::VrfName vrfName_;
};
KIV_NOTIFIEE( StaticRpConfig, PIM_STATIC_RP_CONFIG_ATTRS )

#define PIM_STATIC_RP_CONFIG_COLL_ATTRS( X ) \
   X( ENTITIES, vrfConfig, VrfConfig, L3::VrfName, StaticRpConfig )

class StaticRpConfigColl : public Kiv::Entity {
 public:
   explicit StaticRpConfigColl( const Kiv::Name & name = Kiv::Name() ) : Kiv::Entity( name ) {}
   const char * typeName() const override;
   KIV_ENTITY( StaticRpConfigColl, "Routing::Pim::StaticRpConfigColl",
               PIM_STATIC_RP_CONFIG_COLL_ATTRS )
};
KIV_NOTIFIEE( StaticRpConfigColl, PIM_STATIC_RP_CONFIG_COLL_ATTRS )

} // namespace Routing::Pim

LUMO_FMT_VIA_STREP( Routing::Pim::StaticRpRule )

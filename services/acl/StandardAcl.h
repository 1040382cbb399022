#pragma once
// Standard access lists: an ordered list of permit and deny entries over
// address prefixes. An address takes the action of the first entry whose
// prefix contains it; an address that no entry contains is denied. Entries
// of the other address family never match.
//
// Acl::StandardAclConfig holds the configured lists by name; consumers (the
// service ACL filter, the static RP check) read a list by the name their own
// configuration gives.
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"
#include "kiv/String.h"
#include "lumo/IpGenAddr.h"
#include "lumo/IpGenPrefix.h"
#include "lumo/Strep.h"

namespace Acl {

enum class AclAction : std::uint8_t { deny = 0, permit = 1 };

// "permit", "deny"
const char * aclActionName( AclAction a ) noexcept;

struct StandardAclEntry {
   AclAction action = AclAction::deny;
   Lumo::IpGenPrefix prefix;
   friend bool operator==( const StandardAclEntry &, const StandardAclEntry & ) = default;
};

class StandardAcl {
 public:
   using Entries = std::vector< StandardAclEntry >;

   StandardAcl() = default;
   // An empty prefix in an entry is refused with Kiv::RangeException
   // ("StandardAclEntry::prefix empty not allowed"): it would match nothing.
   explicit StandardAcl( Entries entries );
   // "permit 239.1.0.0/16, deny 239.0.0.0/8"; "" is the empty list. Throws
   // Kiv::RangeException on malformed text.
   static StandardAcl fromStrep( std::string_view s );

   const Entries & entries() const noexcept { return entries_; }
   std::size_t size() const noexcept { return entries_.size(); }
   bool empty() const noexcept { return entries_.empty(); }
   // Appends an entry after the existing ones (same refusal as above).
   void entryAdd( AclAction action, const Lumo::IpGenPrefix & prefix );
   void entryAdd( const StandardAclEntry & e ) { entryAdd( e.action, e.prefix ); }

   // The first entry that contains a, or nullptr (the implicit deny).
   const StandardAclEntry * matchingEntry( const Lumo::IpGenAddr & a ) const noexcept;
   AclAction match( const Lumo::IpGenAddr & a ) const noexcept {
      const StandardAclEntry * e = matchingEntry( a );
      return e ? e->action : AclAction::deny;
   }
   bool permits( const Lumo::IpGenAddr & a ) const noexcept {
      return match( a ) == AclAction::permit;
   }

   friend bool operator==( const StandardAcl &, const StandardAcl & ) = default;

 private:
   Entries entries_;
};

std::string valueToStrep( const StandardAcl & acl );
std::ostream & operator<<( std::ostream & os, const StandardAcl & acl );
std::ostream & operator<<( std::ostream & os, AclAction a );
// Reads entries up to end: "<permit|deny> <prefix>" separated by ", ".
bool strepToValue( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                   StandardAcl & out );

// standardAcl: the configured standard access lists by name. Writing a list
// equal to the stored one notifies nobody.
#define ACL_STANDARD_ACL_CONFIG_ATTRS( X ) \
   X( COLL, standardAcl, StandardAcl, Kiv::String, StandardAcl )

class StandardAclConfig : public Kiv::Entity {
 public:
   explicit StandardAclConfig( const Kiv::Name & name = Kiv::Name() ) : Kiv::Entity( name ) {}
   const char * typeName() const override;
   KIV_ENTITY( StandardAclConfig, "Acl::StandardAclConfig", ACL_STANDARD_ACL_CONFIG_ATTRS )
};
KIV_NOTIFIEE( StandardAclConfig, ACL_STANDARD_ACL_CONFIG_ATTRS )

} // namespace Acl

LUMO_FMT_VIA_STREP( Acl::StandardAcl )

#include "services/acl/StandardAcl.h"

#include <utility>

#include "kiv/RangeException.h"

namespace Acl {

namespace {

void checkPrefix( const Lumo::IpGenPrefix & p ) {
   if( p.isEmpty() ) throw Kiv::RangeException( "StandardAclEntry::prefix empty not allowed" );
}

bool readWord( Kiv::String::IteratorConst & p, Kiv::String::IteratorConst end,
               std::string_view word ) {
   if( std::string_view( p, static_cast< std::size_t >( end - p ) ).substr( 0, word.size() ) !=
       word ) {
      return false;
   }
   p += word.size();
   return true;
}

} // namespace

const char * aclActionName( AclAction a ) noexcept {
   return a == AclAction::permit ? "permit" : "deny";
}

StandardAcl::StandardAcl( Entries entries ) : entries_( std::move( entries ) ) {
   for( const StandardAclEntry & e : entries_ ) checkPrefix( e.prefix );
}

StandardAcl StandardAcl::fromStrep( std::string_view s ) {
   return Lumo::Detail::parseWhole< StandardAcl >( s, "StandardAcl" );
}

void StandardAcl::entryAdd( AclAction action, const Lumo::IpGenPrefix & prefix ) {
   checkPrefix( prefix );
   entries_.push_back( StandardAclEntry{ action, prefix } );
}

const StandardAclEntry * StandardAcl::matchingEntry( const Lumo::IpGenAddr & a ) const noexcept {
   for( const StandardAclEntry & e : entries_ ) {
      if( e.prefix.contains( a ) ) return &e;
   }
   return nullptr;
}

std::string valueToStrep( const StandardAcl & acl ) {
   std::string s;
   for( const StandardAclEntry & e : acl.entries() ) {
      if( !s.empty() ) s += ", ";
      s += aclActionName( e.action );
      s += ' ';
      s += Lumo::valueToStrep( e.prefix );
   }
   return s;
}

std::ostream & operator<<( std::ostream & os, const StandardAcl & acl ) {
   return os << valueToStrep( acl );
}

std::ostream & operator<<( std::ostream & os, AclAction a ) { return os << aclActionName( a ); }

bool strepToValue( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                   StandardAcl & out ) {
   Kiv::String::IteratorConst p = begin;
   StandardAcl acl;
   while( p != end ) {
      if( !acl.empty() && !readWord( p, end, ", " ) ) return false;
      AclAction action;
      if( readWord( p, end, "permit " ) ) {
         action = AclAction::permit;
      } else if( readWord( p, end, "deny " ) ) {
         action = AclAction::deny;
      } else {
         return false;
      }
      // The prefix runs to the next separator.
      Kiv::String::IteratorConst q = p;
      while( q != end && *q != ',' ) ++q;
      Kiv::String::IteratorConst r = p;
      Lumo::IpGenPrefix prefix;
      if( !Lumo::strepToValue( r, q, prefix ) || r != q || prefix.isEmpty() ) return false;
      acl.entryAdd( action, prefix );
      p = q;
   }
   out = std::move( acl );
   begin = p;
   return true;
}

const char * StandardAclConfig::typeName() const { return "Acl::StandardAclConfig"; }

KIV_REGISTER_ENTITY_TYPE( StandardAclConfig, "Acl::StandardAclConfig" );

} // namespace Acl

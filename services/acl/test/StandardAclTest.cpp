#include <gtest/gtest.h>

#include "kiv/RangeException.h"
#include "kiv/testing/TestLoop.h"
#include "services/acl/StandardAcl.h"

namespace {

using Acl::AclAction;
using Acl::StandardAcl;
using Lumo::IpGenAddr;

TEST( StandardAclTest, FirstMatchWinsAndTheEndDenies ) {
   const StandardAcl acl = StandardAcl::fromStrep(
      "deny 239.1.1.0/24, permit 239.1.0.0/16, deny 239.0.0.0/8, permit 224.0.0.0/4, "
      "permit ff3e::/16" );
   struct Case {
      const char * addr;
      AclAction want;
   } const cases[] = {
      { "239.1.1.7", AclAction::deny },    // the narrow deny comes first
      { "239.1.2.7", AclAction::permit },  // the wider permit
      { "239.2.0.1", AclAction::deny },    // deny before the covering permit
      { "225.0.0.1", AclAction::permit },  // the last permit
      { "198.18.0.1", AclAction::deny },   // no entry: implicit deny
      { "ff3e::1", AclAction::permit },
      { "ff0e::1", AclAction::deny },
      { "::ffff:239.1.2.7", AclAction::deny }, // IPv4 entries never match IPv6
      { "", AclAction::deny },
   };
   for( const Case & c : cases ) {
      EXPECT_EQ( acl.match( IpGenAddr::fromStrep( c.addr ) ), c.want ) << c.addr;
   }
   EXPECT_FALSE( StandardAcl().permits( IpGenAddr::fromStrep( "224.0.0.1" ) ) );
   EXPECT_EQ( acl.matchingEntry( IpGenAddr::fromStrep( "239.1.2.7" ) ), &acl.entries()[ 1 ] );
}

TEST( StandardAclTest, TextFormRoundTripsAndRejectsJunk ) {
   const char * text = "deny 239.1.1.0/24, permit 0.0.0.0/0";
   EXPECT_EQ( Acl::valueToStrep( StandardAcl::fromStrep( text ) ), text );
   EXPECT_TRUE( StandardAcl::fromStrep( "" ).empty() );
   for( const char * bad : { "permit", "allow 1.0.0.0/8", "permit 1.0.0.1/8", "permit 1.0.0.0/8,",
                             "permit 1.0.0.0/8,deny 2.0.0.0/8", "deny /0" } ) {
      EXPECT_THROW( StandardAcl::fromStrep( bad ), Kiv::RangeException ) << bad;
   }
   StandardAcl acl;
   EXPECT_THROW( acl.entryAdd( AclAction::permit, Lumo::IpGenPrefix() ), Kiv::RangeException );
}

} // namespace

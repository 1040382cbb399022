// Standard access lists match first entry first and deny at the end; the
// ACL aggregators merge their inputs with the CLI first; the service ACL
// filter drops and counts what the bound list denies.
#include <gtest/gtest.h>

#include "kiv/RangeException.h"
#include "kiv/testing/TestLoop.h"
#include "services/acl/Acl.h"
#include "services/acl/StandardAcl.h"

namespace {

using Acl::AclAction;
using Acl::StandardAcl;
using Lumo::IpGenAddr;

TEST( AclAggregatorTest, CliWinsThenSourcesInNameOrderAndRemovalsFollow ) {
   Kiv::Testing::TestLoop loop;
   auto dir = Kiv::make< Kiv::Dir >( Kiv::Name( "input" ) );
   auto cli = Kiv::make< Acl::Input::Config >();
   auto out = Kiv::make< Acl::Config >();
   auto b = Kiv::make< Acl::Input::Config >( Kiv::Name( "b" ) );
   b->standardAclIs( "x", StandardAcl::fromStrep( "permit 198.18.2.0/24" ) );
   dir->entryIs( Kiv::Name( "b" ), Kiv::Ptr< Kiv::Entity >( b ) );
   Acl::AclConfigAggregatorSm sm( dir, cli, out );
   EXPECT_EQ( out->standardAcl( "x" ), StandardAcl::fromStrep( "permit 198.18.2.0/24" ) );

   auto a = Kiv::make< Acl::Input::Config >( Kiv::Name( "a" ) );
   a->standardAclIs( "x", StandardAcl::fromStrep( "permit 198.18.1.0/24" ) );
   dir->entryIs( Kiv::Name( "a" ), Kiv::Ptr< Kiv::Entity >( a ) );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_EQ( out->standardAcl( "x" ), StandardAcl::fromStrep( "permit 198.18.1.0/24" ) ) << "a before b";

   cli->standardAclIs( "x", StandardAcl::fromStrep( "deny 198.18.0.0/15" ) );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_EQ( out->standardAcl( "x" ), StandardAcl::fromStrep( "deny 198.18.0.0/15" ) );

   cli->standardAclDel( "x" );
   dir->entryDel( Kiv::Name( "a" ) );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_EQ( out->standardAcl( "x" ), StandardAcl::fromStrep( "permit 198.18.2.0/24" ) );
   b->standardAclDel( "x" );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_FALSE( out->standardAclHas( "x" ) );
}

TEST( ServiceAclFilterTest, BoundListDecidesPerVrfAndDropsAreCounted ) {
   Kiv::Testing::TestLoop loop;
   auto lists = Kiv::make< Acl::Config >();
   auto bindings = Kiv::make< Acl::CpConfig >();
   auto status = Kiv::make< Acl::StatusService >();
   lists->standardAclIs( "nbrs", StandardAcl::fromStrep( "deny 198.18.1.66/32, permit 198.18.1.0/24" ) );
   bindings->serviceAclIs( Acl::serviceVrfKey( "pim", L3::VrfName( "red" ) ), "nbrs" );
   bindings->serviceAclIs( Acl::serviceVrfKey( "pim", L3::VrfName( "blue" ) ), "missing" );
   bindings->serviceAclIs( Acl::serviceVrfKey( "ssh", L3::VrfName( "green" ) ), "nbrs" );
   Acl::ServiceAclFilterSm filter( "pim", lists, bindings, status );
   struct Row {
      const char * vrf;
      const char * src;
      bool permitted;
   } rows[] = {
      { "red", "198.18.1.2", true },    { "red", "198.18.1.66", false }, { "red", "198.18.9.1", false },
      { "blue", "198.18.9.1", true },   // bound to a list that does not exist
      { "green", "198.18.9.1", true },  // bound for another service only
      { "default", "198.18.9.1", true },
   };
   for( const auto & r : rows ) {
      EXPECT_EQ( filter.permitReceived( L3::VrfName( r.vrf ), Lumo::IntfId( "Ethernet1" ),
                                        IpGenAddr::fromStrep( r.src ) ),
                 r.permitted )
         << r.vrf << " " << r.src;
   }
   EXPECT_EQ( status->dropped( L3::VrfName( "red" ) ), 2u );
   EXPECT_EQ( status->dropped( L3::VrfName( "blue" ) ), 0u );
   EXPECT_EQ( status->aclName( L3::VrfName( "red" ) ), Kiv::String( "nbrs" ) );
   EXPECT_FALSE( status->aclNameHas( L3::VrfName( "green" ) ) );
   bindings->serviceAclDel( Acl::serviceVrfKey( "pim", L3::VrfName( "red" ) ) );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_FALSE( status->aclNameHas( L3::VrfName( "red" ) ) );
   EXPECT_TRUE( filter.permitReceived( L3::VrfName( "red" ), Lumo::IntfId( "Ethernet1" ),
                                       IpGenAddr::fromStrep( "198.18.1.66" ) ) );
}

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

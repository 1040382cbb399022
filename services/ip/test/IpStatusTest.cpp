// The IP status of one family, its per-VRF view and the machine that keeps
// the view's interface set.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "kiv/Entity.h"
#include "kiv/RangeException.h"
#include "kiv/testing/TestLoop.h"
#include "services/ip/IpIntfSm.h"
#include "services/ip/IpStatus.h"
#include "services/ip/VrfStatus.h"
#include "services/kni/KernelNetInfo.h"

namespace {

using Lumo::IpGenAddrWithMask;

IpGenAddrWithMask aw( const char * s ) { return IpGenAddrWithMask::fromStrep( s ); }

std::vector< IpGenAddrWithMask > addrsOf( const IpGen::Status & s, const Lumo::IntfId & intf ) {
   std::vector< IpGenAddrWithMask > out;
   IpGen::IpIntfStatusAddrIteratorConst it( s, intf );
   for( int guard = 0; it && guard < 100; ++guard, ++it ) out.push_back( *it );
   EXPECT_TRUE( ( *it ).isEmpty() ) << "the iterator ends at the empty address";
   ++it;
   EXPECT_TRUE( !it && it->isEmpty() ) << "stepping past the end stays at the end";
   return out;
}

class VrfWatcher : public IpGen::Status::NotifieeConst {
 public:
   void onVrf( const L3::VrfName & v ) override { seen.push_back( v ); }
   std::vector< L3::VrfName > seen;
};

TEST( IpStatus, VrfSetFollowsInterfacesAsTheyMoveAndLeave ) {
   Kiv::Testing::TestLoop loop;
   auto s = Kiv::make< IpGen::Ipv4Status >();
   VrfWatcher w;
   w.notifierIs( s );
   s->intfVrfIs( "Ethernet1", "red" );
   s->intfVrfIs( "Ethernet2", "red" );
   EXPECT_EQ( std::tuple( s->hasVrfIntfStatus( "red" ), s->intfInVrf( "Ethernet1", "red" ), s->intfInVrf( "Ethernet1", "blue" ) ),
              std::tuple( true, true, false ) );

   // One of two leaves: red stays; the other moves to blue: red goes.
   s->intfDel( "Ethernet1" );
   EXPECT_EQ( std::tuple( s->hasVrfIntfStatus( "red" ), s->knowsIntf( "Ethernet1" ) ), std::tuple( true, false ) );
   s->intfVrfIs( "Ethernet2", "blue" );
   EXPECT_EQ( std::tuple( s->hasVrfIntfStatus( "red" ), s->hasVrfIntfStatus( "blue" ), s->vrfOf( "Ethernet2" ),
                          s->vrfOf( "Ethernet9" ) ),
              std::tuple( false, true, L3::VrfName( "blue" ), L3::VrfName() ) );
   ASSERT_TRUE( loop.runUntilIdle() );
   // red came and went, blue came: one notification per key.
   EXPECT_EQ( w.seen.size(), 2u );

   // An interface in no VRF is known but in no VRF's set.
   s->intfPrimaryIs( "Ethernet3", aw( "198.18.3.1/24" ) );
   EXPECT_EQ( std::tuple( s->knowsIntf( "Ethernet3" ), s->intfInVrf( "Ethernet3", L3::VrfName() ), s->vrfSize() ),
              std::tuple( true, false, 1u ) );
   EXPECT_THROW( s->intfVrfIs( Lumo::IntfId(), "red" ), Kiv::RangeException );
}

TEST( IpStatus, AddressesPrimaryFirstThenSecondariesEndingEmpty ) {
   auto s = Kiv::make< IpGen::Ipv4Status >();
   s->intfVrfIs( "Ethernet1", "default" );
   s->intfPrimaryIs( "Ethernet1", aw( "198.18.0.1/24" ) );
   s->intfSecondaryIs( "Ethernet1", aw( "198.18.1.1/24" ), true );
   s->intfSecondaryIs( "Ethernet1", aw( "198.18.2.1/25" ), true );
   // The primary listed among the addresses too must not come twice.
   s->intfSecondaryIs( "Ethernet1", aw( "198.18.0.1/24" ), true );

   auto addrs = addrsOf( *s, "Ethernet1" );
   ASSERT_EQ( addrs.size(), 3u );
   if( addrs[ 1 ] == aw( "198.18.2.1/25" ) ) std::swap( addrs[ 1 ], addrs[ 2 ] );   // secondaries in any order
   EXPECT_EQ( addrs, ( std::vector< IpGenAddrWithMask >{ aw( "198.18.0.1/24" ), aw( "198.18.1.1/24" ), aw( "198.18.2.1/25" ) } ) );
   EXPECT_EQ( s->primaryAddrWithMask( "Ethernet1" ), aw( "198.18.0.1/24" ) );
   // Not the primary, and same address with another mask: not that secondary.
   EXPECT_EQ( std::tuple( s->isActiveSecondary( "Ethernet1", aw( "198.18.1.1/24" ) ),
                          s->isActiveSecondary( "Ethernet1", aw( "198.18.0.1/24" ) ),
                          s->isActiveSecondary( "Ethernet1", aw( "198.18.1.1/16" ) ) ),
              std::tuple( true, false, false ) );
   s->intfSecondaryIs( "Ethernet1", aw( "198.18.1.1/24" ), false );
   EXPECT_FALSE( s->isActiveSecondary( "Ethernet1", aw( "198.18.1.1/24" ) ) );

   // Unknown interface and an interface without a primary.
   EXPECT_TRUE( addrsOf( *s, "Ethernet9" ).empty() );
   s->intfSecondaryIs( "Ethernet2", aw( "198.18.5.1/24" ), true );
   EXPECT_EQ( addrsOf( *s, "Ethernet2" ), std::vector< IpGenAddrWithMask >{ aw( "198.18.5.1/24" ) } );
}

TEST( IpStatus, PerVrfViewSeesOnlyItsVrfAndChecksTheFamily ) {
   auto s4 = Kiv::make< IpGen::Ipv4Status >();
   s4->intfVrfIs( "Ethernet1", "red" );
   s4->intfPrimaryIs( "Ethernet1", aw( "198.18.0.1/24" ) );
   s4->intfVrfIs( "Ethernet2", "blue" );
   s4->intfPrimaryIs( "Ethernet2", aw( "198.18.9.1/24" ) );

   auto red = IpGen::intfStatusFactory( s4, "red" );
   EXPECT_NE( dynamic_cast< IpGen::Ipv4IntfStatus * >( red.ptr() ), nullptr );
   EXPECT_EQ( std::tuple( red->hasIntf( "Ethernet1" ), red->hasIntf( "Ethernet2" ), bool( red->intfStatus( "Ethernet2" ) ),
                          red->exists() ),
              std::tuple( true, false, false, true ) );
   EXPECT_EQ( red->primaryAddrWithMask( "Ethernet1" ), aw( "198.18.0.1/24" ) );
   EXPECT_TRUE( red->primaryAddrWithMask( "Ethernet2" ).isEmpty() );

   auto v6 = IpGen::intfStatusFactory( Kiv::make< IpGen::Ipv6Status >(), "red" );
   EXPECT_NE( dynamic_cast< IpGen::Ipv6IntfStatus * >( v6.ptr() ), nullptr );
   EXPECT_FALSE( v6->exists() );
   EXPECT_THROW( IpGen::Ipv6IntfStatus( s4, "red" ), Kiv::RangeException );
   EXPECT_THROW( IpGen::intfStatusFactory( nullptr, "red" ), Kiv::RangeException );
}

class MemberWatcher : public IpGen::IntfStatus::NotifieeConst {
 public:
   void onIntf( const Lumo::IntfId & intf ) override { seen.push_back( std::string( intf.stringValue() ) ); }
   std::vector< std::string > seen;
};

std::vector< std::string > members( const IpGen::IntfStatus & s ) {
   std::vector< std::string > out;
   for( auto it = s.intfIter(); it; ++it ) out.push_back( std::string( it.key().stringValue() ) );
   return out;
}

struct IntfSmFixture : ::testing::Test {
   Kiv::Testing::TestLoop loop;
   Kiv::Ptr< IpGen::Status > status = Kiv::make< IpGen::Ipv4Status >();
   Kiv::Ptr< IpGen::IntfStatus > red = IpGen::intfStatusFactory( status, L3::VrfName( "red" ) );
};

TEST_F( IntfSmFixture, StartsWithTheVrfsInterfacesAndFollowsThoseThatJoinMoveAndLeave ) {
   status->intfVrfIs( "Ethernet1", "red" );
   status->intfVrfIs( "Ethernet3", "blue" );
   status->intfPrimaryIs( "Ethernet4", aw( "198.18.4.1/24" ) );
   auto sm = IpGen::intfSmFactory( red );
   EXPECT_EQ( members( *red ), std::vector< std::string >{ "Ethernet1" } );
   MemberWatcher w;
   w.notifierIs( red );

   status->intfVrfIs( "Ethernet2", "red" );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_EQ( members( *red ), ( std::vector< std::string >{ "Ethernet1", "Ethernet2" } ) );

   // Moving out of the VRF, into it, and going away altogether.
   status->intfVrfIs( "Ethernet1", "blue" );
   status->intfVrfIs( "Ethernet3", "red" );
   status->intfDel( "Ethernet2" );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_EQ( members( *red ), std::vector< std::string >{ "Ethernet3" } );

   // An address change is no membership change: nobody hears of it.
   w.seen.clear();
   status->intfPrimaryIs( "Ethernet3", aw( "198.18.3.1/24" ) );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_TRUE( w.seen.empty() );

   // An entry replaced under the same name, then a move of the new entry.
   status->intfDel( "Ethernet3" );
   status->intfVrfIs( "Ethernet3", "red" );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_EQ( members( *red ), std::vector< std::string >{ "Ethernet3" } );
   status->intfVrfIs( "Ethernet3", "blue" );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_TRUE( members( *red ).empty() );
}

} // namespace

#include <gtest/gtest.h>

#include <vector>

#include "kiv/Entity.h"
#include "kiv/RangeException.h"
#include "kiv/testing/TestLoop.h"
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
   EXPECT_TRUE( s->hasVrfIntfStatus( "red" ) );
   EXPECT_TRUE( s->intfInVrf( "Ethernet1", "red" ) );
   EXPECT_FALSE( s->intfInVrf( "Ethernet1", "blue" ) );

   // One of two leaves: red stays; the other moves to blue: red goes.
   s->intfDel( "Ethernet1" );
   EXPECT_TRUE( s->hasVrfIntfStatus( "red" ) );
   EXPECT_FALSE( s->knowsIntf( "Ethernet1" ) );
   s->intfVrfIs( "Ethernet2", "blue" );
   EXPECT_FALSE( s->hasVrfIntfStatus( "red" ) );
   EXPECT_TRUE( s->hasVrfIntfStatus( "blue" ) );
   EXPECT_EQ( s->vrfOf( "Ethernet2" ), L3::VrfName( "blue" ) );
   EXPECT_EQ( s->vrfOf( "Ethernet9" ), L3::VrfName() );
   ASSERT_TRUE( loop.runUntilIdle() );
   // red came and went, blue came: one notification per key.
   EXPECT_EQ( w.seen.size(), 2u );

   // An interface in no VRF is known but in no VRF's set.
   s->intfPrimaryIs( "Ethernet3", aw( "198.18.3.1/24" ) );
   EXPECT_TRUE( s->knowsIntf( "Ethernet3" ) );
   EXPECT_FALSE( s->intfInVrf( "Ethernet3", L3::VrfName() ) );
   EXPECT_EQ( s->vrfSize(), 1u );
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

   const auto addrs = addrsOf( *s, "Ethernet1" );
   ASSERT_EQ( addrs.size(), 3u );
   EXPECT_EQ( addrs[ 0 ], aw( "198.18.0.1/24" ) );
   EXPECT_TRUE( ( addrs[ 1 ] == aw( "198.18.1.1/24" ) && addrs[ 2 ] == aw( "198.18.2.1/25" ) ) ||
                ( addrs[ 2 ] == aw( "198.18.1.1/24" ) && addrs[ 1 ] == aw( "198.18.2.1/25" ) ) );

   EXPECT_EQ( s->primaryAddrWithMask( "Ethernet1" ), aw( "198.18.0.1/24" ) );
   EXPECT_TRUE( s->isActiveSecondary( "Ethernet1", aw( "198.18.1.1/24" ) ) );
   EXPECT_FALSE( s->isActiveSecondary( "Ethernet1", aw( "198.18.0.1/24" ) ) );
   // Same address, other mask: not that secondary.
   EXPECT_FALSE( s->isActiveSecondary( "Ethernet1", aw( "198.18.1.1/16" ) ) );
   s->intfSecondaryIs( "Ethernet1", aw( "198.18.1.1/24" ), false );
   EXPECT_FALSE( s->isActiveSecondary( "Ethernet1", aw( "198.18.1.1/24" ) ) );

   // Unknown interface and an interface without a primary.
   EXPECT_TRUE( addrsOf( *s, "Ethernet9" ).empty() );
   s->intfSecondaryIs( "Ethernet2", aw( "198.18.5.1/24" ), true );
   const auto only = addrsOf( *s, "Ethernet2" );
   ASSERT_EQ( only.size(), 1u );
   EXPECT_EQ( only[ 0 ], aw( "198.18.5.1/24" ) );
   // Stepping past the end stays at the end.
   IpGen::IpIntfStatusAddrIteratorConst it( Kiv::Ptr< const IpGen::Status >( s ), "Ethernet9" );
   ++it;
   EXPECT_FALSE( it );
   EXPECT_TRUE( it->isEmpty() );
}

TEST( IpStatus, PerVrfViewSeesOnlyItsVrfAndChecksTheFamily ) {
   auto s4 = Kiv::make< IpGen::Ipv4Status >();
   auto s6 = Kiv::make< IpGen::Ipv6Status >();
   s4->intfVrfIs( "Ethernet1", "red" );
   s4->intfPrimaryIs( "Ethernet1", aw( "198.18.0.1/24" ) );
   s4->intfVrfIs( "Ethernet2", "blue" );
   s4->intfPrimaryIs( "Ethernet2", aw( "198.18.9.1/24" ) );

   auto red = IpGen::intfStatusFactory( s4, "red" );
   EXPECT_NE( dynamic_cast< IpGen::Ipv4IntfStatus * >( red.ptr() ), nullptr );
   EXPECT_TRUE( red->hasIntf( "Ethernet1" ) );
   EXPECT_FALSE( red->hasIntf( "Ethernet2" ) );
   EXPECT_EQ( red->primaryAddrWithMask( "Ethernet1" ), aw( "198.18.0.1/24" ) );
   EXPECT_TRUE( red->primaryAddrWithMask( "Ethernet2" ).isEmpty() );
   EXPECT_FALSE( red->intfStatus( "Ethernet2" ) );
   EXPECT_TRUE( red->exists() );

   auto v6 = IpGen::intfStatusFactory( s6, "red" );
   EXPECT_NE( dynamic_cast< IpGen::Ipv6IntfStatus * >( v6.ptr() ), nullptr );
   EXPECT_FALSE( v6->exists() );
   EXPECT_THROW( IpGen::Ipv6IntfStatus( s4, "red" ), Kiv::RangeException );
   EXPECT_THROW( IpGen::intfStatusFactory( nullptr, "red" ), Kiv::RangeException );
}

} // namespace

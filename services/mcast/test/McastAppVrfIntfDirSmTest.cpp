// The VRF interface directory follows the service's per-VRF entries while
// multicast routing is enabled for the VRF.
#include <gtest/gtest.h>

#include "kiv/testing/TestLoop.h"
#include "services/mcast/McastAppVrfIntfDirSm.h"

namespace {

TEST( McastAppVrfIntfDirSmTest, MirrorsEnabledVrfsOnly ) {
   Kiv::Testing::TestLoop loop;
   auto dir = Kiv::make< Kiv::Dir >( Kiv::Name( "pim" ) );
   auto out = Kiv::make< McastCommon::AppVrfIntfs >();
   auto fib = Kiv::make< Routing::Multicast::Fib::VrfConfig >();
   const L3::VrfName red( "red" );
   const Lumo::IntfId e1( "Ethernet1" ), e2( "Ethernet2" );
   auto entry = Kiv::make< McastCommon::AppVrfIntfStatus >( Kiv::Name( "red" ) );
   entry->intfIs( e1 );
   dir->entryIs( Kiv::Name( "red" ), Kiv::Ptr< Kiv::Entity >( entry ) );
   McastCommon::McastAppVrfIntfDirSm sm( dir, out, fib );
   EXPECT_FALSE( out->vrfIntf( red ) ) << "routing not enabled";

   fib->routingEnabledVrfIs( red );
   ASSERT_TRUE( loop.runUntilIdle() );
   ASSERT_TRUE( out->vrfIntf( red ) );
   EXPECT_TRUE( out->vrfIntf( red )->intfs( e1 ) );

   entry->intfIs( e2 );
   entry->intfDel( e1 );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_FALSE( out->vrfIntf( red )->intfs( e1 ) );
   EXPECT_TRUE( out->vrfIntf( red )->intfs( e2 ) );

   fib->routingEnabledVrfDel( red );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_FALSE( out->vrfIntf( red ) );
   fib->routingEnabledVrfIs( red );
   dir->entryDel( Kiv::Name( "red" ) );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_FALSE( out->vrfIntf( red ) ) << "entry gone";
}

} // namespace

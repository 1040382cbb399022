#include <gtest/gtest.h>

#include "kiv/RangeException.h"
#include "kiv/testing/TestLoop.h"
#include "services/bfd/BfdApp.h"

namespace {

Lumo::IpGenAddr a( const char * s ) { return Lumo::IpGenAddr::fromStrep( s ); }

class BfdAppFixture : public ::testing::Test {
 protected:
   Kiv::Testing::TestLoop loop_;
   Kiv::Ptr< Bfd::StatusPeer > statusPeer_ = Kiv::make< Bfd::StatusPeer >();
   Kiv::Ptr< Bfd::AppStatus > appStatus_ = Kiv::make< Bfd::AppStatus >( "pim" );
   Kiv::Ptr< Bfd::AppConfig > appConfig_ = Kiv::make< Bfd::AppConfig >( "pim" );
   const Bfd::Peer p1_{ a( "198.18.0.2" ), "red" };
   const Bfd::Peer p2_{ a( "198.18.0.3" ), "red" };
   const Bfd::Peer other_{ a( "198.18.0.2" ), "blue" };
};

TEST_F( BfdAppFixture, StatusMirrorsConfiguredPeersOfTheVrf ) {
   statusPeer_->peerStatusIs( p1_, Bfd::operUp );
   statusPeer_->peerStatusIs( other_, Bfd::operUp );
   appConfig_->peerConfigIs( p1_ );
   auto sm = Bfd::bfdAppSmFactory( "pim", statusPeer_, appStatus_, "red", appConfig_ );

   // At construction: the configured peer with its known state.
   ASSERT_TRUE( appStatus_->peerStatus( p1_ ) );
   EXPECT_EQ( appStatus_->peerStatus( p1_ )->status(), Bfd::operUp );
   EXPECT_EQ( appStatus_->peerStatusSize(), 1u );

   // A peer of this VRF the service does not know yet is Down.
   appConfig_->peerConfigIs( p2_ );
   // A peer of another VRF is not this application's business here.
   appConfig_->peerConfigIs( other_ );
   ASSERT_TRUE( loop_.runUntilIdle() );
   ASSERT_TRUE( appStatus_->peerStatus( p2_ ) );
   EXPECT_EQ( appStatus_->peerStatus( p2_ )->status(), Bfd::operDown );
   EXPECT_FALSE( appStatus_->peerStatus( other_ ) );

   // State changes update the entry in place.
   const auto entry = appStatus_->peerStatus( p2_ );
   statusPeer_->peerStatusIs( p2_, Bfd::operInit );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_EQ( appStatus_->peerStatus( p2_ ), entry );
   EXPECT_EQ( entry->status(), Bfd::operInit );

   // The service forgets the session: Down again.
   statusPeer_->peerStatusDel( p2_ );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_EQ( entry->status(), Bfd::operDown );

   // No longer configured: gone.
   appConfig_->peerConfigDel( p1_ );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_FALSE( appStatus_->peerStatus( p1_ ) );
   EXPECT_EQ( appStatus_->peerStatusSize(), 1u );
}

} // namespace

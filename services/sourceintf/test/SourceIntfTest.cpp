#include <gtest/gtest.h>

#include "kiv/RangeException.h"
#include "kiv/testing/TestLoop.h"
#include "services/sourceintf/SourceIntf.h"

namespace {

using Lumo::IpGenAddr;
using Lumo::IpGenAddrWithMask;

IpGenAddrWithMask aw( const char * s ) { return IpGenAddrWithMask::fromStrep( s ); }
IpGenAddr a( const char * s ) { return IpGenAddr::fromStrep( s ); }

class SourceIntfFixture : public ::testing::Test {
 protected:
   Kiv::Testing::TestLoop loop_;
   Kiv::Ptr< IpGen::Status > ip_ = Kiv::make< IpGen::Ipv4Status >();
   Kiv::Ptr< IpGen::SourceIntf::SourceIntfDir > dir_ =
      Kiv::make< IpGen::SourceIntf::SourceIntfDir >( "src" );
   Kiv::Ptr< IpGen::SourceIntf::VrfSourceIntfSm > sm_ = Kiv::make< IpGen::SourceIntf::VrfSourceIntfSm >(
      dir_, IpGen::intfStatusFactory( ip_, "red" ) );
};

TEST_F( SourceIntfFixture, AddressFollowsThePrimaryWhileInTheVrfAndEntriesGoWithTheRegistry ) {
   ip_->intfVrfIs( "Loopback0", "red" );
   ip_->intfPrimaryIs( "Loopback0", aw( "198.18.0.1/32" ) );
   auto src = sm_->registerSourceIntf( "Loopback0" );
   ASSERT_TRUE( src );
   // Set at once, before any notification.
   EXPECT_EQ( src->ipAddr(), a( "198.18.0.1" ) );
   EXPECT_EQ( dir_->sourceIntf( "Loopback0" ), src );

   ip_->intfPrimaryIs( "Loopback0", aw( "198.18.0.2/32" ) );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_EQ( src->ipAddr(), a( "198.18.0.2" ) );

   // Out of the VRF: no address; back in: the address again.
   ip_->intfVrfIs( "Loopback0", "blue" );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_TRUE( src->ipAddr().isEmpty() );
   ip_->intfVrfIs( "Loopback0", "red" );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_EQ( src->ipAddr(), a( "198.18.0.2" ) );

   // The interface's status goes, then comes back as a new entry.
   ip_->intfDel( "Loopback0" );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_TRUE( src->ipAddr().isEmpty() );
   ip_->intfVrfIs( "Loopback0", "red" );
   ip_->intfPrimaryIs( "Loopback0", aw( "198.18.0.3/32" ) );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_EQ( src->ipAddr(), a( "198.18.0.3" ) );
   // And the new entry is watched.
   ip_->intfPrimaryIs( "Loopback0", aw( "198.18.0.4/32" ) );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_EQ( src->ipAddr(), a( "198.18.0.4" ) );

   // Destroying the registry removes its entries.
   sm_->registerSourceIntf( "Loopback1" );
   EXPECT_EQ( dir_->sourceIntfSize(), 2u );
   sm_ = nullptr;
   EXPECT_EQ( dir_->sourceIntfSize(), 0u );
}

} // namespace

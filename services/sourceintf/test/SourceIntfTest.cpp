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

TEST_F( SourceIntfFixture, AddressFollowsThePrimaryWhileInTheVrf ) {
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
}

TEST_F( SourceIntfFixture, InterfaceThatAppearsLaterIsPickedUp ) {
   auto src = sm_->registerSourceIntf( "Loopback1" );
   EXPECT_TRUE( src->ipAddr().isEmpty() );
   ip_->intfVrfIs( "Loopback1", "red" );
   ip_->intfPrimaryIs( "Loopback1", aw( "198.18.1.1/32" ) );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_EQ( src->ipAddr(), a( "198.18.1.1" ) );
}

TEST_F( SourceIntfFixture, RegistrationsAreCounted ) {
   auto first = sm_->registerSourceIntf( "Loopback0" );
   auto second = sm_->registerSourceIntf( "Loopback0" );
   EXPECT_EQ( first, second );
   EXPECT_EQ( sm_->registrations( "Loopback0" ), 2u );

   // A foreign entry of the same interface is not this registry's.
   auto foreign = Kiv::make< IpGen::SourceIntf::SourceIntf >( Lumo::IntfId( "Loopback0" ) );
   sm_->unregisterSourceIntf( foreign );
   sm_->unregisterSourceIntf( nullptr );
   EXPECT_EQ( sm_->registrations( "Loopback0" ), 2u );

   sm_->unregisterSourceIntf( first );
   EXPECT_TRUE( dir_->sourceIntf( "Loopback0" ) );
   sm_->unregisterSourceIntf( second );
   EXPECT_FALSE( dir_->sourceIntf( "Loopback0" ) );
   EXPECT_EQ( sm_->registrations( "Loopback0" ), 0u );
   // One more give-back of a stale pointer changes nothing.
   sm_->unregisterSourceIntf( first );
   EXPECT_EQ( sm_->registrations( "Loopback0" ), 0u );

   EXPECT_THROW( sm_->registerSourceIntf( Lumo::IntfId() ), Kiv::RangeException );
   EXPECT_THROW( IpGen::SourceIntf::VrfSourceIntfSm( nullptr, IpGen::intfStatusFactory( ip_, "red" ) ),
                 Kiv::RangeException );
}

TEST_F( SourceIntfFixture, DestroyingTheRegistryRemovesItsEntries ) {
   sm_->registerSourceIntf( "Loopback0" );
   sm_->registerSourceIntf( "Loopback1" );
   EXPECT_EQ( dir_->sourceIntfSize(), 2u );
   sm_ = nullptr;
   EXPECT_EQ( dir_->sourceIntfSize(), 0u );
}

} // namespace

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/PimContainerSm.h"
#include "kiv/testing/TestLoop.h"
#include "varn/VarnMount.h"
#include "tolm/TimerWheel.h"

namespace {

using namespace Routing::Pim;
namespace V = Routing::Pim::Varn;

Lumo::IpGenAddr ip( const char * s ) { return Lumo::IpGenAddr::fromStrep( s ); }
Lumo::IpGenAddrWithMask ipm( const char * s ) { return Lumo::IpGenAddrWithMask::fromStrep( s ); }

class ContainerFixture : public ::testing::Test {
 protected:
   ContainerSmArgs args( Lumo::AddressFamily af, const L3::VrfName & vrf ) {
      ContainerSmArgs a;
      a.vrfName = vrf;
      a.af = af;
      a.pimGlobalStatus = Kiv::make< GlobalStatus >( af );
      a.pimGlobalStatus->portStatusIs( vrf );
      a.pimCellGlobalStatus = Kiv::make< CellGlobalStatus >();
      a.pimVarnStatus = mount_->doMount< V::Status >( V::statusPath( af, vrf ), "w" );
      a.pimStatus = Kiv::make< Status >( vrf );
      a.pimAllStatus = allStatus_ = Kiv::make< AllStatus >( vrf );
      auto config = Kiv::make< ConfigColl >();
      config->vrfConfigIs( vrf );
      a.pimConfigColl = config;
      a.pimMessageCounters = mount_->doMount< V::MessageCounters >( V::countersPath( af, vrf ), "w" );
      a.ipStatus = af == Lumo::AddressFamily::ipv6
                      ? Kiv::Ptr< IpGen::Status >( Kiv::make< IpGen::Ipv6Status >() )
                      : Kiv::Ptr< IpGen::Status >( Kiv::make< IpGen::Ipv4Status >() );
      a.bfdPimAppConfig = Kiv::make< Bfd::AppConfig >( ContainerSm::bfdAppName( af ) );
      a.bfdStatusPeer = Kiv::make< Bfd::StatusPeer >();
      a.timerWheel = Tolm::TimerWheelIs( loop_.clock() );
      a.kernelIntfStatusDir = Kiv::make< Interface::DeviceIntfStatusDir >();
      a.asuShutdownStatus = Kiv::make< McastCommon::AsuShutdownStatus >();
      a.asuVrfStatus = Kiv::make< McastCommon::AsuVrfStatus >();
      a.bridgingConfig = Kiv::make< Bridging::Config >();
      return a;
   }
   void run() { ASSERT_TRUE( loop_.runUntilIdle() ); }

   Kiv::Testing::TestLoop loop_;
   KivVarn::Directory dir_;
   Kiv::Ptr< KivVarn::Mount > mount_ = Kiv::make< KivVarn::Mount >( dir_ );
   Kiv::Ptr< AllStatus > allStatus_;
};

TEST_F( ContainerFixture, ReceivedHelloReachesHelloSmAndTheStatusTable ) {
   const ContainerSmArgs a = args( Lumo::AddressFamily::ipv4, "red" );
   auto intf = allStatus_->pimIntfIs( "Ethernet1", ipm( "198.18.0.1/24" ) );
   intf->modeIs( pimModeSparse );
   auto container = containerSmFactory( a );
   ASSERT_TRUE( container->initialized() );
   run();
   // The interface row is there before any Hello.
   EXPECT_TRUE( a.pimVarnStatus->pimIntf().has( V::IntfKey( "Ethernet1" ) ) );

   // What the I/O service does with a decoded Hello.
   auto hello = Kiv::make< Packet::HelloMessage >();
   hello->srcAddrIs( ip( "198.18.0.2" ) );
   hello->holdTimePresentIs( true );
   hello->holdTimeIs( 105 );
   auto rx = container->pimPamManager()->rxMessageInfo( 0 );
   ASSERT_EQ( rx, container->rxHelloMessageInfo() );
   rx->intfIdIs( "Ethernet1" );
   rx->messageIs( hello );
   rx->countInc( 1 );
   run();

   ASSERT_TRUE( intf->neighbor( ip( "198.18.0.2" ) ) );
   const auto row = a.pimVarnStatus->neighbor().row( V::NeighborKey( "Ethernet1", ip( "198.18.0.2" ) ) );
   ASSERT_TRUE( row );
   EXPECT_EQ( row->holdTime, 105 );
   // Readers attached by path see the same row.
   KivVarn::Mount reader( dir_ );
   auto seen = Kiv::entity_cast< V::Status >(
      reader.doMount( V::statusPath( Lumo::AddressFamily::ipv4, "red" ), "r", V::Status::mountInfo() ) );
   ASSERT_TRUE( seen );
   EXPECT_TRUE( seen->neighbor().has( V::NeighborKey( "Ethernet1", ip( "198.18.0.2" ) ) ) );
}

TEST_F( ContainerFixture, PimInterfacesArePublishedAndMessagesCounted ) {
   ContainerSmArgs a = args( Lumo::AddressFamily::ipv4, "red" );
   auto ip = Kiv::make< IpGen::Ipv4Status >();
   ip->intfVrfIs( "Ethernet1", "red" );
   ip->intfVrfIs( "Ethernet2", "blue" );
   auto config = Kiv::make< ConfigColl >();
   config->vrfConfigIs( "red" );
   a.ipStatus = ip;
   a.pimConfigColl = config;
   allStatus_->pimIntfIs( "Ethernet1", ipm( "198.18.0.1/24" ) )->modeIs( pimModeSparse );
   auto container = containerSmFactory( a );
   run();
   EXPECT_TRUE( container->vrfIpIntfStatus()->intf( "Ethernet1" ) );
   EXPECT_FALSE( container->vrfIpIntfStatus()->intf( "Ethernet2" ) );
   EXPECT_EQ( a.pimStatus->pimIntfSize(), 1u );
   EXPECT_EQ( a.pimStatus->pimIntf( "Ethernet1" ), pimModeSparse );

   auto rx = container->rxHelloMessageInfo();
   rx->intfIdIs( "Ethernet1" );
   rx->messageIs( Kiv::make< Packet::HelloMessage >() );
   rx->countInc( 1 );
   run();
   EXPECT_EQ( a.pimMessageCounters->rx( 0 ), 1u );

   // The VRF's published interfaces and its interface set go with it.
   container = nullptr;
   EXPECT_EQ( a.pimStatus->pimIntfSize(), 0u );
}

TEST_F( ContainerFixture, DestructionStopsTheMirror ) {
   const ContainerSmArgs a = args( Lumo::AddressFamily::ipv4, "red" );
   auto intf = allStatus_->pimIntfIs( "Ethernet1", ipm( "198.18.0.1/24" ) );
   auto container = containerSmFactory( a );
   run();
   container = nullptr;
   run();
   // The writer took its rows with it, and changes no longer reach the table.
   EXPECT_FALSE( a.pimVarnStatus->pimIntf().has( V::IntfKey( "Ethernet1" ) ) );
   intf->helloPeriodIs( 5 );
   run();
   EXPECT_EQ( a.pimVarnStatus->pimIntf().size(), 0u );
}

} // namespace

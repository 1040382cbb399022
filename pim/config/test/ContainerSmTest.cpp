#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/PimContainerSm.h"
#include "kiv/RangeException.h"
#include "kiv/Trace.h"
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

TEST_F( ContainerFixture, MembersAreWiredForTheFamily ) {
   auto v4 = containerSmFactory( args( Lumo::AddressFamily::ipv4, "red" ) );
   auto v6 = containerSmFactory( args( Lumo::AddressFamily::ipv6, "blue" ) );
   EXPECT_EQ( v4->bfdPimAppStatus()->appName(), "pim" );
   EXPECT_EQ( v6->bfdPimAppStatus()->appName(), "pim6" );
   EXPECT_EQ( v6->bfdPimSm()->appName(), "pim6" );
   EXPECT_EQ( v6->bfdPimSm()->vrf(), L3::VrfName( "blue" ) );

   const auto pam = v6->pimPamManager();
   EXPECT_EQ( pam->af(), Lumo::AddressFamily::ipv6 );
   EXPECT_TRUE( pam->ownSocket() );
   EXPECT_EQ( pam->rcvBufSize(), 1048576u );
   EXPECT_TRUE( pam->rcvPktInfo() );
   EXPECT_EQ( pam->rxMessageInfoSize(), 1u );
   EXPECT_NE( dynamic_cast< IpGen::Ipv6IntfStatus * >( v6->vrfIpIntfStatus().ptr() ), nullptr );
   EXPECT_EQ( v6->vrfIpIntfStatus()->vrfName(), L3::VrfName( "blue" ) );
   // The interface machines and the router-id machine share one router id.
   EXPECT_EQ( v6->pimGlobalIntfSm()->inputs().routerIdInfo, v6->routerIdInfo() );
   EXPECT_EQ( v6->pimGlobalIntfSm()->inputs().pimPamManager, pam );
   EXPECT_EQ( v6->sourceIntfSm()->sourceIntfDir(), v6->sourceIntfDir() );
   EXPECT_EQ( v6->portConfigSm()->vrfSourceIntfSm(), v6->sourceIntfSm().ptr() );
   EXPECT_TRUE( v6->pimHelloSm() );
   EXPECT_TRUE( v6->pimStatusWriterSm() );
   EXPECT_EQ( v6->pimIOSm()->args().pamManager, pam );
   EXPECT_EQ( v6->pimIOSm()->args().intfStatus, v6->vrfIpIntfStatus() );
   EXPECT_EQ( v6->ipGenIntfSm()->intfStatus(), v6->vrfIpIntfStatus() );
}

TEST_F( ContainerFixture, MissingRequiredInputIsRefusedAMissingTableIsNot ) {
   ContainerSmArgs a = args( Lumo::AddressFamily::ipv4, "red" );
   a.pimAllStatus = nullptr;
   try {
      containerSmFactory( a );
      ADD_FAILURE() << "built without its interfaces";
   } catch( const Kiv::RangeException & e ) {
      EXPECT_STREQ( e.what(), "null ValidPtr" );
   }
   a = args( Lumo::AddressFamily::ipv4, "red" );
   a.pimVarnStatus = nullptr;
   const auto c = containerSmFactory( a );
   EXPECT_FALSE( c->pimStatusWriterSm() );
   EXPECT_TRUE( c->pimGlobalIntfSm() );
}

TEST_F( ContainerFixture, DestructionStopsTheMirror ) {
   const ContainerSmArgs a = args( Lumo::AddressFamily::ipv4, "red" );
   auto intf = allStatus_->pimIntfIs( "Ethernet1", ipm( "198.18.0.1/24" ) );
   auto container = containerSmFactory( a );
   run();
   Kiv::TraceCapture capture;
   capture.enable( "Pim::*/8" );
   container = nullptr;
   run();
   EXPECT_TRUE( capture.contains( "Pim::Container", 8, "handleDestruction()" ) );
   // The status writer goes before the I/O machine.
   std::vector< std::string > order;
   for( const auto & line : capture.lines() ) {
      if( line.text.find( '~' ) != std::string::npos ) order.push_back( line.handle );
   }
   EXPECT_EQ( order, ( std::vector< std::string >{ "Pim::StatusWriter", "Pim::IO" } ) );
   // The writer took its rows with it, and changes no longer reach the table.
   EXPECT_FALSE( a.pimVarnStatus->pimIntf().has( V::IntfKey( "Ethernet1" ) ) );
   intf->helloPeriodIs( 5 );
   run();
   EXPECT_EQ( a.pimVarnStatus->pimIntf().size(), 0u );
}

} // namespace

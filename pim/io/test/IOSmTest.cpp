#include <gtest/gtest.h>

#include "io/PimIOSm.h"
#include "kiv/RangeException.h"
#include "kiv/Trace.h"
#include "kiv/testing/TestLoop.h"
#include "services/ip/IpIntfSm.h"

namespace {

using namespace Routing::Pim;
namespace V = Routing::Pim::Varn;

class IOSmFixture : public ::testing::Test {
 protected:
   IOSmFixture() {
      args_.pamManager = pam_;
      args_.messageCounters = counters_;
      args_.pimStatus = status_;
      args_.configColl = config_;
      args_.allStatus = all_;
      args_.intfStatus = red_;
      pam_->rxMessageInfoIs( 0, rxHello_ );
   }
   void run() { ASSERT_TRUE( loop_.runUntilIdle() ); }
   // What the transport does with a received message.
   void receive( const Kiv::Ptr< IO::MessageInfo > & rx, const Kiv::Ptr< Packet::Message > & m ) {
      rx->intfIdIs( "Ethernet1" );
      rx->messageIs( m );
      rx->countInc( 1 );
   }
   // What an interface machine does to send.
   void send( const Kiv::Ptr< Packet::Message > & m ) {
      pam_->txMessageInfo()->messageIs( m );
      pam_->txMessageInfo()->countInc( 1 );
   }

   Kiv::Testing::TestLoop loop_;
   Kiv::Ptr< IO::PamManager > pam_ =
      Kiv::make< IO::PamManager >( Lumo::AddressFamily::ipv4, Lumo::NamespaceName(), true );
   Kiv::Ptr< IO::MessageInfo > rxHello_ = Kiv::make< IO::MessageInfo >();
   Kiv::Ptr< V::MessageCounters > counters_ = Kiv::make< V::MessageCounters >();
   Kiv::Ptr< Status > status_ = Kiv::make< Status >( L3::VrfName( "red" ) );
   Kiv::Ptr< ConfigColl > config_ = Kiv::make< ConfigColl >();
   Kiv::Ptr< AllStatus > all_ = Kiv::make< AllStatus >( L3::VrfName( "red" ) );
   Kiv::Ptr< Intf > pimIntfIs( const char * intf, Mode mode ) {
      auto i = all_->pimIntfIs( Lumo::IntfId( intf ), Lumo::IpGenAddrWithMask() );
      i->modeIs( mode );
      return i;
   }
   Kiv::Ptr< IpGen::Status > ip_ = Kiv::make< IpGen::Ipv4Status >();
   Kiv::Ptr< IpGen::IntfStatus > red_ = IpGen::intfStatusFactory( ip_, L3::VrfName( "red" ) );
   Kiv::Ptr< IpGen::IntfSm > ipIntfSm_ = IpGen::intfSmFactory( red_ );
   IO::IOSmArgs args_;
};

TEST_F( IOSmFixture, PublishesThePimInterfacesOfTheVrfWithTheirMode ) {
   // Whatever made them PIM interfaces: a border router without a mode
   // counts as much as a configured one.
   pimIntfIs( "Ethernet1", pimModeSparse );
   pimIntfIs( "Vlan10", pimModeNone )->borderRouterIs( true );
   config_->intfConfigIs( "Ethernet3" )->modeIs( pimModeSparse );   // configured, not a PIM interface
   status_->pimIntfIs( "Ethernet9", pimModeSparse );                 // left from before
   auto io = IO::ioSmFactory( args_ );
   run();
   EXPECT_EQ( status_->pimIntfSize(), 2u );
   EXPECT_EQ( status_->pimIntf( "Ethernet1" ), pimModeSparse );
   EXPECT_EQ( status_->pimIntf( "Vlan10" ), pimModeNone );
   EXPECT_TRUE( status_->pimIntfHas( "Vlan10" ) );

   // Added later, mode changed, removed.
   pimIntfIs( "Ethernet2", pimModeBidir );
   all_->pimIntf( "Ethernet1" )->modeIs( pimModeSparseBidir );
   run();
   EXPECT_EQ( status_->pimIntf( "Ethernet2" ), pimModeBidir );
   EXPECT_EQ( status_->pimIntf( "Ethernet1" ), pimModeSparseBidir );
   all_->pimIntfDel( "Ethernet2" );
   all_->pimIntfDel( "Vlan10" );
   run();
   EXPECT_EQ( status_->pimIntfSize(), 1u );
   // Going away withdraws what was published, and nothing comes after.
   io = nullptr;
   EXPECT_EQ( status_->pimIntfSize(), 0u );
   pimIntfIs( "Ethernet2", pimModeSparse );
   run();
   EXPECT_EQ( status_->pimIntfSize(), 0u );
}

TEST_F( IOSmFixture, CountsEveryMessageInTheMailboxesByType ) {
   auto io = IO::ioSmFactory( args_ );
   // Two Hellos in one turn of the loop: the mailbox holds only the last,
   // but both are counted.
   receive( rxHello_, Kiv::make< Packet::HelloMessage >() );
   receive( rxHello_, Kiv::make< Packet::HelloMessage >() );
   EXPECT_EQ( counters_->rx( 0 ), 2u );

   // A mailbox registered later is counted once the machine has seen it.
   auto rxJoin = Kiv::make< IO::MessageInfo >();
   pam_->rxMessageInfoIs( 3, rxJoin );
   run();
   receive( rxJoin, Kiv::make< Packet::Message >( Packet::MessageType::joinPrune ) );
   EXPECT_EQ( counters_->rx( 3 ), 1u );
   pam_->rxMessageInfoDel( 3 );
   run();
   receive( rxJoin, Kiv::make< Packet::Message >( Packet::MessageType::joinPrune ) );
   EXPECT_EQ( counters_->rx( 3 ), 1u );

   send( Kiv::make< Packet::HelloMessage >() );
   send( Kiv::make< Packet::Message >( Packet::MessageType::assertMsg ) );
   EXPECT_EQ( counters_->tx( 0 ), 1u );
   EXPECT_EQ( counters_->tx( 5 ), 1u );
   // An increment with no message is not a message sent.
   pam_->txMessageInfo()->messageIs( nullptr );
   pam_->txMessageInfo()->countInc( 1 );
   EXPECT_EQ( counters_->tx( 0 ), 1u );

   // Counting goes on after a clear.
   counters_->clearMessageCounters();
   receive( rxHello_, Kiv::make< Packet::HelloMessage >() );
   EXPECT_EQ( counters_->rx( 0 ), 1u );

   // Once the machine is gone nothing is counted.
   io = nullptr;
   receive( rxHello_, Kiv::make< Packet::HelloMessage >() );
   EXPECT_EQ( counters_->rx( 0 ), 1u );
}

} // namespace

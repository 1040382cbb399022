// The simulated LAN on its own: what it delivers, to whom, when, and what it
// drops or rejects. Each node is a VRF's PIM socket handle (PamManager) with
// its receive mailbox; Hellos are handed to the transmit mailbox the way the
// agent does it. That every option crosses the codec and the message both
// ways is HelloAdapterTest's.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "kiv/testing/TestLoop.h"
#include "services/pimwire/HelloCodec.h"
#include "services/pimio/HelloAdapter.h"
#include "services/pimio/MessageInfo.h"
#include "services/simlan/SimLan.h"
#include "tolm/TimerWheel.h"

namespace {

using Routing::Pim::IO::MessageInfo;
using Routing::Pim::IO::PamManager;
using Routing::Pim::Packet::HelloMessage;

Lumo::IpGenAddr ip( const char * s ) { return Lumo::IpGenAddr::fromStrep( s ); }

struct Received {
   double time;
   std::string intf;
   Lumo::IpGenAddr src;
   std::uint16_t holdTime;
};

// One VRF: its PamManager with a Hello mailbox, a deferred reader of that
// mailbox (as the agent's Hello processor reads it) and its endpoint on
// Ethernet1 of segment "lan".
class Node {
 public:
   Node( SimLan::Lan & lan, const std::string & name, const Kiv::Ptr< Tolm::TimerWheel > & wheel,
         bool withMailbox = true )
         : pam_( Kiv::make< PamManager >( Lumo::AddressFamily::ipv4, Lumo::NamespaceName(), true ) ),
           reader_( this ) {
      if( withMailbox ) {
         rx_ = Kiv::make< MessageInfo >();
         pam_->rxMessageInfoIs( 0, rx_ );
         reader_.notifierIs( rx_ );
      }
      endpoint = std::make_unique< SimLan::Endpoint >( lan, name, pam_, wheel );
      endpoint->attach( "Ethernet1", "lan" );
   }
   // Hands a Hello to the transmit mailbox as the agent does.
   void send( const char * intf, const Lumo::IpGenAddr & src, std::uint16_t hold ) {
      auto h = Kiv::make< HelloMessage >();
      h->srcAddrIs( src );
      h->holdTimePresentIs( true );
      h->holdTimeIs( hold );
      auto tx = pam_->txMessageInfo();
      tx->messageIs( h );
      tx->intfIdIs( Lumo::IntfId( intf ) );
      tx->countInc( 1 );
   }
   const SimLan::EndpointCounters & counters() const { return endpoint->counters(); }

   std::vector< Received > received;
   std::unique_ptr< SimLan::Endpoint > endpoint;

 private:
   class Reader : public MessageInfo::NotifieeConst {
    public:
      explicit Reader( Node * n ) : n_( n ) {}
      void onCount() override {
         const auto m = notifier();
         const auto h = m->helloMessage();
         n_->received.push_back(
            Received{ Kiv::System::currentTime(), std::string( m->intfId().stringValue() ), h->srcAddr(), h->holdTime() } );
      }
    private:
      Node * n_;
   };
   Kiv::Ptr< PamManager > pam_;
   Kiv::Ptr< MessageInfo > rx_;
   Reader reader_;
};

// Three nodes a, b, c on segment "lan".
class SimLanTest : public ::testing::Test {
 protected:
   void settle() { ASSERT_TRUE( loop_.advanceBy( 1.0 ) ); }

   Kiv::Testing::TestLoop loop_{ 1000.0, 1 };
   Kiv::Ptr< Tolm::TimerWheel > wheel_ = Tolm::TimerWheelIs( loop_.clock() );
   SimLan::Lan lan_;
   SimLan::Segment & segment_ = lan_.segmentIs( "lan" );
   Node a_{ lan_, "a", wheel_ }, b_{ lan_, "b", wheel_ }, c_{ lan_, "c", wheel_ };
};

TEST_F( SimLanTest, DeliversToEveryOtherInterfaceAndSimultaneousHellosOneByOne ) {
   // b has a second interface on the same segment: it gets its own copy.
   b_.endpoint->attach( "Ethernet2", "lan" );
   a_.send( "Ethernet1", ip( "198.18.1.1" ), 105 );
   settle();
   EXPECT_TRUE( a_.received.empty() );
   ASSERT_EQ( b_.received.size(), 2u );
   EXPECT_EQ( b_.received[ 0 ].intf + " " + b_.received[ 1 ].intf, "Ethernet1 Ethernet2" );
   ASSERT_EQ( c_.received.size(), 1u );
   EXPECT_EQ( c_.received[ 0 ].src, ip( "198.18.1.1" ) );
   EXPECT_EQ( c_.received[ 0 ].holdTime, 105 );
   EXPECT_EQ( a_.counters().txFrames + b_.counters().rxFrames + c_.counters().rxFrames, 1u + 2u + 1u );

   // A send from b's second interface reaches b's first one, not itself.
   b_.send( "Ethernet2", ip( "198.18.1.2" ), 105 );
   settle();
   EXPECT_EQ( b_.received.size(), 3u );
   EXPECT_EQ( b_.received.back().intf, "Ethernet1" );
   EXPECT_EQ( a_.received.size(), 1u );
   for( Node * n : { &a_, &b_, &c_ } ) n->received.clear();
   // Five Hellos due at the same instant: a deferred, coalescing reader of
   // the mailbox still sees every one of them, in the order they were sent.
   a_.send( "Ethernet1", ip( "198.18.1.1" ), 101 );
   c_.send( "Ethernet1", ip( "198.18.1.3" ), 103 );
   a_.send( "Ethernet1", ip( "198.18.1.1" ), 102 );
   c_.send( "Ethernet1", ip( "198.18.1.3" ), 104 );
   a_.send( "Ethernet1", ip( "198.18.1.1" ), 0 );
   settle();
   ASSERT_EQ( b_.received.size(), 10u );
   const std::uint16_t expected[] = { 101, 103, 102, 104, 0 };
   for( std::size_t i = 0; i < 10; ++i ) {   // b hears each on both interfaces
      EXPECT_EQ( b_.received[ i ].holdTime, expected[ i / 2 ] ) << i;
      EXPECT_DOUBLE_EQ( b_.received[ i ].time, b_.received[ 0 ].time );
   }
   EXPECT_EQ( a_.received.size(), 2u );
   EXPECT_EQ( c_.received.size(), 3u );
}

TEST_F( SimLanTest, DamagedFramesAreRejectedByReasonAndAVrfWithoutMailboxTakesNone ) {
   Node quiet( lan_, "quiet", wheel_, false );
   PimWire::Hello h;
   h.holdtimePresent = true;
   h.holdtime = 105;
   const std::vector< std::uint8_t > good = PimWire::encodeHello(
      h, PimWire::Family::ipv4, PimWire::Addr::v4( 198, 18, 1, 1 ), PimWire::Addr::v4( 224, 0, 0, 13 ) );
   ASSERT_FALSE( good.empty() );
   std::vector< std::uint8_t > flipped = good;
   flipped.back() ^= 0x01;
   for( const auto & bytes : { flipped, std::vector< std::uint8_t >{ 0x20 }, good } )
      a_.endpoint->sendBytes( "Ethernet1", ip( "198.18.1.1" ), ip( "224.0.0.13" ), bytes );
   settle();
   ASSERT_EQ( b_.received.size(), 1u ) << "only the intact frame gets through";
   EXPECT_EQ( b_.counters().rejected( PimWire::RejectReason::badChecksum ), 1u );
   EXPECT_EQ( b_.counters().rejected( PimWire::RejectReason::tooShort ), 1u );
   EXPECT_EQ( b_.counters().rejected() + c_.counters().rejected(), 4u );
   EXPECT_EQ( std::tuple( quiet.counters().rejected(), quiet.counters().rxNoMailbox ), std::tuple( 2u, 1u ) );
}

// Loss: which copies are lost follows the activity manager's random source.
TEST( SimLanLossTest, LossIsDeterministicForASeedAndAccountsForEveryFrame ) {
   struct Outcome {
      std::vector< std::uint16_t > bHeard;
      std::uint64_t bLost = 0;
      std::uint64_t cLost = 0;
      std::size_t cHeard = 0;
   };
   auto run = []( std::uint64_t seed, double loss ) {
      Kiv::Testing::TestLoop loop( 0.0, seed );
      auto wheel = Tolm::TimerWheelIs( loop.clock() );
      SimLan::Lan lan;
      lan.segmentIs( "lan" ).lossIs( loss );
      Node a( lan, "a", wheel ), b( lan, "b", wheel ), c( lan, "c", wheel );
      for( std::uint16_t i = 1; i <= 200; ++i ) {
         a.send( "Ethernet1", ip( "198.18.1.1" ), i );
         EXPECT_TRUE( loop.advanceBy( 0.01 ) );
      }
      EXPECT_TRUE( loop.advanceBy( 1.0 ) );
      Outcome o{ {}, b.counters().rxLost, c.counters().rxLost, c.received.size() };
      for( const auto & r : b.received ) o.bHeard.push_back( r.holdTime );
      return o;
   };
   const Outcome first = run( 42, 0.3 );
   const Outcome again = run( 42, 0.3 );
   const Outcome other = run( 43, 0.3 );
   EXPECT_EQ( std::tie( first.bHeard, first.cLost ), std::tie( again.bHeard, again.cLost ) );
   EXPECT_NE( first.bHeard, other.bHeard ) << "another seed loses other frames";
   EXPECT_EQ( first.bHeard.size() + first.bLost, 200u );
   EXPECT_EQ( first.cHeard + first.cLost, 200u );
   // 30 % of 200 copies: far outside 30..90 would mean a broken draw.
   EXPECT_GT( first.bLost, 30u );
   EXPECT_LT( first.bLost, 90u );
   // Copies to different receivers are lost independently.
   EXPECT_NE( first.bLost + first.cLost, 2 * first.bLost );

   EXPECT_EQ( run( 42, 0.0 ).bHeard.size(), 200u );
   EXPECT_EQ( run( 42, 1.0 ).bLost, 200u );
}

} // namespace

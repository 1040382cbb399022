// PIM on raw sockets between two namespaces joined by a veth pair: what one
// side sends, the other receives on the right interface, decoded, once per
// Hello and none lost in a burst; what it must not take it drops and counts.
// TTL / hop limit 1 and the checksum on the wire are checked by the daemon's
// TsharkCaptureTest, which sends through this socket.
#include <gtest/gtest.h>

#include <functional>
#include <tuple>

#include "kiv/testing/TestLoop.h"
#include "services/netlink/KernelFeed.h"
#include "services/netns/test/NetnsLab.h"
#include "services/pimio/HelloAdapter.h"
#include "services/pimio/linux/RawPimIo.h"

namespace Routing::Pim::IO {
namespace {

using NetnsTest::NetnsLab;

struct Received {
   std::string intf;
   Lumo::IpGenAddr src;
   std::uint16_t holdTime;
   std::uint32_t drPriority;
   bool operator==( const Received & ) const = default;
};

class KivRecorder : public MessageInfo::NotifieeConst {
 public:
   std::vector< Received > got;
   void onCount() override {
      const auto m = notifier();
      const auto h = m->helloMessage();
      got.push_back( { std::string( m->intfId().stringValue() ), h->srcAddr(), h->holdTime(), h->drPriority() } );
   }
};

// One router: its namespace's kernel status and its PIM socket.
struct Side {
   Side( const std::string & ns, Lumo::AddressFamily af, const Kiv::Ptr< Tolm::TimerWheel > & wheel )
         : targets{ L3::VrfName( "default" ), Kiv::make< Interface::DeviceIntfStatusDir >(), Kiv::make< IpGen::Ipv4Status >(),
                    Kiv::make< IpGen::Ipv6Status >() } {
      feed = std::make_unique< Netlink::KernelFeed >( Lumo::NamespaceName( ns ), targets );
      feed->start();
      pam = Kiv::make< PamManager >( af, Lumo::NamespaceName( ns ), true );
      rx = Kiv::make< MessageInfo >();
      pam->rxMessageInfoIs( 0, rx );
      recorder.notifierIs( rx );
      io = std::make_unique< RawPimIo >( pam, targets.devices, wheel );
      io->start();
   }
   ~Side() { recorder.notifierIs( nullptr ); }
   Lumo::IpGenAddr addr( const char * intf, Lumo::AddressFamily af ) const {
      const auto & st = af == Lumo::AddressFamily::ipv6 ? targets.ip6 : targets.ip4;
      return st->primaryAddrWithMask( Lumo::IntfId( intf ) ).address();
   }
   Netlink::FeedTargets targets;
   std::unique_ptr< Netlink::KernelFeed > feed;
   Kiv::Ptr< PamManager > pam;
   Kiv::Ptr< MessageInfo > rx;
   KivRecorder recorder;
   std::unique_ptr< RawPimIo > io;
};

void send( Side & s, const char * intf, const Lumo::IpGenAddr & src, std::uint16_t holdTime, std::uint32_t prio ) {
   auto h = Kiv::make< Packet::HelloMessage >();
   h->srcAddrIs( src );
   h->holdTimePresentIs( true );
   h->holdTimeIs( holdTime );
   h->drPriorityPresentIs( true );
   h->drPriorityIs( prio );
   const auto tx = s.pam->txMessageInfo();
   tx->messageIs( h );
   tx->intfIdIs( Lumo::IntfId( intf ) );
   tx->countInc( 1 );
}

class RawPimIoTest : public ::testing::TestWithParam< Lumo::AddressFamily > {
 protected:
   void SetUp() override {
      if( !NetnsLab::haveRoot() ) GTEST_SKIP() << "needs root to create network namespaces and raw sockets";
      a = lab.add( "pa" );
      b = lab.add( "pb" );
      ASSERT_FALSE( a.empty() || b.empty() );
      ASSERT_TRUE( NetnsLab::sh( "ip -n " + a + " link add a0 type veth peer name b0 netns " + b ) );
      for( const auto & [ ns, intf, n ] : { std::tuple( a, "a0", "1" ), std::tuple( b, "b0", "2" ) } ) {
         ASSERT_TRUE( NetnsLab::sh( "ip -n " + ns + " addr add 198.18.0." + n + "/24 dev " + intf + " && ip -n " + ns +
                                    " addr add 2001:db8::" + n + "/64 dev " + intf + " && ip -n " + ns + " link set " +
                                    intf + " up" ) );
      }
      wheel = Tolm::TimerWheelIs( loop.clock() );
      af = GetParam();
      sa = std::make_unique< Side >( a, af, wheel );
      sb = std::make_unique< Side >( b, af, wheel );
      // Link-local addresses come with the link: wait for both ends.
      ASSERT_TRUE( NetnsLab::waitFor( sa->feed->fd(), [ & ] { sa->feed->handleReadable(); },
                                      [ & ] { return !sa->addr( "a0", af ).isEmpty(); } ) );
      ASSERT_TRUE( NetnsLab::waitFor( sb->feed->fd(), [ & ] { sb->feed->handleReadable(); },
                                      [ & ] { return !sb->addr( "b0", af ).isEmpty(); } ) );
      sb->io->pimIntfIs( Lumo::IntfId( "b0" ), true );
      ASSERT_TRUE( sb->io->allPimRoutersIs( Lumo::IntfId( "b0" ), true ) );
   }
   // Reads b's socket and runs the loop until b's mailbox has seen n Hellos
   // (deliveries are timers due now: they fire as the loop turns).
   bool receive( std::size_t n ) {
      return readUntil( [ & ] {
         loop.advanceBy( 0 );
         return sb->recorder.got.size() >= n;
      } );
   }
   bool readUntil( const std::function< bool() > & cond ) {
      return NetnsLab::waitFor( sb->io->socketFd(), [ & ] { sb->io->handleReadable(); }, cond );
   }

   Kiv::Testing::TestLoop loop;
   NetnsLab lab;
   std::string a, b;
   Lumo::AddressFamily af = Lumo::AddressFamily::ipv4;
   Kiv::Ptr< Tolm::TimerWheel > wheel;
   std::unique_ptr< Side > sa, sb;
};

TEST_P( RawPimIoTest, LightInputPausesReadingABurstArrivesWholeInOrder ) {
   const Lumo::IpGenAddr src = sa->addr( "a0", af );
   sb->io->coalesceIs( 0.005 );
   send( *sa, "a0", src, 1, 1 );
   ASSERT_TRUE( receive( 1 ) );
   EXPECT_EQ( sb->io->counters().rxPauses, 1u );
   EXPECT_FALSE( sb->io->reading() ) << "a lone Hello starts a pause";
   loop.advanceBy( 0.004 );
   EXPECT_FALSE( sb->io->reading() );
   loop.advanceBy( 0.002 );
   EXPECT_TRUE( sb->io->reading() ) << "and the pause ends on time";
   // More than a batch waits in the socket: read on, no pause.
   for( std::uint16_t i = 1; i <= RawPimIo::kBatch + 1; ++i ) send( *sa, "a0", src, i, i );
   ASSERT_TRUE( receive( RawPimIo::kBatch + 2 ) );
   EXPECT_EQ( sb->io->counters().rxPauses, 1u );

   // More than the queue holds: reading stops, the kernel keeps the rest.
   sb->io->coalesceIs( 0 );
   sb->recorder.got.clear();
   constexpr std::uint16_t kBurst = RawPimIo::kQueueLimit + 500;
   for( std::uint16_t i = 1; i <= kBurst; ++i ) send( *sa, "a0", src, i, i );
   ASSERT_TRUE( receive( kBurst ) ) << sb->recorder.got.size() << " kernel dropped " << sb->io->counters().rxKernelDropped
                                     << " tx failed " << sa->io->counters().txFailed;
   for( std::uint16_t i = 0; i < kBurst; ++i ) ASSERT_EQ( sb->recorder.got[ i ].holdTime, i + 1 ) << "order or loss";
   EXPECT_EQ( sb->io->counters().rxDelivered, kBurst + RawPimIo::kBatch + 2 );
   EXPECT_EQ( sb->io->queued(), 0u );
   EXPECT_EQ( sb->io->counters().rxKernelDropped, 0u );
   EXPECT_GE( sb->io->counters().rxQueueFullStops, 1u );
}

TEST_P( RawPimIoTest, WhatIsNotForPimIsDroppedAndCounted ) {
   const Lumo::IpGenAddr src = sa->addr( "a0", af );
   EXPECT_EQ( af == Lumo::AddressFamily::ipv6, src.isLinkLocal() );
   // Denied by the ACL, then on an interface PIM left, then one that passes.
   sb->io->aclIs( [ & ]( const Lumo::IpGenAddr & s ) { return s != src; } );
   send( *sa, "a0", src, 10, 1 );
   ASSERT_TRUE( readUntil( [ & ] { return sb->io->counters().rxAclDenied == 1; } ) );
   sb->io->aclIs( nullptr );
   sb->io->pimIntfIs( Lumo::IntfId( "b0" ), false );
   send( *sa, "a0", src, 20, 1 );
   ASSERT_TRUE( readUntil( [ & ] { return sb->io->counters().rxNotPimIntf == 1; } ) );
   sb->io->pimIntfIs( Lumo::IntfId( "b0" ), true );
   send( *sa, "a0", src, 30, 7 );
   ASSERT_TRUE( receive( 1 ) ) << "tx failed " << sa->io->counters().txFailed << ", rx " << sb->io->counters().rxDatagrams;
   EXPECT_EQ( sa->io->counters().txSent, 3u );
   EXPECT_EQ( sb->recorder.got, ( std::vector< Received >{ { "b0", src, 30, 7 } } ) );
   // Sending on an interface the kernel does not know is refused, counted.
   send( *sa, "nosuch0", src, 30, 1 );
   EXPECT_EQ( sa->io->counters().txNoInterface, 1u );
   EXPECT_FALSE( sb->io->allPimRoutersIs( Lumo::IntfId( "nosuch0" ), true ) );
   EXPECT_EQ( sb->io->counters().membershipFailed, 1u );
}

// Memberships follow the requests, and come back with a re-created link.
TEST_P( RawPimIoTest, MembershipFollowsTheRequests ) {
   auto joined = [ & ] {
      const std::string group = af == Lumo::AddressFamily::ipv6 ? "ff02::d" : "224.0.0.13";
      return NetnsLab::output( "ip -n " + a + " maddr show dev a0 2>/dev/null" ).find( group ) != std::string::npos;
   };
   const Lumo::IntfId a0( "a0" );
   auto groups = Kiv::make< IpGen::MulticastGroupsForApplications >( af );
   groups->joinGroup( a0, allPimRouters( af ) );
   groups->joinGroup( Lumo::IntfId( "elsewhere0" ), allPimRouters( af ) );   // not in this namespace
   sa->io->groupsIs( groups );
   EXPECT_EQ( std::tuple( joined(), sa->io->counters().joins, sa->io->counters().membershipFailed ),
              std::tuple( true, 1u, 0u ) );

   groups->leaveGroup( a0, allPimRouters( af ) );
   loop.runUntilIdle();
   EXPECT_FALSE( joined() );

   groups->joinGroup( a0, allPimRouters( af ) );
   loop.runUntilIdle();
   EXPECT_EQ( sa->io->counters().joins, 2u );
   // The link goes and comes back with a new index: joined again on it.
   const auto before = sa->targets.devices->deviceIntfStatus( a0 ).ifIndex;
   ASSERT_TRUE( NetnsLab::sh( "ip -n " + a + " link del a0 && ip -n " + a + " link add a0 type veth peer name a1 && ip -n " +
                              a + " link set a0 up && ip -n " + a + " link set a1 up" ) );
   ASSERT_TRUE( NetnsLab::waitFor( sa->feed->fd(), [ & ] { sa->feed->handleReadable(); },
                                   [ & ] {
                                      const auto d = sa->targets.devices->deviceIntfStatus( a0 );
                                      return d.ifIndex && d.ifIndex != before;
                                   } ) );
   loop.runUntilIdle();
   EXPECT_EQ( std::tuple( joined(), sa->io->counters().joins ), std::tuple( true, 3u ) );
   sa->io->groupsIs( nullptr );
}

INSTANTIATE_TEST_SUITE_P( Families, RawPimIoTest,
                          ::testing::Values( Lumo::AddressFamily::ipv4, Lumo::AddressFamily::ipv6 ),
                          []( const auto & info ) { return info.param == Lumo::AddressFamily::ipv6 ? "ipv6" : "ipv4"; } );

} // namespace
} // namespace Routing::Pim::IO

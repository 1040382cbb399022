// The netlink feed against a real kernel, in namespaces of its own: the
// first dump, the events that follow it, and the re-dump after the kernel
// dropped events.
#include <gtest/gtest.h>

#include <tuple>

#include "services/netlink/KernelFeed.h"
#include "services/netns/test/NetnsLab.h"

namespace Netlink {
namespace {

using NetnsTest::NetnsLab;
using Lumo::IpGenAddrWithMask;

IpGenAddrWithMask am( const char * s ) { return IpGenAddrWithMask::fromStrep( s ); }

class KernelFeedTest : public ::testing::Test {
 protected:
   void SetUp() override {
      if( !NetnsLab::haveRoot() ) GTEST_SKIP() << "needs root to create network namespaces";
      ns = lab.add( "feed" );
      ASSERT_FALSE( ns.empty() );
      // Deleting a primary promotes a secondary instead of taking them all.
      ASSERT_TRUE( NetnsLab::sh( "ip netns exec " + ns + " sysctl -qw net.ipv4.conf.default.promote_secondaries=1" ) );
      ASSERT_TRUE( ip( "link add va0 type veth peer name va1" ) && ip( "addr add 198.18.1.1/24 dev va0" ) &&
                   ip( "addr add 2001:db8:1::1/64 dev va0" ) && ip( "link set va0 up" ) && ip( "link set va1 up" ) );
   }
   bool ip( const std::string & args ) { return NetnsLab::sh( "ip -n " + ns + " " + args ); }
   bool settle( KernelFeed & f, const std::function< bool() > & cond ) {
      return NetnsLab::waitFor( f.fd(), [ & ] { f.handleReadable(); }, cond );
   }
   IpGenAddrWithMask primary( const Kiv::Ptr< IpGen::Status > & st, const char * intf ) {
      return st->primaryAddrWithMask( Lumo::IntfId( intf ) );
   }
   bool hasSecondary( const Kiv::Ptr< IpGen::Status > & st, const char * intf, const char * a ) {
      return st->isActiveSecondary( Lumo::IntfId( intf ), am( a ) );
   }

   NetnsLab lab;
   std::string ns;
   FeedTargets t{ L3::VrfName( "red" ), Kiv::make< Interface::DeviceIntfStatusDir >(), Kiv::make< IpGen::Ipv4Status >(),
                  Kiv::make< IpGen::Ipv6Status >() };
};

TEST_F( KernelFeedTest, DumpThenEventsKeepTheStatusInStep ) {
   KernelFeed feed( Lumo::NamespaceName( ns ), t );
   feed.start();
   // The veth carrier comes up a moment after "link set up", so the dump may
   // precede it; the events that follow must complete the picture.
   ASSERT_TRUE( settle( feed, [ & ] {
      return t.devices->deviceIntfStatus( Lumo::IntfId( "va0" ) ).operUp && !primary( t.ip4, "va0" ).isEmpty() &&
             hasSecondary( t.ip6, "va0", "2001:db8:1::1/64" );
   } ) );
   const auto va0 = t.devices->deviceIntfStatus( Lumo::IntfId( "va0" ) );
   const auto va1 = t.devices->deviceIntfStatus( Lumo::IntfId( "va1" ) );
   EXPECT_TRUE( va0.ifIndex > 0 && va0.ifIndex != va1.ifIndex && t.devices->deviceIntfStatus( Lumo::IntfId( "lo" ) ).operUp );
   // IPv6 speaks from the link-local address; the global one is a secondary.
   EXPECT_EQ( std::tuple( t.ip4->vrfOf( Lumo::IntfId( "va0" ) ), primary( t.ip4, "va0" ),
                          primary( t.ip6, "va0" ).address().isLinkLocal(), hasSecondary( t.ip6, "va0", "2001:db8:1::1/64" ),
                          feed.counters().dumps ),
              std::tuple( L3::VrfName( "red" ), am( "198.18.1.1/24" ), true, true, 1u ) );

   struct Step {
      std::string command;
      std::function< bool() > done;
   };
   const Step steps[] = {
      { "addr add 198.18.1.2/24 dev va0", [ & ] { return hasSecondary( t.ip4, "va0", "198.18.1.2/24" ); } },
      { "addr add 198.18.7.1/24 dev va1", [ & ] { return primary( t.ip4, "va1" ) == am( "198.18.7.1/24" ); } },
      // The primary stays while it exists, whatever else comes and goes.
      { "addr add 198.18.0.9/24 dev va1",
        [ & ] { return hasSecondary( t.ip4, "va1", "198.18.0.9/24" ) && primary( t.ip4, "va1" ) == am( "198.18.7.1/24" ); } },
      { "addr del 198.18.7.1/24 dev va1", [ & ] { return primary( t.ip4, "va1" ) == am( "198.18.0.9/24" ); } },
      // Without carrier a link has no active address; they come back with it.
      { "link set va1 down",
        [ & ] { return !t.devices->deviceIntfStatus( Lumo::IntfId( "va0" ) ).operUp && primary( t.ip4, "va0" ).isEmpty() &&
                       !hasSecondary( t.ip4, "va0", "198.18.1.2/24" ); } },
      { "link set va1 up",
        [ & ] { return t.devices->deviceIntfStatus( Lumo::IntfId( "va0" ) ).operUp &&
                       primary( t.ip4, "va0" ) == am( "198.18.1.1/24" ) && hasSecondary( t.ip4, "va0", "198.18.1.2/24" ); } },
      { "link set va1 down && ip -n " + ns + " link set va1 name vb1 && ip -n " + ns + " link set vb1 up",
        [ & ] {
           return !t.devices->deviceIntfStatusHas( Lumo::IntfId( "va1" ) ) && !t.ip4->knowsIntf( Lumo::IntfId( "va1" ) ) &&
                  primary( t.ip4, "vb1" ) == am( "198.18.0.9/24" ) &&
                  t.devices->deviceIntfStatus( Lumo::IntfId( "vb1" ) ).ifIndex == va1.ifIndex;
        } },
      { "addr del 198.18.1.1/24 dev va0", [ & ] { return primary( t.ip4, "va0" ) == am( "198.18.1.2/24" ); } },
      { "link del va0",
        [ & ] {
           return !t.devices->deviceIntfStatusHas( Lumo::IntfId( "va0" ) ) &&
                  !t.devices->deviceIntfStatusHas( Lumo::IntfId( "vb1" ) ) && !t.ip4->knowsIntf( Lumo::IntfId( "va0" ) ) &&
                  !t.ip6->knowsIntf( Lumo::IntfId( "vb1" ) );
        } },
   };
   for( const auto & s : steps ) {
      ASSERT_TRUE( ip( s.command ) ) << s.command;
      EXPECT_TRUE( settle( feed, s.done ) ) << s.command;
   }
   EXPECT_EQ( std::tuple( feed.counters().malformed, feed.counters().resyncs ), std::tuple( 0u, 0u ) );
}

// The kernel drops events on a full socket; the feed dumps again and ends
// where a fresh feed starts.
TEST_F( KernelFeedTest, DroppedEventsAreRecoveredByADump ) {
   KernelFeed feed( Lumo::NamespaceName( ns ), t );
   feed.start();
   feed.receiveBufferIs( 4096 );
   std::string batch;
   for( int i = 0; i < 250; ++i ) batch += "addr add 198.18.2." + std::to_string( i ) + "/24 dev va1\n";
   for( int i = 0; i < 250; i += 2 ) batch += "addr del 198.18.2." + std::to_string( i ) + "/24 dev va1\n";
   ASSERT_TRUE( NetnsLab::sh( "echo '" + batch + "link set va1 name vc1' | ip -n " + ns + " -batch -" ) );

   FeedTargets fresh{ t.vrf, Kiv::make< Interface::DeviceIntfStatusDir >(), Kiv::make< IpGen::Ipv4Status >(),
                      Kiv::make< IpGen::Ipv6Status >() };
   KernelFeed reference( Lumo::NamespaceName( ns ), fresh );
   reference.start();
   ASSERT_TRUE( settle( feed, [ & ] { return feed.written() == reference.written() && !feed.pending(); } ) )
      << "resyncs " << feed.counters().resyncs << " events " << feed.counters().events << " dumps "
      << feed.counters().dumps << " written " << feed.written().size() << "/" << reference.written().size();
   EXPECT_GE( feed.counters().resyncs, 1u );

   const auto view = feed.written().at( t.devices->deviceIntfStatus( Lumo::IntfId( "vc1" ) ).ifIndex );
   EXPECT_EQ( view.secondary[ 0 ].size() + 1, 125u );
   EXPECT_FALSE( t.devices->deviceIntfStatusHas( Lumo::IntfId( "va1" ) ) || t.ip4->knowsIntf( Lumo::IntfId( "va1" ) ) );
   // The entities say what the views say.
   for( int i = 1; i < 250; i += 2 ) {
      const auto a = am( ( "198.18.2." + std::to_string( i ) + "/24" ).c_str() );
      EXPECT_TRUE( primary( t.ip4, "vc1" ) == a || t.ip4->isActiveSecondary( Lumo::IntfId( "vc1" ), a ) ) << i;
   }
}

TEST( KernelFeedNamespace, MissingNamespaceIsAnError ) {
   if( !NetnsLab::haveRoot() ) GTEST_SKIP() << "needs root to reach /run/netns";
   KernelFeed feed( Lumo::NamespaceName( "pimt-no-such-namespace" ), FeedTargets{} );
   EXPECT_THROW( feed.start(), std::system_error );
}

} // namespace
} // namespace Netlink

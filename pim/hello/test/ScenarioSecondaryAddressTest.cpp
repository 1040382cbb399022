// Secondary addresses of neighbours: learnt from the address list, removed
// when a later Hello drops them, and contested between two neighbours (the
// newest advertiser wins). The interface keeps a map from each secondary
// address to its owner.
#include "EngineFixture.h"

namespace PimScenario {
namespace {

std::set< Lumo::IpGenAddr > secondariesOf( const Neighbor & nb ) {
   std::set< Lumo::IpGenAddr > r;
   nb.secondaryAddressForEach( [ & ]( const Lumo::IpGenAddr & a, bool ) { r.insert( a ); } );
   return r;
}

std::set< Lumo::IpGenAddr > addrSet( std::initializer_list< const char * > a ) {
   std::set< Lumo::IpGenAddr > r;
   for( const char * s : a ) r.insert( ip( s ) );
   return r;
}

TEST( ScenarioSecondaryAddress, LearntThenRemovedOneByOneThenAllAtOnce ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );

   f.receive( eth1, hello( "198.18.0.2" ).addrs( { "198.18.0.102", "198.18.0.103", "198.18.0.104" } ) );
   auto nb = f.neighbor( eth1, "198.18.0.2" );
   ASSERT_TRUE( nb );
   EXPECT_EQ( secondariesOf( *nb ), addrSet( { "198.18.0.102", "198.18.0.103", "198.18.0.104" } ) );
   EXPECT_EQ( intf->nbSecondaryAddressSize(), 3u );
   EXPECT_EQ( intf->nbSecondaryAddress( ip( "198.18.0.103" ) ), ip( "198.18.0.2" ) );

   f.advanceBy( 10.0 );
   f.receive( eth1, hello( "198.18.0.2" ).addrs( { "198.18.0.102", "198.18.0.104", "198.18.0.105" } ) );
   EXPECT_EQ( secondariesOf( *nb ), addrSet( { "198.18.0.102", "198.18.0.104", "198.18.0.105" } ) );
   EXPECT_FALSE( intf->nbSecondaryAddressHas( ip( "198.18.0.103" ) ) );
   EXPECT_EQ( intf->nbSecondaryAddress( ip( "198.18.0.105" ) ), ip( "198.18.0.2" ) );

   f.advanceBy( 10.0 );
   f.receive( eth1, hello( "198.18.0.2" ) );
   EXPECT_EQ( nb->secondaryAddressSize(), 0u );
   EXPECT_EQ( intf->nbSecondaryAddressSize(), 0u );
}

// Addresses that cannot stand for the neighbour are skipped and counted (the
// own primary is just dropped); the good one beside them is learnt.
TEST( ScenarioSecondaryAddress, UnusableAddressesAreIgnoredCountedAndTracedTheOthersLearnt ) {
   struct Case {
      Lumo::AddressFamily af;
      const char * listed;
      const char * why;
      std::uint32_t counted;
   };
   const auto v4 = Lumo::AddressFamily::ipv4;
   const auto v6 = Lumo::AddressFamily::ipv6;
   const Case cases[] = {
      { v4, "198.18.0.2", "the sender's own primary", 0 },
      { v4, "198.18.0.1", "is one of our own addresses", 1 },
      { v4, "198.18.9.1", "is one of our own addresses", 1 },
      { v4, "198.18.0.3", "is the primary address of another neighbor", 1 },
      { v4, "0.0.0.0", "is unspecified", 1 },
      { v4, "224.0.0.13", "is multicast", 1 },
      { v4, "255.255.255.255", "is broadcast", 1 },
      { v4, "198.18.0.255", "is broadcast", 1 },
      { v4, "127.0.0.1", "is loopback", 1 },
      { v6, "fe80::9", "is link-local", 1 },
      { v6, "::1", "is loopback", 1 },
      { v6, "::", "is unspecified", 1 },
      { v6, "2001:db8::3", "is the primary address of another neighbor", 1 },
   };
   for( const Case & c : cases ) {
      SCOPED_TRACE( std::string( c.listed ) + ": " + c.why );
      const bool six = c.af == v6;
      EngineFixture f( c.af );
      auto intf = f.startIntf( eth1, six ? "2001:db8::1/64" : "198.18.0.1/24",
                               { .secondary = { ip( six ? "2001:db8:9::1" : "198.18.9.1" ) } } );
      const char * sender = six ? "2001:db8::2" : "198.18.0.2";
      const char * good = six ? "2001:db8::120" : "198.18.0.120";
      f.receive( eth1, hello( six ? "2001:db8::3" : "198.18.0.3" ) );
      auto h = hello( sender );
      h.secondary = { ip( c.listed ), ip( good ) };
      f.receive( eth1, h );
      auto nb = f.neighbor( eth1, sender );
      ASSERT_TRUE( nb );
      EXPECT_EQ( secondariesOf( *nb ), std::set< Lumo::IpGenAddr >{ ip( good ) } );
      EXPECT_EQ( intf->nbSecondaryAddressSize(), 1u );
      EXPECT_EQ( intf->ignoredSecondaryCount(), c.counted );
   }
}

// The per-neighbour limit holds whatever the Hello lists, and a primary
// address outranks a secondary claim to it.
TEST( ScenarioSecondaryAddress, PerNeighborLimitAndAPrimaryTakesItsAddressBack ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   auto h = hello( "198.18.0.2" );
   for( int i = 0; i < 40; ++i ) h.secondary.push_back( ip( "198.18.1." + std::to_string( i + 1 ) ) );
   f.receive( eth1, h );
   auto nb = f.neighbor( eth1, "198.18.0.2" );
   ASSERT_TRUE( nb );
   EXPECT_EQ( nb->secondaryAddressSize(), kNeighborSecondaryAddressLimit );
   EXPECT_EQ( intf->nbSecondaryAddressSize(), kNeighborSecondaryAddressLimit );
   EXPECT_EQ( intf->ignoredSecondaryCount(), 40u - kNeighborSecondaryAddressLimit );

   f.receive( eth1, hello( "198.18.0.2" ).addrs( { "198.18.0.7", "198.18.0.8" } ) );
   EXPECT_EQ( secondariesOf( *nb ), addrSet( { "198.18.0.7", "198.18.0.8" } ) );
   f.receive( eth1, hello( "198.18.0.7" ) );
   ASSERT_TRUE( f.neighbor( eth1, "198.18.0.7" ) );
   EXPECT_EQ( secondariesOf( *nb ), addrSet( { "198.18.0.8" } ) );
   EXPECT_FALSE( intf->nbSecondaryAddressHas( ip( "198.18.0.7" ) ) );
   // And it is refused when listed again.
   f.receive( eth1, hello( "198.18.0.2" ).addrs( { "198.18.0.7", "198.18.0.8" } ) );
   EXPECT_EQ( secondariesOf( *nb ), addrSet( { "198.18.0.8" } ) );
}

TEST( ScenarioSecondaryAddress, ContestedAddressGoesToTheNewestAdvertiserEveryTime ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );

   f.at( 5.0 );
   f.receive( eth1, hello( "198.18.0.2" ).addrs( { "198.18.0.150", "198.18.0.151" } ) );
   EXPECT_EQ( intf->nbSecondaryAddress( ip( "198.18.0.150" ) ), ip( "198.18.0.2" ) );

   f.at( 10.0 );
   f.receive( eth1, hello( "198.18.0.3" ).addrs( { "198.18.0.150" } ) );
   auto nb2 = f.neighbor( eth1, "198.18.0.2" );
   auto nb3 = f.neighbor( eth1, "198.18.0.3" );
   ASSERT_TRUE( nb2 && nb3 );
   EXPECT_EQ( intf->nbSecondaryAddress( ip( "198.18.0.150" ) ), ip( "198.18.0.3" ) );
   EXPECT_EQ( secondariesOf( *nb2 ), addrSet( { "198.18.0.151" } ) );
   EXPECT_EQ( secondariesOf( *nb3 ), addrSet( { "198.18.0.150" } ) );
   // The earlier owner's removal does not take the mapping from the new one.
   EXPECT_EQ( intf->nbSecondaryAddress( ip( "198.18.0.151" ) ), ip( "198.18.0.2" ) );

   // The first neighbour advertises it again: now it is the newest.
   f.at( 20.0 );
   f.receive( eth1, hello( "198.18.0.2" ).addrs( { "198.18.0.150", "198.18.0.151" } ) );
   EXPECT_EQ( intf->nbSecondaryAddress( ip( "198.18.0.150" ) ), ip( "198.18.0.2" ) );
   EXPECT_EQ( secondariesOf( *nb2 ), addrSet( { "198.18.0.150", "198.18.0.151" } ) );
   EXPECT_EQ( secondariesOf( *nb3 ), std::set< Lumo::IpGenAddr >{} );
   const auto conflict = []( const char * by, const char * before ) {
      return std::string( "Neighbor " ) + by + " advertised secondary address 198.18.0.150 on interface Ethernet1, " +
             "which was previously advertised by neighbor " + before;
   };
   EXPECT_EQ( f.logTexts( "PIM_NEIGHBOR_SECONDARY_ADDRESS_CONFLICT" ),
              ( std::vector< std::string >{ conflict( "198.18.0.3", "198.18.0.2" ),
                                            conflict( "198.18.0.2", "198.18.0.3" ) } ) );
}

TEST( ScenarioSecondaryAddress, ANeighborThatLeavesTakesItsSecondariesWithIt ) {
   // However it leaves: a new router that advertises one of its addresses
   // afterwards meets no conflict.
   const struct {
      const char * how;
      double wait;
      std::optional< HelloBuilder > goodbye;
   } cases[] = {
      { "expiry", 31.0, std::nullopt },
      { "goodbye with its list", 1.0, hello( "198.18.0.2" ).hold( 0 ).addrs( { "198.18.0.160", "198.18.0.161" } ) },
      { "goodbye without a list", 1.0, hello( "198.18.0.2" ).hold( 0 ) },
   };
   for( const auto & c : cases ) {
      SCOPED_TRACE( c.how );
      EngineFixture f;
         auto intf = f.startIntf( eth1, "198.18.0.1/24" );
      f.receive( eth1, hello( "198.18.0.2" ).hold( 30 ).addrs( { "198.18.0.160", "198.18.0.161" } ) );
      f.receive( eth1, hello( "198.18.0.3" ).addrs( { "198.18.0.170" } ) );
      EXPECT_EQ( intf->nbSecondaryAddressSize(), 3u );

      if( c.goodbye ) f.receive( eth1, *c.goodbye );
      f.advanceBy( c.wait );
      EXPECT_FALSE( f.neighbor( eth1, "198.18.0.2" ) );
      EXPECT_EQ( intf->nbSecondaryAddressSize(), 1u );
      EXPECT_EQ( intf->nbSecondaryAddress( ip( "198.18.0.170" ) ), ip( "198.18.0.3" ) );

      f.receive( eth1, hello( "198.18.0.4" ).addrs( { "198.18.0.161" } ) );
      EXPECT_EQ( intf->nbSecondaryAddress( ip( "198.18.0.161" ) ), ip( "198.18.0.4" ) );
      EXPECT_TRUE( f.logTexts( "PIM_NEIGHBOR_SECONDARY_ADDRESS_CONFLICT" ).empty() );
   }

   // A goodbye takes the sender's mappings and no one else's, whatever its
   // list says.
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   f.receive( eth1, hello( "198.18.0.3" ).addrs( { "198.18.0.170" } ) );
   f.receive( eth1, hello( "198.18.0.4" ).addrs( { "198.18.0.180" } ) );
   f.receive( eth1, hello( "198.18.0.3" ).hold( 0 ).addrs( { "198.18.0.180" } ) );
   EXPECT_FALSE( f.neighbor( eth1, "198.18.0.3" ) );
   EXPECT_EQ( intf->nbSecondaryAddressSize(), 1u );
   EXPECT_EQ( intf->nbSecondaryAddress( ip( "198.18.0.180" ) ), ip( "198.18.0.4" ) );
   f.receive( eth1, hello( "198.18.0.4" ).hold( 0 ) );
   EXPECT_EQ( intf->nbSecondaryAddressSize(), 0u );
}

} // namespace
} // namespace PimScenario

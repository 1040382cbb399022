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
   const auto eth1 = ethernet( 1 );
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
   EXPECT_EQ( intf->nbSecondaryAddressSize(), 3u );

   f.advanceBy( 10.0 );
   f.receive( eth1, hello( "198.18.0.2" ) );
   EXPECT_EQ( nb->secondaryAddressSize(), 0u );
   EXPECT_EQ( intf->nbSecondaryAddressSize(), 0u );
}

TEST( ScenarioSecondaryAddress, OwnPrimaryInTheListIsAnErrorButTheOthersAreLearnt ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   f.receive( eth1, hello( "198.18.0.2" ).addrs( { "198.18.0.2", "198.18.0.120" } ) );
   auto nb = f.neighbor( eth1, "198.18.0.2" );
   ASSERT_TRUE( nb );
   EXPECT_EQ( secondariesOf( *nb ), addrSet( { "198.18.0.120" } ) );
   EXPECT_FALSE( intf->nbSecondaryAddressHas( ip( "198.18.0.2" ) ) );
}

TEST( ScenarioSecondaryAddress, ContestedAddressGoesToTheNewestAdvertiserEveryTime ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
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
   auto texts = f.logTexts( "PIM_NEIGHBOR_SECONDARY_ADDRESS_CONFLICT" );
   ASSERT_EQ( texts.size(), 1u );
   EXPECT_EQ( texts[ 0 ], "Neighbor 198.18.0.3 advertised secondary address 198.18.0.150 on interface Ethernet1, "
                          "which was previously advertised by neighbor 198.18.0.2" );

   // The first neighbour advertises it again: now it is the newest.
   f.at( 20.0 );
   f.receive( eth1, hello( "198.18.0.2" ).addrs( { "198.18.0.150", "198.18.0.151" } ) );
   EXPECT_EQ( intf->nbSecondaryAddress( ip( "198.18.0.150" ) ), ip( "198.18.0.2" ) );
   EXPECT_EQ( secondariesOf( *nb2 ), addrSet( { "198.18.0.150", "198.18.0.151" } ) );
   EXPECT_EQ( secondariesOf( *nb3 ), std::set< Lumo::IpGenAddr >{} );
   texts = f.logTexts( "PIM_NEIGHBOR_SECONDARY_ADDRESS_CONFLICT" );
   ASSERT_EQ( texts.size(), 2u );
   EXPECT_EQ( texts[ 1 ], "Neighbor 198.18.0.2 advertised secondary address 198.18.0.150 on interface Ethernet1, "
                          "which was previously advertised by neighbor 198.18.0.3" );
}

TEST( ScenarioSecondaryAddress, AnExpiredNeighborTakesItsSecondariesWithIt ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   f.receive( eth1, hello( "198.18.0.2" ).hold( 30 ).addrs( { "198.18.0.160", "198.18.0.161" } ) );
   f.receive( eth1, hello( "198.18.0.3" ).addrs( { "198.18.0.170" } ) );
   EXPECT_EQ( intf->nbSecondaryAddressSize(), 3u );

   f.advanceBy( 31.0 );
   EXPECT_FALSE( f.neighbor( eth1, "198.18.0.2" ) );
   EXPECT_FALSE( intf->nbSecondaryAddressHas( ip( "198.18.0.160" ) ) );
   EXPECT_FALSE( intf->nbSecondaryAddressHas( ip( "198.18.0.161" ) ) );
   EXPECT_EQ( intf->nbSecondaryAddress( ip( "198.18.0.170" ) ), ip( "198.18.0.3" ) );
   EXPECT_EQ( intf->nbSecondaryAddressSize(), 1u );
}

} // namespace
} // namespace PimScenario

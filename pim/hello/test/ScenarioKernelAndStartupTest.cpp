// Interface machines and the kernel's view of interfaces, the router id taken
// from the bridge MAC and the Interface ID it feeds, and start-up over the
// neighbours and BFD sessions an earlier run left behind.
#include "EngineFixture.h"

namespace PimScenario {
namespace {

Bridging::MacAddr mac( std::uint8_t c, std::uint8_t d, std::uint8_t e, std::uint8_t g ) {
   Bridging::MacAddr m;
   m.bytes = { 0x02, 0x00, c, d, e, g };
   return m;
}

// A neighbour an earlier run left in the status, last refreshed at `last`.
Kiv::Ptr< Neighbor > leftBehind( Intf & intf, const char * a, double last, DrPriorityOption dr = { true, 1 },
                                 LanPruneDelayOption lpd = { true, 500, 2500, true } ) {
   auto nb = intf.neighborIs( ip( a ), intf.id(), 105, dr, GenerationIdOption{ true, 1 }, lpd );
   nb->creationTimeIs( last );
   nb->lastRefreshTimeIs( last );
   return nb;
}

// The Interface ID in every Hello is the router id (the low four bytes of
// the bridge MAC) and the kernel's ifIndex.
TEST( ScenarioKernelAndStartup, MachineExistsWhileTheKernelKnowsTheInterfaceAndItsIdFollowsTheBridgeMac ) {
   EngineFixture f;
   f.vrf.routerIdIs( mac( 0x5e, 0x10, 0x20, 0x30 ) );
   f.runUntilIdle();
   EXPECT_EQ( f.vrf.routerIdInfo->routerId(), 0x5E102030u );
   auto intf = f.addIntf( eth1, "198.18.0.1/24", { .kernelKnown = false } );
   f.startIntf( eth2, "198.18.1.1/24", { .ifIndex = 22 } );
   EXPECT_FALSE( f.intfSm( eth1 ) );
   f.at( 100.0 );
   EXPECT_TRUE( f.sentOn( eth1 ).empty() );

   f.random().push( { drawForTenths( 7 ) } );
   const double known = f.now();
   f.vrf.kernelAdd( eth1, 21 );
   f.runUntilIdle();
   ASSERT_TRUE( f.intfSm( eth1 ) );
   EXPECT_EQ( intf->portInterfaceId(), ( Reliable::InterfaceId{ 0x5E102030, 21 } ) );
   f.advanceBy( 1.0 );
   ASSERT_EQ( f.sentOn( eth1 ).size(), 1u );
   EXPECT_NEAR( f.sentOn( eth1 )[ 0 ].time - known, 0.7, 1e-6 );
   expectFullHello( f.sentOn( eth1 )[ 0 ], *intf, 1 );

   f.vrf.bridging->bridgeMacAddrIs( mac( 0xfe, 0xaa, 0xbb, 0x0c ) );
   f.runUntilIdle();
   EXPECT_EQ( f.vrf.routerIdInfo->routerId(), 0xFEAABB0Cu );
   EXPECT_EQ( intf->portInterfaceId(), ( Reliable::InterfaceId{ 0xFEAABB0C, 21 } ) );
   f.clearSent();
   f.advanceBy( 30.0 );
   ASSERT_EQ( f.sentOn( eth1 ).size(), 1u );
   expectFullHello( f.sentOn( eth1 )[ 0 ], *intf, 1 );

   // The kernel forgets it: the machine goes, silently.
   f.clearSent();
   f.vrf.kernelDel( eth1 );
   f.runUntilIdle();
   EXPECT_FALSE( f.intfSm( eth1 ) );
   f.advanceBy( 100.0 );
   EXPECT_TRUE( f.sentOn( eth1 ).empty() );
   EXPECT_FALSE( f.sentOn( eth2 ).empty() ) << "the other interface goes on";

   // Removed from the status, it loses its machine without a goodbye.
   f.receive( eth2, hello( "198.18.1.2" ) );
   f.advanceBy( 2.0 );
   f.clearSent();
   f.vrf.allStatus->pimIntfDel( eth2 );
   f.runUntilIdle();
   EXPECT_FALSE( f.intfSm( eth2 ) );
   f.advanceBy( 200.0 );
   EXPECT_TRUE( f.sent().empty() );
}

TEST( ScenarioKernelAndStartup, StartupReconcilesWhatAnEarlierRunLeftBehind ) {
   EngineFixture f;
   auto intf = f.addIntf( eth1, "198.18.0.1/24", { .kernelKnown = false } );
   f.at( 300.0 );
   const double now = f.now();
   auto expired = leftBehind( *intf, "198.18.0.2", now - 200 );
   expired->secondaryAddressIs( ip( "198.18.0.160" ), true );
   leftBehind( *intf, "198.18.0.4", now - 105 );   // deadline exactly now
   auto noDr = leftBehind( *intf, "198.18.0.3", now - 10, {} );
   noDr->secondaryAddressIs( ip( "198.18.0.151" ), true );
   auto noLpd = leftBehind( *intf, "198.18.0.6", now - 5, { true, 9 }, {} );
   leftBehind( *intf, "198.18.0.1", now - 1 );   // holds the own address
   auto ghost = Kiv::make< Neighbor >( ip( "198.18.0.5" ), eth1, 105, DrPriorityOption{ true, 1 },
                                       GenerationIdOption{}, noDr->lanPruneDelayOption() );
   intf->activeNeighborIs( expired );
   intf->activeNeighborIs( noDr );
   intf->activeNeighborIs( noLpd );
   intf->activeNeighborIs( ghost );
   intf->nbSecondaryAddressIs( ip( "198.18.0.150" ), ip( "198.18.0.3" ) );   // .3 no longer holds it
   intf->nbSecondaryAddressIs( ip( "198.18.0.151" ), ip( "198.18.0.3" ) );
   intf->nbSecondaryAddressIs( ip( "198.18.0.160" ), ip( "198.18.0.2" ) );   // owner expired
   f.runUntilIdle();
   f.vrf.kernelAdd( eth1, 11 );
   f.runUntilIdle();
   auto sm = f.intfSm( eth1 );
   ASSERT_TRUE( sm );

   EXPECT_EQ( intf->neighborSize(), 2u );
   EXPECT_EQ( intf->activeNeighborSize(), 2u );
   EXPECT_TRUE( f.active( eth1, "198.18.0.3" ) && f.active( eth1, "198.18.0.6" ) );
   // Each surviving active neighbour is counted once.
   EXPECT_EQ( usedState( *intf, *sm ), "dr 198.18.0.6/4294967295 lpd 500/2500/0 lacking 1/1/1" );
   EXPECT_EQ( intf->nbSecondaryAddressSize(), 1u );
   EXPECT_EQ( intf->nbSecondaryAddress( ip( "198.18.0.151" ) ), ip( "198.18.0.3" ) );

   // The survivors expire on their old deadlines, and the counts follow.
   f.advanceTo( now - 10 + 105 );
   EXPECT_FALSE( f.neighbor( eth1, "198.18.0.3" ) );
   EXPECT_EQ( usedState( *intf, *sm ), "dr 198.18.0.6/9 lpd 500/2500/0 lacking 0/1/1" );
   EXPECT_EQ( intf->nbSecondaryAddressSize(), 0u );
   f.advanceTo( now - 5 + 105 );
   EXPECT_FALSE( f.neighbor( eth1, "198.18.0.6" ) );
   EXPECT_EQ( usedState( *intf, *sm ), "dr 198.18.0.1/1 lpd 500/2500/0 lacking 0/0/0" );
}

TEST( ScenarioKernelAndStartup, StartupHoldsOutANeighborWhoseBfdSessionIsDown ) {
   EngineFixture f;
   auto intf = f.addIntf( eth1, "198.18.0.1/24", { .bfdEnabled = true, .kernelKnown = false } );
   f.at( 50.0 );
   intf->activeNeighborIs( leftBehind( *intf, "198.18.0.2", f.now() - 5 ) );
   intf->activeNeighborIs( leftBehind( *intf, "198.18.0.3", f.now() - 5 ) );
   const L3::VrfName vrf( "default" );
   f.vrf.bfdAppStatus->peerStatusIs( Bfd::Peer( ip( "198.18.0.2" ), vrf ), Bfd::operDown );
   f.vrf.bfdAppStatus->peerStatusIs( Bfd::Peer( ip( "198.18.0.3" ), vrf ), Bfd::operUp );
   f.runUntilIdle();
   f.vrf.kernelAdd( eth1, 11 );
   f.runUntilIdle();
   EXPECT_TRUE( intf->inactiveBfdNeighbor( ip( "198.18.0.2" ) ) );
   EXPECT_FALSE( f.active( eth1, "198.18.0.2" ) );
   EXPECT_TRUE( f.active( eth1, "198.18.0.3" ) );
   for( const char * a : { "198.18.0.2", "198.18.0.3" } )
      EXPECT_TRUE( f.vrf.bfdAppConfig->peerConfig( Bfd::Peer( ip( a ), vrf ) ) ) << a;
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.3" ) );

   // Only the start-up Hello goes out; none for a neighbour event.
   f.advanceBy( 2.0 );
   EXPECT_EQ( f.sent().size(), 1u );
   EXPECT_EQ( intf->triggeredHelloCount(), 0u );
}

// A new owner drops the BFD sessions no neighbour of a BFD interface of its
// VRF accounts for, and leaves other VRFs' alone.
TEST( ScenarioKernelAndStartup, StartupDropsBfdPeersWithoutAReason ) {
   EngineFixture f;
   f.startIntf( eth1, "198.18.0.10/24", { .bfdEnabled = true } );
   f.startIntf( eth2, "198.18.1.10/24" );
   f.receive( eth1, hello( "198.18.0.2" ) );
   f.receive( eth2, hello( "198.18.1.2" ) );
   auto peer = []( const char * a, const char * vrf ) { return Bfd::Peer( ip( a ), L3::VrfName( vrf ) ); };
   const std::pair< Bfd::Peer, bool > peers[] = {
      { peer( "198.18.0.2", "default" ), true },    // a neighbour on a BFD interface
      { peer( "198.18.0.3", "default" ), false },   // no such neighbour
      { peer( "198.18.1.2", "default" ), false },   // BFD is off there
      { peer( "198.18.9.9", "default" ), false },   // no interface
      { peer( "198.18.9.9", "red" ), true },        // another VRF's
   };
   for( const auto & e : peers ) f.vrf.bfdAppConfig->peerConfigIs( e.first, true );
   f.vrf.global = GlobalIntfSmIs( f.vrf.allStatus, f.vrf.inputs );
   f.runUntilIdle();
   for( const auto & [ p, kept ] : peers ) EXPECT_EQ( bool( f.vrf.bfdAppConfig->peerConfig( p ) ), kept ) << p;
}

} // namespace
} // namespace PimScenario

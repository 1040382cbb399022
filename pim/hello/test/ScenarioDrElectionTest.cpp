// Designated router election on one interface: priority mode and
// address-only mode, along the incremental path (a neighbour comes, a
// priority changes) and the full one (the DR weakens or leaves, an option
// appears or disappears), the own priority, and the reload hold-off.
#include "EngineFixture.h"

namespace PimScenario {
namespace {

constexpr std::int64_t kNoOption = -1;   // a Hello without the DR priority option
constexpr std::int64_t kGoodbye = -2;
constexpr std::uint32_t kAo = kDrPriorityAddressOnly;

// A Hello from `from`, then the DR, its recorded priority and how many active
// neighbours lack the option.
struct Step {
   const char * from;
   std::int64_t priority;
   const char * dr;
   std::uint32_t drPriority;
   std::uint32_t lacking;
};

struct Script {
   const char * name;
   const char * own;   // the interface address; this router bids 1
   std::vector< Step > steps;
};

TEST( ScenarioDrElection, HellosComingChangingAndGoingMoveTheDr ) {
   const Script scripts[] = {
      { "priority then address", "198.18.0.1/24",
        { { "198.18.0.2", 5, "198.18.0.2", 5, 0 },
          { "198.18.0.3", 5, "198.18.0.3", 5, 0 },       // tie: the higher address
          { "198.18.0.4", 3, "198.18.0.3", 5, 0 },
          { "198.18.0.9", 0, "198.18.0.3", 5, 0 },       // 0 is just the lowest
          { "198.18.0.3", 2, "198.18.0.2", 5, 0 },       // the DR weakens: full run
          { "198.18.0.2", 9, "198.18.0.2", 9, 0 },       // the DR strengthens
          { "198.18.0.4", 11, "198.18.0.4", 11, 0 },     // a non-DR overtakes
          { "198.18.0.4", kGoodbye, "198.18.0.2", 9, 0 },
          { "198.18.0.2", kGoodbye, "198.18.0.3", 2, 0 },
          { "198.18.0.3", kGoodbye, "198.18.0.1", 1, 0 },
          { "198.18.0.9", kGoodbye, "198.18.0.1", 1, 0 } } },
      // A new neighbour without the option only challenges the DR by address;
      // a full address-only run would pick .5.
      { "address-only challenges", "198.18.0.1/24",
        { { "198.18.0.5", 1, "198.18.0.5", 1, 0 },
          { "198.18.0.2", 10, "198.18.0.2", 10, 0 },
          { "198.18.0.3", kNoOption, "198.18.0.3", kAo, 1 },
          { "198.18.0.4", kNoOption, "198.18.0.4", kAo, 2 },
          { "198.18.0.3", 2, "198.18.0.5", kAo, 1 },     // validity changed: full run
          { "198.18.0.4", kGoodbye, "198.18.0.2", 10, 0 } } },
      { "address-only keeps the DR's priority", "198.18.0.1/24",
        { { "198.18.0.5", 10, "198.18.0.5", 10, 0 },
          { "198.18.0.3", kNoOption, "198.18.0.5", 10, 1 },
          { "198.18.0.2", kNoOption, "198.18.0.5", 10, 2 },
          { "198.18.0.2", kGoodbye, "198.18.0.5", 10, 1 },   // a non-DR leaves: no full run
          { "198.18.0.5", kGoodbye, "198.18.0.3", kAo, 1 },
          { "198.18.0.3", 0, "198.18.0.1", 1, 0 } } },
      // The last neighbour without the option leaves while another is DR.
      { "leaving address-only", "198.18.0.1/24",
        { { "198.18.0.2", 10, "198.18.0.2", 10, 0 },
          { "198.18.0.5", kNoOption, "198.18.0.5", kAo, 1 },
          { "198.18.0.6", 1, "198.18.0.6", kAo, 1 },
          { "198.18.0.5", kGoodbye, "198.18.0.2", 10, 0 } } },
      { "IPv6 order", "2001:db8:1::100/64",
        { { "2001:db8:1::2", 1, "2001:db8:1::100", 1, 0 },
          { "2001:db8:1:0:1::1", 1, "2001:db8:1:0:1::1", 1, 0 },
          { "2001:db8:1::3", 2, "2001:db8:1::3", 2, 0 } } },
   };
   for( const Script & s : scripts ) {
      SCOPED_TRACE( s.name );
      const bool v6 = std::string_view( s.own ).find( ':' ) != std::string_view::npos;
      EngineFixture f( v6 ? Lumo::AddressFamily::ipv6 : Lumo::AddressFamily::ipv4 );
      auto intf = f.startIntf( eth1, s.own );
      EXPECT_TRUE( intf->iAmDr() );
      EXPECT_EQ( intf->usedDrPriority(), 1u );
      for( std::size_t i = 0; i < s.steps.size(); ++i ) {
         const Step & st = s.steps[ i ];
         SCOPED_TRACE( "step " + std::to_string( i ) );
         auto h = hello( st.from );
         if( st.priority == kGoodbye ) h.hold( 0 );
         if( st.priority >= 0 ) h.dr( std::uint32_t( st.priority ) );
         f.receive( eth1, h );
         EXPECT_EQ( intf->usedDr(), ip( st.dr ) );
         EXPECT_EQ( intf->usedDrPriority(), st.drPriority );
         EXPECT_EQ( f.intfSm( eth1 )->neighborNotUsingDrPriority(), st.lacking );
         EXPECT_EQ( intf->iAmDr(), intf->usedDr() == intf->usedAddressWithMask().address() );
      }
   }
}

TEST( ScenarioDrElection, OwnPriorityChangeTriggersAHelloOnlyWhenTheRoleChanges ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   f.receive( eth1, hello( "198.18.0.2" ).dr( 5 ) );
   f.advanceBy( 2.0 );
   const struct {
      std::uint32_t own;
      const char * dr;
      std::uint32_t drPriority;
      bool hello;
   } steps[] = {
      { 3, "198.18.0.2", 5, false },
      { 10, "198.18.0.1", 10, true },
      { 12, "198.18.0.1", 12, false },   // still DR, stronger
      { 4, "198.18.0.2", 5, true },      // the full election hands the role back
   };
   for( const auto & s : steps ) {
      SCOPED_TRACE( s.own );
      f.clearSent();
      f.random().push( { drawForTenths( 6 ) } );   // left for the next step when no Hello is due
      const double before = f.now();
      intf->drPriorityIs( s.own );
      f.runUntilIdle();
      EXPECT_EQ( intf->usedDr(), ip( s.dr ) );
      EXPECT_EQ( intf->usedDrPriority(), s.drPriority );
      f.advanceBy( 1.0 );
      ASSERT_EQ( f.sent().size(), s.hello ? 1u : 0u );
      if( s.hello ) {
         EXPECT_NEAR( f.sent()[ 0 ].time - before, 0.6, 1e-6 );
         EXPECT_EQ( f.sent()[ 0 ]->drPriority(), s.own );
      }
   }
}

// When the router was DR on its old address, the role moves with the
// address or to the best neighbour; it never stays on an address that left.
TEST( ScenarioDrElection, OwnAddressChangeReElectsWhenTheOldAddressWasDr ) {
   const struct {
      const char * neighbor;   // nullptr: the router is alone
      const char * newAddress;
      const char * dr;
   } cases[] = {
      { nullptr, "198.18.0.100/24", "198.18.0.100" },
      { nullptr, "198.18.0.250/24", "198.18.0.250" },
      { "198.18.0.150", "198.18.0.100/24", "198.18.0.150" },
      { "198.18.0.150", "198.18.0.250/24", "198.18.0.250" },
   };
   for( const auto & c : cases ) {
      SCOPED_TRACE( std::string( c.neighbor ? c.neighbor : "alone" ) + " -> " + c.newAddress );
      EngineFixture f;
      auto intf = f.startIntf( eth1, "198.18.0.200/24" );
      if( c.neighbor ) f.receive( eth1, hello( c.neighbor ).dr( 1 ) );
      ASSERT_TRUE( intf->iAmDr() );
      intf->addressWithMaskIs( ipm( c.newAddress ) );
      f.advanceBy( 100.0 );
      EXPECT_EQ( intf->usedDr(), ip( c.dr ) );
      EXPECT_EQ( intf->usedDrPriority(), 1u );
      EXPECT_EQ( intf->iAmDr(), std::string( c.newAddress ).rfind( c.dr, 0 ) == 0 );
   }
}

// During reload the router bids and advertises 1; after it, it advertises 1
// until the DR delay expires, and only that expiry elects with the real
// priority.
TEST( ScenarioDrElection, ReloadBidsAndAdvertisesOneUntilTheDrDelayExpires ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24", { .drPriority = 100 } );
   auto alone = f.startIntf( eth2, "198.18.1.1/24", { .drPriority = 100 } );
   f.receive( eth1, hello( "198.18.0.2" ).dr( 50 ) );
   f.advanceBy( 2.0 );
   auto & cell = *f.vrf.cellGlobalStatus;
   auto sm = f.intfSm( eth1 );
   // Reload off re-jitters each interface's periodic Hello (draw 9: 1 s).
   const auto reloadOffAdvertises = [ & ]( std::uint32_t priority ) {
      f.clearSent();
      f.random().push( { 9, 9 } );
      cell.reloadIs( false );
      f.runUntilIdle();
      EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) ) << "reload off elects nothing";
      f.advanceBy( 1.0 );
      ASSERT_EQ( f.sentOn( eth1 ).size(), 1u );
      expectFullHello( f.sentOn( eth1 )[ 0 ], *intf, priority );
   };
   const auto expire = [ & ] {
      cell.drDelayTimerExpiredIs( true );
      f.runUntilIdle();
      EXPECT_FALSE( cell.drDelayTimerExpired() );
      EXPECT_FALSE( sm->drNotifyDelay() );
   };
   EXPECT_TRUE( intf->iAmDr() );

   cell.reloadIs( true );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   EXPECT_EQ( intf->usedDrPriority(), 50u );
   EXPECT_TRUE( sm->drNotifyDelay() );
   EXPECT_EQ( alone->usedDrPriority(), 1u ) << "without neighbours the router publishes the 1 it bids";
   // The incremental path also counts this router as 1 during reload.
   intf->drPriorityIs( 200 );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   reloadOffAdvertises( 1 );   // the DR notify delay still runs

   // The DR delay expires during a second reload: re-elected, still bidding 1.
   cell.reloadIs( true );
   f.runUntilIdle();
   expire();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   reloadOffAdvertises( 200 );

   expire();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.1" ) );
   EXPECT_EQ( intf->usedDrPriority(), 200u );
}

} // namespace
} // namespace PimScenario

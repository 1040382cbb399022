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
      const auto eth1 = ethernet( 1 );
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
   const auto eth1 = ethernet( 1 );
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   f.receive( eth1, hello( "198.18.0.2" ).dr( 5 ) );
   f.advanceBy( 2.0 );
   f.clearSent();

   intf->drPriorityIs( 3 );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   EXPECT_FALSE( intf->triggeredHello() );

   f.random().push( { drawForTenths( 6 ) } );
   const double before = f.now();
   intf->drPriorityIs( 10 );
   f.runUntilIdle();
   EXPECT_TRUE( intf->iAmDr() );
   EXPECT_EQ( intf->usedDrPriority(), 10u );
   f.advanceBy( 1.0 );
   ASSERT_EQ( f.sent().size(), 1u );
   EXPECT_NEAR( f.sent()[ 0 ].time - before, 0.6, 1e-6 );
   EXPECT_EQ( f.sent()[ 0 ]->drPriority(), 10u );

   // Still DR, stronger: no Hello.
   f.clearSent();
   intf->drPriorityIs( 12 );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDrPriority(), 12u );
   EXPECT_FALSE( intf->triggeredHello() );

   // Weaker than the neighbour: the full election hands the role back.
   intf->drPriorityIs( 4 );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   EXPECT_EQ( intf->usedDrPriority(), 5u );
   f.advanceBy( 1.0 );
   ASSERT_EQ( f.sent().size(), 1u );
   EXPECT_EQ( f.sent()[ 0 ]->drPriority(), 4u );
}

// When the router was DR on its old address, the role moves with the
// address or to the best neighbour; it never stays on an address that left.
TEST( ScenarioDrElection, OwnAddressChangeReElectsWhenTheOldAddressWasDr ) {
   struct Case {
      const char * neighbor;   // nullptr: the router is alone
      const char * newAddress;
      const char * dr;
   };
   const Case cases[] = {
      { nullptr, "198.18.0.100/24", "198.18.0.100" },
      { nullptr, "198.18.0.250/24", "198.18.0.250" },
      { "198.18.0.150", "198.18.0.100/24", "198.18.0.150" },
      { "198.18.0.150", "198.18.0.250/24", "198.18.0.250" },
   };
   for( const Case & c : cases ) {
      SCOPED_TRACE( std::string( c.neighbor ? c.neighbor : "alone" ) + " -> " + c.newAddress );
      EngineFixture f;
      const auto eth1 = ethernet( 1 );
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

TEST( ScenarioDrElection, ReloadBidsOneUntilTheDrDelayExpiresAndResetsTheFlag ) {
   EngineFixture f;
   const auto eth1 = ethernet( 1 );
   IntfParams p;
   p.drPriority = 100;
   auto intf = f.startIntf( eth1, "198.18.0.1/24", p );
   auto alone = f.startIntf( ethernet( 2 ), "198.18.1.1/24", p );
   f.receive( eth1, hello( "198.18.0.2" ).dr( 50 ) );
   EXPECT_TRUE( intf->iAmDr() );
   EXPECT_EQ( intf->usedDrPriority(), 100u );

   f.vrf.cellGlobalStatus->reloadIs( true );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );
   EXPECT_EQ( intf->usedDrPriority(), 50u );
   EXPECT_TRUE( f.intfSm( eth1 )->drNotifyDelay() );
   EXPECT_EQ( alone->usedDrPriority(), 1u ) << "without neighbours the router publishes the 1 it bids";

   // The incremental path also counts this router as 1 during reload.
   intf->drPriorityIs( 200 );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );

   // DR delay expires while reload is still on: re-elected, still bidding 1.
   f.vrf.cellGlobalStatus->drDelayTimerExpiredIs( true );
   f.runUntilIdle();
   EXPECT_FALSE( f.vrf.cellGlobalStatus->drDelayTimerExpired() );
   EXPECT_FALSE( f.intfSm( eth1 )->drNotifyDelay() );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );

   // Reload off re-jitters the Hello timer but elects nothing.
   f.vrf.cellGlobalStatus->reloadIs( false );
   f.runUntilIdle();
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.2" ) );

   // The next DR delay expiry elects with the real priority.
   f.vrf.cellGlobalStatus->drDelayTimerExpiredIs( true );
   f.runUntilIdle();
   EXPECT_FALSE( f.vrf.cellGlobalStatus->drDelayTimerExpired() );
   EXPECT_EQ( intf->usedDr(), ip( "198.18.0.1" ) );
   EXPECT_EQ( intf->usedDrPriority(), 200u );
}

} // namespace
} // namespace PimScenario

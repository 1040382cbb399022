// The interface's used propagation delay, override interval and T bit as
// neighbours come, change and go: the largest advertised values while every
// neighbour sends the option, the defaults while one does not, increases that
// apply at once and decreases that wait for the next full update. Hellos
// advertise the configured values, not the used ones.
#include "EngineFixture.h"

namespace PimScenario {
namespace {

struct Used {
   std::uint16_t propagationDelay;
   std::uint16_t overrideInterval;
   bool tBit;
   bool operator==( const Used & ) const = default;
};
std::ostream & operator<<( std::ostream & os, const Used & u ) {
   return os << "{pd=" << u.propagationDelay << " oi=" << u.overrideInterval << " T=" << u.tBit << "}";
}
Used used( const Intf & i ) { return Used{ i.usedPropagationDelay(), i.usedOverrideInterval(), i.usedTBit() }; }

const IntfParams kOwnDelays{ .propagationDelay = 400, .overrideInterval = 2000 };

constexpr int kNone = -1;      // a Hello without the LAN prune delay option
constexpr int kGoodbye = -2;
constexpr int kExpiry = -3;   // no Hello: `from` times out

// A Hello from `from` (or, with from null, the own values changed to pd/oi),
// then the used values and how many neighbours lack the option and the T bit.
struct Step {
   const char * from;
   int pd, oi;
   bool t;
   Used expect;
   std::uint32_t lackingOption, lackingTBit;
};

TEST( ScenarioLanPruneDelay, UsedValuesFollowNeighborsAndTheOwnConfiguration ) {
   const std::pair< const char *, std::vector< Step > > scripts[] = {
      { "largest values, defaults while one lacks the option",
        { { "198.18.0.2", 600, 3000, true, { 600, 3000, true }, 0, 0 },
          { "198.18.0.3", 450, 3500, true, { 600, 3500, true }, 0, 0 },
          { "198.18.0.4", kNone, 0, false, { 500, 2500, false }, 1, 1 },
          { "198.18.0.5", 100, 100, false, { 500, 2500, false }, 1, 2 },
          { "198.18.0.4", kGoodbye, 0, false, { 600, 3500, false }, 0, 1 },
          { "198.18.0.5", kGoodbye, 0, false, { 600, 3500, true }, 0, 0 },
          { "198.18.0.2", kGoodbye, 0, false, { 450, 3500, true }, 0, 0 },
          { "198.18.0.3", kExpiry, 0, false, { 400, 2000, false }, 0, 0 } } },   // own values, no T bit alone
      { "neighbour increases at once, decreases at the next full update",
        { { "198.18.0.2", 600, 3000, true, { 600, 3000, true }, 0, 0 },
          { "198.18.0.3", 450, 2600, true, { 600, 3000, true }, 0, 0 },
          { "198.18.0.3", 800, 2700, true, { 800, 3000, true }, 0, 0 },
          { "198.18.0.3", 100, 4000, true, { 800, 4000, true }, 0, 0 },
          { "198.18.0.3", 100, 200, true, { 800, 4000, true }, 0, 0 },
          { "198.18.0.4", 300, 300, true, { 600, 3000, true }, 0, 0 } } },
      { "own increases at once, decreases later, no say while one lacks the option",
        { { "198.18.0.2", 600, 3000, true, { 600, 3000, true }, 0, 0 },
          { nullptr, 700, 5000, false, { 700, 5000, true }, 0, 0 },
          { nullptr, 300, 1000, false, { 700, 5000, true }, 0, 0 },
          { "198.18.0.3", 350, 1500, true, { 600, 3000, true }, 0, 0 },
          { "198.18.0.4", kNone, 0, false, { 500, 2500, false }, 1, 1 },
          { nullptr, 9000, 9000, false, { 500, 2500, false }, 1, 1 } } },
      // .2 clears its T bit and raises its delay while .4 lacks the option:
      // both are skipped, and the T bit count never sees the clear bit.
      { "changes ignored while another lacks the option",
        { { "198.18.0.2", 600, 3000, true, { 600, 3000, true }, 0, 0 },
          { "198.18.0.3", 450, 2600, true, { 600, 3000, true }, 0, 0 },
          { "198.18.0.4", kNone, 0, false, { 500, 2500, false }, 1, 1 },
          { "198.18.0.2", 900, 3000, false, { 500, 2500, false }, 1, 1 },
          { "198.18.0.4", kGoodbye, 0, false, { 900, 3000, true }, 0, 0 } } },
      { "validity changes recount and recompute",
        { { "198.18.0.2", 600, 3000, true, { 600, 3000, true }, 0, 0 },
          { "198.18.0.3", 450, 2600, true, { 600, 3000, true }, 0, 0 },
          { "198.18.0.2", kNone, 0, false, { 500, 2500, false }, 1, 1 },
          { "198.18.0.2", 550, 2800, true, { 550, 2800, true }, 0, 0 },
          { "198.18.0.3", 450, 2600, false, { 550, 2800, false }, 0, 1 },
          { "198.18.0.3", 450, 2600, true, { 550, 2800, true }, 0, 0 } } },
   };
   for( const auto & [ name, steps ] : scripts ) {
      SCOPED_TRACE( name );
      EngineFixture f;
      auto intf = f.startIntf( eth1, "198.18.0.1/24", kOwnDelays );
      auto sm = f.intfSm( eth1 );
      EXPECT_EQ( used( *intf ), ( Used{ 400, 2000, false } ) );
      for( std::size_t i = 0; i < steps.size(); ++i ) {
         const Step & s = steps[ i ];
         SCOPED_TRACE( "step " + std::to_string( i ) );
         f.advanceBy( 1.0 );
         for( const auto & h : f.sent() ) expectFullHello( h, *intf, 1 );
         f.clearSent();
         if( s.pd == kExpiry ) {
            f.advanceBy( 105.0 );
         } else if( !s.from ) {
            intf->propagationDelayIs( std::uint16_t( s.pd ) );
            intf->overrideIntervalIs( std::uint16_t( s.oi ) );
            f.runUntilIdle();
         } else {
            auto h = hello( s.from );
            if( s.pd == kGoodbye ) h.hold( 0 );
            if( s.pd >= 0 ) h.lpd( std::uint16_t( s.pd ), std::uint16_t( s.oi ), s.t );
            f.receive( eth1, h );
         }
         EXPECT_EQ( used( *intf ), s.expect );
         EXPECT_EQ( sm->neighborNotUsingLanPrune(), s.lackingOption );
         EXPECT_EQ( sm->neighborNotUsingTBit(), s.lackingTBit );
      }
   }
}

} // namespace
} // namespace PimScenario

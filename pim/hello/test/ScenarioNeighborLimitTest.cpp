// Neighbour limits per interface and per VRF: a Hello from a new source
// beyond a limit is refused, counted per interface, logged once per interval
// and its source remembered in a small table of the most recent ones; the
// table stops growing, and so does the heap.
#include "EngineFixture.h"

#include <malloc.h>

namespace PimScenario {
namespace {

TEST( ScenarioNeighborLimit, NewSourcesBeyondALimitAreRefusedAndCountedKnownOnesStillServed ) {
   struct Case {
      std::uint32_t intfLimit, vrfLimit;
      int sources1, sources2;   // new sources heard on Ethernet1, then on Ethernet2
      std::size_t kept1, kept2;
      std::uint32_t refused1, refused2;
      const char * log;   // the first refusal's log
   };
   const Case cases[] = {
      { 3, 100, 5, 0, 3, 0, 2, 0,
        "Refused neighbor 198.18.1.4 on interface Ethernet1: the interface limit of 3 neighbors is reached "
        "(1 refused on the interface so far)" },
      { 100, 4, 3, 3, 3, 1, 0, 2,
        "Refused neighbor 198.18.2.2 on interface Ethernet2: the VRF limit of 4 neighbors is reached "
        "(1 refused on the interface so far)" },
      { 0, 100, 2, 1, 0, 1, 2, 0, "Refused neighbor 198.18.1.1 on interface Ethernet1: the interface limit of 0" },
   };
   for( const Case & c : cases ) {
      SCOPED_TRACE( c.log );
      EngineFixture f;
      auto e1 = f.startIntf( eth1, "198.18.1.100/24" );
      auto e2 = f.startIntf( eth2, "198.18.2.100/24", { .ifIndex = 12 } );
      e1->neighborLimitIs( c.intfLimit );
      f.vrf.allStatus->neighborLimitIs( c.vrfLimit );
      auto src = []( int subnet, int host ) { return "198.18." + std::to_string( subnet ) + "." + std::to_string( host ); };
      for( int i = 1; i <= c.sources1; ++i ) f.receive( eth1, hello( src( 1, i ) ) );
      for( int i = 1; i <= c.sources2; ++i ) f.receive( eth2, hello( src( 2, i ) ) );
      EXPECT_EQ( std::tuple( e1->neighborSize(), e2->neighborSize(), e1->refusedNeighborCount(),
                             e2->refusedNeighborCount() ),
                 std::tuple( c.kept1, c.kept2, c.refused1, c.refused2 ) );
      const auto logs = f.logTexts( "PIM_NEIGHBOR_LIMIT" );
      ASSERT_EQ( logs.size(), 1u ) << "once per interval";
      EXPECT_EQ( logs[ 0 ].rfind( c.log, 0 ), 0u ) << logs[ 0 ];

      // At the limit, a known neighbour is refreshed and leaves as usual; a
      // stranger's goodbye is no refusal.
      const auto & intf = c.kept1 ? e1 : e2;
      const int subnet = c.kept1 ? 1 : 2;
      const std::uint32_t refusedBefore = intf->refusedNeighborCount();
      f.advanceBy( 5.0 );
      f.receive( intf->id(), hello( src( subnet, 1 ) ) );
      EXPECT_EQ( intf->neighbor( ip( src( subnet, 1 ) ) )->lastRefreshTime(), f.now() );
      f.receive( intf->id(), hello( src( subnet, 99 ) ).hold( 0 ) );
      f.receive( intf->id(), hello( src( subnet, 1 ) ).hold( 0 ) );
      EXPECT_EQ( intf->refusedNeighborCount(), refusedBefore );
      f.receive( intf->id(), hello( src( subnet, 99 ) ) );
      EXPECT_TRUE( intf->neighbor( ip( src( subnet, 99 ) ) ) ) << "the goodbye made room";
   }
}

// The refused sources kept are the most recent ones, each with its count;
// the log comes back after its interval with the number it held back.
TEST( ScenarioNeighborLimit, RefusedSourcesTableKeepsTheMostRecentWithCounts ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   intf->neighborLimitIs( 1 );
   f.receive( eth1, hello( "198.18.0.2" ) );
   // Twenty sources, then the last eight of them again.
   for( int i : { 10, 22 } ) {
      for( ; i < 30; ++i ) {
         f.advanceBy( 0.5 );
         f.receive( eth1, hello( "198.18.0." + std::to_string( i ) ) );
      }
   }
   EXPECT_EQ( intf->refusedNeighborCount(), 28u );
   ASSERT_EQ( intf->refusedSourceSize(), kRefusedSourcesKept );
   for( int i = 22; i < 30; ++i ) EXPECT_EQ( intf->refusedSource( ip( "198.18.0." + std::to_string( i ) ) ).count, 2u ) << i;
   EXPECT_EQ( intf->refusedSource( ip( "198.18.0.29" ) ).lastTime, f.now() );
   EXPECT_EQ( f.log.count( "PIM_NEIGHBOR_LIMIT" ), 1u );
   f.advanceBy( 60.0 );
   f.receive( eth1, hello( "198.18.0.99" ) );
   const auto logs = f.logTexts( "PIM_NEIGHBOR_LIMIT" );
   ASSERT_EQ( logs.size(), 2u );
   EXPECT_NE( logs[ 1 ].find( "(29 refused on the interface so far)" ), std::string::npos ) << logs[ 1 ];
   EXPECT_NE( logs[ 1 ].find( "27 similar messages suppressed" ), std::string::npos ) << logs[ 1 ];
}

std::size_t heapInUse() { return mallinfo2().uordblks; }

#if defined( __SANITIZE_ADDRESS__ )
constexpr bool kOwnAllocator = false;
#elif defined( __has_feature )
#if __has_feature( address_sanitizer )
constexpr bool kOwnAllocator = false;
#else
constexpr bool kOwnAllocator = true;
#endif
#else
constexpr bool kOwnAllocator = true;
#endif

// Every source of a /16 says Hello: the table stops at the default limit,
// every further source is refused and counted, and from the limit on the
// heap stays flat.
TEST( ScenarioNeighborLimit, FloodOfASlash16StopsAtTheLimitWithFlatMemory ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/16" );
   f.trace.enable( "Pim::*/0" );   // the capture would keep every line
   std::uint32_t sent = 0;
   std::size_t atLimit = 0;
   for( std::uint32_t host = 2; host < 0xFFFF; ++host ) {
      auto h = hello( "198.18.0.0" );
      h.src = Lumo::IpGenAddr::ipv4( 0xC6120000u + host );
      f.receive( eth1, h );
      ++sent;
      // Past the limit with the refusal table full: the state that must
      // stay flat from here on.
      if( sent == kIntfNeighborLimitDefault + kRefusedSourcesKept ) atLimit = heapInUse();
   }
   EXPECT_EQ( intf->neighborSize(), kIntfNeighborLimitDefault );
   EXPECT_EQ( intf->refusedNeighborCount(), sent - kIntfNeighborLimitDefault );
   EXPECT_EQ( intf->refusedSourceSize(), kRefusedSourcesKept );
   EXPECT_EQ( f.log.count( "PIM_NEIGHBOR_LIMIT" ), 1u );
   if( !kOwnAllocator ) {
      GTEST_SKIP() << "heap growth is not measured under AddressSanitizer, whose allocator mallinfo2 does not see";
   }
   const std::size_t growth = heapInUse() > atLimit ? heapInUse() - atLimit : 0;
   RecordProperty( "heapGrowthAfterLimitBytes", std::to_string( growth ) );
   EXPECT_LT( growth, 1u << 20 ) << "heap grew by " << growth << " bytes after the limit";
}

} // namespace
} // namespace PimScenario

// The router id follows the bridge MAC address: its last four bytes,
// big-endian; no bridging configuration leaves it alone.
#include <gtest/gtest.h>

#include <array>
#include <utility>

#include "feeds/RouterIdSm.h"
#include "kiv/testing/TestLoop.h"

namespace Routing::Pim {
namespace {

Bridging::MacAddr mac( std::array< std::uint8_t, 6 > bytes ) {
   Bridging::MacAddr m;
   m.bytes = { bytes[ 0 ], bytes[ 1 ], bytes[ 2 ], bytes[ 3 ], bytes[ 4 ], bytes[ 5 ] };
   return m;
}

// Every change is followed, in every VRF alike; the first two bytes take no
// part; without bridging the id stays zero.
TEST( RouterIdSm, LastFourMacBytesBigEndianInEveryVrf ) {
   Kiv::Testing::TestLoop loop;
   auto bridging = Kiv::make< Bridging::Config >();
   bridging->bridgeMacAddrIs( mac( { 0x02, 0x00, 0x5e, 0x10, 0x20, 0x30 } ) );
   auto info = routerIdInfoFactory( "default" ), infoRed = routerIdInfoFactory( "red" );
   auto sm = routerIdSmFactory( "default", bridging, info ), smRed = routerIdSmFactory( "red", bridging, infoRed );
   EXPECT_TRUE( sm->initialized() );
   EXPECT_EQ( info->routerId(), 0x5E102030u ) << "taken at construction";
   const std::pair< std::array< std::uint8_t, 6 >, std::uint32_t > steps[] = {
      { { 0xff, 0xee, 0x5e, 0x10, 0x20, 0x30 }, 0x5E102030u },
      { { 0x02, 0x00, 0xc0, 0xa8, 0x01, 0xfe }, 0xC0A801FEu },
   };
   for( const auto & [ bytes, id ] : steps ) {
      bridging->bridgeMacAddrIs( mac( bytes ) );
      loop.runUntilIdle();
      EXPECT_EQ( info->routerId(), id );
      EXPECT_EQ( infoRed->routerId(), id );
   }
   auto infoNone = routerIdInfoFactory( "blue" );
   auto smNone = routerIdSmFactory( "blue", nullptr, infoNone );
   loop.runUntilIdle();
   EXPECT_TRUE( smNone->initialized() );
   EXPECT_EQ( infoNone->routerId(), 0u );
}

} // namespace
} // namespace Routing::Pim

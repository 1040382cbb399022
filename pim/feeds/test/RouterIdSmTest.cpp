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

// The bytes taken and a change followed are the Hello scenarios' matter
// (ScenarioKernelAndStartup); here: the first two bytes take no part, every
// VRF follows alike, and without bridging the id stays zero.
TEST( RouterIdSm, LastFourMacBytesBigEndianInEveryVrf ) {
   Kiv::Testing::TestLoop loop;
   auto bridging = Kiv::make< Bridging::Config >();
   bridging->bridgeMacAddrIs( mac( { 0x02, 0x00, 0x5e, 0x10, 0x20, 0x30 } ) );
   auto info = routerIdInfoFactory( "default" ), infoRed = routerIdInfoFactory( "red" );
   auto sm = routerIdSmFactory( "default", bridging, info ), smRed = routerIdSmFactory( "red", bridging, infoRed );
   bridging->bridgeMacAddrIs( mac( { 0xff, 0xee, 0xc0, 0xa8, 0x01, 0xfe } ) );
   loop.runUntilIdle();
   EXPECT_EQ( std::pair( info->routerId(), infoRed->routerId() ), std::pair( 0xC0A801FEu, 0xC0A801FEu ) );
   auto infoNone = routerIdInfoFactory( "blue" );
   auto smNone = routerIdSmFactory( "blue", nullptr, infoNone );
   loop.runUntilIdle();
   EXPECT_TRUE( smNone->initialized() );
   EXPECT_EQ( infoNone->routerId(), 0u );
}

} // namespace
} // namespace Routing::Pim

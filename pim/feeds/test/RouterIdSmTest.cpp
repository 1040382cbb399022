// The router id follows the bridge MAC address: its last four bytes,
// big-endian; no bridging configuration leaves it alone.
#include <gtest/gtest.h>

#include "feeds/RouterIdSm.h"
#include "kiv/testing/TestLoop.h"

namespace Routing::Pim {
namespace {

Bridging::MacAddr mac( std::uint8_t b0, std::uint8_t b1, std::uint8_t b2, std::uint8_t b3,
                       std::uint8_t b4, std::uint8_t b5 ) {
   Bridging::MacAddr m;
   m.bytes = { b0, b1, b2, b3, b4, b5 };
   return m;
}

TEST( RouterIdSm, LastFourMacBytesBigEndianAndFollowsEveryChange ) {
   Kiv::Testing::TestLoop loop;
   auto bridging = Kiv::make< Bridging::Config >();
   bridging->bridgeMacAddrIs( mac( 0x02, 0x00, 0x5e, 0x10, 0x20, 0x30 ) );
   auto info = routerIdInfoFactory( "default" );
   auto sm = routerIdSmFactory( "default", bridging, info );
   EXPECT_TRUE( sm->initialized() );
   EXPECT_EQ( info->routerId(), 0x5E102030u );

   // The first two bytes do not take part.
   bridging->bridgeMacAddrIs( mac( 0xff, 0xee, 0x5e, 0x10, 0x20, 0x30 ) );
   loop.runUntilIdle();
   EXPECT_EQ( info->routerId(), 0x5E102030u );
   bridging->bridgeMacAddrIs( mac( 0x02, 0x00, 0xc0, 0xa8, 0x01, 0xfe ) );
   loop.runUntilIdle();
   EXPECT_EQ( info->routerId(), 0xC0A801FEu );
}

TEST( RouterIdSm, TwoVrfsOfOneSwitchShareTheIdAndNoBridgingKeepsZero ) {
   Kiv::Testing::TestLoop loop;
   auto bridging = Kiv::make< Bridging::Config >();
   bridging->bridgeMacAddrIs( mac( 0x02, 0x00, 0x5e, 0x10, 0x20, 0x30 ) );
   auto infoDefault = routerIdInfoFactory( "default" );
   auto infoRed = routerIdInfoFactory( "red" );
   auto smDefault = routerIdSmFactory( "default", bridging, infoDefault );
   auto smRed = routerIdSmFactory( "red", bridging, infoRed );
   EXPECT_EQ( infoDefault->routerId(), infoRed->routerId() );

   auto infoNone = routerIdInfoFactory( "blue" );
   auto smNone = routerIdSmFactory( "blue", nullptr, infoNone );
   loop.runUntilIdle();
   EXPECT_TRUE( smNone->initialized() );
   EXPECT_EQ( infoNone->routerId(), 0u );
}

} // namespace
} // namespace Routing::Pim

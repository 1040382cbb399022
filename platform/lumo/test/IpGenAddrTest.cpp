// Lumo::IpGenAddr and Lumo::AddressFamily: text forms, order, hash and the
// accessors the PIM code leans on.
#include <algorithm>
#include <array>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "TextForms.h"
#include "kiv/RangeException.h"
#include "lumo/AddressFamily.h"
#include "lumo/IpGenAddr.h"

namespace {

using Lumo::AddressFamily;
using Lumo::IpGenAddr;

IpGenAddr addr( std::string_view s ) { return IpGenAddr::fromStrep( s ); }

IpGenAddr::Bytes16 randomV6( std::mt19937_64 & rng ) {
   IpGenAddr::Bytes16 b;
   // Zero out groups often, so runs of zeros of every length show up.
   for( int g = 0; g < 8; ++g ) {
      const bool zero = rng() % 3 == 0;
      const auto v = zero ? 0u : unsigned( rng() ) & ( rng() % 2 ? 0xFFFFu : 0x00FFu );
      b[ 2 * g ] = static_cast< std::uint8_t >( v >> 8 );
      b[ 2 * g + 1 ] = static_cast< std::uint8_t >( v );
   }
   return b;
}

TEST( IpGenAddrStrepTest, TextForms ) {
   LumoTest::expectTextForms< IpGenAddr >( IpGenAddr::ipv4( 0x01020304 ), {
      { "198.18.0.1", "198.18.0.1" }, { "0.0.0.0", "0.0.0.0" }, { "255.255.255.255", "255.255.255.255" },
      { "224.0.0.13", "224.0.0.13" }, { "", "" },
      { "::", "::" }, { "0:0:0:0:0:0:0:0", "::" }, { "::1", "::1" }, { "0:0:0:0:0:0:0:1", "::1" },
      { "1::", "1::" }, { "2001:DB8::ABCD", "2001:db8::abcd" },
      { "2001:0db8:0000:0000:0000:0000:0000:0001", "2001:db8::1" }, { "FF02:0:0:0:0:0:0:D", "ff02::d" },
      { "fe80::a00:27ff:fe4e:66a1", "fe80::a00:27ff:fe4e:66a1" },
      // A single zero group stays; the longest run goes, on a tie the first.
      { "2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1" }, { "::2:3:4:5:6:7:8", "0:2:3:4:5:6:7:8" },
      { "1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0" }, { "1:0:0:2:0:0:0:3", "1:0:0:2::3" },
      { "1:0:0:2:0:0:3:4", "1::2:0:0:3:4" }, { "2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1" },
      { "0:0:1:0:0:0:0:0", "0:0:1::" },
      // Embedded IPv4: mapped addresses keep the dotted quad, others do not.
      { "::ffff:198.18.0.1", "::ffff:198.18.0.1" }, { "::FFFF:c612:1", "::ffff:198.18.0.1" },
      { "::ffff:0.0.0.0", "::ffff:0.0.0.0" }, { "::198.18.0.1", "::c612:1" },
      { "64:ff9b::198.18.0.1", "64:ff9b::c612:1" }, { "1:2:3:4:5:6:198.18.0.1", "1:2:3:4:5:6:c612:1" },
      { "0:0:0:0:0:ffff:1:2", "::ffff:0.1.0.2" },
      { "1.2.3", nullptr }, { "1.2.3.4.5", nullptr }, { "256.1.1.1", nullptr }, { "1.2.3.256", nullptr },
      { "01.2.3.4", nullptr }, { "1.2.3.00", nullptr }, { "1..2.3", nullptr }, { "1.2.3.4.", nullptr },
      { ".1.2.3.4", nullptr }, { "1234.1.1.1", nullptr }, { "a.b.c.d", nullptr }, { "1.2.3.4a", nullptr },
      { ":", nullptr }, { ":::", nullptr }, { "1:2", nullptr }, { ":1::", nullptr }, { "1::2:", nullptr },
      { "1:", nullptr }, { "1::2::3", nullptr }, { "12345::", nullptr }, { "1:2:3:4:5:6:7:8:9", nullptr },
      { "1:2:3:4:5:6:7:8::", nullptr }, { "::1:2:3:4:5:6:7:8", nullptr }, { "1:2:3:4::5:6:7:8", nullptr },
      { "::ffff:1.2.3", nullptr }, { "::ffff:1.2.3.4.5", nullptr }, { "1:2:3:4:5:6:7:1.2.3.4", nullptr },
      { "::1.2.3.4:5", nullptr }, { "::01.2.3.4", nullptr }, { "1.2.3.4::", nullptr }, { "g::1", nullptr },
      { "/24", nullptr }, { "x", nullptr }, { " 1.2.3.4", nullptr }, { "-1.2.3.4", nullptr },
      // The iterator parser stops after the address.
      { "198.18.0.1/24", nullptr, 10 }, { "198.18.0.1 ", nullptr, 10 }, { "2001:db8::1%eth0", nullptr, 11 },
      { "::g", nullptr, 2 },
   } );
   try {
      addr( "1.2.3" );
      FAIL() << "no exception";
   } catch( const Kiv::RangeException & e ) {
      EXPECT_STREQ( e.what(), "IpGenAddr::fromStrep: malformed \"1.2.3\"" );
   }
}

TEST( IpGenAddrStrepTest, AgreesWithTheSystemConversionsOnRandomAddresses ) {
   std::mt19937_64 rng( 7 );
   for( int i = 0; i < 20000; ++i ) {
      const IpGenAddr::Bytes16 b = randomV6( rng );
      const IpGenAddr a( b );
      const std::string text = valueToStrep( a );
      SCOPED_TRACE( text );
      in6_addr sys{};
      ASSERT_EQ( inet_pton( AF_INET6, text.c_str(), &sys ), 1 );
      EXPECT_EQ( IpGenAddr( sys ), a );
      char buf[ INET6_ADDRSTRLEN ];
      ASSERT_NE( inet_ntop( AF_INET6, b.data(), buf, sizeof( buf ) ), nullptr );
      EXPECT_EQ( addr( buf ), a );
      // The C library prints "::a.b.c.d" for the deprecated IPv4-compatible
      // form; everywhere else both follow RFC 5952.
      const bool compatible = std::all_of( b.begin(), b.begin() + 12, []( auto x ) { return x == 0; } );
      EXPECT_TRUE( compatible || text == buf ) << buf;
   }
}

TEST( IpGenAddrOrderTest, MatchesFamilyThenBigEndianBytes ) {
   // Reference order: family, then the bytes as unsigned numbers, first byte
   // most significant. Random addresses with shared prefixes exercise both
   // 64-bit halves and high-bit bytes.
   // Edges too: the empty address, both ends of IPv4, the same bytes in
   // both families.
   std::mt19937_64 rng( 11 );
   std::vector< IpGenAddr > all = { IpGenAddr(), addr( "0.0.0.0" ), addr( "255.255.255.255" ), addr( "::" ),
                                    addr( "::1" ), addr( "198.18.0.1" ),
                                    IpGenAddr( IpGenAddr::Bytes16{ 198, 18, 0, 1 } ) };
   for( int i = 0; i < 300; ++i ) {
      IpGenAddr::Bytes16 b = randomV6( rng );
      if( i % 3 == 0 ) b[ 0 ] = 0x80;
      all.push_back( IpGenAddr( b ) );
      b[ 15 ] ^= 0x80;
      all.push_back( IpGenAddr( b ) );
      all.push_back( IpGenAddr::ipv4( static_cast< std::uint32_t >( rng() ) ) );
   }
   auto reference = []( const IpGenAddr & a, const IpGenAddr & b ) {
      if( a.af() != b.af() ) return a.af() < b.af();
      const auto x = a.bytes(), y = b.bytes();
      return std::lexicographical_compare( x.begin(), x.end(), y.begin(), y.end() );
   };
   for( const auto & a : all ) {
      for( const auto & b : all ) {
         ASSERT_EQ( a < b, reference( a, b ) ) << a << " vs " << b;
         ASSERT_EQ( a == b, !reference( a, b ) && !reference( b, a ) ) << a << " vs " << b;
         if( a.isIpv4() && b.isIpv4() ) {
            ASSERT_EQ( a < b, a.v4HostOrder() < b.v4HostOrder() );
         }
      }
   }
}

TEST( IpGenAddrHashTest, LowBitsSpreadForAContiguousBlock ) {
   // Neighbour tables mask the hash to a power of two: 65536 consecutive
   // addresses spread over 65536 buckets about as well as a random function
   // would (1 - 1/e, about 41400 buckets used).
   for( bool v6 : { false, true } ) {
      std::vector< bool > used( 1 << 16 );
      std::size_t filled = 0;
      for( std::uint32_t i = 0; i < ( 1u << 16 ); ++i ) {
         IpGenAddr a = IpGenAddr::ipv4( 0xC6120000 | i );
         if( v6 ) {
            IpGenAddr::Bytes16 b = { 0x20, 0x01, 0x0d, 0xb8 };
            b[ 14 ] = static_cast< std::uint8_t >( i >> 8 );
            b[ 15 ] = static_cast< std::uint8_t >( i );
            a = IpGenAddr( b );
         }
         const std::size_t bucket = std::hash< IpGenAddr >()( a ) & 0xFFFF;
         filled += !used[ bucket ];
         used[ bucket ] = true;
      }
      EXPECT_GT( filled, 40000u ) << ( v6 ? "ipv6" : "ipv4" );
   }
}

TEST( IpGenAddrAccessTest, AddressClasses ) {
   struct Case {
      const char * text;
      bool unspecified, multicast, linkLocal;
   };
   const Case cases[] = {
      { "0.0.0.0", true, false, false },         { "::", true, false, false },
      { "::1", false, false, false },            { "0.0.0.1", false, false, false },
      { "::ffff:0.0.0.0", false, false, false }, { "224.0.0.0", false, true, false },
      { "239.255.255.255", false, true, false }, { "223.255.255.255", false, false, false },
      { "240.0.0.0", false, false, false },      { "ff02::d", false, true, false },
      { "fe80::1", false, false, true },         { "febf:ffff::", false, false, true },
      { "fec0::1", false, false, false },        { "169.254.1.1", false, false, true },
      { "169.255.1.1", false, false, false },
   };
   for( const Case & c : cases ) {
      SCOPED_TRACE( c.text );
      EXPECT_EQ( addr( c.text ).isUnspecified(), c.unspecified );
      EXPECT_EQ( addr( c.text ).isMulticast(), c.multicast );
      EXPECT_EQ( addr( c.text ).isLinkLocal(), c.linkLocal );
   }
}

TEST( AddressFamilyTest, NamesRoundTrip ) {
   for( AddressFamily af : { AddressFamily::none, AddressFamily::ipv4, AddressFamily::ipv6 } ) {
      EXPECT_EQ( Lumo::addressFamilyFromStrep( valueToStrep( af ) ), af );
   }
   EXPECT_EQ( valueToStrep( AddressFamily::ipv4 ), "ipv4" );
   EXPECT_EQ( valueToStrep( AddressFamily::none ), "none" );
   EXPECT_EQ( valueToStrep( static_cast< AddressFamily >( 9 ) ), "unknown" );
   EXPECT_EQ( fmt::format( "{}", AddressFamily::ipv6 ), "ipv6" );
   for( std::string_view bad : { "", "ipv5", "IPV4", "ip", "ipv4 ", "unknown" } ) {
      EXPECT_THROW( Lumo::addressFamilyFromStrep( bad ), Kiv::RangeException ) << bad;
   }
}

} // namespace

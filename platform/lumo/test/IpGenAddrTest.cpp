// Lumo::IpGenAddr, AddressFamily, IpGenAddrWithMask and IpGenPrefix: text
// forms, order, hash, containment and the accessors the PIM code leans on.
#include <algorithm>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <unordered_set>
#include <vector>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "TextForms.h"
#include "lumo/AddressFamily.h"
#include "lumo/IpGenAddr.h"
#include "lumo/IpGenAddrWithMask.h"
#include "lumo/IpGenPrefix.h"

namespace {

using Lumo::AddressFamily;
using Lumo::IpGenAddr;
using Lumo::IpGenAddrWithMask;
using Lumo::IpGenPrefix;
using LumoTest::rangeErrorText;

IpGenAddr addr( std::string_view s ) { return IpGenAddr::fromStrep( s ); }
IpGenPrefix prefix( std::string_view s ) { return IpGenPrefix::fromStrep( s ); }
IpGenAddrWithMask withMask( std::string_view s ) { return IpGenAddrWithMask::fromStrep( s ); }

// Bit i of the address, most significant first.
bool bit( const IpGenAddr & a, unsigned i ) { return ( a.bytes()[ i / 8 ] >> ( 7 - i % 8 ) ) & 1; }

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
      // Longer spellings (canonical ones meet the C library below): a single
      // zero group stays; the longest run goes, on a tie the first.
      { "0:0:0:0:0:0:0:0", "::" }, { "0:0:0:0:0:0:0:1", "::1" }, { "2001:DB8::ABCD", "2001:db8::abcd" },
      { "2001:0db8:0000:0000:0000:0000:0000:0001", "2001:db8::1" }, { "FF02:0:0:0:0:0:0:D", "ff02::d" },
      { "::2:3:4:5:6:7:8", "0:2:3:4:5:6:7:8" }, { "1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0" },
      { "1:0:0:2:0:0:0:3", "1:0:0:2::3" }, { "1:0:0:2:0:0:3:4", "1::2:0:0:3:4" },
      { "2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1" }, { "0:0:1:0:0:0:0:0", "0:0:1::" },
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
   EXPECT_EQ( rangeErrorText( [] { addr( "1.2.3" ); } ), "IpGenAddr::fromStrep: malformed \"1.2.3\"" );
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
   // 64-bit halves and high-bit bytes; the same bytes in both families too.
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
      std::set< std::size_t > buckets;
      for( std::uint32_t i = 0; i < ( 1u << 16 ); ++i ) {
         const IpGenAddr::Bytes16 b = { 0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                        static_cast< std::uint8_t >( i >> 8 ), static_cast< std::uint8_t >( i ) };
         buckets.insert( std::hash< IpGenAddr >()( v6 ? IpGenAddr( b ) : IpGenAddr::ipv4( 0xC6120000 | i ) ) & 0xFFFF );
      }
      EXPECT_GT( buckets.size(), 40000u ) << ( v6 ? "ipv6" : "ipv4" );
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
      const IpGenAddr a = addr( c.text );
      EXPECT_EQ( std::tuple( a.isUnspecified(), a.isMulticast(), a.isLinkLocal() ),
                 std::tuple( c.unspecified, c.multicast, c.linkLocal ) )
            << c.text;
   }
}

TEST( AddressFamilyTest, NamesRoundTrip ) {
   for( AddressFamily af : { AddressFamily::none, AddressFamily::ipv4, AddressFamily::ipv6 } ) {
      EXPECT_EQ( Lumo::addressFamilyFromStrep( valueToStrep( af ) ), af );
   }
   EXPECT_EQ( fmt::format( "{} {} {}", AddressFamily::ipv4, AddressFamily::none, static_cast< AddressFamily >( 9 ) ),
              "ipv4 none unknown" );
}

TEST( IpGenAddrWithMaskTest, TextForms ) {
   LumoTest::expectTextForms< IpGenAddrWithMask >( withMask( "198.18.9.9/9" ), {
      { "198.18.0.1/24", "198.18.0.1/24" }, { "0.0.0.0/0", "0.0.0.0/0" }, { "198.18.0.1/32", "198.18.0.1/32" },
      { "198.19.255.255/15", "198.19.255.255/15" }, { "2001:DB8:0::1/64", "2001:db8::1/64" }, { "::/0", "::/0" },
      { "2001:db8::1/128", "2001:db8::1/128" }, { "::ffff:198.18.0.1/96", "::ffff:198.18.0.1/96" }, { "", "" },
      { "198.18.0.1", nullptr }, { "198.18.0.1/", nullptr }, { "198.18.0.1/33", nullptr }, { "/24", nullptr },
      { "198.18.0.1/024", nullptr }, { "198.18.0.1/-1", nullptr }, { "198.18.0.1//24", nullptr },
      { "2001:db8::/129", nullptr }, { "2001:db8::/1280", nullptr }, { "198.18.0.1 /24", nullptr },
      { "1.2.3/8", nullptr },
      { "198.18.0.1/2a", nullptr, 12 },   // the parser stops after the length
   } );
}

// Every constructor refuses what the family cannot hold, with its fixed text.
TEST( IpGenAddrWithMaskTest, OutOfRangeValuesAreRefusedWithTheirFixedTexts ) {
   const std::pair< std::function< void() >, const char * > cases[] = {
      { [] { IpGenAddrWithMask( addr( "198.18.0.1" ), 33 ); }, "IpGenAddrWithMask::maskLen > 32 not allowed" },
      { [] { IpGenAddrWithMask( addr( "2001:db8::1" ), 129 ); }, "IpGenAddrWithMask::maskLen > 128 not allowed" },
      { [] { IpGenAddrWithMask( IpGenAddr(), 1 ); }, "IpGenAddrWithMask::maskLen > 0 not allowed" },
      { [] { IpGenPrefix( addr( "198.18.0.1" ), 24 ); }, "Prefix::validAsPrefix != true not allowed" },
      { [] { IpGenPrefix( addr( "198.18.0.0" ), 33 ); }, "Prefix::validAsPrefix != true not allowed" },
      { [] { IpGenPrefix( IpGenAddr(), 8 ); }, "Prefix::validAsPrefix != true not allowed" },
      { [] { IpGenPrefix::masked( addr( "198.18.0.1" ), 33 ); }, "IpGenPrefix::len > 32 not allowed" },
      { [] { IpGenPrefix::masked( addr( "::1" ), 200 ); }, "IpGenPrefix::len > 128 not allowed" },
   };
   for( const auto & [ f, text ] : cases ) EXPECT_EQ( rangeErrorText( f ), text );
}

TEST( IpGenAddrWithMaskTest, SubnetAndMaskedClearHostBits ) {
   const std::pair< const char *, const char * > cases[] = {
      { "198.18.5.77/20", "198.18.0.0/20" },
      { "198.18.5.77/32", "198.18.5.77/32" },
      { "198.18.5.77/0", "0.0.0.0/0" },
      { "2001:db8:1:2:3:4:5:6/61", "2001:db8:1::/61" },
      { "2001:db8:1:2:3:4:5:6/127", "2001:db8:1:2:3:4:5:6/127" },
      { "2001:db8:1:2:3:4:5:7/127", "2001:db8:1:2:3:4:5:6/127" },
      { "", "" },
   };
   for( const auto & [ text, subnet ] : cases ) {
      const IpGenAddrWithMask a = withMask( text );
      EXPECT_EQ( a.subnet(), prefix( subnet ) ) << text;
      // The factory clears host bits instead of throwing.
      EXPECT_EQ( IpGenPrefix::masked( a.address(), a.maskLen() ), prefix( subnet ) ) << text;
   }
}

TEST( IpGenPrefixTest, ContainsMatchesABitByBitReference ) {
   // Every length, random address pairs that share a random number of leading
   // bits: the word-wise test must agree with comparing bit by bit.
   std::mt19937_64 rng( 3 );
   for( int round = 0; round < 400; ++round ) {
      const bool v6 = round % 2;
      IpGenAddr::Bytes16 b{};
      for( auto & x : b ) x = static_cast< std::uint8_t >( rng() );
      const IpGenAddr base = v6 ? IpGenAddr( b ) : IpGenAddr( IpGenAddr::Bytes4{ b[ 0 ], b[ 1 ], b[ 2 ], b[ 3 ] } );
      const unsigned width = base.maxMaskLen();
      // Flip one bit: the pair then agrees exactly on the bits before it.
      const unsigned flip = static_cast< unsigned >( rng() % width );
      IpGenAddr::Bytes16 o = b;
      o[ flip / 8 ] ^= static_cast< std::uint8_t >( 0x80 >> ( flip % 8 ) );
      const IpGenAddr other = v6 ? IpGenAddr( o ) : IpGenAddr( IpGenAddr::Bytes4{ o[ 0 ], o[ 1 ], o[ 2 ], o[ 3 ] } );
      for( unsigned len = 0; len <= width; ++len ) {
         bool same = true;
         for( unsigned i = 0; i < len; ++i ) same = same && bit( base, i ) == bit( other, i );
         const IpGenPrefix p = IpGenPrefix::masked( base, len );
         ASSERT_TRUE( p.contains( base ) ) << p;
         ASSERT_EQ( p.contains( other ), same ) << p << " " << other;
         ASSERT_EQ( IpGenAddrWithMask( base, len ).contains( other ), same ) << p << " " << other;
      }
   }
}

// Within a family the bit-by-bit test covers every length.
TEST( IpGenPrefixTest, ContainsAcrossFamiliesAndForTheEmptyPrefix ) {
   const std::tuple< const char *, const char *, bool > addresses[] = {
      { "0.0.0.0/0", "::", false }, { "::/0", "0.0.0.0", false }, { "", "0.0.0.0", false }, { "", "", false },
   };
   for( const auto & [ p, a, in ] : addresses ) EXPECT_EQ( prefix( p ).contains( addr( a ) ), in ) << p << " " << a;
   const std::tuple< const char *, const char *, bool > prefixes[] = {
      { "198.18.0.0/15", "198.19.1.0/24", true },  { "198.18.0.0/15", "198.18.0.0/15", true },
      { "198.18.0.0/16", "198.18.0.0/15", false }, { "198.18.0.0/16", "198.19.0.0/24", false },
      { "::/0", "0.0.0.0/0", false },
   };
   for( const auto & [ p, q, in ] : prefixes ) EXPECT_EQ( prefix( p ).contains( prefix( q ) ), in ) << p << " " << q;
}

TEST( IpGenPrefixTest, TextFormsRefuseHostBits ) {
   LumoTest::expectTextForms< IpGenPrefix >( prefix( "198.18.0.0/15" ), {
      { "198.18.0.0/15", "198.18.0.0/15" }, { "0.0.0.0/0", "0.0.0.0/0" }, { "198.18.0.1/32", "198.18.0.1/32" },
      { "2001:0DB8:0:0::/32", "2001:db8::/32" }, { "::/0", "::/0" }, { "2001:db8::1/128", "2001:db8::1/128" },
      { "ff00::/8", "ff00::/8" }, { "", "" }, { "128.0.0.0/1", "128.0.0.0/1" },
      { "2001:db8:0:0:8000::/65", "2001:db8:0:0:8000::/65" },
      { "198.18.0.1/24", nullptr }, { "2001:db8::1/64", nullptr }, { "198.18.0.0/33", nullptr },
      // Host bits just past the length, also inside a byte: 198.18 is odd in /14.
      { "198.18.0.0/14", nullptr }, { "198.18.0.1/31", nullptr }, { "128.0.0.0/0", nullptr },
      { "2001:db8::/28", nullptr }, { "2001:db8:0:0:8000::/64", nullptr }, { "2001:db8::1/127", nullptr },
      { "::/129", nullptr },
      { "198.18.0.0", nullptr }, { "/0", nullptr }, { "198.18.0.0/15x", nullptr, 13 },
   } );
   EXPECT_EQ( rangeErrorText( [] { prefix( "198.18.0.1/24" ); } ),
              "IpGenPrefix::fromStrep: malformed \"198.18.0.1/24\"" );
}

TEST( IpGenPrefixTest, OrderByAddressThenLength ) {
   std::vector< IpGenPrefix > v = { prefix( "::/0" ), prefix( "198.18.0.0/16" ), prefix( "198.18.0.0/15" ),
                                    prefix( "10.0.0.0/8" ), IpGenPrefix(), prefix( "2001:db8::/32" ) };
   std::sort( v.begin(), v.end() );
   std::vector< std::string > texts;
   for( const auto & p : v ) texts.push_back( valueToStrep( p ) );
   EXPECT_EQ( texts, ( std::vector< std::string >{ "", "10.0.0.0/8", "198.18.0.0/15", "198.18.0.0/16",
                                                   "::/0", "2001:db8::/32" } ) );
   // Equal values made two ways hash alike.
   std::unordered_set< IpGenPrefix > set( v.begin(), v.end() );
   set.insert( IpGenPrefix::masked( addr( "198.18.1.1" ), 16 ) );
   EXPECT_EQ( set.size(), v.size() );
}

} // namespace

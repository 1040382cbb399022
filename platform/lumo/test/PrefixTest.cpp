// Lumo::IpGenAddrWithMask and Lumo::IpGenPrefix: validity, containment and
// string forms.
#include <algorithm>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <unordered_set>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "TextForms.h"
#include "kiv/RangeException.h"
#include "lumo/IpGenAddrWithMask.h"
#include "lumo/IpGenPrefix.h"

namespace {

using Lumo::IpGenAddr;
using Lumo::IpGenAddrWithMask;
using Lumo::IpGenPrefix;

IpGenAddr addr( std::string_view s ) { return IpGenAddr::fromStrep( s ); }
IpGenPrefix prefix( std::string_view s ) { return IpGenPrefix::fromStrep( s ); }
IpGenAddrWithMask withMask( std::string_view s ) { return IpGenAddrWithMask::fromStrep( s ); }

std::string rangeErrorText( const auto & f ) {
   try {
      f();
   } catch( const Kiv::RangeException & e ) {
      return e.what();
   }
   return "no exception";
}

// Bit i of the address, most significant first.
bool bit( const IpGenAddr & a, unsigned i ) { return ( a.bytes()[ i / 8 ] >> ( 7 - i % 8 ) ) & 1; }

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
   EXPECT_EQ( withMask( "2001:db8::1/64" ).address(), addr( "2001:db8::1" ) );
   EXPECT_EQ( withMask( "2001:db8::1/64" ).maskLen(), 64u );
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
   EXPECT_EQ( IpGenAddrWithMask( addr( "2001:db8::1" ), 128 ).maskLen(), 128u );
}

TEST( IpGenAddrWithMaskTest, SubnetClearsHostBits ) {
   EXPECT_EQ( withMask( "198.18.5.77/20" ).subnet(), prefix( "198.18.0.0/20" ) );
   EXPECT_EQ( withMask( "198.18.5.77/32" ).subnet(), prefix( "198.18.5.77/32" ) );
   EXPECT_EQ( withMask( "198.18.5.77/0" ).subnet(), prefix( "0.0.0.0/0" ) );
   EXPECT_EQ( withMask( "2001:db8:1:2:3:4:5:6/61" ).subnet(), prefix( "2001:db8:1::/61" ) );
   EXPECT_EQ( withMask( "2001:db8:1:2:3:4:5:6/127" ).subnet(), prefix( "2001:db8:1:2:3:4:5:6/127" ) );
   EXPECT_EQ( withMask( "2001:db8:1:2:3:4:5:7/127" ).subnet(), prefix( "2001:db8:1:2:3:4:5:6/127" ) );
   EXPECT_EQ( IpGenAddrWithMask().subnet(), IpGenPrefix() );
   // The factory clears host bits instead of throwing.
   EXPECT_EQ( IpGenPrefix::masked( addr( "198.18.200.9" ), 15 ), prefix( "198.18.0.0/15" ) );
   EXPECT_EQ( IpGenPrefix::masked( addr( "2001:db8::1" ), 64 ), prefix( "2001:db8::/64" ) );
}

TEST( IpGenPrefixTest, ValidAsPrefix ) {
   const std::tuple< const char *, unsigned, bool > cases[] = {
      { "198.18.0.0", 15, true },  { "198.18.0.0", 14, false },   // 198.18 is odd in /14
      { "198.18.0.1", 32, true },  { "198.18.0.1", 31, false },   { "0.0.0.0", 0, true },
      { "128.0.0.0", 0, false },   { "128.0.0.0", 1, true },      { "0.0.0.0", 33, false },
      { "2001:db8::", 32, true },  { "2001:db8::", 28, false },   { "2001:db8:0:0:8000::", 65, true },
      { "2001:db8:0:0:8000::", 64, false }, { "2001:db8::1", 128, true }, { "2001:db8::1", 127, false },
      { "::", 129, false },        { "", 0, true },               { "", 1, false },
   };
   for( const auto & [ text, len, valid ] : cases ) {
      EXPECT_EQ( IpGenPrefix::validAsPrefix( *text ? addr( text ) : IpGenAddr(), len ), valid ) << text << "/" << len;
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
         ASSERT_EQ( same, len <= flip );
      }
   }
}

TEST( IpGenPrefixTest, ContainsAtTheEdges ) {
   const std::tuple< const char *, const char *, bool > addresses[] = {
      { "0.0.0.0/0", "198.18.0.1", true },          { "0.0.0.0/0", "255.255.255.255", true },
      { "0.0.0.0/0", "::", false },                 { "::/0", "2001:db8::1", true },
      { "::/0", "0.0.0.0", false },                 { "198.18.0.1/32", "198.18.0.1", true },
      { "198.18.0.1/32", "198.18.0.0", false },     { "2001:db8::1/128", "2001:db8::1", true },
      { "2001:db8::1/128", "2001:db8::3", false },  { "", "0.0.0.0", false },
   };
   for( const auto & [ p, a, in ] : addresses ) EXPECT_EQ( prefix( p ).contains( addr( a ) ), in ) << p << " " << a;
   EXPECT_FALSE( IpGenPrefix().contains( IpGenAddr() ) );
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
      { "ff00::/8", "ff00::/8" }, { "", "" },
      { "198.18.0.1/24", nullptr }, { "2001:db8::1/64", nullptr }, { "198.18.0.0/33", nullptr },
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
   EXPECT_EQ( std::hash< IpGenPrefix >()( prefix( "2001:db8::/32" ) ),
              std::hash< IpGenPrefix >()( IpGenPrefix::masked( addr( "2001:db8::1" ), 32 ) ) );
   std::unordered_set< IpGenPrefix > set( v.begin(), v.end() );
   set.insert( prefix( "198.18.0.0/16" ) );
   EXPECT_EQ( set.size(), v.size() );
}

} // namespace

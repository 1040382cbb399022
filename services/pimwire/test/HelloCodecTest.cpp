// Promises of the Hello codec: what it encodes decodes to the same value,
// every malformed message is rejected with its own reason, and damage inside
// one option costs that option only.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "services/pimwire/HelloCodec.h"

using namespace PimWire;

namespace {

Addr ip( const char * text ) {
   auto a = Addr::parse( text );
   EXPECT_TRUE( a.has_value() ) << text;
   return a.value_or( Addr{} );
}

struct Endpoints {
   Family family;
   Addr src;
   Addr dst;
   Addr other; // an address of the other family
};

Endpoints endpoints( Family f ) {
   if ( f == Family::ipv4 ) {
      return { f, ip( "198.18.0.1" ), ip( "224.0.0.13" ), ip( "2001:db8::1" ) };
   }
   return { f, ip( "fe80::1" ), ip( "ff02::d" ), ip( "198.18.0.1" ) };
}

// Hand-built PIM messages, for shapes the encoder never produces.
class Raw {
 public:
   explicit Raw( std::uint8_t verType = 0x20 ) : bytes_{ verType, 0, 0, 0 } {}
   // The length field says `len` if given, else the value's size.
   Raw & option( std::uint16_t type, std::vector< std::uint8_t > value, int len = -1 ) {
      if ( len < 0 ) len = int( value.size() );
      append( { std::uint8_t( type >> 8 ), std::uint8_t( type ), std::uint8_t( len >> 8 ), std::uint8_t( len ) } );
      return append( value );
   }
   Raw & append( std::vector< std::uint8_t > b ) {
      bytes_.insert( bytes_.end(), b.begin(), b.end() );
      return *this;
   }
   std::vector< std::uint8_t > sealed( const Endpoints & e ) const {
      std::vector< std::uint8_t > b = bytes_;
      if ( b.size() >= kPimHeaderLen ) setChecksum( b.data(), b.size(), e.family, e.src, e.dst );
      return b;
   }
 private:
   std::vector< std::uint8_t > bytes_;
};

std::vector< std::uint8_t > encodedAddr( const Addr & a ) {
   std::vector< std::uint8_t > v{ std::uint8_t( a.family ), 0 };
   for ( std::size_t i = 0; i < a.size(); ++i ) v.push_back( a.bytes[ i ] );
   return v;
}

DecodeResult decode( const std::vector< std::uint8_t > & b, const Endpoints & e ) {
   return decodeHello( b.data(), b.size(), e.family, e.src, e.dst );
}

struct NamedOption {
   const char * name;
   std::function< void( Hello &, const Endpoints & ) > set;
};

std::vector< NamedOption > everyOption() {
   return {
      { "holdtime", []( Hello & h, const Endpoints & ) { h.holdtimePresent = true; h.holdtime = 0xffff; } },
      { "holdtimeZero", []( Hello & h, const Endpoints & ) { h.holdtimePresent = true; h.holdtime = 0; } },
      // The T bit next to a delay with its high bits set, and without them.
      { "lanPruneDelay", []( Hello & h, const Endpoints & ) { h.lanPruneDelay = { true, true, 500, 0xffff }; } },
      { "lanPruneDelayNoT", []( Hello & h, const Endpoints & ) { h.lanPruneDelay = { true, false, 0x7fff, 2500 }; } },
      { "drPriority", []( Hello & h, const Endpoints & ) { h.drPriorityPresent = true; h.drPriority = 0xfedcba98; } },
      { "generationId", []( Hello & h, const Endpoints & ) { h.generationIdPresent = true; h.generationId = 0x80000001; } },
      { "addressList", []( Hello & h, const Endpoints & e ) {
           h.addressList = { e.src, e.src };
           h.addressList[ 0 ].bytes[ 3 ] = 9;
           h.addressList[ 1 ].bytes[ 3 ] = 10;
        } },
      { "bidirCapable", []( Hello & h, const Endpoints & ) { h.bidirCapable = true; } },
      { "interfaceId", []( Hello & h, const Endpoints & ) { h.interfaceId = { true, 0xc6120001, 0x7 }; } },
      { "tcpCapableNoAddr", []( Hello & h, const Endpoints & ) { h.tcpCapable = { true, 0x5, Addr{} }; } },
      { "sctpCapableV4", []( Hello & h, const Endpoints & ) { h.sctpCapable = { true, 0xffffff, ip( "198.18.7.7" ) }; } },
      { "sctpCapableV6", []( Hello & h, const Endpoints & ) { h.sctpCapable = { true, 0x1, ip( "2001:db8::77" ) }; } },
   };
}

} // namespace

class RoundTrip : public ::testing::TestWithParam< Family > {};

// All options together, then each alone (the two sctp cases share one
// option: 11 options in all), decoded into one reused Hello: nothing of one
// decode survives into the next.
TEST_P( RoundTrip, AllOptionsThenEachAloneDecodeToTheSameHelloInAReusedHello ) {
   const Endpoints e = endpoints( GetParam() );
   const auto options = everyOption();
   Hello all, out;
   for ( const NamedOption & o : options ) o.set( all, e );
   for ( std::size_t k = 0; k <= options.size(); ++k ) {
      SCOPED_TRACE( k ? options[ k - 1 ].name : "all" );
      Hello h = k ? Hello{} : all;
      if ( k ) options[ k - 1 ].set( h, e );
      h.source = e.src;
      h.destination = e.dst;
      auto bytes = encodeHello( h, e.family, e.src, e.dst );
      EXPECT_EQ( bytes.size(), encodedHelloSize( h ) );
      DecodeStats stats;
      ASSERT_EQ( decodeHello( bytes.data(), bytes.size(), e.family, e.src, e.dst, out, stats ), RejectReason::none );
      EXPECT_EQ( out, h ) << out << " vs " << h;
      EXPECT_EQ( stats.options, k ? 1u : 9u );
      EXPECT_TRUE( stats.clean() ) << stats;
   }
   EXPECT_GE( out.addressList.capacity(), 2u ) << "the address list keeps its storage";
}

INSTANTIATE_TEST_SUITE_P( Families, RoundTrip, ::testing::Values( Family::ipv4, Family::ipv6 ),
                          []( const auto & info ) { return familyName( info.param ); } );

TEST( Encode, OptionsGoOutInTypeOrderWithExactBytes ) {
   const Endpoints e = endpoints( Family::ipv4 );
   Hello h;
   h.holdtimePresent = h.drPriorityPresent = true;
   h.holdtime = 105;
   h.lanPruneDelay = { true, true, 500, 2500 };
   h.drPriority = 1;
   h.interfaceId = { true, 0x01020304, 0x05060708 };
   h.bidirCapable = true;
   auto b = encodeHello( h, e.family, e.src, e.dst );
   const std::vector< std::uint8_t > want = {
      0x20, 0x00, 0, 0,                                       // header, checksum below
      0x00, 0x01, 0x00, 0x02, 0x00, 0x69,                     // holdtime 105
      0x00, 0x02, 0x00, 0x04, 0x81, 0xf4, 0x09, 0xc4,         // T=1 pd=500 oi=2500
      0x00, 0x13, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01,         // priority 1
      0x00, 0x16, 0x00, 0x00,                                 // bidir capable
      0x00, 0x1f, 0x00, 0x08, 1, 2, 3, 4, 5, 6, 7, 8,         // router id first
   };
   ASSERT_EQ( b.size(), want.size() );
   EXPECT_TRUE( std::equal( want.begin() + 4, want.end(), b.begin() + 4 ) );
   EXPECT_TRUE( checksumOk( b.data(), b.size(), e.family, e.src, e.dst ) );
}

TEST( Encode, RefusesWhatTheWireCannotCarry ) {
   const Endpoints e = endpoints( Family::ipv4 );
   std::uint8_t buf[ 256 ];
   Hello h;
   h.lanPruneDelay = { true, false, 0x8000, 0 };
   EXPECT_EQ( encodeHello( h, e.family, e.src, e.dst, buf, sizeof( buf ) ), 0u ) << "15-bit delay";
   h = Hello{};
   h.sctpCapable = { true, 0x1000000, Addr{} };
   EXPECT_EQ( encodeHello( h, e.family, e.src, e.dst, buf, sizeof( buf ) ), 0u ) << "24-bit flags";
   h = Hello{};
   h.addressList = { Addr{} };
   EXPECT_EQ( encodeHello( h, e.family, e.src, e.dst, buf, sizeof( buf ) ), 0u ) << "family none";
   h = Hello{};
   h.holdtimePresent = true;
   EXPECT_EQ( encodeHello( h, Family::ipv6, e.src, e.dst, buf, sizeof( buf ) ), 0u ) << "family mismatch";
   EXPECT_EQ( encodeHello( h, Family::none, Addr{}, Addr{}, buf, sizeof( buf ) ), 0u );
   EXPECT_EQ( encodeHello( h, e.family, e.src, e.dst, buf, 9 ), 0u ) << "buffer too small";
   EXPECT_EQ( encodeHello( h, e.family, e.src, e.dst, buf, 10 ), 10u );
}

// Repeats are dropped before the cap applies, so they cannot crowd out
// distinct addresses.
TEST( Encode, LongAddressListIsSplitAcrossOptionsThenDeduplicatedAndCapped ) {
   const Endpoints e = endpoints( Family::ipv6 );
   Hello h;
   for ( int i = 0; i < 4000; ++i ) {
      Addr a = ip( "2001:db8::" );
      a.bytes[ 14 ] = std::uint8_t( i >> 8 );
      a.bytes[ 15 ] = std::uint8_t( i );
      h.addressList.insert( h.addressList.end(), i == 1 ? 4 : 1, a );
   }
   DecodeResult r = decode( encodeHello( h, e.family, e.src, e.dst ), e );
   ASSERT_TRUE( r.ok() ) << r.reason;
   EXPECT_EQ( r.stats.options, 2u );
   ASSERT_EQ( r.hello.addressList.size(), kMaxAddressesKept );
   EXPECT_EQ( r.stats.duplicateAddrs, 3u );
   EXPECT_EQ( r.stats.droppedAddrs, 4000u - kMaxAddressesKept );
   EXPECT_EQ( r.hello.addressList.back(), h.addressList[ kMaxAddressesKept + 2 ] );
}

TEST( Reject, EachMalformationHasItsReason ) {
   const Endpoints e = endpoints( Family::ipv4 );
   const Endpoints e6 = endpoints( Family::ipv6 );
   auto good = Raw().option( 1, { 0, 105 } ).sealed( e );
   auto good6 = Raw().option( 1, { 0, 105 } ).sealed( e6 );
   ASSERT_TRUE( decode( good, e ).ok() && decode( good6, e6 ).ok() );
   struct Case {
      const char * what;
      std::vector< std::uint8_t > bytes;
      Endpoints ep;
      RejectReason want;
   };
   std::vector< Case > cases = {
      { "empty", {}, e, RejectReason::tooShort },
      { "three bytes", { 0x20, 0, 0 }, e, RejectReason::tooShort },
      { "version 1", Raw( 0x10 ).option( 1, { 0, 105 } ).sealed( e ), e, RejectReason::badVersion },
      { "version 3", Raw( 0x30 ).sealed( e ), e, RejectReason::badVersion },
      { "join/prune", Raw( 0x23 ).sealed( e ), e, RejectReason::notHello },
      { "assert", Raw( 0x25 ).sealed( e ), e, RejectReason::notHello },
      { "flipped bit", [ & ] { auto b = good; b[ 9 ] ^= 0x01; return b; }(), e, RejectReason::badChecksum },
      { "zero checksum", [ & ] { auto b = good; b[ 2 ] = b[ 3 ] = 0; return b; }(), e, RejectReason::badChecksum },
      // An IPv4 checksum is wrong over IPv6: the pseudo-header counts there.
      { "no pseudo-header", good, e6, RejectReason::badChecksum },
      { "option header cut", Raw().option( 1, { 0, 105 } ).append( { 0x00, 0x13, 0x00 } ).sealed( e ),
        e, RejectReason::optionOverrun },
      { "value past the end", Raw().option( 19, { 0, 0, 1 }, 4 ).sealed( e ), e,
        RejectReason::optionOverrun },
      { "huge length", Raw().option( 24, { 1, 0, 198, 18, 0, 2 }, 0xffff ).sealed( e ), e,
        RejectReason::optionOverrun },
      // The IPv6 checksum covers both addresses.
      { "other IPv6 source", good6, { e6.family, ip( "fe80::2" ), e6.dst, {} }, RejectReason::badChecksum },
      { "other IPv6 group", good6, { e6.family, e6.src, ip( "ff02::e" ), {} }, RejectReason::badChecksum },
      // The family and both addresses must agree.
      { "no family", good, { Family::none, e.src, e.dst, {} }, RejectReason::badFamily },
      { "IPv6 group", good, { e.family, e.src, ip( "ff02::d" ), {} }, RejectReason::badFamily },
      { "IPv4 addresses", good, { Family::ipv6, e.src, e.dst, {} }, RejectReason::badFamily },
   };
   for ( const Case & c : cases ) {
      DecodeResult r = decode( c.bytes, c.ep );
      EXPECT_EQ( r.reason, c.want ) << c.what;
      EXPECT_EQ( r.hello, Hello{} ) << c.what << ": nothing of a rejected Hello leaks out";
   }
}

class Lenient : public ::testing::TestWithParam< Family > {};

// Damage or strangeness inside one option costs that option (or entry)
// only; what is skipped is counted by kind.
TEST_P( Lenient, SkippedPartsAreCountedAndTheRestKept ) {
   const Endpoints e = endpoints( GetParam() );
   const auto cat = []( std::initializer_list< std::vector< std::uint8_t > > parts ) {
      std::vector< std::uint8_t > v;
      for ( const auto & p : parts ) v.insert( v.end(), p.begin(), p.end() );
      return v;
   };
   const auto good = encodedAddr( e.src );
   const std::vector< std::uint8_t > truncated( good.begin(), good.end() - 1 );
   auto badEncoding = good;
   badEncoding[ 1 ] = 1;
   Addr mine = e.src;
   mine.bytes[ 3 ] = 0x42;
   // A known option of the wrong length before a good hold time and generation id.
   Hello want;
   want.source = e.src;
   want.destination = e.dst;
   want.holdtimePresent = want.generationIdPresent = true;
   want.holdtime = 105;
   want.generationId = 0x12345678;
   const auto wrong = [ & ]( std::uint16_t type, std::vector< std::uint8_t > value ) {
      return Raw().option( type, value ).option( 1, { 0, 105 } ).option( 20, { 0x12, 0x34, 0x56, 0x78 } ).sealed( e );
   };
   const DecodeStats badLength{ 3, 0, 1, 0, 0, 0, 0, 0 };
   const auto isWant = [ & ]( const Hello & h ) { EXPECT_EQ( h, want ) << h; };
   struct Case {
      const char * what;
      std::vector< std::uint8_t > bytes;
      DecodeStats stats;   // options, unknown, bad length, repeated, other family, bad entries, dropped, repeated addresses
      std::function< void( const Hello & ) > check;
   };
   const Case cases[] = {
      { "bad address lists lose only themselves",
        Raw()
           .option( 24, cat( { good, truncated } ) )
           .option( 24, cat( { good, badEncoding } ) )
           .option( 24, cat( { good, { 7, 0, 1, 2, 3, 4 } } ) )   // unknown family
           .option( 24, good )
           .sealed( e ),
        { 4, 0, 1, 0, 0, 2, 0, 0 }, [ & ]( const Hello & h ) { EXPECT_EQ( h.addressList, std::vector< Addr >{ e.src } ); } },
      { "unknown options",
        Raw()
           .option( 0, {} )
           .option( 21, { 1, 2, 3, 4 } )   // state refresh: not ours
           .option( 65001, { 1, 2, 3 } )
           .option( 19, { 0, 0, 0, 7 } )
           .option( 0xffff, std::vector< std::uint8_t >( 300, 0xab ) )
           .sealed( e ),
        { 5, 4, 0, 0, 0, 0, 0, 0 }, []( const Hello & h ) { EXPECT_TRUE( h.drPriorityPresent && h.drPriority == 7 ); } },
      { "other family addresses",
        Raw().option( 24, cat( { encodedAddr( e.other ), encodedAddr( mine ), encodedAddr( e.other ) } ) ).sealed( e ),
        { 1, 0, 0, 0, 2, 0, 0, 0 }, [ & ]( const Hello & h ) { EXPECT_EQ( h.addressList, std::vector< Addr >{ mine } ); } },
      { "a repeated option: the last one wins",
        Raw().option( 1, { 0, 10 } ).option( 22, {} ).option( 1, { 0, 20 } ).option( 22, {} ).sealed( e ),
        { 4, 0, 0, 2, 0, 0, 0, 0 }, []( const Hello & h ) { EXPECT_TRUE( h.holdtime == 20 && h.bidirCapable ); } },
      { "holdtime of 3 bytes", wrong( 1, { 0, 0, 105 } ), badLength, isWant },
      { "LAN prune delay of 3", wrong( 2, { 0x01, 0xf4, 0x09 } ), badLength, isWant },
      { "priority of 5", wrong( 19, { 0, 0, 0, 0, 1 } ), badLength, isWant },
      { "generation id of 2", wrong( 20, { 1, 2 } ), badLength, isWant },
      { "bidir capable with a value", wrong( 22, { 0 } ), badLength, isWant },
      { "interface id of 4", wrong( 31, { 0, 0, 0, 1 } ), badLength, isWant },
      { "IPv4 AFI, 2-byte address", wrong( 28, { 1, 0, 0, 0, 198, 18 } ), badLength, isWant },
      { "IPv6 AFI, 4-byte address", wrong( 27, { 2, 0, 0, 0, 198, 18, 0, 1 } ), badLength, isWant },
      { "unknown AFI", wrong( 28, { 9, 0, 0, 0 } ), badLength, isWant },
      { "truncated address entry", wrong( 24, { 1, 0, 198, 18, 0 } ), badLength, isWant },
   };
   for ( const Case & c : cases ) {
      SCOPED_TRACE( c.what );
      DecodeResult r = decode( c.bytes, e );
      ASSERT_TRUE( r.ok() ) << r.reason;
      EXPECT_EQ( r.stats, c.stats ) << r.stats;
      c.check( r.hello );
   }
}

INSTANTIATE_TEST_SUITE_P( Families, Lenient, ::testing::Values( Family::ipv4, Family::ipv6 ),
                          []( const auto & info ) { return familyName( info.param ); } );

// Our encodings as tshark's PIM dissector reads them: the checksum must be
// good and every option value must come out as we meant it. Skipped where
// tshark is not installed.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <unistd.h>

#include "PcapIo.h"
#include "services/pimwire/HelloCodec.h"

using namespace PimWire;
using namespace PimWireTest;

namespace {

bool haveTshark() {
   return std::system( "tshark -v >/dev/null 2>&1" ) == 0;
}

std::string run( const std::string & cmd ) {
   std::string out;
   FILE * f = popen( cmd.c_str(), "r" );
   if ( !f ) {
      return out;
   }
   char buf[ 4096 ];
   std::size_t n;
   while ( ( n = fread( buf, 1, sizeof( buf ), f ) ) > 0 ) {
      out.append( buf, n );
   }
   pclose( f );
   return out;
}

std::vector< std::string > split( const std::string & s, char sep ) {
   std::vector< std::string > out;
   std::string cur;
   std::istringstream in( s );
   while ( std::getline( in, cur, sep ) ) {
      out.push_back( cur );
   }
   if ( !s.empty() && s.back() == sep ) {
      out.push_back( "" );
   }
   return out;
}

const std::vector< std::string > kFields = {
   "pim.cksum.status", "pim.optiontype",         "pim.holdtime",
   "pim.t",            "pim.propagation_delay",  "pim.override_interval",
   "pim.dr_priority",  "pim.generation_id",      "pim.address_list",
   "pim.address_list_ip6", "pim.optionvalue",
};

using Row = std::map< std::string, std::string >;

// One row of field values per frame of the file.
std::vector< Row > tsharkFields( const std::string & pcap ) {
   std::string cmd = "tshark -n -r '" + pcap + "' -T fields -E separator='|' -E occurrence=a -E aggregator=,";
   for ( const auto & f : kFields ) {
      cmd += " -e " + f;
   }
   cmd += " 2>/dev/null";
   std::vector< Row > rows;
   for ( const std::string & line : split( run( cmd ), '\n' ) ) {
      if ( line.empty() ) {
         continue;
      }
      auto cols = split( line, '|' );
      Row r;
      for ( std::size_t i = 0; i < kFields.size() && i < cols.size(); ++i ) {
         r[ kFields[ i ] ] = cols[ i ];
      }
      rows.push_back( r );
   }
   return rows;
}

std::string hex( const std::vector< std::uint8_t > & b ) {
   static const char d[] = "0123456789abcdef";
   std::string s;
   for ( auto x : b ) {
      s += d[ x >> 4 ];
      s += d[ x & 0xf ];
   }
   return s;
}

std::string join( const std::vector< std::string > & v ) {
   std::string s;
   for ( std::size_t i = 0; i < v.size(); ++i ) {
      s += ( i ? "," : "" ) + v[ i ];
   }
   return s;
}

struct Sample {
   Hello hello;
   Family family;
   Addr src;
   Addr dst;
};

Hello fullHello( Family f ) {
   Hello h;
   h.holdtimePresent = true;
   h.holdtime = 105;
   h.lanPruneDelay = { true, true, 1234, 4321 };
   h.drPriorityPresent = true;
   h.drPriority = 0xdeadbeef;
   h.generationIdPresent = true;
   h.generationId = 0x01020304;
   h.bidirCapable = true;
   if ( f == Family::ipv4 ) {
      h.addressList = { *Addr::parse( "198.18.1.1" ), *Addr::parse( "198.19.255.254" ) };
   } else {
      h.addressList = { *Addr::parse( "2001:db8::1:1" ), *Addr::parse( "2001:db8:ffff::2" ) };
   }
   h.interfaceId = { true, 0xc6120001, 42 };
   h.sctpCapable = { true, 0x3, *Addr::parse( "2001:db8::99" ) };
   return h;
}

class TsharkCrossCheck : public ::testing::Test {
 protected:
   void SetUp() override {
      if ( !haveTshark() ) {
         GTEST_SKIP() << "tshark is not installed; dissector cross-check skipped";
      }
      dir_ = std::filesystem::temp_directory_path() /
             ( "pimwire-tshark-" + std::to_string( getpid() ) );
      std::filesystem::create_directories( dir_ );
   }
   void TearDown() override {
      if ( !dir_.empty() ) {
         std::error_code ec;
         std::filesystem::remove_all( dir_, ec );
      }
   }
   std::vector< Row > dissect( const std::vector< PimPacket > & packets ) {
      std::vector< Bytes > frames;
      for ( const auto & p : packets ) {
         frames.push_back( frameForPim( p ) );
      }
      std::string path = ( dir_ / "hellos.pcap" ).string();
      EXPECT_TRUE( writePcap( path, frames ) );
      return tsharkFields( path );
   }
   std::filesystem::path dir_;
};

} // namespace

TEST_F( TsharkCrossCheck, OurHellosHaveGoodChecksumsAndTheSameValues ) {
   std::vector< Sample > samples;
   for ( Family f : { Family::ipv4, Family::ipv6 } ) {
      Addr src = *Addr::parse( f == Family::ipv4 ? "198.18.0.1" : "fe80::1" );
      Addr dst = *Addr::parse( f == Family::ipv4 ? "224.0.0.13" : "ff02::d" );
      samples.push_back( { fullHello( f ), f, src, dst } );
      Hello minimal;
      minimal.holdtimePresent = true;
      minimal.holdtime = 0;
      samples.push_back( { minimal, f, src, dst } );
      Hello tcp;
      tcp.holdtimePresent = true;
      tcp.holdtime = 0xffff;
      tcp.tcpCapable = { true, 0, *Addr::parse( "198.18.2.2" ) };
      tcp.interfaceId = { true, 0, 7 };
      samples.push_back( { tcp, f, src, dst } );
   }
   // Global IPv6 source too: the pseudo-header must use it.
   samples.push_back( { fullHello( Family::ipv6 ), Family::ipv6, *Addr::parse( "2001:db8::5" ),
                        *Addr::parse( "ff02::d" ) } );

   std::vector< PimPacket > packets;
   for ( const Sample & s : samples ) {
      PimPacket p{ s.family, s.src, s.dst, encodeHello( s.hello, s.family, s.src, s.dst ) };
      ASSERT_FALSE( p.payload.empty() );
      packets.push_back( p );
   }
   auto rows = dissect( packets );
   ASSERT_EQ( rows.size(), samples.size() );
   for ( std::size_t i = 0; i < samples.size(); ++i ) {
      SCOPED_TRACE( "frame " + std::to_string( i + 1 ) + ": " + toString( samples[ i ].hello ) );
      const Hello & h = samples[ i ].hello;
      Row & r = rows[ i ];
      EXPECT_EQ( r[ "pim.cksum.status" ], "1" ) << "1 is tshark's 'Good'";

      std::vector< std::string > types;
      std::vector< std::string > values; // options tshark shows as raw bytes
      if ( h.holdtimePresent ) types.push_back( "1" );
      if ( h.lanPruneDelay.present ) types.push_back( "2" );
      if ( h.drPriorityPresent ) types.push_back( "19" );
      if ( h.generationIdPresent ) types.push_back( "20" );
      if ( h.bidirCapable ) types.push_back( "22" );
      if ( !h.addressList.empty() ) types.push_back( "24" );
      if ( h.tcpCapable.present ) types.push_back( "27" );
      if ( h.sctpCapable.present ) types.push_back( "28" );
      if ( h.interfaceId.present ) types.push_back( "31" );
      EXPECT_EQ( r[ "pim.optiontype" ], join( types ) );

      EXPECT_EQ( r[ "pim.holdtime" ], h.holdtimePresent ? std::to_string( h.holdtime ) : "" );
      if ( h.lanPruneDelay.present ) {
         EXPECT_EQ( r[ "pim.t" ], h.lanPruneDelay.tBit ? "1" : "0" );
         EXPECT_EQ( r[ "pim.propagation_delay" ], std::to_string( h.lanPruneDelay.propagationDelay ) );
         EXPECT_EQ( r[ "pim.override_interval" ], std::to_string( h.lanPruneDelay.overrideInterval ) );
      }
      EXPECT_EQ( r[ "pim.dr_priority" ], h.drPriorityPresent ? std::to_string( h.drPriority ) : "" );
      EXPECT_EQ( r[ "pim.generation_id" ],
                 h.generationIdPresent ? std::to_string( h.generationId ) : "" );
      std::vector< std::string > addrs;
      for ( const Addr & a : h.addressList ) {
         addrs.push_back( a.toString() );
      }
      EXPECT_EQ( r[ samples[ i ].family == Family::ipv4 ? "pim.address_list" : "pim.address_list_ip6" ],
                 join( addrs ) );

      auto transportHex = []( const TransportCapable & t ) {
         Bytes b{ std::uint8_t( t.connectionAddr.family ), std::uint8_t( t.flags >> 16 ),
                  std::uint8_t( t.flags >> 8 ), std::uint8_t( t.flags ) };
         b.insert( b.end(), t.connectionAddr.bytes.begin(),
                   t.connectionAddr.bytes.begin() + long( t.connectionAddr.size() ) );
         return hex( b );
      };
      if ( h.tcpCapable.present ) values.push_back( transportHex( h.tcpCapable ) );
      if ( h.sctpCapable.present ) values.push_back( transportHex( h.sctpCapable ) );
      if ( h.interfaceId.present ) {
         const auto & id = h.interfaceId;
         values.push_back( hex( { std::uint8_t( id.routerId >> 24 ), std::uint8_t( id.routerId >> 16 ),
                                  std::uint8_t( id.routerId >> 8 ), std::uint8_t( id.routerId ),
                                  std::uint8_t( id.ifIndex >> 24 ), std::uint8_t( id.ifIndex >> 16 ),
                                  std::uint8_t( id.ifIndex >> 8 ), std::uint8_t( id.ifIndex ) } ) );
      }
      EXPECT_EQ( r[ "pim.optionvalue" ], join( values ) );
   }
}

TEST_F( TsharkCrossCheck, TsharkAndWeAgreeOnBadChecksums ) {
   std::vector< PimPacket > packets;
   for ( Family f : { Family::ipv4, Family::ipv6 } ) {
      Addr src = *Addr::parse( f == Family::ipv4 ? "198.18.0.1" : "fe80::1" );
      Addr dst = *Addr::parse( f == Family::ipv4 ? "224.0.0.13" : "ff02::d" );
      PimPacket p{ f, src, dst, encodeHello( fullHello( f ), f, src, dst ) };
      p.payload[ 5 ] ^= 0x10;
      DecodeResult r = decodeHello( p.payload.data(), p.payload.size(), f, src, dst );
      EXPECT_EQ( r.reason, RejectReason::badChecksum );
      packets.push_back( p );
   }
   auto rows = dissect( packets );
   ASSERT_EQ( rows.size(), packets.size() );
   for ( auto & r : rows ) {
      EXPECT_EQ( r[ "pim.cksum.status" ], "0" ) << "0 is tshark's 'Bad'";
   }
}

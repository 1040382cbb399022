// What pimnbrd puts on the wire, as tshark's PIM dissector reads it: a
// capture on the daemon's veth holds every Hello the daemon counted as sent,
// IPv4 and IPv6, each with a good checksum and the configured options, and
// the goodbye of the stop last.
#include <iostream>
#include <map>
#include <sstream>

#include "NetnsDaemonFixture.h"

namespace {

using namespace PimnbrdNetns;
using std::chrono::milliseconds;

std::vector< std::string > split( const std::string & s, char sep ) {
   std::vector< std::string > out;
   std::string item;
   std::istringstream in( s );
   while( std::getline( in, item, sep ) ) out.push_back( item );
   if( !s.empty() && s.back() == sep ) out.push_back( "" );
   return out;
}

const std::vector< std::string > kFields = { "ip.src",           "ipv6.src",          "ip.dst",
                                             "ipv6.dst",         "pim.cksum.status",  "pim.holdtime",
                                             "pim.dr_priority",  "pim.propagation_delay",
                                             "pim.override_interval", "pim.generation_id" };
using Row = std::map< std::string, std::string >;

// Every PIM Hello of the capture, one row of fields each.
std::vector< Row > hellos( const std::string & pcap ) {
   std::string cmd = "tshark -n -r '" + pcap + "' -Y 'pim.type == 0' -T fields -E separator='|' -E occurrence=a";
   for( const auto & f : kFields ) cmd += " -e " + f;
   std::vector< Row > rows;
   for( const auto & line : split( commandOutput( cmd + " 2>/dev/null" ), '\n' ) ) {
      const auto cols = split( line, '|' );
      if( cols.size() != kFields.size() ) continue;
      Row r;
      for( std::size_t i = 0; i < cols.size(); ++i ) r[ kFields[ i ] ] = cols[ i ];
      rows.push_back( r );
   }
   return rows;
}

std::string row( const Row & r ) {
   std::string s;
   for( const auto & [ k, v ] : r ) s += k + "=" + v + " ";
   return s;
}

class HelloCaptureTest : public DaemonNetnsTest {
 protected:
   void SetUp() override {
      if( std::system( "command -v tshark >/dev/null 2>&1 && command -v dumpcap >/dev/null 2>&1" ) != 0 ) {
         GTEST_SKIP() << "tshark and dumpcap are not installed; scripts/setup.sh installs tshark";
      }
      DaemonNetnsTest::SetUp();
   }
   void TearDown() override {
      if( capture_ > 0 ) {
         ::kill( capture_, SIGKILL );
         ::waitpid( capture_, nullptr, 0 );
      }
      DaemonNetnsTest::TearDown();
   }
   pid_t capture_ = 0;
};

TEST_F( HelloCaptureTest, EveryHelloSentDecodesWithTheConfiguredOptions ) {
   Daemon * d = router( "c", "198.18.20.1/24", "2001:db8:20::1/64" );
   ASSERT_TRUE( d );
   d->configIs( "address-families: [ipv4, ipv6]\nvrfs:\n  default:\n    interfaces:\n      " + d->intf() +
                ":\n        hello-interval: 1\n        hello-holdtime: 7\n        dr-priority: 42\n" );
   // The LAN prune delay goes out with its defaults (500 ms, 2500 ms): the
   // file's propagation-delay and override-interval do not reach the agent.
   // The capture stops by itself, well after the goodbye, so that nothing
   // still queued for it is lost.
   const std::string pcap = dir_ + "/hellos.pcapng";
   capture_ = ::fork();
   ASSERT_GE( capture_, 0 );
   if( capture_ == 0 ) {
      std::freopen( "/dev/null", "w", stderr );
      ::execlp( "ip", "ip", "netns", "exec", d->netns().c_str(), "dumpcap", "-q", "-i", d->intf().c_str(), "-a",
                "duration:5", "-w", pcap.c_str(), static_cast< char * >( nullptr ) );
      ::_exit( 127 );
   }
   const auto t0 = Clock::now();
   ASSERT_TRUE( pollFor( [ & ] { return std::ifstream( pcap, std::ios::ate ).tellg() > 0; }, milliseconds( 3000 ) ) )
      << "dumpcap did not start";
   ASSERT_TRUE( d->start() );

   struct Family {
      const char * show;   // pimnbr's family word
      const char * src;    // tshark's fields
      const char * dst;
      const char * group;
      const char * from;   // how the source address begins
   };
   const Family kFamilies[] = { { "ip", "ip.src", "ip.dst", "224.0.0.13", "198.18.20.1" },
                                { "ipv6", "ipv6.src", "ipv6.dst", "ff02::d", "fe80::" } };
   auto helloTx = [ & ]( const Family & f ) {
      const Json j = d->show( f.show, "interface traffic" );
      return j.is_object() && j.contains( "*" ) ? j[ "*" ].value( "helloTx", 0u ) : 0u;
   };
   // Three Hellos of each family, then a stop: its goodbyes come last.
   unsigned sent[ 2 ] = {};
   ASSERT_TRUE( pollFor(
      [ & ] {
         for( int i = 0; i < 2; ++i ) sent[ i ] = helloTx( kFamilies[ i ] );
         return sent[ 0 ] >= 3 && sent[ 1 ] >= 3;
      },
      milliseconds( 4000 ) ) )
      << "Hellos counted as sent: " << sent[ 0 ] << " IPv4, " << sent[ 1 ] << " IPv6";
   d->signal( SIGTERM );
   ASSERT_EQ( d->exited( milliseconds( 1000 ) ), 0 );
   ASSERT_LT( Clock::now() - t0, milliseconds( 4500 ) ) << "the goodbyes may have missed the capture";
   int status = 0;
   ASSERT_TRUE( pollFor( [ & ] { return ::waitpid( capture_, &status, WNOHANG ) == capture_; }, milliseconds( 3000 ) ) );
   capture_ = 0;
   ASSERT_TRUE( WIFEXITED( status ) && WEXITSTATUS( status ) == 0 ) << "dumpcap failed";

   const std::vector< Row > all = hellos( pcap );
   for( int i = 0; i < 2; ++i ) {
      const Family & f = kFamilies[ i ];
      SCOPED_TRACE( f.show );
      std::vector< Row > rows;
      for( const Row & r : all ) {
         if( !r.at( f.src ).empty() ) rows.push_back( r );
      }
      // The counter was read after those Hellos went out; the goodbye is one more.
      ASSERT_GE( rows.size(), sent[ i ] + 1 );
      std::cout << "[ measured ] " << f.show << ": " << rows.size() << " Hellos captured, " << sent[ i ]
                << " counted as sent before the stop\n";
      ASSERT_FALSE( rows[ 0 ].at( "pim.generation_id" ).empty() );
      for( std::size_t n = 0; n < rows.size(); ++n ) {
         const Row & r = rows[ n ];
         SCOPED_TRACE( row( r ) );
         // The goodbye carries the hold time alone.
         const bool bye = n + 1 == rows.size();
         auto unlessBye = [ & ]( const std::string & v ) { return bye ? "" : v; };
         EXPECT_EQ( r.at( "pim.cksum.status" ), "1" ) << "1 is tshark's 'Good'";
         EXPECT_EQ( r.at( f.dst ), f.group );
         EXPECT_EQ( r.at( f.src ), rows[ 0 ].at( f.src ) );
         EXPECT_EQ( r.at( "pim.holdtime" ), bye ? "0" : "7" );
         EXPECT_EQ( r.at( "pim.dr_priority" ), unlessBye( "42" ) );
         EXPECT_EQ( r.at( "pim.propagation_delay" ), unlessBye( "500" ) );
         EXPECT_EQ( r.at( "pim.override_interval" ), unlessBye( "2500" ) );
         EXPECT_EQ( r.at( "pim.generation_id" ), unlessBye( rows[ 0 ].at( "pim.generation_id" ) ) );
      }
      EXPECT_EQ( rows[ 0 ].at( f.src ).rfind( f.from, 0 ), 0u ) << rows[ 0 ].at( f.src );
   }
}

} // namespace

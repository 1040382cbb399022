// What pimnbrd puts on the wire, as tshark's PIM dissector reads it: tshark
// capturing live on the daemon's veth lists every Hello the daemon counted as
// sent, IPv4 and IPv6, each with a good checksum and the configured options,
// and the goodbye of the stop last.
#include <fcntl.h>

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

const std::vector< std::string > kFields = { "ip.src",          "ipv6.src",        "ip.dst",
                                             "ipv6.dst",        "pim.type",        "pim.cksum.status",
                                             "pim.holdtime",    "pim.dr_priority", "pim.propagation_delay",
                                             "pim.override_interval", "pim.generation_id" };
using Row = std::map< std::string, std::string >;

std::string row( const Row & r ) {
   std::string s;
   for( const auto & [ k, v ] : r ) s += k + "=" + v + " ";
   return s;
}

// tshark capturing live in a namespace: one row of fields per PIM packet, as
// it arrives.
class LiveCapture {
 public:
   ~LiveCapture() {
      if( pid_ > 0 ) {
         // tshark stops its dumpcap itself; kill only if it does not.
         ::kill( pid_, SIGINT );
         if( !pollFor( [ & ] { return ::waitpid( pid_, nullptr, WNOHANG ) == pid_; }, milliseconds( 3000 ) ) ) {
            ::kill( pid_, SIGKILL );
            ::waitpid( pid_, nullptr, 0 );
         }
      }
      for( int fd : { out_, err_ } ) {
         if( fd >= 0 ) ::close( fd );
      }
   }
   // True once tshark says it is capturing.
   bool start( const std::string & netns, const std::string & intf ) {
      int out[ 2 ], err[ 2 ];
      if( ::pipe2( out, O_CLOEXEC ) != 0 || ::pipe2( err, O_CLOEXEC ) != 0 ) return false;
      std::vector< std::string > args = { "ip", "netns", "exec", netns, "tshark", "-l", "-n", "-i", intf, "-f",
                                          "ip proto 103 or ip6 proto 103", "-T", "fields", "-E", "separator=|",
                                          "-E", "occurrence=a" };
      for( const auto & f : kFields ) args.insert( args.end(), { "-e", f } );
      std::vector< char * > argv;
      for( auto & a : args ) argv.push_back( a.data() );
      argv.push_back( nullptr );
      pid_ = ::fork();
      if( pid_ == 0 ) {
         ::dup2( out[ 1 ], 1 );
         ::dup2( err[ 1 ], 2 );
         ::execvp( "ip", argv.data() );
         ::_exit( 127 );
      }
      ::close( out[ 1 ] );
      ::close( err[ 1 ] );
      out_ = out[ 0 ];
      err_ = err[ 0 ];
      std::string said;
      return pid_ > 0 && NetnsLab::waitFor(
                            err_, [ & ] { said += readSome( err_ ); },
                            [ & ] { return said.find( "Capturing on" ) != std::string::npos; }, milliseconds( 20000 ) );
   }
   // Reads rows until done holds or limit passes.
   bool readUntil( const std::function< bool() > & done, milliseconds limit ) {
      return NetnsLab::waitFor(
         out_,
         [ & ] {
            pending_ += readSome( out_ );
            for( std::size_t nl; ( nl = pending_.find( '\n' ) ) != std::string::npos; pending_.erase( 0, nl + 1 ) ) {
               const auto cols = split( pending_.substr( 0, nl ), '|' );
               Row r;
               for( std::size_t i = 0; i < cols.size() && i < kFields.size(); ++i ) r[ kFields[ i ] ] = cols[ i ];
               for( std::size_t i = cols.size(); i < kFields.size(); ++i ) r[ kFields[ i ] ] = "";
               rows_.push_back( r );
            }
         },
         done, limit );
   }
   const std::vector< Row > & rows() const { return rows_; }

 private:
   static std::string readSome( int fd ) {
      char buf[ 4096 ];
      const ssize_t n = ::read( fd, buf, sizeof buf );
      return n > 0 ? std::string( buf, std::size_t( n ) ) : std::string();
   }
   pid_t pid_ = 0;
   int out_ = -1, err_ = -1;
   std::string pending_;
   std::vector< Row > rows_;
};

class HelloCaptureTest : public DaemonNetnsTest {
 protected:
   void SetUp() override {
      if( std::system( "command -v tshark >/dev/null 2>&1" ) != 0 ) {
         GTEST_SKIP() << "tshark is not installed; scripts/setup.sh installs it";
      }
      DaemonNetnsTest::SetUp();
   }
};

TEST_F( HelloCaptureTest, EveryHelloSentDecodesWithTheConfiguredOptions ) {
   Daemon * d = router( "c", "198.18.20.1/24", "2001:db8:20::1/64" );
   ASSERT_TRUE( d );
   d->configIs( "address-families: [ipv4, ipv6]\nvrfs:\n  default:\n    interfaces:\n      " + d->intf() +
                ":\n        hello-interval: 1\n        hello-holdtime: 7\n        dr-priority: 42\n"
                "        propagation-delay: 750\n        override-interval: 3000\n" );
   LiveCapture capture;
   ASSERT_TRUE( capture.start( d->netns(), d->intf() ) ) << "tshark did not start capturing";
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
      milliseconds( 10000 ) ) )
      << "Hellos counted as sent: " << sent[ 0 ] << " IPv4, " << sent[ 1 ] << " IPv6";
   d->signal( SIGTERM );
   ASSERT_EQ( d->exited( milliseconds( 1000 ) ), 0 );
   auto goodbyes = [ & ] {
      int n = 0;
      for( const Row & r : capture.rows() ) n += r.at( "pim.holdtime" ) == "0";
      return n;
   };
   ASSERT_TRUE( capture.readUntil( [ & ] { return goodbyes() >= 2; }, milliseconds( 5000 ) ) )
      << "one goodbye per family; captured " << capture.rows().size() << " PIM packets";
   const std::vector< Row > & all = capture.rows();
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
         EXPECT_EQ( r.at( "pim.type" ), "0" ) << "a Hello";
         EXPECT_EQ( r.at( "pim.cksum.status" ), "1" ) << "1 is tshark's 'Good'";
         EXPECT_EQ( r.at( f.dst ), f.group );
         EXPECT_EQ( r.at( f.src ), rows[ 0 ].at( f.src ) );
         EXPECT_EQ( r.at( "pim.holdtime" ), bye ? "0" : "7" );
         EXPECT_EQ( r.at( "pim.dr_priority" ), unlessBye( "42" ) );
         EXPECT_EQ( r.at( "pim.propagation_delay" ), unlessBye( "750" ) );
         EXPECT_EQ( r.at( "pim.override_interval" ), unlessBye( "3000" ) );
         EXPECT_EQ( r.at( "pim.generation_id" ), unlessBye( rows[ 0 ].at( "pim.generation_id" ) ) );
      }
      EXPECT_EQ( rows[ 0 ].at( f.src ).rfind( f.from, 0 ), 0u ) << rows[ 0 ].at( f.src );
   }
}

} // namespace

// pimnbrd next to FRRouting's zebra and pimd (IPv4) on one LAN, each side
// watched only through its own show command: every router lists the others
// as neighbours and all agree on the DR, whatever the priority order; a
// stopped router (SIGTERM) says goodbye and the others forget it at once and
// elect again. FRR runs from its run directory /var/run/frr/<ns>, which
// holds its configuration too; nothing else of FRR's is touched. And
// tshark's PIM dissector on what the daemon sends.
#include <algorithm>
#include <filesystem>
#include <future>
#include <regex>
#include <iostream>
#include <set>
#include <sstream>

#include "NetnsDaemonFixture.h"

namespace {

using namespace PimnbrdNetns;
using std::chrono::milliseconds;

// One router's view of the LAN.
struct LanView {
   std::set< std::string > neighbours;
   std::string dr;
   bool operator==( const LanView & ) const = default;
};

std::ostream & operator<<( std::ostream & os, const LanView & v ) {
   os << "{";
   for( const auto & n : v.neighbours ) os << " " << n;
   return os << " } DR " << ( v.dr.empty() ? "none" : v.dr );
}

// Both show commands answer "<family> pim neighbor json" as {intf: {addr: ...}}
// and "interface json" with the interface's pimDesignatedRouter.
LanView lanView( const Json & nbrs, const Json & intfs, const std::string & intf ) {
   LanView v;
   if( nbrs.is_object() && nbrs.contains( intf ) && nbrs[ intf ].is_object() ) {
      for( const auto & n : nbrs[ intf ].items() ) v.neighbours.insert( n.key() );
   }
   if( intfs.is_object() && intfs.contains( intf ) && intfs[ intf ].contains( "pimDesignatedRouter" ) ) {
      v.dr = intfs[ intf ][ "pimDesignatedRouter" ].get< std::string >();
   }
   return v;
}

// Alive and not a zombie.
bool alive( pid_t pid ) {
   std::ifstream stat( "/proc/" + std::to_string( pid ) + "/stat" );
   std::string line;
   if( pid <= 0 || !std::getline( stat, line ) ) return false;
   const auto paren = line.rfind( ')' );
   return paren != std::string::npos && line.size() > paren + 2 && line[ paren + 2 ] != 'Z';
}

constexpr unsigned kHoldtime = 10;   // far above the 2 s bound on a goodbye

class FrrRouter {
 public:
   FrrRouter( std::string netns, std::string intf ) : netns_( std::move( netns ) ), intf_( std::move( intf ) ) {}
   ~FrrRouter() {
      for( const char * d : { "pimd", "zebra" } ) {
         if( !stop( d, SIGTERM, milliseconds( 1000 ) ) ) stop( d, SIGKILL, milliseconds( 1000 ) );
      }
      NetnsLab::sh( "rm -rf '" + runDir() + "'" );
   }
   std::string runDir() const { return "/var/run/frr/" + netns_; }

   // Starts zebra and pimd; true once pimd runs PIM on the interface.
   bool start( unsigned drPriority ) {
      const std::string conf = runDir() + "/frr.conf";
      if( !NetnsLab::sh( "mkdir -p '" + runDir() + "'" ) ) return false;
      std::ofstream( conf ) << "log file " << runDir() << "/frr.log\ninterface " << intf_
                            << "\n ip pim\n ip pim hello 1 " << kHoldtime << "\n ip pim drpriority " << drPriority
                            << "\n!\n";
      if( !NetnsLab::sh( "chown -R frr:frr '" + runDir() + "'" ) ) return false;
      for( const char * d : { "zebra", "pimd" } ) {
         if( !NetnsLab::sh( "ip netns exec " + netns_ + " /usr/lib/frr/" + d + " -d -N " + netns_ + " -P 0 -f " +
                            conf ) ) {
            return false;
         }
      }
      return pollFor(
         [ & ] {
            const Json j = vtysh( "show ip pim interface json" );
            return j.is_object() && j.contains( intf_ ) && j[ intf_ ].value( "state", "" ) == "up";
         },
         milliseconds( 10000 ) );
   }
   // Signals daemon d if its pid file names a process of this router; true
   // once it is gone (or was never there) within limit.
   bool stop( const char * d, int signo, milliseconds limit ) const {
      std::ifstream pidFile( runDir() + "/" + d + ".pid" );
      pid_t pid = 0;
      if( !( pidFile >> pid ) || !alive( pid ) ) return true;
      std::ifstream cmdline( "/proc/" + std::to_string( pid ) + "/cmdline" );
      std::string args( ( std::istreambuf_iterator< char >( cmdline ) ), std::istreambuf_iterator< char >() );
      std::replace( args.begin(), args.end(), '\0', ' ' );
      if( args.find( " -N " + netns_ + " " ) == std::string::npos ) return true;   // a reused pid
      ::kill( pid, signo );
      return pollFor( [ & ] { return !alive( pid ); }, limit );
   }
   Json vtysh( const std::string & cmd ) const {
      return Json::parse( NetnsLab::output( "vtysh -N " + netns_ + " -c '" + cmd + "' 2>/dev/null" ), nullptr, false );
   }
   LanView view() const {
      return lanView( vtysh( "show ip pim neighbor json" ), vtysh( "show ip pim interface json" ), intf_ );
   }

 private:
   std::string netns_;
   std::string intf_;
};

// pimnbr as an operator runs it: in the router's namespace.
LanView oursView( const Daemon & d ) {
   auto show = [ & ]( const char * what ) {
      return Json::parse( NetnsLab::output( "ip netns exec " + d.netns() + " " + PIMNBR_BINARY + " --state-dir '" +
                                         d.stateDir() + "' show ip pim " + what + " json 2>/dev/null" ),
                          nullptr, false );
   };
   return lanView( show( "neighbor" ), show( "interface" ), d.intf() );
}

struct Member {
   bool frr;
   const char * addr;
   unsigned priority;
};

struct Case {
   const char * name;
   std::vector< Member > lan;
   const char * dr;
   std::size_t stopped;   // index into lan
   const char * drAfter;
};

const std::vector< Case > kCases = {
   { "ours has the higher priority", { { false, "1", 9 }, { true, "2", 1 } }, "1", 0, "2" },
   { "FRR has the higher priority", { { false, "2", 1 }, { true, "1", 9 } }, "1", 1, "2" },
   { "equal priority, ours has the higher address", { { false, "2", 5 }, { true, "1", 5 } }, "2", 0, "1" },
   { "equal priority, FRR has the higher address", { { false, "1", 5 }, { true, "2", 5 } }, "2", 1, "1" },
   // A third party is DR; after it leaves, priority still beats address.
   { "ours elected between FRR and ours", { { false, "1", 7 }, { true, "2", 3 }, { false, "3", 1 } }, "1", 0, "2" },
   { "FRR elected between two of ours", { { false, "1", 3 }, { true, "2", 7 }, { false, "3", 1 } }, "2", 1, "1" },
};

class FrrInteropTest : public DaemonNetnsTest {
 protected:
   void SetUp() override {
      if( ::access( "/usr/lib/frr/pimd", X_OK ) != 0 || ::access( "/usr/lib/frr/zebra", X_OK ) != 0 ||
          std::system( "command -v vtysh >/dev/null 2>&1" ) != 0 ) {
         GTEST_SKIP() << "FRRouting (zebra, pimd, vtysh) is not installed; scripts/setup.sh installs frr";
      }
      DaemonNetnsTest::SetUp();
      if( IsSkipped() || HasFatalFailure() ) return;
      // A run that died left FRR running in namespaces that are gone now.
      std::error_code ec;
      for( const auto & e : std::filesystem::directory_iterator( "/var/run/frr", ec ) ) {
         if( NetnsLab::orphaned( e.path().filename().string() ) ) {
            const FrrRouter stale( e.path().filename().string(), "" );   // stops its daemons, removes the directory
         }
      }
   }
   void TearDown() override {
      frr_.clear();   // before its namespaces go
      DaemonNetnsTest::TearDown();
   }
   void runCase( std::size_t c );
   std::vector< std::unique_ptr< FrrRouter > > frr_;
};

// All cases share the switch's bridge, so each one's routers go before the next.
TEST_F( FrrInteropTest, NeighboursDrAndGoodbyesAgreeWithFrr ) {
   for( std::size_t c = 0; c < kCases.size() && !HasFatalFailure(); ++c ) {
      SCOPED_TRACE( kCases[ c ].name );
      runCase( c );
      frr_.clear();
      for( auto & d : daemons_ ) {
         d->signal( SIGKILL );
         d->exited( milliseconds( 1000 ) );
      }
   }
}

void FrrInteropTest::runCase( std::size_t c ) {
   const Case & k = kCases[ c ];
   const std::string net = "198.18." + std::to_string( 10 + c ) + ".";
   // Per member: its address and how to see its view.
   std::vector< std::string > addrs;
   std::vector< std::function< LanView() > > views;
   std::vector< Daemon * > ours;
   FrrRouter * frr = nullptr;
   for( std::size_t m = 0; m < k.lan.size(); ++m ) {
      const Member & mb = k.lan[ m ];
      addrs.push_back( net + mb.addr );
      Daemon * d = router( std::to_string( c ) + ( mb.frr ? "f" : "o" ) + std::to_string( m ),
                           addrs.back() + "/24", "2001:db8:" + std::to_string( 10 + c ) + "::" + mb.addr + "/64" );
      ASSERT_TRUE( d );
      if( mb.frr ) {
         frr_.push_back( std::make_unique< FrrRouter >( d->netns(), d->intf() ) );
         frr = frr_.back().get();
         ASSERT_TRUE( frr->start( mb.priority ) ) << NetnsLab::output( "tail -20 '" + frr->runDir() + "/frr.log' 2>&1" );
         views.push_back( [ frr ] { return frr->view(); } );
         ours.push_back( nullptr );
      } else {
         d->configIs( "vrfs:\n  default:\n    interfaces:\n      " + d->intf() +
                      ":\n        hello-interval: 1\n        hello-holdtime: " + std::to_string( kHoldtime ) +
                      "\n        dr-priority: " + std::to_string( mb.priority ) + "\n" );
         views.push_back( [ d ] { return oursView( *d ); } );
         ours.push_back( d );
      }
   }
   // All views at once: the show commands run side by side.
   auto viewsNow = [ & ] {
      std::vector< std::future< LanView > > asked;
      for( const auto & v : views ) asked.push_back( std::async( std::launch::async, v ) );
      std::vector< LanView > now;
      for( auto & a : asked ) now.push_back( a.get() );
      return now;
   };
   // Every member but gone sees the others but gone, and the DR.
   auto agreed = [ & ]( const std::string & dr, std::size_t gone ) {
      const auto now = viewsNow();
      for( std::size_t m = 0; m < now.size(); ++m ) {
         LanView want{ {}, net + dr };
         for( std::size_t o = 0; o < addrs.size(); ++o ) {
            if( o != m && o != gone ) want.neighbours.insert( addrs[ o ] );
         }
         if( m != gone && !( now[ m ] == want ) ) return false;
      }
      return true;
   };
   auto report = [ & ] {
      std::ostringstream os;
      const auto now = viewsNow();
      for( std::size_t m = 0; m < now.size(); ++m ) {
         os << addrs[ m ] << ( k.lan[ m ].frr ? " (FRR)" : "" ) << " sees " << now[ m ] << "\n";
      }
      return os.str();
   };

   for( Daemon * d : ours ) {
      ASSERT_TRUE( !d || d->start() );
   }
   // The clock starts once every router runs PIM on its interface: start-up
   // is not discovery.
   ASSERT_TRUE( pollFor(
      [ & ] {
         return std::all_of( ours.begin(), ours.end(),
                             [ & ]( Daemon * d ) { return !d || d->show( "ip", "interface" ).contains( d->intf() ); } );
      },
      milliseconds( 10000 ) ) );
   const auto t0 = Clock::now();
   const bool formed = pollFor( [ & ] { return agreed( k.dr, k.lan.size() ); }, milliseconds( 2000 ) );
   EXPECT_TRUE( formed ) << "all neighbours and DR " << net << k.dr << " within 2 s\n" << report();
   std::cout << "[ measured ] " << k.name << ": neighbours and DR agreed after "
             << std::chrono::duration_cast< milliseconds >( Clock::now() - t0 ).count() << " ms\n";
   if( !formed ) return;

   if( k.lan[ k.stopped ].frr ) {
      EXPECT_TRUE( frr->stop( "pimd", SIGTERM, milliseconds( 1000 ) ) );
   } else {
      ours[ k.stopped ]->signal( SIGTERM );
      EXPECT_EQ( ours[ k.stopped ]->exited( milliseconds( 1000 ) ), 0 );
   }
   // Forgotten long before its hold time runs out: it said goodbye.
   EXPECT_TRUE( pollFor( [ & ] { return agreed( k.drAfter, k.stopped ); }, milliseconds( 2000 ) ) )
      << "DR " << net << k.drAfter << ", " << addrs[ k.stopped ] << " gone within 2 s (hold time " << kHoldtime
      << " s)\n"
      << report();
}

// tshark's dissector live on the daemon's veth: every Hello the daemon
// counted as sent is on the wire with TTL / hop limit 1, a good checksum,
// the configured options and one generation id, and the goodbye (hold time
// alone) comes last, in both families.
using TsharkCaptureTest = DaemonNetnsTest;
TEST_F( TsharkCaptureTest, EveryHelloSentDecodesWithTheConfiguredOptions ) {
   if( std::system( "command -v tshark >/dev/null 2>&1" ) != 0 ) GTEST_SKIP() << "tshark is not installed";
   Daemon * d = router( "c", "198.18.20.1/24", "2001:db8:20::1/64" );
   ASSERT_TRUE( d );
   d->configIs( "address-families: [ipv4, ipv6]\nvrfs:\n  default:\n    interfaces:\n      " + d->intf() +
                ":\n        hello-interval: 1\n        hello-holdtime: 7\n        dr-priority: 42\n"
                "        propagation-delay: 750\n        override-interval: 3000\n" );
   // The shell's pid becomes tshark's; its stderr ("Capturing on") joins the rows.
   FILE * p = ::popen( ( "echo $$; exec ip netns exec " + d->netns() + " tshark -l -n -i " + d->intf() +
                         " -f 'ip proto 103 or ip6 proto 103' -T fields -E separator='|' -e ip.src -e ip.dst"
                         " -e ipv6.src -e ipv6.dst -e ip.ttl -e ipv6.hlim -e pim.type -e pim.cksum.status -e pim.holdtime"
                         " -e pim.dr_priority -e pim.propagation_delay -e pim.override_interval"
                         " -e pim.generation_id 2>&1" )
                          .c_str(),
                       "r" );
   ASSERT_TRUE( p );
   std::string out, said;   // said: tshark's pid and stderr
   std::vector< std::string > rows[ 2 ];   // IPv4, IPv6
   auto read = [ & ] {
      char buf[ 4096 ];
      const ssize_t n = ::read( fileno( p ), buf, sizeof buf );
      out.append( buf, std::size_t( std::max( n, ssize_t( 0 ) ) ) );
      for( std::size_t nl; ( nl = out.find( '\n' ) ) != std::string::npos; out.erase( 0, nl + 1 ) ) {
         const std::string line = out.substr( 0, nl );
         if( line.find( '|' ) == std::string::npos ) said += line + "\n";
         else rows[ line[ 0 ] == '|' ].push_back( line );
      }
   };
   const bool capturing = NetnsLab::waitFor(
      fileno( p ), read, [ & ] { return said.find( "Capturing on" ) != std::string::npos; }, milliseconds( 20000 ) );
   const pid_t tshark = pid_t( std::atoi( said.c_str() ) );
   ASSERT_TRUE( capturing && tshark > 0 ) << said;
   ASSERT_TRUE( d->start() );
   unsigned sent[ 2 ] = {};   // Hellos the daemon counted as sent
   ASSERT_TRUE( pollFor(
      [ & ] {
         for( int f = 0; f < 2; ++f ) {
            const Json j = d->show( f ? "ipv6" : "ip", "interface traffic" );
            sent[ f ] = j.is_object() && j.contains( "*" ) ? j[ "*" ].value( "helloTx", 0u ) : 0u;
         }
         return sent[ 0 ] >= 3 && sent[ 1 ] >= 3;
      },
      milliseconds( 10000 ) ) );
   d->signal( SIGTERM );
   ASSERT_EQ( d->exited( milliseconds( 1000 ) ), 0 );
   auto bye = []( const std::vector< std::string > & r ) {
      return !r.empty() && r.back().find( "|0|1|0|" ) != std::string::npos;
   };
   NetnsLab::waitFor(
      fileno( p ), read, [ & ] { return bye( rows[ 0 ] ) && bye( rows[ 1 ] ); }, milliseconds( 5000 ) );
   ::kill( tshark, SIGINT );
   ::pclose( p );
   for( int f = 0; f < 2; ++f ) {
      SCOPED_TRACE( f ? "IPv6" : "IPv4" );
      // The counter was read after those Hellos went out; the goodbye is one more.
      ASSERT_GE( rows[ f ].size(), sent[ f ] + 1 );
      const std::string & first = rows[ f ][ 0 ];
      const std::string addrs = first.substr( 0, first.find( "|0|" ) ), gid = first.substr( first.rfind( '|' ) + 1 );
      // Sources, groups, then TTL / hop limit 1.
      const std::regex want( f ? "\\|\\|fe80::[0-9a-f:]+\\|ff02::d\\|\\|1"
                               : "198\\.18\\.20\\.1\\|224\\.0\\.0\\.13\\|\\|\\|1\\|" );
      EXPECT_TRUE( std::regex_match( addrs, want ) ) << addrs;
      EXPECT_FALSE( gid.empty() );
      for( std::size_t n = 0; n < rows[ f ].size(); ++n ) {
         // Type 0 (Hello), checksum status 1 (good); the goodbye carries the hold time alone.
         EXPECT_EQ( rows[ f ][ n ], addrs + "|0|1|" + ( n + 1 == rows[ f ].size() ? "0||||" : "7|42|750|3000|" + gid ) );
      }
   }
}

} // namespace

#pragma once
// What the daemon tests in network namespaces share: a bounded poll, a
// one-interface configuration, the supervisor's end of NOTIFY_SOCKET, one
// daemon process watched through pimnbr, and a fixture that makes a LAN
// (veth legs on a bridge in a switch namespace) and routers on it.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "services/netns/test/NetnsLab.h"
#include "varn/shm/ShmTable.h"

namespace PimnbrdNetns {

using NetnsTest::NetnsLab;
using Clock = std::chrono::steady_clock;
using Json = nlohmann::json;

// Sanitized builds run the daemons and the show command several times
// slower, so their waits stretch by this factor; the timing bounds
// themselves are held in release builds.
#if defined( __SANITIZE_ADDRESS__ )
inline constexpr int kSlowdown = 6;
#else
inline constexpr int kSlowdown = 1;
#endif

// Polls cond every 20 ms until it holds or limit (stretched by kSlowdown)
// passes.
inline bool pollFor( const std::function< bool() > & cond, std::chrono::milliseconds limit ) {
   const auto end = Clock::now() + limit * kSlowdown;
   while( !cond() ) {
      if( Clock::now() >= end ) return false;
      std::this_thread::sleep_for( std::chrono::milliseconds( 20 ) );
   }
   return true;
}

inline std::string configText( const std::string & intf, const char * family, unsigned drPriority ) {
   return std::string( "address-families: [" ) + family + "]\nvrfs:\n  default:\n    interfaces:\n      " + intf +
          ":\n        hello-interval: 1\n        dr-priority: " + std::to_string( drPriority ) + "\n";
}

// The supervisor's end of NOTIFY_SOCKET: every datagram, one state per line.
class NotifyListener {
 public:
   explicit NotifyListener( std::string path ) : path_( std::move( path ) ) {
      fd_ = ::socket( AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0 );
      sockaddr_un a{};
      a.sun_family = AF_UNIX;
      path_.copy( a.sun_path, sizeof a.sun_path - 1 );
      if( fd_ >= 0 && ::bind( fd_, reinterpret_cast< sockaddr * >( &a ), sizeof a ) != 0 ) {
         ::close( fd_ );
         fd_ = -1;
      }
   }
   ~NotifyListener() {
      if( fd_ >= 0 ) ::close( fd_ );
      ::unlink( path_.c_str() );
   }
   const std::string & path() const { return path_; }
   bool valid() const { return fd_ >= 0; }
   // Reads until a datagram holds line (whole), or limit passes.
   bool waitFor( const std::string & line, std::chrono::milliseconds limit ) {
      bool seen = false;
      auto read = [ & ] {
         char buf[ 512 ];
         const ssize_t n = ::recv( fd_, buf, sizeof buf, MSG_DONTWAIT );
         seen = n > 0 && ( "\n" + std::string( buf, std::size_t( n ) ) + "\n" ).find( "\n" + line + "\n" ) != std::string::npos;
      };
      return NetnsLab::waitFor( fd_, read, [ & ] { return seen; }, limit * kSlowdown );
   }
 private:
   std::string path_;
   int fd_ = -1;
};

// One daemon: its namespace, configuration file, state directory, process.
class Daemon {
 public:
   Daemon( std::string netns, std::string intf, std::string dir )
         : netns_( std::move( netns ) ), intf_( std::move( intf ) ), dir_( std::move( dir ) ) {}
   ~Daemon() {
      signal( SIGKILL );
      exited( std::chrono::milliseconds( 2000 ) );
      // A killed writer leaves its tables behind.
      for( const auto & p : KivVarn::Shm::tablePaths( stateDir() ) ) {
         ::shm_unlink( KivVarn::Shm::objectName( stateDir(), p ).c_str() );
      }
   }
   std::string stateDir() const { return dir_ + "/state-" + netns_; }
   std::string configPath() const { return dir_ + "/" + netns_ + ".yaml"; }
   const std::string & intf() const { return intf_; }
   const std::string & netns() const { return netns_; }

   void configIs( const std::string & text ) const { std::ofstream( configPath() ) << text; }
   bool start( const NotifyListener * supervisor = nullptr ) {
      pid_ = ::fork();
      if( pid_ < 0 ) return false;
      if( pid_ == 0 ) {
         if( supervisor ) ::setenv( "NOTIFY_SOCKET", supervisor->path().c_str(), 1 );
         const std::string log = dir_ + "/" + netns_ + ".log";
         std::freopen( log.c_str(), "a", stderr );
         ::execlp( "ip", "ip", "netns", "exec", netns_.c_str(), PIMNBRD_BINARY, "-c", configPath().c_str(),
                   "--state-dir", stateDir().c_str(), static_cast< char * >( nullptr ) );
         ::_exit( 127 );
      }
      return true;
   }
   void signal( int signo ) const {
      if( pid_ > 0 ) ::kill( pid_, signo );
   }
   // Reaps the process within limit; its exit code, or -1.
   int exited( std::chrono::milliseconds limit ) {
      if( pid_ <= 0 ) return exitCode_;
      int status = 0;
      if( !pollFor( [ & ] { return ::waitpid( pid_, &status, WNOHANG ) == pid_; }, limit ) ) return -1;
      pid_ = 0;
      exitCode_ = WIFEXITED( status ) ? WEXITSTATUS( status ) : 128 + WTERMSIG( status );
      return exitCode_;
   }

   // pimnbr's JSON for "show <family> pim <what> json"; null when it fails.
   Json show( const char * family, const std::string & what ) const {
      return Json::parse( NetnsLab::output( std::string( PIMNBR_BINARY ) + " --state-dir '" + stateDir() + "' show " +
                                            family + " pim " + what + " json 2>/dev/null" ),
                          nullptr, false );
   }
   // The neighbours that "show <family> pim <what> json" lists on intf (the
   // daemon's own by default); what: "neighbor" or "vrf NAME neighbor".
   std::set< std::string > neighbours( const char * family, const char * what = "neighbor",
                                       const std::string & intf = {} ) const {
      const Json j = show( family, what );
      const std::string & i = intf.empty() ? intf_ : intf;
      std::set< std::string > out;
      if( j.is_object() && j.contains( i ) ) {
         for( const auto & n : j[ i ].items() ) out.insert( n.key() );
      }
      return out;
   }
   bool hasNeighbor( const char * family, const std::string & addr ) const {
      return neighbours( family ).count( addr ) > 0;
   }
   // A field of the daemon's interface in "show <family> pim interface json".
   std::string intfField( const char * family, const char * field = "pimDesignatedRouter" ) const {
      const Json j = show( family, "interface" );
      if( !j.is_object() || !j.contains( intf_ ) || !j[ intf_ ].contains( field ) ) return {};
      return j[ intf_ ][ field ].get< std::string >();
   }
   std::string dr( const char * family ) const { return intfField( family ); }

 private:
   std::string netns_;
   std::string intf_;
   std::string dir_;
   pid_t pid_ = 0;
   int exitCode_ = -1;
};

class DaemonNetnsTest : public ::testing::Test {
 protected:
   void SetUp() override {
      if( !NetnsLab::haveRoot() ) GTEST_SKIP() << "needs root to make network namespaces and run pimnbrd in them";
      char tmpl[] = "/tmp/pimnbrd-netns-XXXXXX";
      ASSERT_TRUE( ::mkdtemp( tmpl ) );
      dir_ = tmpl;
      sw_ = lab_.add( "sw" );
      ASSERT_FALSE( sw_.empty() );
      ASSERT_TRUE( NetnsLab::sh( "ip -n " + sw_ + " link add br0 type bridge && ip -n " + sw_ + " link set br0 up" ) );
   }
   void TearDown() override {
      daemons_.clear();
      if( !dir_.empty() ) NetnsLab::sh( "rm -rf '" + dir_ + "'" );
   }
   // A router namespace with one leg on the switch's bridge and the given addresses.
   Daemon * router( const std::string & tag, const std::string & addr4, const std::string & addr6,
                    const std::string & bridge = "br0" ) {
      const std::string ns = lab_.add( tag );
      const std::string intf = "e" + tag, leg = "s" + tag;
      if( ns.empty() ||
          !NetnsLab::sh( "ip link add " + intf + " netns " + ns + " type veth peer name " + leg + " netns " + sw_ ) ||
          !NetnsLab::sh( "ip -n " + sw_ + " link set " + leg + " master " + bridge + " up" ) ||
          !NetnsLab::sh( "ip -n " + ns + " addr add " + addr4 + " dev " + intf ) ||
          !NetnsLab::sh( "ip -n " + ns + " addr add " + addr6 + " dev " + intf + " nodad" ) ||
          !NetnsLab::sh( "ip -n " + ns + " link set " + intf + " up" ) ) {
         return nullptr;
      }
      daemons_.push_back( std::make_unique< Daemon >( ns, intf, dir_ ) );
      return daemons_.back().get();
   }

   NetnsLab lab_;
   std::string dir_;
   std::string sw_;
   std::vector< std::unique_ptr< Daemon > > daemons_;
};

} // namespace PimnbrdNetns

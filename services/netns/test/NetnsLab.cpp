#include "services/netns/test/NetnsLab.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace NetnsTest {

namespace {
const std::string kPrefix = "pimt";

std::string ownPrefix() { return kPrefix + std::to_string( ::getpid() ) + "-"; }
} // namespace

bool NetnsLab::haveRoot() { return ::geteuid() == 0; }

bool NetnsLab::sh( const std::string & cmd ) {
   return std::system( ( cmd + " >/dev/null 2>&1" ).c_str() ) == 0;
}

std::string NetnsLab::output( const std::string & cmd ) {
   std::string out;
   FILE * p = ::popen( cmd.c_str(), "r" );
   if( !p ) return out;
   char buf[ 4096 ];
   for( std::size_t n; ( n = std::fread( buf, 1, sizeof buf, p ) ) > 0; ) out.append( buf, n );
   ::pclose( p );
   return out;
}

bool NetnsLab::orphaned( const std::string & name ) {
   const pid_t owner = name.rfind( kPrefix, 0 ) == 0 ? pid_t( std::atoi( name.c_str() + kPrefix.size() ) ) : 0;
   return owner > 0 && ::kill( owner, 0 ) != 0 && errno == ESRCH;
}

NetnsLab::NetnsLab() {
   if( !haveRoot() ) return;
   std::error_code ec;
   for( const auto & e : std::filesystem::directory_iterator( "/run/netns", ec ) ) {
      if( orphaned( e.path().filename().string() ) ) sh( "ip netns del " + e.path().filename().string() );
   }
}

NetnsLab::~NetnsLab() {
   // Deleting a namespace deletes the links in it, veth peers included.
   for( auto it = made_.rbegin(); it != made_.rend(); ++it ) sh( "ip netns del " + *it );
}

std::string NetnsLab::add( const std::string & tag ) {
   const std::string name = ownPrefix() + tag;
   if( !sh( "ip netns add " + name ) ) return {};
   made_.push_back( name );
   if( !sh( "ip netns exec " + name +
            " sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0" ) ||
       !sh( "ip -n " + name + " link set lo up" ) ) {
      return {};
   }
   return name;
}

bool NetnsLab::waitFor( int fd, const std::function< void() > & onReadable, const std::function< bool() > & cond,
                        std::chrono::milliseconds limit ) {
   const auto end = std::chrono::steady_clock::now() + limit;
   while( !cond() ) {
      const auto left = std::chrono::duration_cast< std::chrono::milliseconds >( end - std::chrono::steady_clock::now() );
      if( left.count() <= 0 ) return false;
      pollfd p{ fd, POLLIN, 0 };
      if( ::poll( &p, 1, int( left.count() ) ) > 0 ) onReadable();
   }
   return true;
}

} // namespace NetnsTest

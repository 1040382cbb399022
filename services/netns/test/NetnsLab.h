#pragma once
// Network namespaces for tests that need real sockets. Every name carries
// the test process's id; everything made is deleted when the lab goes, also
// when a test fails, and namespaces left by a crashed earlier run (whose
// process is gone) are removed on the next start.
#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace NetnsTest {

class NetnsLab {
 public:
   NetnsLab();
   ~NetnsLab();
   NetnsLab( const NetnsLab & ) = delete;
   NetnsLab & operator=( const NetnsLab & ) = delete;

   static bool haveRoot();
   // "pimt<pid>-<tag>", created with IPv6 duplicate address detection off so
   // that addresses are usable at once. Empty on failure.
   std::string add( const std::string & tag );
   // A name made by a lab whose process is gone (a crashed run).
   static bool orphaned( const std::string & name );
   // Runs a shell command quietly; true when it exits 0.
   static bool sh( const std::string & cmd );
   // What a shell command writes to its standard output.
   static std::string output( const std::string & cmd );
   // Until cond holds or the time is up: waits for fd to be readable and
   // calls onReadable. No sleeping: the kernel wakes us.
   static bool waitFor( int fd, const std::function< void() > & onReadable, const std::function< bool() > & cond,
                        std::chrono::milliseconds limit = std::chrono::milliseconds( 3000 ) );

 private:
   std::vector< std::string > made_;
};

} // namespace NetnsTest

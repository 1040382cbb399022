#include "services/netns/Netns.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>

namespace Netns {

namespace {
struct Fd {
   int fd;
   ~Fd() {
      if( fd >= 0 ) ::close( fd );
   }
};
} // namespace

int socketIn( const std::string & ns, int domain, int type, int protocol ) {
   if( ns.empty() ) return ::socket( domain, type, protocol );
   const Fd own{ ::open( "/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC ) };
   if( own.fd < 0 ) return -1;
   const Fd target{ ::open( ( "/run/netns/" + ns ).c_str(), O_RDONLY | O_CLOEXEC ) };
   if( target.fd < 0 ) return -1;
   if( ::setns( target.fd, CLONE_NEWNET ) != 0 ) return -1;
   const int s = ::socket( domain, type, protocol );
   const int saved = errno;
   // Staying in the other namespace would send every later socket there.
   const int back = ::setns( own.fd, CLONE_NEWNET );
   assert( back == 0 );
   (void)back;
   errno = saved;
   return s;
}

} // namespace Netns

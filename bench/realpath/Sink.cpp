// The floor of the real-path benchmark: a receiver that joins the all-PIM-
// routers group on one interface and only reads its raw socket, so that the
// figures of a real device can be set against the bare cost of the socket
// path. Usage: realpath_sink <ifname> [-6]. Runs until SIGTERM or SIGINT.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace {
volatile std::sig_atomic_t stopFlag = 0;
void onSignal( int ) { stopFlag = 1; }
constexpr int kPimProto = 103;
constexpr unsigned kBatch = 64;
} // namespace

int main( int argc, char ** argv ) {
   if( argc < 2 ) {
      std::fprintf( stderr, "usage: realpath_sink <ifname> [-6]\n" );
      return 2;
   }
   bool v6 = argc > 2 && std::strcmp( argv[ 2 ], "-6" ) == 0;
   unsigned ifindex = if_nametoindex( argv[ 1 ] );
   if( ifindex == 0 ) {
      std::perror( "realpath_sink: if_nametoindex" );
      return 1;
   }
   struct sigaction sa{};
   sa.sa_handler = onSignal; // no SA_RESTART: recvmmsg returns EINTR
   sigaction( SIGTERM, &sa, nullptr );
   sigaction( SIGINT, &sa, nullptr );

   int fd = socket( v6 ? AF_INET6 : AF_INET, SOCK_RAW, kPimProto );
   if( fd < 0 ) {
      std::perror( "realpath_sink: socket" );
      return 1;
   }
   // A daemon's receive buffer, not the 208 KB default: the floor should
   // show the socket path's cost, not small-buffer drops under bursts.
   int rcvbuf = 8 << 20;
   setsockopt( fd, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof rcvbuf );
   int rc;
   if( v6 ) {
      ipv6_mreq m{};
      inet_pton( AF_INET6, "ff02::d", &m.ipv6mr_multiaddr );
      m.ipv6mr_interface = ifindex;
      rc = setsockopt( fd, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &m, sizeof m );
   } else {
      ip_mreqn m{};
      inet_pton( AF_INET, "224.0.0.13", &m.imr_multiaddr );
      m.imr_ifindex = static_cast< int >( ifindex );
      rc = setsockopt( fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof m );
   }
   if( rc < 0 ) {
      std::perror( "realpath_sink: join" );
      return 1;
   }
   std::array< std::array< char, 2048 >, kBatch > bufs;
   std::array< iovec, kBatch > iov;
   std::array< mmsghdr, kBatch > msgs{};
   for( unsigned i = 0; i < kBatch; ++i ) {
      iov[ i ] = { bufs[ i ].data(), bufs[ i ].size() };
      msgs[ i ].msg_hdr.msg_iov = &iov[ i ];
      msgs[ i ].msg_hdr.msg_iovlen = 1;
   }
   unsigned long long received = 0;
   while( !stopFlag ) {
      int n = recvmmsg( fd, msgs.data(), kBatch, MSG_WAITFORONE, nullptr );
      if( n > 0 ) {
         received += static_cast< unsigned >( n );
      }
   }
   std::fprintf( stderr, "realpath_sink: %llu packets\n", received );
   return 0;
}

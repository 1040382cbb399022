#include "services/pimio/linux/RawPimIo.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "kiv/Clock.h"
#include "kiv/Trace.h"
#include "services/netns/Netns.h"
#include "services/pimio/HelloAdapter.h"

namespace Routing::Pim::IO {

KIV_TRACE_HANDLE( "PimIo::Raw" )

namespace {
constexpr std::uint8_t kHelloMessageType = 0;
constexpr std::size_t kRxBufferSize = 4096;   // far above any Hello we keep
constexpr std::size_t kControlSize = 128;
constexpr std::uint32_t kDefaultRcvBuf = 4u << 20;

[[noreturn]] void fail( const std::string & what ) {
   throw std::system_error( errno, std::generic_category(), what );
}

void setInt( int fd, int level, int name, int value, const char * what ) {
   if( ::setsockopt( fd, level, name, &value, sizeof value ) != 0 ) fail( what );
}
// The message's one control message: info at (level, type).
template< class T >
void controlIs( msghdr & h, int level, int type, const T & info ) {
   h.msg_controllen = CMSG_SPACE( sizeof( T ) );
   cmsghdr * c = CMSG_FIRSTHDR( &h );
   c->cmsg_level = level;
   c->cmsg_type = type;
   c->cmsg_len = CMSG_LEN( sizeof( T ) );
   std::memcpy( CMSG_DATA( c ), &info, sizeof info );
}

} // namespace

struct RawPimIo::RxSlot {
   std::uint8_t data[ kRxBufferSize ];
   alignas( cmsghdr ) std::uint8_t control[ kControlSize ];
   sockaddr_storage from;
   iovec iov;
};

RawPimIo::RawPimIo( const Kiv::Ptr< PamManager > & pam,
                    const Kiv::Ptr< const Interface::DeviceIntfStatusDir > & devices,
                    const Kiv::Ptr< Tolm::TimerWheel > & wheel )
      : pam_( pam ), devices_( devices ), wheel_( wheel ), af_( pam->af() ), txReactor_( this ),
        delivery_( this, wheel.ptr() ), resume_( this, wheel.ptr() ), groupsReactor_( this ), devicesReactor_( this ), slots_( new RxSlot[ kBatch ] ) {
   txReactor_.notifierIs( pam_->txMessageInfo() );
}

RawPimIo::~RawPimIo() {
   txReactor_.notifierIs( nullptr );
   groupsReactor_.notifierIs( nullptr );
   devicesReactor_.notifierIs( nullptr );
   fdIs( -1 );
   if( fd_ >= 0 ) ::close( fd_ );
}

void RawPimIo::start() {
   const bool v6 = af_ == Lumo::AddressFamily::ipv6;
   const std::string ns( pam_->namespaceName().stringValue() );
   fd_ = Netns::socketIn( ns, v6 ? AF_INET6 : AF_INET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_PIM );
   if( fd_ < 0 ) fail( "PIM socket in namespace '" + ns + "'" );
   if( v6 ) {
      setInt( fd_, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1, "IPV6_RECVPKTINFO" );
      setInt( fd_, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 1, "IPV6_MULTICAST_HOPS" );
      setInt( fd_, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 0, "IPV6_MULTICAST_LOOP" );
   } else {
      setInt( fd_, IPPROTO_IP, IP_PKTINFO, 1, "IP_PKTINFO" );
      setInt( fd_, IPPROTO_IP, IP_MULTICAST_TTL, 1, "IP_MULTICAST_TTL" );
      setInt( fd_, IPPROTO_IP, IP_MULTICAST_LOOP, 0, "IP_MULTICAST_LOOP" );
   }
   // An address change says goodbye from the old address, which the kernel
   // may have removed already: let the socket send from it all the same
   // (needs CAP_NET_ADMIN). Without it that goodbye is lost and the
   // neighbours expire the old address instead.
   const int on = 1;
   ::setsockopt( fd_, v6 ? IPPROTO_IPV6 : IPPROTO_IP, v6 ? IPV6_TRANSPARENT : IP_TRANSPARENT, &on, sizeof on );
   // Hellos from a whole LAN can come at once; the kernel holds them until
   // the mailbox takes them. Beyond the system's limit only root may go.
   const int rcvBuf = int( pam_->rcvBufSize() ? pam_->rcvBufSize() : kDefaultRcvBuf );
   if( ::setsockopt( fd_, SOL_SOCKET, SO_RCVBUFFORCE, &rcvBuf, sizeof rcvBuf ) != 0 ) {
      setInt( fd_, SOL_SOCKET, SO_RCVBUF, rcvBuf, "SO_RCVBUF" );
   }
   // The kernel tells how many datagrams it dropped for want of room.
   setInt( fd_, SOL_SOCKET, SO_RXQ_OVFL, 1, "SO_RXQ_OVFL" );
   pam_->rcvPktInfoIs( true );
   updateReading();
}

void RawPimIo::updateReading() {
   const bool on = fd_ >= 0 && !queueFull_ && !paused_;
   if( reading_ == on ) return;
   reading_ = on;
   fdIs( on ? fd_ : -1 );
}

void RawPimIo::handleResume() {
   paused_ = false;
   updateReading();
}

void RawPimIo::pimIntfIs( const Lumo::IntfId & intf, bool on ) {
   if( on ) {
      pimIntfs_[ intf ] = true;
   } else {
      pimIntfs_.erase( intf );
   }
}

std::uint32_t RawPimIo::ifIndexOf( const Lumo::IntfId & intf ) const {
   return devices_->deviceIntfStatus( intf ).ifIndex;
}

Lumo::IntfId RawPimIo::intfOf( std::uint32_t ifIndex ) const {
   // Only PIM interfaces matter, and there are few of them.
   for( const auto & [ intf, on ] : pimIntfs_ ) {
      if( ifIndexOf( intf ) == ifIndex ) return intf;
   }
   return Lumo::IntfId();
}

bool RawPimIo::membershipIs( std::uint32_t idx, bool joined ) {
   int r = -1;
   if( idx && fd_ >= 0 ) {
      if( af_ == Lumo::AddressFamily::ipv6 ) {
         ipv6_mreq m{};
         ::inet_pton( AF_INET6, "ff02::d", &m.ipv6mr_multiaddr );
         m.ipv6mr_interface = idx;
         r = ::setsockopt( fd_, IPPROTO_IPV6, joined ? IPV6_JOIN_GROUP : IPV6_LEAVE_GROUP, &m, sizeof m );
      } else {
         ip_mreqn m{};
         ::inet_pton( AF_INET, "224.0.0.13", &m.imr_multiaddr );
         m.imr_ifindex = int( idx );
         r = ::setsockopt( fd_, IPPROTO_IP, joined ? IP_ADD_MEMBERSHIP : IP_DROP_MEMBERSHIP, &m, sizeof m );
      }
   }
   if( r != 0 ) {
      ++counters_.membershipFailed;
      KIV_TRACE( th(), 1, "ifindex " << idx << ( joined ? " join" : " leave" ) << " of ALL-PIM-ROUTERS failed" );
      return false;
   }
   ++( joined ? counters_.joins : counters_.leaves );
   return true;
}

bool RawPimIo::allPimRoutersIs( const Lumo::IntfId & intf, bool joined ) {
   return membershipIs( ifIndexOf( intf ), joined );
}

void RawPimIo::groupsIs( const Kiv::Ptr< const IpGen::MulticastGroupsForApplications > & groups ) {
   groupsReactor_.notifierIs( groups );
   devicesReactor_.notifierIs( groups ? devices_ : nullptr );
   if( groups ) {
      groups->intfGroupForEach( [ & ]( const IpGen::IntfGroup & g, bool ) { handleGroup( g.intf ); } );
   }
   for( auto it = joined_.begin(); it != joined_.end(); ) {
      const Lumo::IntfId intf = it++->first;
      handleGroup( intf );
   }
}

void RawPimIo::handleGroup( const Lumo::IntfId & intf ) {
   const auto groups = groupsReactor_.notifier();
   const bool want = groups && groups->isMember( intf, allPimRouters( af_ ) );
   const std::uint32_t idx = ifIndexOf( intf );
   const auto it = joined_.find( intf );
   const std::uint32_t have = it == joined_.end() ? 0 : it->second;
   if( want && idx && have == idx ) return;
   if( have ) {
      // A link that went away took its membership with it; leave only what
      // is still there.
      if( have == idx ) membershipIs( have, false );
      joined_.erase( intf );
   }
   if( want && idx && membershipIs( idx, true ) ) joined_[ intf ] = idx;
}

void RawPimIo::handleReadable() {
   if( fd_ < 0 ) return;
   mmsghdr msgs[ kBatch ];
   std::size_t read = 0;
   for( ;; ) {
      const std::size_t room = kQueueLimit - queued_;
      if( room == 0 ) {
         // The kernel keeps the rest until the agent has caught up.
         ++counters_.rxQueueFullStops;
         queueFull_ = true;
         updateReading();
         break;
      }
      const std::size_t n = room < kBatch ? room : kBatch;
      for( std::size_t i = 0; i < n; ++i ) {
         RxSlot & s = slots_[ i ];
         s.iov = { s.data, sizeof s.data };
         msgs[ i ].msg_hdr = msghdr{};
         msgs[ i ].msg_hdr.msg_name = &s.from;
         msgs[ i ].msg_hdr.msg_namelen = sizeof s.from;
         msgs[ i ].msg_hdr.msg_iov = &s.iov;
         msgs[ i ].msg_hdr.msg_iovlen = 1;
         msgs[ i ].msg_hdr.msg_control = s.control;
         msgs[ i ].msg_hdr.msg_controllen = sizeof s.control;
         msgs[ i ].msg_len = 0;
      }
      const int got = ::recvmmsg( fd_, msgs, unsigned( n ), MSG_DONTWAIT, nullptr );
      if( got <= 0 ) break;   // EAGAIN: drained
      read += std::size_t( got );
      for( int i = 0; i < got; ++i ) receive( std::size_t( i ), msgs[ i ].msg_len, msgs[ i ].msg_hdr );
      if( std::size_t( got ) < n ) break;
   }
   // Light input: let a few more datagrams gather before the next wake-up,
   // so one wake-up serves many. Heavy input fills whole batches and is read
   // on without a pause.
   if( coalesce_ > 0 && read < kBatch && !queueFull_ ) {
      ++counters_.rxPauses;
      paused_ = true;
      updateReading();
      resume_.timeMinIs( Kiv::System::currentTime() + coalesce_ );
   }
   if( queued_ && delivery_.timeMin() == Kiv::kNever ) delivery_.timeMinIs( Kiv::System::currentTime() );
}

void RawPimIo::receive( std::size_t i, std::size_t len, const msghdr & h ) {
   ++counters_.rxDatagrams;
   RxSlot & s = slots_[ i ];
   const bool v6 = af_ == Lumo::AddressFamily::ipv6;
   if( h.msg_flags & ( MSG_TRUNC | MSG_CTRUNC ) ) {
      ++counters_.rxMalformed;
      return;
   }
   std::uint32_t ifIndex = 0;
   PimWire::Addr src, dst;
   for( cmsghdr * c = CMSG_FIRSTHDR( &h ); c; c = CMSG_NXTHDR( const_cast< msghdr * >( &h ), c ) ) {
      if( c->cmsg_level == SOL_SOCKET && c->cmsg_type == SO_RXQ_OVFL ) {
         std::uint32_t dropped;
         std::memcpy( &dropped, CMSG_DATA( c ), sizeof dropped );
         counters_.rxKernelDropped = dropped;   // the socket's running total
      } else if( !v6 && c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO ) {
         in_pktinfo pi;
         std::memcpy( &pi, CMSG_DATA( c ), sizeof pi );
         ifIndex = std::uint32_t( pi.ipi_ifindex );
      } else if( v6 && c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO ) {
         in6_pktinfo pi;
         std::memcpy( &pi, CMSG_DATA( c ), sizeof pi );
         ifIndex = pi.ipi6_ifindex;
         dst = PimWire::Addr::fromBytes( PimWire::Family::ipv6, pi.ipi6_addr.s6_addr );
      }
   }
   const std::uint8_t * pim = s.data;
   std::size_t pimLen = len;
   if( v6 ) {
      const auto * from = reinterpret_cast< const sockaddr_in6 * >( &s.from );
      src = PimWire::Addr::fromBytes( PimWire::Family::ipv6, from->sin6_addr.s6_addr );
   } else {
      // An IPv4 raw socket hands over the IP header too.
      const std::size_t ihl = len >= 20 ? std::size_t( s.data[ 0 ] & 0x0f ) * 4 : 0;
      if( ihl < 20 || len < ihl ) {
         ++counters_.rxMalformed;
         return;
      }
      src = PimWire::Addr::fromBytes( PimWire::Family::ipv4, s.data + 12 );
      dst = PimWire::Addr::fromBytes( PimWire::Family::ipv4, s.data + 16 );
      pim += ihl;
      pimLen -= ihl;
   }
   if( !ifIndex || !dst.isSet() ) {
      ++counters_.rxMalformed;
      return;
   }
   const Lumo::IntfId intf = intfOf( ifIndex );
   // Decoded straight into the next free slot of the ring; it is taken only
   // when the Hello passes.
   Pending & slot = ring_[ ( head_ + queued_ ) % kQueueLimit ];
   if( intf.isEmpty() ) {
      ++counters_.rxNotPimIntf;
      KIV_TRACE( th(), 6, "dropped from " << ipGenAddr( src ) << " on ifindex " << ifIndex << ": not a PIM interface" );
      return;
   }
   PimWire::DecodeStats stats;
   const PimWire::RejectReason r =
      PimWire::decodeHello( pim, pimLen, v6 ? PimWire::Family::ipv6 : PimWire::Family::ipv4, src, dst, slot.hello, stats );
   if( r != PimWire::RejectReason::none ) {
      ++counters_.rxRejected[ std::size_t( r ) ];
      KIV_TRACE( th(), 2, intf << " rejected from " << ipGenAddr( src ) << ": " << r );
      return;
   }
   if( acl_ && !acl_( ipGenAddr( src ) ) ) {
      ++counters_.rxAclDenied;
      KIV_TRACE( th(), 6, intf << " dropped from " << ipGenAddr( src ) << ": denied by the service ACL" );
      return;
   }
   slot.intf = intf;
   ++queued_;
}

void RawPimIo::handleDelivery() {
   if( !queued_ ) return;
   const Pending & p = ring_[ head_ ];
   const Kiv::Ptr< MessageInfo > rx = pam_->rxMessageInfo( kHelloMessageType );
   if( rx ) {
      // One message serves every Hello: the agent reads it in its reaction,
      // which runs before the next delivery, and keeps nothing of it.
      helloMessageAssign( *message_, p.hello );
      ++counters_.rxDelivered;
      rx->messageIs( message_ );
      rx->intfIdIs( p.intf );
      rx->countInc( 1 );
   } else {
      ++counters_.rxNoMailbox;
   }
   head_ = ( head_ + 1 ) % kQueueLimit;
   --queued_;
   // One per firing: the loop runs the agent's reaction before the next.
   if( queued_ ) delivery_.timeMinIs( Kiv::System::currentTime() );
   if( queueFull_ && queued_ <= kQueueLimit / 2 ) {
      queueFull_ = false;
      updateReading();
   }
}

void RawPimIo::handleTx() {
   const Kiv::Ptr< const MessageInfo > tx = txReactor_.notifier();
   const auto hello = tx ? tx->helloMessage() : nullptr;
   if( !hello ) {
      ++counters_.txNotHello;
      return;
   }
   const std::uint32_t idx = ifIndexOf( tx->intfId() );
   if( !idx || fd_ < 0 ) {
      ++counters_.txNoInterface;
      return;
   }
   const PimWire::Hello wire = wireHelloFrom( *hello );
   std::uint8_t buf[ kRxBufferSize ];
   const std::size_t len = PimWire::encodeHello( wire, wire.source.family, wire.source, wire.destination, buf, sizeof buf );
   if( !len || wire.source.family != ( af_ == Lumo::AddressFamily::ipv6 ? PimWire::Family::ipv6 : PimWire::Family::ipv4 ) ) {
      ++counters_.txEncodeFailed;
      return;
   }
   iovec iov{ buf, len };
   alignas( cmsghdr ) std::uint8_t control[ kControlSize ] = {};
   msghdr h{};
   h.msg_iov = &iov;
   h.msg_iovlen = 1;
   h.msg_control = control;
   sockaddr_storage to{};
   if( af_ == Lumo::AddressFamily::ipv6 ) {
      auto * d = reinterpret_cast< sockaddr_in6 * >( &to );
      d->sin6_family = AF_INET6;
      std::memcpy( d->sin6_addr.s6_addr, wire.destination.bytes.data(), 16 );
      d->sin6_scope_id = idx;
      h.msg_namelen = sizeof( sockaddr_in6 );
      in6_pktinfo pi{};
      std::memcpy( pi.ipi6_addr.s6_addr, wire.source.bytes.data(), 16 );
      pi.ipi6_ifindex = idx;
      controlIs( h, IPPROTO_IPV6, IPV6_PKTINFO, pi );
   } else {
      auto * d = reinterpret_cast< sockaddr_in * >( &to );
      d->sin_family = AF_INET;
      std::memcpy( &d->sin_addr, wire.destination.bytes.data(), 4 );
      h.msg_namelen = sizeof( sockaddr_in );
      in_pktinfo pi{};
      pi.ipi_ifindex = int( idx );
      std::memcpy( &pi.ipi_spec_dst, wire.source.bytes.data(), 4 );
      controlIs( h, IPPROTO_IP, IP_PKTINFO, pi );
   }
   h.msg_name = &to;
   if( ::sendmsg( fd_, &h, 0 ) != ssize_t( len ) ) {
      ++counters_.txFailed;
      KIV_TRACE( th(), 1, tx->intfId() << " send failed: " << std::strerror( errno ) );
      return;
   }
   KIV_TRACE( th(), 5, tx->intfId() << " TX " << wire );
   ++counters_.txSent;
}

} // namespace Routing::Pim::IO

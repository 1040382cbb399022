#include "services/netlink/KernelFeed.h"

#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <vector>

#include "kiv/Trace.h"
#include "services/netns/Netns.h"

namespace Netlink {

KIV_TRACE_HANDLE( "Netlink::KernelFeed" )

namespace {

// Reads per wake-up, so that a storm of changes cannot starve the loop.
constexpr int kReadsPerWakeup = 64;
// A dump that a concurrent change keeps interrupting is taken as it is
// after this many tries; the events that interrupted it follow anyway.
constexpr int kDumpTries = 5;
// Stale events read and dropped before a re-dump: far more than a socket
// holds; the bound only keeps a flood from holding the loop.
constexpr int kDiscardLimit = 4096;

std::vector< char > & buffer() {
   thread_local std::vector< char > b( MNL_SOCKET_BUFFER_SIZE > 32768 ? MNL_SOCKET_BUFFER_SIZE : 32768 );
   return b;
}

[[noreturn]] void fail( const std::string & what ) {
   throw std::system_error( errno, std::generic_category(), what );
}

mnl_socket * openIn( const Lumo::NamespaceName & ns, int flags, unsigned groups, const char * what ) {
   const std::string name( ns.stringValue() );
   const int fd = Netns::socketIn( name, AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | flags, NETLINK_ROUTE );
   if( fd < 0 ) fail( std::string( "netlink " ) + what + " socket in namespace '" + name + "'" );
   mnl_socket * s = mnl_socket_fdopen( fd );
   if( !s ) {
      ::close( fd );
      fail( "netlink socket" );
   }
   if( mnl_socket_bind( s, groups, MNL_SOCKET_AUTOPID ) < 0 ) {
      mnl_socket_close( s );
      fail( "netlink bind" );
   }
   return s;
}

// Fills tb[0..Max]; types beyond what we know are newer than we need.
template < int Max >
int attrCb( const nlattr * attr, void * data ) {
   auto ** tb = static_cast< const nlattr ** >( data );
   const int type = mnl_attr_get_type( attr );
   if( type <= Max ) tb[ type ] = attr;
   return MNL_CB_OK;
}

bool isV6( const Lumo::IpGenAddrWithMask & a ) { return a.af() == Lumo::AddressFamily::ipv6; }

} // namespace

KernelFeed::KernelFeed( const Lumo::NamespaceName & ns, const FeedTargets & targets )
      : ns_( ns ), targets_( targets ) {}

KernelFeed::~KernelFeed() {
   fdIs( -1 );
   if( events_ ) mnl_socket_close( events_ );
   if( dump_ ) mnl_socket_close( dump_ );
}

void KernelFeed::receiveBufferIs( int bytes ) {
   if( events_ && ::setsockopt( mnl_socket_get_fd( events_ ), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes ) != 0 ) {
      fail( "SO_RCVBUFFORCE" );
   }
}

void KernelFeed::start() {
   events_ = openIn( ns_, SOCK_NONBLOCK, RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR, "event" );
   dump_ = openIn( ns_, 0, 0, "dump" );
   // A kernel that never answers must not hang the daemon.
   const timeval timeout{ 2, 0 };
   ::setsockopt( mnl_socket_get_fd( dump_ ), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout );
   doDump();
   writeDirty();
   fdIs( mnl_socket_get_fd( events_ ) );
}

void KernelFeed::doDump() {
   auto & buf = buffer();
   for( int attempt = 0; attempt < kDumpTries; ++attempt ) {
      KernelState fresh;
      dumpInterrupted_ = false;
      parseInto_ = &fresh;
      for( const std::uint16_t type : { std::uint16_t( RTM_GETLINK ), std::uint16_t( RTM_GETADDR ) } ) {
         nlmsghdr * nlh = mnl_nlmsg_put_header( buf.data() );
         nlh->nlmsg_type = type;
         nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
         nlh->nlmsg_seq = ++seq_;
         if( type == RTM_GETLINK ) {
            auto * ifi = static_cast< ifinfomsg * >( mnl_nlmsg_put_extra_header( nlh, sizeof( ifinfomsg ) ) );
            ifi->ifi_family = AF_UNSPEC;
         } else {
            auto * ifa = static_cast< ifaddrmsg * >( mnl_nlmsg_put_extra_header( nlh, sizeof( ifaddrmsg ) ) );
            ifa->ifa_family = AF_UNSPEC;
         }
         if( mnl_socket_sendto( dump_, nlh, nlh->nlmsg_len ) < 0 ) fail( "netlink dump request" );
         const unsigned portId = mnl_socket_get_portid( dump_ );
         for( ;; ) {
            const ssize_t n = mnl_socket_recvfrom( dump_, buf.data(), buf.size() );
            if( n < 0 ) {
               if( errno == EINTR ) continue;
               parseInto_ = nullptr;
               fail( "netlink dump" );
            }
            const int r = mnl_cb_run( buf.data(), size_t( n ), seq_, portId, &KernelFeed::messageCb, this );
            if( r == MNL_CB_STOP ) break;
            if( r < 0 ) {
               parseInto_ = nullptr;
               fail( "netlink dump" );
            }
         }
      }
      parseInto_ = nullptr;
      if( dumpInterrupted_ && attempt + 1 < kDumpTries ) {
         ++counters_.dumpRetries;
         continue;
      }
      // Every interface that was or is now known may have changed.
      for( const auto & [ idx, v ] : written_ ) dirty_.insert( idx );
      for( const auto & [ idx, l ] : fresh.links ) dirty_.insert( idx );
      kernel_ = std::move( fresh );
      ++counters_.dumps;
      return;
   }
}

void KernelFeed::handleReadable() {
   if( !events_ ) return;
   auto & buf = buffer();
   pending_ = true;
   for( int i = 0; i < kReadsPerWakeup; ++i ) {
      const ssize_t n = mnl_socket_recvfrom( events_, buf.data(), buf.size() );
      if( n < 0 ) {
         if( errno == EINTR ) continue;
         if( errno == ENOBUFS ) {
            // The kernel dropped events. What is still queued is older than
            // the gap: replayed after the dump it would bring back what the
            // lost events undid. Drop it, then dump.
            ++counters_.resyncs;
            KIV_TRACE( th(), 2, "namespace '" << ns_ << "': events dropped by the kernel, dumping again" );
            for( int j = 0; j < kDiscardLimit && mnl_socket_recvfrom( events_, buf.data(), buf.size() ) >= 0; ++j ) {
            }
            doDump();
            continue;
         }
         pending_ = false;   // EAGAIN, or an error that a later wake-up retries
         break;
      }
      parseInto_ = &kernel_;
      // Events carry no sequence and come from the kernel: no checks.
      mnl_cb_run( buf.data(), size_t( n ), 0, 0, &KernelFeed::messageCb, this );
      parseInto_ = nullptr;
   }
   writeDirty();
}

int KernelFeed::messageCb( const nlmsghdr * nlh, void * self ) {
   auto * feed = static_cast< KernelFeed * >( self );
   if( nlh->nlmsg_flags & NLM_F_DUMP_INTR ) feed->dumpInterrupted_ = true;
   feed->processMessage( nlh, *feed->parseInto_ );
   return MNL_CB_OK;
}

void KernelFeed::processMessage( const nlmsghdr * nlh, KernelState & into ) {
   const bool events = &into == &kernel_;
   switch( nlh->nlmsg_type ) {
   case RTM_NEWLINK:
   case RTM_DELLINK: {
      if( nlh->nlmsg_len < NLMSG_LENGTH( sizeof( ifinfomsg ) ) ) {
         ++counters_.malformed;
         return;
      }
      const auto * ifi = static_cast< const ifinfomsg * >( mnl_nlmsg_get_payload( nlh ) );
      // Bridge port messages (AF_BRIDGE) describe membership, not the link.
      if( ifi->ifi_family != AF_UNSPEC ) return;
      if( events ) ++counters_.events;
      const std::uint32_t idx = std::uint32_t( ifi->ifi_index );
      if( events ) dirty_.insert( idx );
      if( nlh->nlmsg_type == RTM_DELLINK ) {
         into.links.erase( idx );
         into.addrs.erase( idx );
         return;
      }
      const nlattr * tb[ IFLA_MAX + 1 ] = {};
      if( mnl_attr_parse( nlh, sizeof( ifinfomsg ), attrCb< IFLA_MAX >, tb ) < 0 || !tb[ IFLA_IFNAME ] ||
          mnl_attr_validate( tb[ IFLA_IFNAME ], MNL_TYPE_NUL_STRING ) < 0 ) {
         ++counters_.malformed;
         return;
      }
      KernelState::Link link;
      link.name = mnl_attr_get_str( tb[ IFLA_IFNAME ] );
      const std::uint8_t oper = tb[ IFLA_OPERSTATE ] ? mnl_attr_get_u8( tb[ IFLA_OPERSTATE ] ) : std::uint8_t( IF_OPER_UNKNOWN );
      // Loopback and some virtual links never leave "unknown": running counts.
      link.operUp = oper == IF_OPER_UP || ( oper == IF_OPER_UNKNOWN && ( ifi->ifi_flags & IFF_RUNNING ) );
      into.links[ idx ] = link;
      return;
   }
   case RTM_NEWADDR:
   case RTM_DELADDR: {
      if( nlh->nlmsg_len < NLMSG_LENGTH( sizeof( ifaddrmsg ) ) ) {
         ++counters_.malformed;
         return;
      }
      const auto * ifa = static_cast< const ifaddrmsg * >( mnl_nlmsg_get_payload( nlh ) );
      if( ifa->ifa_family != AF_INET && ifa->ifa_family != AF_INET6 ) return;
      if( events ) ++counters_.events;
      const nlattr * tb[ IFA_MAX + 1 ] = {};
      if( mnl_attr_parse( nlh, sizeof( ifaddrmsg ), attrCb< IFA_MAX >, tb ) < 0 ) {
         ++counters_.malformed;
         return;
      }
      // IPv4's own address is IFA_LOCAL (IFA_ADDRESS is the peer on a
      // point-to-point link); IPv6 has only IFA_ADDRESS.
      const nlattr * a = tb[ IFA_LOCAL ] ? tb[ IFA_LOCAL ] : tb[ IFA_ADDRESS ];
      const std::size_t len = ifa->ifa_family == AF_INET ? 4 : 16;
      if( !a || mnl_attr_get_payload_len( a ) != len ) {
         ++counters_.malformed;
         return;
      }
      Lumo::IpGenAddr addr;
      if( len == 4 ) {
         in_addr v4;
         std::memcpy( &v4, mnl_attr_get_payload( a ), 4 );
         addr = Lumo::IpGenAddr( v4 );
      } else {
         in6_addr v6;
         std::memcpy( &v6, mnl_attr_get_payload( a ), 16 );
         addr = Lumo::IpGenAddr( v6 );
      }
      if( ifa->ifa_prefixlen > len * 8 ) {
         ++counters_.malformed;
         return;
      }
      const Lumo::IpGenAddrWithMask am( addr, ifa->ifa_prefixlen );
      const std::uint32_t idx = ifa->ifa_index;
      if( events ) dirty_.insert( idx );
      if( nlh->nlmsg_type == RTM_DELADDR ) {
         auto it = into.addrs.find( idx );
         if( it != into.addrs.end() ) {
            it->second.erase( am );
            if( it->second.empty() ) into.addrs.erase( it );
         }
         return;
      }
      into.addrs[ idx ][ am ] = tb[ IFA_FLAGS ] ? mnl_attr_get_u32( tb[ IFA_FLAGS ] ) : ifa->ifa_flags;
      return;
   }
   default:
      return;
   }
}

std::optional< IntfView > KernelFeed::derive( std::uint32_t idx ) const {
   const auto link = kernel_.links.find( idx );
   if( link == kernel_.links.end() ) return std::nullopt;
   IntfView v;
   v.name = link->second.name;
   v.ifIndex = idx;
   v.operUp = link->second.operUp;
   // An address is active only while its link can carry traffic: the IP
   // status of a link without carrier has none, so PIM stops on it.
   if( !v.operUp ) return v;
   const auto before = written_.find( idx );
   std::set< Lumo::IpGenAddrWithMask > candidates[ 2 ];
   const auto addrs = kernel_.addrs.find( idx );
   if( addrs != kernel_.addrs.end() ) {
      for( const auto & [ a, flags ] : addrs->second ) {
         // Not usable as a source yet, or never.
         if( flags & ( IFA_F_TENTATIVE | IFA_F_DADFAILED ) ) continue;
         const int f = isV6( a ) ? 1 : 0;
         v.secondary[ f ].insert( a );
         // PIM speaks from an IPv4 interface's primary address and from an
         // IPv6 interface's link-local address.
         const bool candidate = f ? a.address().isLinkLocal() : !( flags & IFA_F_SECONDARY );
         if( candidate ) candidates[ f ].insert( a );
      }
   }
   for( int f = 0; f < 2; ++f ) {
      if( candidates[ f ].empty() ) continue;
      // Keep the primary while it lasts, so that adding an address never
      // changes the source of the Hellos.
      const bool keep = before != written_.end() && before->second.name == v.name &&
                        candidates[ f ].count( before->second.primary[ f ] );
      v.primary[ f ] = keep ? before->second.primary[ f ] : *candidates[ f ].begin();
      v.secondary[ f ].erase( v.primary[ f ] );
   }
   return v;
}

void KernelFeed::writeDirty() {
   // Old names go first: one interface may take the name another just left.
   for( const auto idx : dirty_ ) {
      const auto before = written_.find( idx );
      if( before == written_.end() ) continue;
      const auto link = kernel_.links.find( idx );
      if( link != kernel_.links.end() && link->second.name == before->second.name ) continue;
      const Lumo::IntfId id( before->second.name );
      if( targets_.devices && targets_.devices->deviceIntfStatus( id ).ifIndex == idx ) {
         targets_.devices->deviceIntfStatusDel( id );
      }
      for( const auto & st : { targets_.ip4, targets_.ip6 } ) {
         if( st ) st->intfDel( id );
      }
      written_.erase( before );
   }
   for( const auto idx : dirty_ ) {
      const auto after = derive( idx );
      if( !after ) continue;
      const auto before = written_.find( idx );
      if( before != written_.end() && before->second == *after ) continue;
      write( before == written_.end() ? nullptr : &before->second, &*after );
      written_[ idx ] = *after;
   }
   dirty_.clear();
}

void KernelFeed::write( const IntfView * before, const IntfView * after ) {
   static const IntfView none;
   const IntfView & b = before ? *before : none;
   const IntfView & a = *after;
   const Lumo::IntfId id( a.name );
   if( targets_.devices ) {
      const Interface::DeviceIntfStatus d{ a.name, a.ifIndex, a.operUp };
      if( targets_.devices->deviceIntfStatus( id ) != d ) targets_.devices->deviceIntfStatusIs( id, d );
   }
   for( int f = 0; f < 2; ++f ) {
      const auto & st = f ? targets_.ip6 : targets_.ip4;
      if( !st ) continue;
      st->intfVrfIs( id, targets_.vrf );
      if( !before || b.primary[ f ] != a.primary[ f ] ) st->intfPrimaryIs( id, a.primary[ f ] );
      for( const auto & s : b.secondary[ f ] ) {
         if( !a.secondary[ f ].count( s ) ) st->intfSecondaryIs( id, s, false );
      }
      for( const auto & s : a.secondary[ f ] ) {
         if( !b.secondary[ f ].count( s ) ) st->intfSecondaryIs( id, s, true );
      }
   }
}

} // namespace Netlink

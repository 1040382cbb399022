#pragma once
// The kernel status of one network namespace through rtnetlink: links and
// their IPv4 and IPv6 addresses become kernel interface status (name,
// ifindex, oper state) and IP status (the namespace's VRF, primary and
// secondary addresses).
//
// It subscribes first and dumps second, so no change falls between the two.
// When the kernel drops events (ENOBUFS) it dumps again and writes only what
// differs from what it wrote before: nothing is lost, and since an equal
// write notifies nobody, nothing is seen twice.
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "kiv/ActivityManager.h"
#include "kiv/Ptr.h"
#include "lumo/IpGenAddrWithMask.h"
#include "lumo/NamespaceName.h"
#include "lumo/VrfName.h"
#include "services/intf/DeviceIntfStatus.h"
#include "services/ip/IpStatus.h"

struct mnl_socket;
struct nlmsghdr;

namespace Netlink {

// What the feed writes; a null status is a family nobody asked for.
struct FeedTargets {
   L3::VrfName vrf;
   Kiv::Ptr< Interface::DeviceIntfStatusDir > devices;
   Kiv::Ptr< IpGen::Status > ip4;
   Kiv::Ptr< IpGen::Status > ip6;
};

struct FeedCounters {
   std::uint64_t events = 0;      // link and address messages received
   std::uint64_t dumps = 0;       // complete dumps
   std::uint64_t resyncs = 0;     // dumps after the kernel dropped events
   std::uint64_t dumpRetries = 0; // dumps interrupted by a change, redone
   std::uint64_t malformed = 0;   // messages that did not parse
};

// The kernel's state as last heard.
struct KernelState {
   struct Link {
      std::string name;
      bool operUp = false;
      bool operator==( const Link & ) const = default;
   };
   std::map< std::uint32_t, Link > links;
   // Per ifindex, every address with its IFA_F_* flags.
   std::map< std::uint32_t, std::map< Lumo::IpGenAddrWithMask, std::uint32_t > > addrs;
};

// What the feed has written for one interface.
struct IntfView {
   std::string name;
   std::uint32_t ifIndex = 0;
   bool operUp = false;
   Lumo::IpGenAddrWithMask primary[ 2 ];                // by family: IPv4, IPv6
   std::set< Lumo::IpGenAddrWithMask > secondary[ 2 ];
   bool operator==( const IntfView & ) const = default;
};

class KernelFeed : public Kiv::FdReactor {
 public:
   // ns empty: the daemon's own namespace.
   KernelFeed( const Lumo::NamespaceName & ns, const FeedTargets & targets );
   ~KernelFeed() override;
   KernelFeed( const KernelFeed & ) = delete;
   KernelFeed & operator=( const KernelFeed & ) = delete;

   // Opens the sockets inside the namespace, subscribes and dumps. Throws
   // std::system_error when the namespace or netlink cannot be reached.
   void start();
   // Reads what is pending (a bounded batch per call) and writes it.
   void handleReadable();
   // Whether more is pending after a bounded batch.
   bool pending() const { return pending_; }

   const FeedCounters & counters() const { return counters_; }
   const std::map< std::uint32_t, IntfView > & written() const { return written_; }
   // The event socket's receive buffer, for tests that make the kernel drop
   // events; root only (SO_RCVBUFFORCE).
   void receiveBufferIs( int bytes );

 private:
   void onReadable() override { handleReadable(); }
   void doDump();
   void processMessage( const nlmsghdr * nlh, KernelState & into );
   void markAll();
   void writeDirty();
   std::optional< IntfView > derive( std::uint32_t ifIndex ) const;
   void write( const IntfView * before, const IntfView * after );

   static int messageCb( const nlmsghdr * nlh, void * self );

   Lumo::NamespaceName ns_;
   FeedTargets targets_;
   mnl_socket * events_ = nullptr;
   mnl_socket * dump_ = nullptr;
   std::uint32_t seq_ = 0;
   KernelState kernel_;
   KernelState * parseInto_ = nullptr;
   std::set< std::uint32_t > dirty_;
   std::map< std::uint32_t, IntfView > written_;
   FeedCounters counters_;
   bool dumpInterrupted_ = false;
   bool pending_ = false;
};

} // namespace Netlink

#pragma once
// The PIM I/O service of one VRF and family on a Linux host: a raw
// IPPROTO_PIM socket opened inside the VRF's namespace.
//
// Receive: many datagrams per wake-up (recvmmsg), the interface from the
// packet info, decoded with the wire codec; what is not a Hello for a PIM
// interface from a permitted source is dropped and counted by reason. The
// Hellos wait in a bounded queue and go into the receive mailbox one per
// turn of the loop, because the mailbox holds one message and the agent
// reads it in a deferred reaction. While the queue is full the socket is
// not read, so the kernel holds the rest: nothing is lost here. Under light
// input reading may pause for a few milliseconds after each wake-up so that
// the next one serves several datagrams (coalesceIs).
//
// Transmit: each message the agent puts in the transmit mailbox goes out of
// its interface from the message's source address, TTL / hop limit 1, to
// ALL-PIM-ROUTERS.
#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include <sys/socket.h>

#include "kiv/ActivityManager.h"
#include "lumo/AddressFamily.h"
#include "lumo/IntfId.h"
#include "lumo/NamespaceName.h"
#include "services/intf/DeviceIntfStatus.h"
#include "services/mcast/Multicast.h"
#include "services/pimio/MessageInfo.h"
#include "services/pimwire/HelloCodec.h"
#include "tolm/OwnedTimer.h"
#include "tolm/TimerWheel.h"
#include "kiv/OwnedReactor.h"

namespace Routing::Pim::IO {

struct RawIoCounters {
   std::uint64_t rxDatagrams = 0;
   std::uint64_t rxDelivered = 0;      // Hellos put in the receive mailbox
   std::uint64_t rxNotPimIntf = 0;     // arrived on an interface PIM does not run on
   std::uint64_t rxAclDenied = 0;      // source denied by the service ACL
   std::uint64_t rxMalformed = 0;      // no packet info, IP header cut, truncated
   std::uint64_t rxNoMailbox = 0;      // the VRF has no receive mailbox for Hellos
   std::array< std::uint64_t, PimWire::kRejectReasonCount > rxRejected{};  // by codec reason
   std::uint64_t rxQueueFullStops = 0; // times reading paused for a full queue
   std::uint64_t rxPauses = 0;         // light-input pauses (see coalesceIs)
   std::uint64_t rxKernelDropped = 0;  // the kernel's count of datagrams it had no room for
   std::uint64_t txSent = 0;
   std::uint64_t txNotHello = 0;       // the mailbox held no Hello
   std::uint64_t txNoInterface = 0;    // interface unknown to the kernel
   std::uint64_t txEncodeFailed = 0;
   std::uint64_t txFailed = 0;         // sendmsg refused
   std::uint64_t joins = 0;
   std::uint64_t leaves = 0;
   std::uint64_t membershipFailed = 0;
};

class RawPimIo : public Kiv::FdReactor {
 public:
   static constexpr std::size_t kBatch = 32;          // datagrams per recvmmsg
   static constexpr std::size_t kQueueLimit = 1024;   // decoded Hellos waiting for the mailbox

   // The kernel interface status supplies ifindex <-> interface name; it
   // and the PAM manager are required.
   RawPimIo( const Kiv::Ptr< PamManager > & pam, const Kiv::Ptr< const Interface::DeviceIntfStatusDir > & devices,
             const Kiv::Ptr< Tolm::TimerWheel > & wheel );
   ~RawPimIo() override;

   // Opens the socket in the PAM manager's namespace. Throws std::system_error.
   void start();
   // The interfaces PIM runs on; Hellos on others are dropped.
   void pimIntfIs( const Lumo::IntfId & intf, bool on );
   // ALL-PIM-ROUTERS membership of an interface. False when the kernel
   // refuses (counted).
   bool allPimRoutersIs( const Lumo::IntfId & intf, bool joined );
   // Follows the group memberships that the agent requests: ALL-PIM-ROUTERS
   // of this family on an interface of this namespace is joined while
   // requested, and joined again when the interface comes back with a new
   // index. Requests for interfaces of other namespaces are not ours.
   void groupsIs( const Kiv::Ptr< const IpGen::MulticastGroupsForApplications > & groups );
   void handleGroup( const Lumo::IntfId & intf );
   // The service ACL: false denies a source. None permits all.
   void aclIs( std::function< bool( const Lumo::IpGenAddr & ) > permits ) { acl_ = std::move( permits ); }
   // After a wake-up that found less than a batch, reading pauses this long
   // (seconds) so that the next wake-up finds several datagrams: fewer
   // wake-ups for the same Hellos, at the cost of that much latency. 0 reads
   // at every wake-up.
   void coalesceIs( double seconds ) { coalesce_ = seconds; }
   double coalesce() const { return coalesce_; }

   void handleReadable();
   void handleTx();
   void handleDelivery();
   void handleResume();

   const RawIoCounters & counters() const { return counters_; }
   std::size_t queued() const { return queued_; }
   bool reading() const { return reading_; }
   int socketFd() const { return fd_; }

 private:
   class KivTx : public Kiv::OwnedReactor< MessageInfo::NotifieeConst, RawPimIo > {
    public:
      // Immediate: the mailbox holds one message, the next one overwrites it.
      explicit KivTx( RawPimIo * o ) : OwnedReactor( o ) { kivImmediateIs( MessageInfo::kivAttr_count, true ); }
      void onCountkivImmediate() override { owner_->handleTx(); }
   };
   // A timer of the wheel that calls one handler (delivery, end of a pause).
   template< void ( RawPimIo::*handle )() >
   using KivTimer = Tolm::OwnedTimer< RawPimIo, handle >;
   class KivGroups : public Kiv::OwnedReactor< IpGen::MulticastGroupsForApplications::NotifieeConst, RawPimIo > {
    public:
      using OwnedReactor::OwnedReactor;
      void onIntfGroup( const IpGen::IntfGroup & g ) override { owner_->handleGroup( g.intf ); }
   };
   class KivDevices : public Kiv::OwnedReactor< Interface::DeviceIntfStatusDir::NotifieeConst, RawPimIo > {
    public:
      using OwnedReactor::OwnedReactor;
      void onDeviceIntfStatus( const Lumo::IntfId & intf ) override { owner_->handleGroup( intf ); }
   };
   struct Pending {
      Lumo::IntfId intf;
      PimWire::Hello hello;
   };

   void onReadable() override { handleReadable(); }
   void receive( std::size_t i, std::size_t len, const msghdr & h );
   std::uint32_t ifIndexOf( const Lumo::IntfId & intf ) const;
   Lumo::IntfId intfOf( std::uint32_t ifIndex ) const;
   // Reads while the socket is open, the queue has room and no pause runs.
   void updateReading();
   bool membershipIs( std::uint32_t ifIndex, bool joined );

   Kiv::Ptr< PamManager > pam_;
   Kiv::Ptr< const Interface::DeviceIntfStatusDir > devices_;
   Kiv::Ptr< Tolm::TimerWheel > wheel_;
   Lumo::AddressFamily af_;
   int fd_ = -1;
   bool reading_ = false;
   bool queueFull_ = false;
   bool paused_ = false;
   double coalesce_ = 0;
   std::map< Lumo::IntfId, bool > pimIntfs_;
   std::function< bool( const Lumo::IpGenAddr & ) > acl_;
   // Decoded Hellos waiting for the mailbox: a ring of kQueueLimit slots
   // reused as they go, so a Hello costs no allocation.
   std::vector< Pending > ring_ = std::vector< Pending >( kQueueLimit );
   std::size_t head_ = 0;
   std::size_t queued_ = 0;
   Kiv::Ptr< Packet::HelloMessage > message_ = Kiv::make< Packet::HelloMessage >();
   RawIoCounters counters_;
   KivTx txReactor_;
   KivTimer< &RawPimIo::handleDelivery > delivery_;
   KivTimer< &RawPimIo::handleResume > resume_;
   KivGroups groupsReactor_;
   KivDevices devicesReactor_;
   // Interfaces joined through the requests, with the index joined on.
   std::map< Lumo::IntfId, std::uint32_t > joined_;
   // recvmmsg buffers, kept between wake-ups.
   struct RxSlot;
   std::unique_ptr< RxSlot[] > slots_;
};

} // namespace Routing::Pim::IO

#pragma once
// Mailboxes between the PIM I/O service and the agent. A receive MessageInfo
// exists per message type and VRF: the service stores the decoded message and
// the receiving interface, then bumps count. The transmit MessageInfo of a VRF
// works the other way round; the service consumes each message in its
// reaction to the count increment.
#include <cstdint>
#include <string>

#include "kiv/EntityMacros.h"
#include "lumo/AddressFamily.h"
#include "lumo/IntfId.h"
#include "lumo/NamespaceName.h"
#include "services/pimio/HelloMessage.h"

namespace Routing::Pim::IO {

#define PIM_MESSAGE_INFO_ATTRS( X )                                             \
   X( SCALAR, intfId, IntfId, Lumo::IntfId, {} )                                \
   X( PTR, message, Message, const Packet::Message )                            \
   X( COUNTER, count, Count, std::uint32_t )

class MessageInfo : public Kiv::Notifier {
 public:
   MessageInfo() = default;
   KIV_ENTITY( MessageInfo, "Routing::Pim::IO::MessageInfo", PIM_MESSAGE_INFO_ATTRS )
   // The held message as a Hello, or null.
   Kiv::Ptr< const Packet::HelloMessage > helloMessage() const {
      if( !message_ || message_->type() != Packet::MessageType::hello ) return nullptr;
      return Kiv::Ptr< const Packet::HelloMessage >(
         static_cast< const Packet::HelloMessage * >( message_.ptr() ) );
   }
};
KIV_NOTIFIEE( MessageInfo, PIM_MESSAGE_INFO_ATTRS )

// The per-VRF handle on the PIM socket: its receive mailboxes by message type
// and its transmit mailbox.
#define PIM_PAM_MANAGER_ATTRS( X )                                              \
   X( COLL, rxMessageInfo, RxMessageInfo, std::uint8_t, Kiv::Ptr< MessageInfo > ) \
   X( PTR, txMessageInfo, TxMessageInfo, MessageInfo )                          \
   X( SCALAR, rcvBufSize, RcvBufSize, std::uint32_t, 0 )                        \
   X( SCALAR, rcvPktInfo, RcvPktInfo, bool, false )

class PamManager : public Kiv::Notifier {
 public:
   PamManager( Lumo::AddressFamily af, const Lumo::NamespaceName & ns, bool ownSocket )
         : af_( af ), namespaceName_( ns ), ownSocket_( ownSocket ) {
      txMessageInfo_ = Kiv::make< MessageInfo >();
   }
   Lumo::AddressFamily af() const { return af_; }
   const Lumo::NamespaceName & namespaceName() const { return namespaceName_; }
   bool ownSocket() const { return ownSocket_; }
   KIV_ENTITY( PamManager, "Routing::Pim::IO::PamManager", PIM_PAM_MANAGER_ATTRS )
 private:
   Lumo::AddressFamily af_;
   Lumo::NamespaceName namespaceName_;
   bool ownSocket_;
};
KIV_NOTIFIEE( PamManager, PIM_PAM_MANAGER_ATTRS )

} // namespace Routing::Pim::IO

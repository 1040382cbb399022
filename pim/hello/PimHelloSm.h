#pragma once
// HelloSm: turns each received, decoded Hello of one VRF into creations and
// refreshes of neighbour entries. Everything that follows (timers, DR,
// triggered Hellos, expiry) is NeighborSm's and IntfSm's reaction to the
// attributes written here.
#include "kiv/EntityMacros.h"
#include "model/PimStatus.h"
#include "services/pimio/MessageInfo.h"
#include "kiv/OwnedReactor.h"

namespace Routing::Pim {

class HelloSm : public Kiv::StateMachine {
 public:
   // Both inputs are required ("null ValidPtr" otherwise).
   HelloSm( const Kiv::Ptr< AllStatus > & allStatus,
            const Kiv::Ptr< const IO::MessageInfo > & messageInfo );
   ~HelloSm() override;

   const Kiv::Ptr< AllStatus > & allStatus() const { return allStatus_; }
   Kiv::Ptr< const IO::MessageInfo > helloMessageInfo() const { return helloMessageInfo_.notifier(); }

   // Processes the Hello the mailbox holds now.
   void handleHelloMessage();
   // Sets the neighbour's reliable-transport info from the Hello's port option.
   void processPortOptions( const Kiv::Ptr< const Packet::HelloMessage > & hello,
                            const Kiv::Ptr< Intf > & intf, const Kiv::Ptr< Neighbor > & neighbor );

 private:
   // The steps of handleHelloMessage.
   // Whether a Hello from src may come in on the interface (its subnet, not
   // its own address, its network or broadcast address); traced if not.
   bool sourceAcceptable( Intf & intf, const Lumo::IntfId & intfId, const Lumo::IpGenAddr & src );
   // The neighbour the Hello refreshes or creates; null for a goodbye from a
   // stranger or a new neighbour beyond a limit.
   Kiv::Ptr< Neighbor > refreshOrCreateNeighbor( const Kiv::Ptr< const Packet::HelloMessage > & hello,
                                                 const Kiv::Ptr< Intf > & intf, const Lumo::IntfId & intfId,
                                                 std::uint16_t holdTime );
   // The neighbour keeps the usable secondary addresses the Hello lists, up
   // to the per-neighbour limit.
   void updateSecondaryAddresses( const Kiv::Ptr< const Packet::HelloMessage > & hello,
                                  const Kiv::Ptr< Intf > & intf, const Lumo::IntfId & intfId,
                                  const Kiv::Ptr< Neighbor > & neighbor );
   // Whether a new neighbour fits under the interface's and the VRF's
   // limits; a refusal is counted, remembered and logged.
   bool admitNeighbor( Intf & intf, const Lumo::IpGenAddr & src, double now );
   void noteRefusedSource( Intf & intf, const Lumo::IpGenAddr & src, double now );

   class KivHelloMessageInfo : public Kiv::OwnedReactor< IO::MessageInfo::NotifieeConst, HelloSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onCount() override { owner_->handleHelloMessage(); }
   };

   Kiv::Ptr< AllStatus > allStatus_;
   KivHelloMessageInfo helloMessageInfo_;
};

// Constructs a HelloSm with its notifications active.
Kiv::Ptr< HelloSm > HelloSmIs( const Kiv::Ptr< AllStatus > & allStatus,
                               const Kiv::Ptr< const IO::MessageInfo > & messageInfo );
Kiv::Ptr< HelloSm > helloSmFactory( const Kiv::Ptr< AllStatus > & allStatus,
                                    const Kiv::Ptr< const IO::MessageInfo > & messageInfo );

} // namespace Routing::Pim

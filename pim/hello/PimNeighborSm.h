#pragma once
// NeighborSm: one per neighbour entry. Owns the liveness timer, reports option
// changes to its owner (the IntfSm, which turns them into DR election, LAN
// prune delay, T bit and triggered Hellos), keeps the interface's
// secondary-address map, follows the neighbour's BFD state and picks its
// transport protocol.
#include "kiv/EntityMacros.h"
#include "model/PimConfig.h"
#include "model/PimStatus.h"
#include "tolm/OwnedTimer.h"
#include "tolm/TimerWheel.h"
#include "kiv/OwnedReactor.h"

namespace Routing::Pim {

// What a NeighborSm may ask of the interface machine that owns it. The
// owner decides what an option change means for the interface (counters,
// election, LAN prune delay); the neighbour machine only reports it.
class NeighborSmOwner {
 public:
   virtual const Kiv::Ptr< Intf > & intf() const = 0;
   virtual const L3::VrfName & vrfName() const = 0;
   // The neighbour's generation id changed: it gets a triggered Hello.
   virtual void neighborGenerationIdChanged() = 0;
   // Its DR Priority option changed.
   virtual void neighborDrPriorityOptionIs( const Lumo::IpGenAddr & addr, const DrPriorityOption & option ) = 0;
   // Its LAN Prune Delay option changed; false when the owner did not take
   // the new option in (the neighbour keeps comparing with the old one).
   virtual bool neighborLanPruneDelayOptionIs( const Lumo::IpGenAddr & addr,
                                               const LanPruneDelayOption & option ) = 0;
   // Its BFD session came back up after it was held out: send a Hello now.
   virtual void neighborBfdRecovered() = 0;

 protected:
   ~NeighborSmOwner() = default;
};

#define PIM_NEIGHBOR_SM_ATTRS( X )                                                      \
   X( SCALAR, prevDrPriorityOption, PrevDrPriorityOption, DrPriorityOption, {} )        \
   X( SCALAR, prevGenerationIdOption, PrevGenerationIdOption, GenerationIdOption, {} )  \
   X( SCALAR, prevLanPruneDelayOption, PrevLanPruneDelayOption, LanPruneDelayOption, {} ) \
   X( SCALAR, prevBfdState, PrevBfdState, Bfd::OperState, Bfd::operDown )               \
   X( SET, mappedSecondary, MappedSecondary, Lumo::IpGenAddr )                          \
   X( SCALAR, initialized, Initialized, bool, false )

class NeighborSm : public Kiv::StateMachine {
 public:
   NeighborSm( const Lumo::IpGenAddr & address, const Kiv::Ptr< Neighbor > & neighbor,
               const Kiv::Ptr< Tolm::TimerWheel > & timerWheel,
               const Kiv::Ptr< const Config > & pimConfig, NeighborSmOwner * owner );
   ~NeighborSm() override;
   KIV_ENTITY( NeighborSm, "Routing::Pim::NeighborSm", PIM_NEIGHBOR_SM_ATTRS )

   const Lumo::IpGenAddr & address() const { return address_; }
   const Kiv::Ptr< Neighbor > & neighbor() const { return neighbor_; }
   const Kiv::Ptr< Intf > & intf() const { return intf_; }
   const Kiv::Ptr< const Config > & pimConfig() const { return pimConfig_; }
   NeighborSmOwner * owner() const { return owner_; }
   // The liveness timer's absolute expiry (+infinity: never).
   Kiv::Seconds neighborTimerTimeMin() const { return neighborTimer_.timeMin(); }

   void handleInitialized();
   void handleHoldTime();
   void handleLastRefreshTime();
   void handleNeighborTimerExpiry();
   void handleGenerationIdOption();
   void handleDrPriorityOption();
   void handleLanPruneDelayOption();
   void handleSecondaryAddress( const Lumo::IpGenAddr & addr );
   void handleSecondaryAddress();
   void handlePort();
   void handleBfdState();

 private:
   class KivNeighbor : public Kiv::OwnedReactor< Neighbor::NotifieeConst, NeighborSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onHoldTime() override { owner_->handleHoldTime(); }
      void onLastRefreshTime() override { owner_->handleLastRefreshTime(); }
      void onDrPriorityOption() override { owner_->handleDrPriorityOption(); }
      void onGenerationIdOption() override { owner_->handleGenerationIdOption(); }
      void onLanPruneDelayOption() override { owner_->handleLanPruneDelayOption(); }
      void onSecondaryAddress( const Lumo::IpGenAddr & a ) override { owner_->handleSecondaryAddress( a ); }
      void onPortInfo() override { owner_->handlePort(); }
      void onBfdState() override { owner_->handleBfdState(); }
   };
   using KivNeighborTimer = Tolm::OwnedTimer< NeighborSm, &NeighborSm::handleNeighborTimerExpiry >;

   const Lumo::IpGenAddr address_;
   Kiv::Ptr< Neighbor > neighbor_;
   Kiv::Ptr< Tolm::TimerWheel > timerWheel_;
   Kiv::Ptr< const Config > pimConfig_;
   NeighborSmOwner * owner_;
   Kiv::Ptr< Intf > intf_;
   KivNeighbor neighborReactor_;
   KivNeighborTimer neighborTimer_;
};

// Constructs a NeighborSm with its notifications active.
Kiv::Ptr< NeighborSm > NeighborSmIs( const Lumo::IpGenAddr & address, const Kiv::Ptr< Neighbor > & neighbor,
                                     const Kiv::Ptr< Tolm::TimerWheel > & timerWheel,
                                     const Kiv::Ptr< const Config > & pimConfig, NeighborSmOwner * owner );
Kiv::Ptr< NeighborSm > neighborSmFactory( const Lumo::IpGenAddr & address,
                                          const Kiv::Ptr< Neighbor > & neighbor,
                                          const Kiv::Ptr< Tolm::TimerWheel > & timerWheel,
                                          const Kiv::Ptr< const Config > & pimConfig, NeighborSmOwner * owner );

} // namespace Routing::Pim

#pragma once
// IntfSm: one per PIM interface of a VRF. Its Hello side builds and sends
// Hellos (periodic, triggered, goodbye) and runs the Hello timers; its DR side
// elects the designated router; its neighbour side creates the NeighborSms,
// decides which neighbours are active (BFD), keeps the counts of neighbours
// lacking an option and derives the used propagation delay, override interval
// and T bit.
//
// GlobalIntfSm: one per VRF; owns the IntfSms, recreating them as the kernel's
// view of interfaces changes, forwards BFD peer state into neighbour entries
// and fans the reload / DR-delay events out to every interface.
//
// Sources: PimIntfSm.cpp (construction, start-up, neighbour side),
// PimIntfSmHello.cpp, PimIntfSmDr.cpp (DR, LAN prune delay, T bit, BFD),
// PimGlobalIntfSm.cpp; PimIntfSmImpl.h holds what they share.
#include "hello/ActiveNeighbors.h"
#include "hello/PimNeighborSm.h"
#include "kiv/EntityMacros.h"
#include "model/PimConfig.h"
#include "model/PimStatus.h"
#include "services/bfd/Bfd.h"
#include "services/intf/DeviceIntfStatus.h"
#include "services/pimio/MessageInfo.h"
#include "tolm/OwnedTimer.h"
#include "tolm/TimerWheel.h"
#include "kiv/OwnedReactor.h"
#include "kiv/ReactorMap.h"

namespace Routing::Pim {

// The inputs shared by every interface machine of one VRF.
struct IntfSmInputs {
   L3::VrfName vrfName;
   Kiv::Ptr< GlobalStatus > pimGlobalStatus;
   Kiv::Ptr< CellGlobalStatus > pimCellGlobalStatus;
   Kiv::Ptr< const GlobalConfig > pimGlobalConfig;
   Kiv::Ptr< const Config > pimConfig;
   Kiv::Ptr< IO::PamManager > pimPamManager;
   Kiv::Ptr< Tolm::TimerWheel > timerWheel;
   Kiv::Ptr< Bfd::AppConfig > bfdPimAppConfig;
   Kiv::Ptr< const Bfd::AppStatus > bfdPimAppStatus;
   Kiv::Ptr< const Interface::DeviceIntfStatusDir > kernelIntfStatus;
   Kiv::Ptr< const RouterIdInfo > routerIdInfo;
};

#define PIM_INTF_SM_ATTRS( X )                                                                \
   X( ENTITIES, neighborSm, NeighborSm, Lumo::IpGenAddr, NeighborSm )                          \
   X( SCALAR, drNotifyDelay, DrNotifyDelay, bool, false )                                      \
   X( SCALAR, neighborEventTriggeredHello, NeighborEventTriggeredHello, bool, false )          \
   X( SCALAR, initialized, Initialized, bool, false )

class IntfSm : public Kiv::StateMachine, public NeighborSmOwner {
 public:
   IntfSm( const Lumo::IntfId & intfId, const Kiv::Ptr< Intf > & intf, const IntfSmInputs & inputs );
   ~IntfSm() override;
   KIV_ENTITY( IntfSm, "Routing::Pim::IntfSm", PIM_INTF_SM_ATTRS )

   const Lumo::IntfId & intfId() const { return intfId_; }
   const Kiv::Ptr< Intf > & intf() const override { return intf_; }
   const IntfSmInputs & inputs() const { return inputs_; }
   const L3::VrfName & vrfName() const override { return inputs_.vrfName; }
   // The active neighbours as counted: options, DR candidates, delay maxima.
   const ActiveNeighbors & activeNeighbors() const { return active_; }
   std::uint32_t neighborNotUsingDrPriority() const { return active_.notUsingDrPriority(); }
   std::uint32_t neighborNotUsingLanPrune() const { return active_.notUsingLanPrune(); }
   std::uint32_t neighborNotUsingTBit() const { return active_.notUsingTBit(); }
   Kiv::Seconds helloTimerTimeMin() const { return helloTimer_.timeMin(); }
   Kiv::Seconds helloTriggeredTimerTimeMin() const { return helloTriggeredTimer_.timeMin(); }

   // Start-up: Hello steps, then neighbour reconciliation, BFD and DR.
   void handleInitialized();

   // --- Hello side ---
   void sendHelloMessage( std::uint16_t holdTime );
   void handleHelloTimerExpiry();
   void handleHelloTriggeredTimerExpiry();
   void handleTriggeredHello();
   void handleHelloPeriod();
   void handleHelloDelay();
   void resetHelloTimer( std::uint16_t delay );
   void handleEnabled();
   void handleAddress();
   void handleMode();
   void handleSecondaryAddress( const Lumo::IpGenAddr & addr );

   // --- DR side ---
   void updateDr();
   void updateDr( const Lumo::IpGenAddr & addr, std::uint32_t priority, bool isDr );
   void handleDrPriority();
   void handleUsedDr();

   // --- neighbour side ---
   void handleNeighbor( const Lumo::IpGenAddr & addr );
   void handleActiveNeighbor( const Lumo::IpGenAddr & addr );
   void handleInactiveBfdNeighbor( const Lumo::IpGenAddr & addr );
   void handleBfdEnabled();
   void handlePort();
   void handleRouterId();
   // The used propagation delay, then the used override interval.
   void updateLanPruneDelay();
   void updateTBit();
   void updateInterfaceIdOption();
   void addBfd( const Lumo::IpGenAddr & addr );
   void removeBfd( const Lumo::IpGenAddr & addr );
   void updateBfd( const Lumo::IpGenAddr & addr, bool enabled );

 private:
   class KivIntf : public Kiv::OwnedReactor< Intf::NotifieeConst, IntfSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onEnabled() override { owner_->handleEnabled(); }
      void onMode() override { owner_->handleMode(); }
      void onAddressWithMask() override { owner_->handleAddress(); }
      void onSecondaryAddress( const Lumo::IpGenAddr & a ) override { owner_->handleSecondaryAddress( a ); }
      void onHelloPeriod() override { owner_->handleHelloPeriod(); }
      void onHelloHoldTime() override { owner_->handleHelloPeriod(); }
      void onHelloDelay() override { owner_->handleHelloDelay(); }
      void onDrPriority() override { owner_->handleDrPriority(); }
      void onBfdEnabled() override { owner_->handleBfdEnabled(); }
      void onPortCapabilityFlags() override { owner_->handlePort(); }
      void onNeighbor( const Lumo::IpGenAddr & a ) override { owner_->handleNeighbor( a ); }
      void onActiveNeighbor( const Lumo::IpGenAddr & a ) override { owner_->handleActiveNeighbor( a ); }
      // Watched in the immediate form: the down path must still find the
      // neighbour's NeighborSm, which is deleted right after.
      void onActiveNeighborkivImmediate( const Lumo::IpGenAddr & a ) override {
         owner_->handleActiveNeighbor( a );
      }
      void onInactiveBfdNeighbor( const Lumo::IpGenAddr & a ) override {
         owner_->handleInactiveBfdNeighbor( a );
      }
      void onUsedDr() override { owner_->handleUsedDr(); }
      void onTriggeredHello() override { owner_->handleTriggeredHello(); }
      void onPropagationDelay() override { owner_->handleLanPruneField( kPropagationDelayField ); }
      void onOverrideInterval() override { owner_->handleLanPruneField( kOverrideIntervalField ); }
   };
   class KivRouterIdInfo : public Kiv::OwnedReactor< RouterIdInfo::NotifieeConst, IntfSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onRouterId() override { owner_->handleRouterId(); }
   };
   using KivHelloTimer = Tolm::OwnedTimer< IntfSm, &IntfSm::handleHelloTimerExpiry >;
   using KivHelloTriggeredTimer = Tolm::OwnedTimer< IntfSm, &IntfSm::handleHelloTriggeredTimerExpiry >;

   // What the NeighborSms report, through NeighborSmOwner only.
   void neighborGenerationIdChanged() override;
   void neighborDrPriorityOptionIs( const Lumo::IpGenAddr & addr, const DrPriorityOption & option ) override;
   bool neighborLanPruneDelayOptionIs( const Lumo::IpGenAddr & addr, const LanPruneDelayOption & option ) override;
   void neighborBfdRecovered() override;

   // A Hello has gone out in place of the pending triggered one.
   void triggeredHelloSent();
   // This router's candidacy: its used address, priority 1 during reload.
   DrCandidate ownDrCandidate() const;
   // Start-up: neighbours whose BFD session is down become inactive.
   void handleStartupBfdStates();
   // The propagation delay and the override interval, used alike.
   struct LanPruneField;
   static const LanPruneField kPropagationDelayField;
   static const LanPruneField kOverrideIntervalField;
   void handleLanPruneField( const LanPruneField & field );

   ActiveNeighbors active_;
   const Lumo::IntfId intfId_;
   Kiv::Ptr< Intf > intf_;
   IntfSmInputs inputs_;
   KivIntf intfReactor_;
   KivRouterIdInfo routerIdReactor_;
   KivHelloTimer helloTimer_;
   KivHelloTriggeredTimer helloTriggeredTimer_;
};

Kiv::Ptr< IntfSm > intfSmFactory( const Lumo::IntfId & intfId, const Kiv::Ptr< Intf > & intf,
                                  const IntfSmInputs & inputs );

// ---- GlobalIntfSm -----------------------------------------------------------------
#define PIM_GLOBAL_INTF_SM_ATTRS( X )                                     \
   X( ENTITIES, intfSm, IntfSm, Lumo::IntfId, IntfSm )                    \
   X( SCALAR, initialized, Initialized, bool, false )

class GlobalIntfSm : public Kiv::StateMachine {
 public:
   // allStatus and every input but the optional BFD, kernel and router-id
   // ones are required.
   GlobalIntfSm( const Kiv::Ptr< AllStatus > & allStatus, const IntfSmInputs & inputs );
   ~GlobalIntfSm() override;
   KIV_ENTITY( GlobalIntfSm, "Routing::Pim::GlobalIntfSm", PIM_GLOBAL_INTF_SM_ATTRS )

   const Kiv::Ptr< AllStatus > & allStatus() const { return allStatus_; }
   const IntfSmInputs & inputs() const { return inputs_; }

   // Per-interface and per-peer reactor collections.
   void pimIntfIs( const Kiv::Ptr< const Intf > & intf );
   void pimIntfDel( const Lumo::IntfId & id );
   void peerStatusIs( const Kiv::Ptr< const Bfd::BfdPeerStatus > & peerStatus );
   void peerStatusDel( const Bfd::Peer & peer );
   bool pimIntfHas( const Lumo::IntfId & id ) const;

   void handleInitialized();
   void handleDestruction();
   void handleIfIndex( const Lumo::IntfId & intfId );
   void handleReloadStatus();
   void updateAllDr();
   // Reactions of the per-interface and per-peer reactors.
   void handleNew( const Lumo::IntfId & intfId );
   void handleDel( const Lumo::IntfId & intfId );
   void handlePeerStatus( const Bfd::Peer & peer );
   // An interface or a BFD session that came, changed entity or went.
   void handlePimIntf( const Lumo::IntfId & id );
   void handleAppPeerStatus( const Bfd::Peer & peer );

 private:
   class KivPimCellGlobalStatus : public Kiv::OwnedReactor< CellGlobalStatus::NotifieeConst, GlobalIntfSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onReload() override { owner_->handleReloadStatus(); }
      void onDrDelayTimerExpired() override { owner_->updateAllDr(); }
   };
   class KivPimAllStatus : public Kiv::OwnedReactor< AllStatus::NotifieeConst, GlobalIntfSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onPimIntf( const Lumo::IntfId & id ) override { owner_->handlePimIntf( id ); }
   };
   class KivKernelIntfStatus : public Kiv::OwnedReactor< Interface::DeviceIntfStatusDir::NotifieeConst, GlobalIntfSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onDeviceIntfStatus( const Lumo::IntfId & id ) override { owner_->handleIfIndex( id ); }
   };
   class KivBfdPimAppStatus : public Kiv::OwnedReactor< Bfd::AppStatus::NotifieeConst, GlobalIntfSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onPeerStatus( const Bfd::Peer & peer ) override { owner_->handleAppPeerStatus( peer ); }
   };
 public:
   // One per interface of AllStatus.pimIntf: creation runs handleNew().
   class KivPimIntf : public Kiv::KeyedReactor< Intf::NotifieeConst, GlobalIntfSm, Lumo::IntfId > {
    public:
      KivPimIntf( GlobalIntfSm * o, const Kiv::Ptr< const Intf > & intf );
      const Lumo::IntfId & id() const { return key_; }
   };
   // One per BFD peer status: a status change runs handlePeerStatus().
   class KivPeerStatus : public Kiv::KeyedReactor< Bfd::BfdPeerStatus::NotifieeConst, GlobalIntfSm, Bfd::Peer > {
    public:
      KivPeerStatus( GlobalIntfSm * o, const Kiv::Ptr< const Bfd::BfdPeerStatus > & s );
      void onStatus() override { owner_->handlePeerStatus( key_ ); }
      const Bfd::Peer & peer() const { return key_; }
      Bfd::OperState lastState() const { return lastState_; }
      void lastStateIs( Bfd::OperState s ) { lastState_ = s; }
    private:
      Bfd::OperState lastState_;
   };

 private:
   Kiv::Ptr< AllStatus > allStatus_;
   IntfSmInputs inputs_;
   KivPimCellGlobalStatus cellGlobalStatusReactor_;
   KivPimAllStatus allStatusReactor_;
   KivKernelIntfStatus kernelIntfStatusReactor_;
   KivBfdPimAppStatus bfdAppStatusReactor_;
   Kiv::ReactorMap< Lumo::IntfId, KivPimIntf > pimIntf_;
   Kiv::ReactorMap< Bfd::Peer, KivPeerStatus > peerStatus_;
};

Kiv::Ptr< GlobalIntfSm > GlobalIntfSmIs( const Kiv::Ptr< AllStatus > & allStatus, const IntfSmInputs & inputs );

} // namespace Routing::Pim

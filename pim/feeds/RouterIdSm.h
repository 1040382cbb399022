#pragma once
// RouterIdSm: derives the VRF's router id from the bridge MAC address (its
// last four bytes, big-endian) for the reliable-transport Interface ID.
#include "kiv/EntityMacros.h"
#include "model/PimStatus.h"
#include "services/bridging/BridgingConfig.h"
#include "kiv/OwnedReactor.h"

namespace Routing::Pim {

#define PIM_ROUTER_ID_SM_ATTRS( X ) \
   X( SCALAR, initialized, Initialized, bool, false )

class RouterIdSm : public Kiv::StateMachine {
 public:
   // bridgingConfig may be null: the router id then keeps its value.
   RouterIdSm( const L3::VrfName & vrfName, const Kiv::Ptr< const Bridging::Config > & bridgingConfig,
               const Kiv::Ptr< RouterIdInfo > & routerIdInfo );
   ~RouterIdSm() override;
   KIV_ENTITY( RouterIdSm, "Routing::Pim::RouterIdSm", PIM_ROUTER_ID_SM_ATTRS )

   const L3::VrfName & vrfName() const { return vrfName_; }
   const Kiv::Ptr< RouterIdInfo > & routerIdInfo() const { return routerIdInfo_; }
   void handleInitialized();
   void updateRouterId();

 private:
   class KivBridgingConfig : public Kiv::OwnedReactor< Bridging::Config::NotifieeConst, RouterIdSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onBridgeMacAddr() override { owner_->updateRouterId(); }
   };
   const L3::VrfName vrfName_;
   Kiv::Ptr< RouterIdInfo > routerIdInfo_;
   KivBridgingConfig bridgingConfig_;
};

Kiv::Ptr< RouterIdSm > routerIdSmFactory( const L3::VrfName & vrfName,
                                          const Kiv::Ptr< const Bridging::Config > & bridgingConfig,
                                          const Kiv::Ptr< RouterIdInfo > & routerIdInfo );

} // namespace Routing::Pim

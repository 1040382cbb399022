#pragma once
// AsuSm: one per VRF, PIM's client of the fast-upgrade shutdown. When the
// multicast subsystem raises the shutdown flag, every PIM interface of the
// VRF advertises a long hold time at once (so that neighbours keep this
// router while its software restarts), and after a notification delay the
// VRF is reported done.
#include <cstdint>

#include "kiv/EntityMacros.h"
#include "model/PimConfig.h"
#include "model/PimStatus.h"
#include "services/mcast/Multicast.h"
#include "tolm/OwnedTimer.h"
#include "tolm/TimerWheel.h"
#include "kiv/OwnedReactor.h"

namespace Routing::Pim {

#define PIM_ASU_SM_ATTRS( X )                                            \
   X( SCALAR, asuNotifyDelay, AsuNotifyDelay, double, 5.0 )              \
   X( SCALAR, initialized, Initialized, bool, false )

class AsuSm : public Kiv::StateMachine {
 public:
   static constexpr std::uint16_t asuHelloPeriodDefault = 120;
   static constexpr double asuHelloMultiplierDefault = 3.5;
   static constexpr std::uint16_t asuHelloHoldTimeDefault = 420;
   static constexpr double asuNotifyDelayDefault = 5.0;

   // allStatus and timerWheel are required ("null ValidPtr"); a missing
   // configuration leaves the VRF name empty, a missing shutdown status means
   // no shutdown, a missing VRF status drops the completion report.
   AsuSm( const Kiv::Ptr< const Config > & pimConfig, const Kiv::Ptr< AllStatus > & allStatus,
          const Kiv::Ptr< Tolm::TimerWheel > & timerWheel,
          const Kiv::Ptr< const McastCommon::AsuShutdownStatus > & asuClientShutdownStatus,
          const Kiv::Ptr< McastCommon::AsuVrfStatus > & asuClientVrfStatus );
   ~AsuSm() override;
   KIV_ENTITY( AsuSm, "Routing::Pim::AsuSm", PIM_ASU_SM_ATTRS )

   L3::VrfName vrfName() const;
   const Kiv::Ptr< AllStatus > & allStatus() const { return allStatus_; }
   Kiv::Seconds asuTimerTimeMin() const { return asuTimer_.timeMin(); }

   void handleInitialized();
   void doAsuShutdown();
   void handleAsuTimerExpiry();

 private:
   class KivAsuClientShutdownStatus : public Kiv::OwnedReactor< McastCommon::AsuShutdownStatus::NotifieeConst, AsuSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onShutdown() override { owner_->doAsuShutdown(); }
      void onNotifier() override { owner_->doAsuShutdown(); }
   };
   using KivAsuTimer = Tolm::OwnedTimer< AsuSm, &AsuSm::handleAsuTimerExpiry >;

   Kiv::Ptr< const Config > pimConfig_;
   Kiv::Ptr< AllStatus > allStatus_;
   Kiv::Ptr< Tolm::TimerWheel > timerWheel_;
   Kiv::Ptr< McastCommon::AsuVrfStatus > asuClientVrfStatus_;
   KivAsuClientShutdownStatus asuClientShutdownStatus_;
   KivAsuTimer asuTimer_;
};

Kiv::Ptr< AsuSm > AsuSmIs( const Kiv::Ptr< const Config > & pimConfig,
                           const Kiv::Ptr< AllStatus > & allStatus,
                           const Kiv::Ptr< Tolm::TimerWheel > & timerWheel,
                           const Kiv::Ptr< const McastCommon::AsuShutdownStatus > & asuShutdownStatus,
                           const Kiv::Ptr< McastCommon::AsuVrfStatus > & asuVrfStatus );
Kiv::Ptr< AsuSm > asuSmFactory( const Kiv::Ptr< const Config > & pimConfig,
                                const Kiv::Ptr< AllStatus > & allStatus,
                                const Kiv::Ptr< Tolm::TimerWheel > & timerWheel,
                                const Kiv::Ptr< const McastCommon::AsuShutdownStatus > & asuShutdownStatus,
                                const Kiv::Ptr< McastCommon::AsuVrfStatus > & asuVrfStatus );

} // namespace Routing::Pim

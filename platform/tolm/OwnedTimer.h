#pragma once
// A timer of the wheel that calls one handler of its owner when it fires,
// declared in one line:
//
//   using KivHelloTimer = Tolm::OwnedTimer< IntfSm, &IntfSm::handleHelloTimerExpiry >;
//   KivHelloTimer helloTimer_;   // built with ( this, wheel )
#include "kiv/OwnedReactor.h"
#include "tolm/TimerWheel.h"

namespace Tolm {

template< class Owner, void ( Owner::*handle )() >
class OwnedTimer : public Kiv::OwnedReactor< TimerWheel::NotifieeConst, Owner > {
 public:
   using Kiv::OwnedReactor< TimerWheel::NotifieeConst, Owner >::OwnedReactor;
   void onTime() override { ( this->owner_->*handle )(); }
};

} // namespace Tolm

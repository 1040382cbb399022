#pragma once
// Timer service over the agent's clock.
//
// A timer is a reactor on a wheel (TimerWheel::NotifieeConst): timeMinIs(t)
// arms it for the absolute time t (seconds, a double); the activity loop calls
// onTime() when t is reached. One reactor holds one deadline: re-arming
// replaces it; +infinity disarms; a time already past fires at the next turn
// of the loop, never inside timeMinIs(). Firing disarms the timer first
// (timeMin() reads +infinity inside onTime()), so onTime() may re-arm it.
//
// Order: timers fire in (deadline, arming order). Arming order is global
// across all wheels of the process, so ties between wheels are deterministic.
//
// Cost: arming and disarming are O(1) whatever the number of armed timers
// (hierarchical wheel of intrusive lists with occupancy bitmaps); finding the
// next deadline scans one slot.
#include <array>
#include <cstddef>
#include <cstdint>

#include "kiv/Clock.h"
#include "kiv/Ptr.h"

namespace Tolm {

class TimerWheel : public Kiv::PtrInterface {
   struct Slot;   // one list of one wheel level; defined with the wheel

 public:
   class NotifieeConst {
    public:
      NotifieeConst() = default;
      explicit NotifieeConst( TimerWheel * wheel ) { notifierIs( wheel ); }
      NotifieeConst( const NotifieeConst & ) = delete;
      NotifieeConst & operator=( const NotifieeConst & ) = delete;
      virtual ~NotifieeConst();

      TimerWheel * notifier() const { return wheel_; }
      // Binding to another wheel (or null) disarms the timer.
      void notifierIs( TimerWheel * wheel );
      Kiv::Seconds timeMin() const { return deadline_; }
      // Arms for absolute time t; +infinity disarms. NaN is a programming error.
      void timeMinIs( Kiv::Seconds t );
      bool armed() const { return slot_ != nullptr; }
      virtual void onTime() {}

    private:
      friend class TimerWheel;
      TimerWheel * wheel_ = nullptr;
      Kiv::Seconds deadline_ = Kiv::kNever;
      std::uint64_t seq_ = 0;     // global arming order
      std::uint64_t tick_ = 0;    // deadline quantised to wheel ticks
      NotifieeConst * prev_ = nullptr;
      NotifieeConst * next_ = nullptr;
      Slot * slot_ = nullptr;
      // Every timer bound to the wheel, armed or not, so that a dying wheel
      // can detach them all and none keeps a dangling notifier().
      NotifieeConst * boundPrev_ = nullptr;
      NotifieeConst * boundNext_ = nullptr;
   };

   explicit TimerWheel( const Kiv::Clock & clock );
   ~TimerWheel() override;

   const Kiv::Clock & clock() const { return clock_; }
   // Earliest armed deadline and its arming sequence; false when none armed.
   bool nextDue( Kiv::Seconds & deadline, std::uint64_t & seq );
   Kiv::Seconds nextDeadline();
   // Fires the earliest timer when its deadline is <= now. Returns whether one
   // fired. An exception from onTime() propagates to the caller.
   bool fireNext( Kiv::Seconds now );
   std::size_t armedCount() const { return armed_; }

 private:
   // Implementation detail owned by the wheel's source file.
   friend class NotifieeConst;
   TimerWheel( const TimerWheel & ) = delete;
   TimerWheel & operator=( const TimerWheel & ) = delete;
   void link( NotifieeConst & n, bool movedLater );
   void unlink( NotifieeConst & n );
   void bind( NotifieeConst & n );
   void unbind( NotifieeConst & n );
   const Kiv::Clock & clock_;
   std::size_t armed_ = 0;
   struct Impl;
   Impl * impl_;
};

// Creates a wheel and registers it with the activity manager, which then
// fires its timers.
Kiv::Ptr< TimerWheel > TimerWheelIs( const Kiv::Clock & clock );

} // namespace Tolm

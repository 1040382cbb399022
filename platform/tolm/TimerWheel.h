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
// next deadline sorts the due slot once into a run of due timers, so firing
// N timers of one tick costs O(N log N) in all, not a scan per timer. Re-arming an armed timer later (a refresh) is
// inline and writes only the timer: with many timers the cost of a re-arm is
// the cache miss on the timer, so that path stays short enough for the CPU to
// overlap the misses of consecutive re-arms.
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
      void timeMinIs( Kiv::Seconds t ) {
         // deadline_ is finite or -infinity exactly when armed.
         if( !( t < Kiv::kNever ) || deadline_ == Kiv::kNever ) {
            rearm( t );
            return;
         }
         wheel_->moved( *this, t );
      }
      bool armed() const { return slot_ != nullptr; }
      virtual void onTime() {}

    private:
      friend class TimerWheel;
      // Every other case of timeMinIs(): disarming, arming, NaN.
      void rearm( Kiv::Seconds t );
      // The fields a refresh touches come first and together, so that it
      // rarely needs a second cache line.
      Kiv::Seconds deadline_ = Kiv::kNever;
      std::uint64_t seq_ = 0;     // global arming order
      TimerWheel * wheel_ = nullptr;
      NotifieeConst * next_ = nullptr;
      NotifieeConst * prev_ = nullptr;
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
   // Re-arms the armed timer n for t. Whether t is earlier or later than the
   // old deadline is known only once n is in cache, so nothing here branches
   // on it: a misprediction there would stall until that miss returns and
   // keep the misses of consecutive re-arms from overlapping.
   //  * Later: n stays in its slot, which comes up no later than t. n cannot
   //    pass the earliest timer (its deadline and arming order both grew), so
   //    that cache goes stale only if it was n.
   //  * Earlier: n is noted, and filed with others in a batch (when the batch
   //    is full, and before nextDue() searches). An earliest n stays so; any
   //    other n passes the earliest when its deadline is smaller, since its
   //    arming order is the newest.
   void moved( NotifieeConst & n, Kiv::Seconds t ) {
      const bool earlier = t < n.deadline_;
      if( NotifieeConst * e = earliest_ ) {
         const auto self = reinterpret_cast< std::uintptr_t >( &n );
         const auto other = reinterpret_cast< std::uintptr_t >( e );
         const std::uintptr_t ifLater = e == &n ? 0 : other;
         const std::uintptr_t ifEarlier = e == &n || t < e->deadline_ ? self : other;
         const std::uintptr_t mask = std::uintptr_t{ 0 } - earlier;
         earliest_ = reinterpret_cast< NotifieeConst * >( ( ifEarlier & mask ) | ( ifLater & ~mask ) );
      }
      n.deadline_ = t;
      n.seq_ = ++armingSeq_;
      deferred_[ deferredCount_ ] = &n;
      // A timer in the sorted run of due timers is re-filed either way: the
      // run's order holds only while its keys stay put.
      deferredCount_ += earlier | ( n.slot_ == runSlot_ );
      if( deferredCount_ == kDeferred ) fileDeferred();
   }
   void fileDeferred();
   void link( NotifieeConst & n );
   void unlink( NotifieeConst & n );
   void bind( NotifieeConst & n );
   void unbind( NotifieeConst & n );
   // Arming order across every wheel of the process (the activity loop is
   // single threaded).
   static inline std::uint64_t armingSeq_ = 0;
   const Kiv::Clock & clock_;
   std::size_t armed_ = 0;
   // The earliest armed timer when known; null when it must be searched for.
   NotifieeConst * earliest_ = nullptr;
   // Armed timers whose deadline moved earlier and which may sit in a slot
   // later than their true place; a timer may appear more than once.
   static constexpr unsigned kDeferred = 64;
   unsigned deferredCount_ = 0;
   std::array< NotifieeConst *, kDeferred > deferred_;
   struct Impl;
   Impl * impl_;
   Slot * runSlot_ = nullptr;   // the run of due timers, inside impl_
};

// Creates a wheel and registers it with the activity manager, which then
// fires its timers.
Kiv::Ptr< TimerWheel > TimerWheelIs( const Kiv::Clock & clock );

} // namespace Tolm

#pragma once
// The activity loop: one thread delivers deferred notifications, timer
// expiries and file-descriptor readiness, one at a time.
//
// DELIVERY CONTRACT (what reactors may rely on, and nothing stronger):
//  * Level-triggered. A deferred callback means "this attribute (or key) may
//    have changed since you last looked"; it carries no value. Handlers read
//    the current value, so they must be idempotent.
//  * Coalesced per (reactor, attribute, key). Any number of writes between two
//    deliveries produce one callback per reactor, attribute and key.
//  * Rounds. runUntilIdle() delivers the reactors that were queued when the
//    round began; anything dirtied during the round is delivered in a later
//    round.
//  * Order. Across reactors: first-dirtied first (FIFO). Within a reactor:
//    attributes in declaration order; the keys of one collection attribute in
//    the order they were first dirtied.
//  * Timers fire only when no deferred notification is pending; each expiry is
//    followed by a full runUntilIdle() before the next timer fires.
//  * A reactor may delete itself, its owner or its notifier inside a callback;
//    nothing further is delivered to a deleted reactor.
//  * An exception escaping a callback goes to the reactor's
//    onNotificationException() and the loop goes on. By default the manager
//    counts it (notificationExceptions()) and logs KIV_REACTOR_EXCEPTION,
//    rate-limited, with the running count.
//
// Time and randomness are injected: the clock (monotonic in production, a
// VirtualClock in tests and in the simulated LAN) and the random source.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kiv/Clock.h"
#include "kiv/Random.h"

namespace Tolm {
class TimerWheel;
}

namespace Kiv {

class NotifieeBase;

// A reactor on a file descriptor (sockets of the I/O service, netlink).
class FdReactor {
 public:
   FdReactor() = default;
   FdReactor( const FdReactor & ) = delete;
   FdReactor & operator=( const FdReactor & ) = delete;
   virtual ~FdReactor();
   int fd() const { return fd_; }
   // Starts watching fd for readability (-1 stops). Throws std::system_error,
   // and watches nothing, when the loop cannot watch fd.
   void fdIs( int fd );
   virtual void onReadable() = 0;
 private:
   int fd_ = -1;
};

class ActivityManager {
 public:
   ActivityManager();
   ~ActivityManager();
   ActivityManager( const ActivityManager & ) = delete;
   ActivityManager & operator=( const ActivityManager & ) = delete;

   // --- injection --------------------------------------------------------
   Clock & clock() const { return *clock_; }
   void clockIs( Clock * clock );        // null restores the monotonic clock
   VirtualClock * virtualClock() const;  // null unless the clock is virtual
   Random & random() const { return *random_; }
   void randomIs( Random * random );     // null restores the default source
   void useEpollIs( bool on ) { useEpoll_ = on; }
   bool useEpoll() const { return useEpoll_; }

   // --- deferred notifications --------------------------------------------
   void enqueue( NotifieeBase & n );
   void dequeue( NotifieeBase & n );
   bool idle() const { return head_ == nullptr; }
   // Delivers until nothing is queued. Returns false when the budget (number
   // of reactor deliveries) ran out first: a ping-pong between reactors, which
   // tests report as a failure instead of hanging.
   bool runUntilIdle( std::size_t budget = 10'000'000 );

   // --- timers -------------------------------------------------------------
   void timerWheelIs( Tolm::TimerWheel * wheel );
   void timerWheelDel( Tolm::TimerWheel * wheel );
   Seconds nextDeadline() const;

   // --- virtual-time drivers (need a VirtualClock) -------------------------
   // Runs until idle; then repeatedly takes the earliest timer with deadline
   // <= t, sets now to its deadline, fires it and runs until idle. Finally
   // sets now = t and runs until idle. Returns false on budget exhaustion.
   bool advanceTo( Seconds t, std::size_t budget = 100'000'000 );
   bool advanceBy( Seconds d, std::size_t budget = 100'000'000 );

   // --- real-time loop -------------------------------------------------------
   // One turn: deliver, fire due timers, wait for descriptors up to maxWait
   // seconds (or the next deadline), dispatch them.
   void runOnce( Seconds maxWait );
   void run();                     // turns until stop()
   void stop() { stopped_ = true; }
   // Throws std::system_error when the descriptor cannot be watched (and
   // then does not keep the reactor).
   void fdReactorIs( FdReactor * r );
   void fdReactorDel( FdReactor * r );

   // --- exceptions that escaped callbacks -----------------------------------
   void notificationExceptionIs( const std::string & what );
   std::uint64_t notificationExceptions() const { return exceptions_; }
   const std::string & lastNotificationException() const { return lastException_; }

   std::uint64_t deliveries() const { return deliveries_; }
   std::uint64_t round() const { return round_; }

 private:
   friend class NotifieeBase;
   bool fireOneTimer( Seconds now );
   void deliver( NotifieeBase & n );

   Clock * clock_;
   Random * random_;
   std::unique_ptr< Clock > ownClock_;
   std::unique_ptr< Random > ownRandom_;
   bool useEpoll_ = false;
   bool stopped_ = false;
   int epollFd_ = -1;
   NotifieeBase * head_ = nullptr;
   NotifieeBase * tail_ = nullptr;
   std::uint64_t round_ = 1;
   std::uint64_t deliveries_ = 0;
   std::uint64_t exceptions_ = 0;
   std::string lastException_;
   std::vector< Tolm::TimerWheel * > wheels_;
   std::vector< FdReactor * > fdReactors_;
};

// The process's activity manager (created on first use).
ActivityManager & activityManager();
// Configuration entry point; the agent calls activityManagerConfig().useEpollIs(true).
inline ActivityManager & activityManagerConfig() { return activityManager(); }
// Installs another manager (tests, the simulated LAN); null restores the default.
void activityManagerIs( ActivityManager * m );

} // namespace Kiv

#include "kiv/ActivityManager.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <string>
#include <system_error>

#include "kiv/Invariant.h"
#include "kiv/Log.h"
#include "kiv/Notifiee.h"
#include "tolm/TimerWheel.h"

namespace Kiv {

namespace detail {
ActivityManager * currentManager = nullptr;

ActivityManager & createManager() {
   static ActivityManager defaultManager;
   if( !currentManager ) currentManager = &defaultManager;
   return *currentManager;
}
} // namespace detail

ActivityManager & activityManager() {
   return detail::manager();
}

void activityManagerIs( ActivityManager * m ) {
   detail::currentManager = m;
}

// ---- FdReactor -------------------------------------------------------------------
FdReactor::~FdReactor() {
   if( fd_ >= 0 ) activityManager().fdReactorDel( this );
}

void FdReactor::fdIs( int fd ) {
   if( fd_ >= 0 ) activityManager().fdReactorDel( this );
   fd_ = -1;
   if( fd < 0 ) return;
   fd_ = fd;
   try {
      activityManager().fdReactorIs( this );
   } catch( ... ) {
      fd_ = -1;   // not watched: nothing to remove later
      throw;
   }
}

// ---- ActivityManager ---------------------------------------------------------------
ActivityManager::ActivityManager()
      : ownClock_( std::make_unique< MonotonicClock >() ),
        ownRandom_( std::make_unique< SeededRandom >( 0x5eed ) ) {
   clock_ = ownClock_.get();
   random_ = ownRandom_.get();
}

ActivityManager::~ActivityManager() {
   while( head_ ) dequeue( *head_ );
   if( epollFd_ >= 0 ) close( epollFd_ );
   if( detail::currentManager == this ) detail::currentManager = nullptr;
}

void ActivityManager::clockIs( Clock * clock ) {
   clock_ = clock ? clock : ownClock_.get();
}

VirtualClock * ActivityManager::virtualClock() const {
   return dynamic_cast< VirtualClock * >( clock_ );
}

void ActivityManager::randomIs( Random * random ) {
   random_ = random ? random : ownRandom_.get();
}

void ActivityManager::enqueue( NotifieeBase & n ) {
   KIV_INVARIANT( !n.queued_, "a reactor queued twice" );
   n.queued_ = true;
   n.round_ = round_;
   n.qprev_ = tail_;
   n.qnext_ = nullptr;
   if( tail_ ) tail_->qnext_ = &n; else head_ = &n;
   tail_ = &n;
}

void ActivityManager::dequeue( NotifieeBase & n ) {
   if( !n.queued_ ) return;
   if( n.qprev_ ) n.qprev_->qnext_ = n.qnext_; else head_ = n.qnext_;
   if( n.qnext_ ) n.qnext_->qprev_ = n.qprev_; else tail_ = n.qprev_;
   n.qprev_ = n.qnext_ = nullptr;
   n.queued_ = false;
}

void ActivityManager::deliver( NotifieeBase & n ) {
   dequeue( n );
   const std::uint64_t mask = std::exchange( n.dirty_, 0 );
   if( !mask ) return;
   ++deliveries_;
   DeliveryGuard g( n );
   n.kivDeliver( mask, g );
}

bool ActivityManager::runUntilIdle( std::size_t budget ) {
   while( head_ ) {
      // Deliver what was queued before this round; later work waits a round.
      const std::uint64_t current = round_++;
      while( head_ && head_->round_ <= current ) {
         if( budget == 0 ) return false;
         --budget;
         deliver( *head_ );
      }
   }
   return true;
}

void ActivityManager::timerWheelIs( Tolm::TimerWheel * wheel ) {
   wheels_.push_back( wheel );
}

void ActivityManager::timerWheelDel( Tolm::TimerWheel * wheel ) {
   wheels_.erase( std::remove( wheels_.begin(), wheels_.end(), wheel ), wheels_.end() );
}

Seconds ActivityManager::nextDeadline() const {
   Seconds best = kNever;
   for( Tolm::TimerWheel * w : wheels_ ) {
      best = std::min( best, w->nextDeadline() );
   }
   return best;
}

bool ActivityManager::fireOneTimer( Seconds now ) {
   Tolm::TimerWheel * best = nullptr;
   Seconds bestT = kNever;
   std::uint64_t bestSeq = 0;
   for( Tolm::TimerWheel * w : wheels_ ) {
      Seconds t;
      std::uint64_t seq;
      if( w->nextDue( t, seq ) && ( !best || t < bestT || ( t == bestT && seq < bestSeq ) ) ) {
         best = w;
         bestT = t;
         bestSeq = seq;
      }
   }
   if( !best || bestT > now ) return false;
   if( VirtualClock * vc = virtualClock() ) {
      // Virtual time: the timer sees "now" at its own deadline.
      if( bestT > vc->now() ) vc->nowIs( bestT );
      now = vc->now();
   }
   try {
      best->fireNext( now );
   } catch( const std::exception & e ) {
      notificationExceptionIs( e.what() );
   }
   return true;
}

bool ActivityManager::advanceTo( Seconds t, std::size_t budget ) {
   VirtualClock * vc = virtualClock();
   assert( vc && "advanceTo needs a virtual clock" );
   assert( !std::isnan( t ) );
   if( !runUntilIdle( budget ) ) return false;
   while( fireOneTimer( t ) ) {
      if( budget == 0 ) return false;
      --budget;
      if( !runUntilIdle( budget ) ) return false;
   }
   if( t > vc->now() ) vc->nowIs( t );
   return runUntilIdle( budget );
}

bool ActivityManager::advanceBy( Seconds d, std::size_t budget ) {
   return advanceTo( clock_->now() + d, budget );
}

void ActivityManager::fdReactorIs( FdReactor * r ) {
   // A descriptor the loop cannot watch would never be read: the caller
   // hears of it instead of waiting forever.
   if( epollFd_ < 0 ) {
      epollFd_ = epoll_create1( EPOLL_CLOEXEC );
      if( epollFd_ < 0 ) throw std::system_error( errno, std::generic_category(), "epoll_create1" );
   }
   epoll_event ev{};
   ev.events = EPOLLIN;
   ev.data.ptr = r;
   if( epoll_ctl( epollFd_, EPOLL_CTL_ADD, r->fd(), &ev ) != 0 ) {
      throw std::system_error( errno, std::generic_category(),
                               "epoll_ctl add fd " + std::to_string( r->fd() ) );
   }
   fdReactors_.push_back( r );
}

void ActivityManager::fdReactorDel( FdReactor * r ) {
   auto it = std::find( fdReactors_.begin(), fdReactors_.end(), r );
   if( it == fdReactors_.end() ) return;
   fdReactors_.erase( it );
   if( epollFd_ < 0 ) return;
   // A descriptor closed before its reactor has already left the set
   // (EBADF, or ENOENT when its number was reused); anything else means the
   // set is not what the loop believes.
   const int rc = epoll_ctl( epollFd_, EPOLL_CTL_DEL, r->fd(), nullptr );
   KIV_INVARIANT( rc == 0 || errno == EBADF || errno == ENOENT, "epoll_ctl del refused a watched fd" );
}

void ActivityManager::runOnce( Seconds maxWait ) {
   runUntilIdle();
   // Timers due now; each is followed by the work it caused.
   for( int i = 0; i < 100000 && fireOneTimer( clock_->now() ); ++i ) {
      runUntilIdle();
   }
   Seconds wait = std::min( maxWait, nextDeadline() - clock_->now() );
   if( !head_ && epollFd_ >= 0 && !fdReactors_.empty() ) {
      const int ms = wait <= 0 ? 0 : static_cast< int >( std::min( wait, 3600.0 ) * 1000.0 ) + 1;
      epoll_event events[ 32 ];
      const int n = epoll_wait( epollFd_, events, 32, ms );
      for( int i = 0; i < n; ++i ) {
         auto * r = static_cast< FdReactor * >( events[ i ].data.ptr );
         // A reactor may have been removed by an earlier one in this batch.
         if( std::find( fdReactors_.begin(), fdReactors_.end(), r ) == fdReactors_.end() ) continue;
         try {
            r->onReadable();
         } catch( const std::exception & e ) {
            notificationExceptionIs( e.what() );
         }
      }
   } else if( !head_ && wait > 0 ) {
      const double w = std::min( wait, 1.0 );
      usleep( static_cast< useconds_t >( w * 1e6 ) );
   }
   runUntilIdle();
}

void ActivityManager::run() {
   stopped_ = false;
   while( !stopped_ ) runOnce( 1.0 );
}

namespace {
Kiv::LogHandle KIV_REACTOR_EXCEPTION(
   "KIV_REACTOR_EXCEPTION", Kiv::LogError,
   "An exception escaped a reactor callback: %s (%llu since start)",
   "A callback of the agent's event loop ended with an exception. The loop went on with the next "
   "callback; the state that callback was updating may be incomplete.",
   "Collect the agent's trace and report the message.", 0.0, 1.0, 0 );
} // namespace

void ActivityManager::notificationExceptionIs( const std::string & what ) {
   ++exceptions_;
   lastException_ = what;
   KIV_REACTOR_EXCEPTION.log( what, static_cast< unsigned long long >( exceptions_ ) );
}

} // namespace Kiv

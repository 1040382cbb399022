#include "tolm/TimerWheel.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cmath>
#include <vector>

#include "kiv/ActivityManager.h"
#include "kiv/Invariant.h"

// Layout. Deadlines are quantised to ticks of 1/1024 s (exact: scaling a
// double by a power of two loses nothing, so the tick is monotonic in the
// deadline). Eight levels of 256 slots cover the whole 64-bit tick range, so
// no timer ever needs an overflow list. Relative to the cursor C, a timer of
// tick T >= C lives at the level of the highest byte in which T and C differ,
// in the slot named by T's byte at that level. Hence:
//  * level 0 slots below C's byte are empty, and so is C's own slot at every
//    level above 0 (those ticks belong to a lower level);
//  * a timer whose tick is below C (a past deadline, or the cursor ran ahead of
//    the clock) goes into C's level-0 slot. That slot is scanned as a whole
//    and ordered by the exact (deadline, seq), so it stays correct.
// A re-arm that moves a deadline later leaves the timer where it is (a slot
// never later than its true place) and so touches no other timer: the common
// case of a neighbour refresh. Such a timer is re-filed when its slot comes up
// in nextDue(), before the slot is searched. A re-arm that moves a deadline
// earlier is only noted, and such timers are filed in batches (when the batch
// is full, and before nextDue() searches), so that the cache misses on their
// list neighbours overlap. A timer's tick is not stored: it is recomputed from
// the deadline where needed, which keeps the timer small.
// The cursor only moves over empty space, inside nextDue(): to the next
// occupied level-0 slot, or to the start of the first occupied slot of a
// higher level, whose timers then cascade into lower levels. Each timer
// cascades at most seven times, so every operation is amortised O(1).
// The timers of the cursor's level-0 slot that are due by the cursor's tick
// are taken out once, sorted, and kept as the run: a list in firing order
// from which the earliest is read in O(1). Timers that arrive in that slot
// later are sorted and merged into the run from its end, where they belong
// unless they were armed in the past. Any re-arm of a timer in the run files
// it again. While the run holds timers the cursor stays put, so every
// timer outside it is due strictly later.

namespace Tolm {

namespace {

constexpr int kLevels = 8;
constexpr int kSlotBits = 8;
constexpr int kSlots = 1 << kSlotBits;
constexpr int kWords = kSlots / 64;
constexpr int kLanes = 4;   // lists per slot; a power of two
constexpr double kTicksPerSecond = 1024.0;

std::uint64_t tickOf( Kiv::Seconds t ) {
   const double x = t * kTicksPerSecond;
   if( !( x >= 1.0 ) ) return 0;   // also -infinity and times before the epoch
   if( x >= 0x1p64 ) return ~std::uint64_t{ 0 };
   return static_cast< std::uint64_t >( x );
}

} // namespace

struct TimerWheel::Slot {
   NotifieeConst * head = nullptr;
};

struct TimerWheel::Impl {
   // Slot (level, index) has the flat number f = level * kSlots + index. Its
   // timers are spread over the kLanes lists lanes[ f * kLanes + k ], so that
   // walking a slot (a cascade, a re-file) follows kLanes chains at once and
   // overlaps their cache misses instead of taking them one after another.
   // Its occupancy bit is bit (f % 64) of occupied[ f / 64 ].
   Slot lanes[ kLevels * kSlots * kLanes ];
   std::uint64_t occupied[ kLevels * kWords ] = {};
   std::uint64_t cursor = 0;
   unsigned nextLane = 0;
   NotifieeConst * bound = nullptr;
   // The run of due timers (see above) and the buffer used to sort arrivals.
   Slot run;
   NotifieeConst * runTail = nullptr;
   struct Due {
      Kiv::Seconds deadline;
      std::uint64_t seq;
      NotifieeConst * n;
   };
   std::vector< Due > arrivals;

   // Firing order: exact deadline, then arming order.
   static bool before( const NotifieeConst & a, const NotifieeConst & b ) {
      return a.deadline_ < b.deadline_ || ( a.deadline_ == b.deadline_ && a.seq_ < b.seq_ );
   }

   std::size_t flatOf( const Slot * lane ) const {
      return static_cast< std::size_t >( lane - lanes ) / kLanes;
   }

   // First occupied slot of a level at index >= from, or -1.
   int firstOccupied( int level, int from ) const {
      for( int w = from >> 6; w < kWords; ++w ) {
         std::uint64_t bits = occupied[ level * kWords + w ];
         if( w == from >> 6 ) bits &= ~std::uint64_t{ 0 } << ( from & 63 );
         if( bits ) return w * 64 + std::countr_zero( bits );
      }
      return -1;
   }

   // The slot, relative to the cursor, of a timer with this tick.
   std::size_t slotOf( std::uint64_t tick ) const {
      const std::uint64_t t = tick > cursor ? tick : cursor;
      const std::uint64_t diff = t ^ cursor;
      const int level = diff ? ( std::bit_width( diff ) - 1 ) / kSlotBits : 0;
      return static_cast< std::size_t >( level * kSlots ) +
             static_cast< std::size_t >( ( t >> ( level * kSlotBits ) ) & ( kSlots - 1 ) );
   }

   void push( NotifieeConst & n, std::size_t flat ) {
      Slot & s = lanes[ flat * kLanes + ( nextLane++ & ( kLanes - 1 ) ) ];
      n.prev_ = nullptr;
      n.next_ = s.head;
      if( s.head ) s.head->prev_ = &n;
      s.head = &n;
      n.slot_ = &s;
      occupied[ flat >> 6 ] |= std::uint64_t{ 1 } << ( flat & 63 );
   }

   void remove( NotifieeConst & n ) {
      Slot * s = n.slot_;
      if( s == &run ) {
         if( n.prev_ ) n.prev_->next_ = n.next_; else run.head = n.next_;
         if( n.next_ ) n.next_->prev_ = n.prev_; else runTail = n.prev_;
         return;
      }
      if( n.prev_ ) n.prev_->next_ = n.next_; else s->head = n.next_;
      if( n.next_ ) n.next_->prev_ = n.prev_;
      if( !s->head ) {
         const std::size_t flat = flatOf( s );
         const Slot * lane = &lanes[ flat * kLanes ];
         bool empty = true;
         for( int k = 0; k < kLanes; ++k ) empty = empty && !lane[ k ].head;
         if( empty ) occupied[ flat >> 6 ] &= ~( std::uint64_t{ 1 } << ( flat & 63 ) );
      }
   }

   // Calls f on every timer of a slot, walking its lanes side by side. f may
   // move the timer it is given to another slot.
   template< typename F >
   void forEach( std::size_t flat, F f ) {
      NotifieeConst * cur[ kLanes ];
      for( int k = 0; k < kLanes; ++k ) cur[ k ] = lanes[ flat * kLanes + k ].head;
      for( bool any = true; any; ) {
         any = false;
         for( int k = 0; k < kLanes; ++k ) {
            if( NotifieeConst * n = cur[ k ] ) {
               cur[ k ] = n->next_;
               f( *n );
               any = true;
            }
         }
      }
   }

   // Empties the cursor's level-0 slot: timers due by the cursor's tick join
   // the run in firing order, later ones (left by a re-arm) go to their place.
   void absorb( std::size_t flat ) {
      arrivals.clear();
      forEach( flat, [ this ]( NotifieeConst & n ) {
         const std::uint64_t tick = tickOf( n.deadline_ );
         remove( n );
         if( tick > cursor ) {
            push( n, slotOf( tick ) );
         } else {
            arrivals.push_back( Due{ n.deadline_, n.seq_, &n } );
         }
      } );
      if( arrivals.empty() ) return;
      std::sort( arrivals.begin(), arrivals.end(), []( const Due & a, const Due & b ) {
         return a.deadline < b.deadline || ( a.deadline == b.deadline && a.seq < b.seq );
      } );
      // Merge from the end: find where the first arrival goes, then walk on.
      NotifieeConst * after = runTail;
      while( after && before( *arrivals.front().n, *after ) ) after = after->prev_;
      for( const Due & d : arrivals ) {
         NotifieeConst & n = *d.n;
         for( NotifieeConst * next = after ? after->next_ : run.head; next && before( *next, n );
              next = next->next_ ) {
            after = next;
         }
         n.slot_ = &run;
         n.prev_ = after;
         n.next_ = after ? after->next_ : run.head;
         if( n.next_ ) n.next_->prev_ = &n; else runTail = &n;
         if( after ) after->next_ = &n; else run.head = &n;
         after = &n;
      }
   }

   // Moves the cursor over empty space until it sits on the earliest occupied
   // level-0 slot, cascading higher slots on the way; returns that slot.
   // Needs a timer armed.
   std::size_t firstSlot() {
      for( ;; ) {
         const int c0 = static_cast< int >( cursor & ( kSlots - 1 ) );
         const int i0 = firstOccupied( 0, c0 );
         if( i0 >= 0 ) {
            // Nothing is armed below slot i0, so the cursor may move onto it.
            cursor = ( cursor & ~std::uint64_t{ kSlots - 1 } ) | static_cast< std::uint64_t >( i0 );
            return static_cast< std::size_t >( i0 );
         }
         int level = 1;
         int index = -1;
         for( ; level < kLevels; ++level ) {
            const int shift = level * kSlotBits;
            const int c = static_cast< int >( ( cursor >> shift ) & ( kSlots - 1 ) );
            if( c + 1 < kSlots && ( index = firstOccupied( level, c + 1 ) ) >= 0 ) break;
         }
         assert( index >= 0 && "an armed timer must be in some slot" );
         if( index < 0 ) return 0;
         // Every lower level is empty: jump to the start of the slot's range
         // and spread its timers over the lower levels.
         const int shift = level * kSlotBits;
         const int above = shift + kSlotBits;
         const std::uint64_t keep = above >= 64 ? 0 : ~( ( std::uint64_t{ 1 } << above ) - 1 );
         cursor = ( cursor & keep ) | ( static_cast< std::uint64_t >( index ) << shift );
         const std::size_t flat = static_cast< std::size_t >( level * kSlots + index );
         // The slot's lanes are emptied first: its timers all land at lower
         // levels, and the walk reads each next_ before the timer moves.
         NotifieeConst * heads[ kLanes ];
         for( int k = 0; k < kLanes; ++k ) {
            heads[ k ] = lanes[ flat * kLanes + k ].head;
            lanes[ flat * kLanes + k ].head = nullptr;
         }
         occupied[ flat >> 6 ] &= ~( std::uint64_t{ 1 } << ( flat & 63 ) );
         for( bool any = true; any; ) {
            any = false;
            for( int k = 0; k < kLanes; ++k ) {
               if( NotifieeConst * n = heads[ k ] ) {
                  heads[ k ] = n->next_;
                  push( *n, slotOf( tickOf( n->deadline_ ) ) );
                  any = true;
               }
            }
         }
      }
   }
};

// ---- NotifieeConst -----------------------------------------------------------------

TimerWheel::NotifieeConst::~NotifieeConst() {
   if( wheel_ ) {
      if( armed() ) wheel_->unlink( *this );
      wheel_->unbind( *this );
   }
}

void TimerWheel::NotifieeConst::notifierIs( TimerWheel * wheel ) {
   if( wheel == wheel_ ) return;
   if( wheel_ ) {
      if( armed() ) wheel_->unlink( *this );
      wheel_->unbind( *this );
   }
   deadline_ = Kiv::kNever;
   wheel_ = wheel;
   if( wheel_ ) wheel_->bind( *this );
}

void TimerWheel::NotifieeConst::rearm( Kiv::Seconds t ) {
   assert( !std::isnan( t ) && "a deadline is never NaN" );
   if( std::isnan( t ) ) return;
   if( t == Kiv::kNever ) {
      if( armed() ) wheel_->unlink( *this );
      deadline_ = Kiv::kNever;
      return;
   }
   assert( wheel_ && "arming a timer that is bound to no wheel" );
   if( !wheel_ ) return;
   deadline_ = t;
   seq_ = ++armingSeq_;
   wheel_->link( *this );
}

// ---- TimerWheel --------------------------------------------------------------------

TimerWheel::TimerWheel( const Kiv::Clock & clock ) : clock_( clock ), impl_( new Impl ) {
   runSlot_ = &impl_->run;
   impl_->cursor = tickOf( clock_.now() );
   Kiv::activityManager().timerWheelIs( this );
}

TimerWheel::~TimerWheel() {
   Kiv::activityManager().timerWheelDel( this );
   // Detach every timer: none may reach this wheel once it is gone.
   for( NotifieeConst * n = impl_->bound; n; ) {
      NotifieeConst * next = n->boundNext_;
      n->prev_ = n->next_ = nullptr;
      n->slot_ = nullptr;
      n->boundPrev_ = n->boundNext_ = nullptr;
      n->deadline_ = Kiv::kNever;
      n->wheel_ = nullptr;
      n = next;
   }
   armed_ = 0;
   earliest_ = nullptr;
   deferredCount_ = 0;
   delete impl_;
}

void TimerWheel::bind( NotifieeConst & n ) {
   n.boundPrev_ = nullptr;
   n.boundNext_ = impl_->bound;
   if( impl_->bound ) impl_->bound->boundPrev_ = &n;
   impl_->bound = &n;
}

void TimerWheel::unbind( NotifieeConst & n ) {
   if( n.boundPrev_ ) n.boundPrev_->boundNext_ = n.boundNext_; else impl_->bound = n.boundNext_;
   if( n.boundNext_ ) n.boundNext_->boundPrev_ = n.boundPrev_;
   n.boundPrev_ = n.boundNext_ = nullptr;
}

void TimerWheel::fileDeferred() {
   Impl & w = *impl_;
   // Ask for every list neighbour first (the timers themselves are still
   // cached from their re-arm), then move them.
   for( unsigned i = 0; i < deferredCount_; ++i ) {
      __builtin_prefetch( deferred_[ i ]->prev_, 1 );
      __builtin_prefetch( deferred_[ i ]->next_, 1 );
   }
   for( unsigned i = 0; i < deferredCount_; ++i ) {
      NotifieeConst & n = *deferred_[ i ];
      const std::size_t flat = w.slotOf( tickOf( n.deadline_ ) );
      if( n.slot_ != &w.run && w.flatOf( n.slot_ ) == flat ) continue;
      w.remove( n );
      w.push( n, flat );
   }
   deferredCount_ = 0;
}

// Files the unarmed n, whose deadline_ and seq_ are already set.
void TimerWheel::link( NotifieeConst & n ) {
   KIV_INVARIANT( !n.slot_, "a timer filed twice" );
   Impl & w = *impl_;
   const std::uint64_t tick = tickOf( n.deadline_ );
   if( armed_++ == 0 ) {
      // Nothing armed: re-centre the cursor on the clock, so that a cursor
      // which ran ahead does not gather near-term timers into one slot.
      w.cursor = tickOf( clock_.now() );
      earliest_ = &n;
      w.push( n, w.slotOf( tick ) );
      return;
   }
   if( earliest_ && Impl::before( n, *earliest_ ) ) earliest_ = &n;
   w.push( n, w.slotOf( tick ) );
}

void TimerWheel::unlink( NotifieeConst & n ) {
   impl_->remove( n );
   // A disarmed timer must not be filed again.
   for( unsigned i = 0; i < deferredCount_; ) {
      if( deferred_[ i ] == &n ) deferred_[ i ] = deferred_[ --deferredCount_ ]; else ++i;
   }
   n.prev_ = n.next_ = nullptr;
   n.slot_ = nullptr;
   --armed_;
   if( earliest_ == &n ) earliest_ = nullptr;
}

bool TimerWheel::nextDue( Kiv::Seconds & deadline, std::uint64_t & seq ) {
   if( armed_ == 0 ) return false;
   Impl & w = *impl_;
   if( !earliest_ ) {
      if( deferredCount_ ) fileDeferred();
      for( ;; ) {
         if( w.run.head ) {
            // Timers due by now are in the run or arrived in the cursor's slot.
            const std::size_t flat0 = static_cast< std::size_t >( w.cursor & ( kSlots - 1 ) );
            if( w.occupied[ flat0 >> 6 ] & ( std::uint64_t{ 1 } << ( flat0 & 63 ) ) ) w.absorb( flat0 );
            break;
         }
         w.absorb( w.firstSlot() );
         if( w.run.head ) break;
      }
      earliest_ = w.run.head;
   }
   deadline = earliest_->deadline_;
   seq = earliest_->seq_;
   return true;
}

Kiv::Seconds TimerWheel::nextDeadline() {
   Kiv::Seconds deadline;
   std::uint64_t seq;
   return nextDue( deadline, seq ) ? deadline : Kiv::kNever;
}

bool TimerWheel::fireNext( Kiv::Seconds now ) {
   Kiv::Seconds deadline;
   std::uint64_t seq;
   if( !nextDue( deadline, seq ) || deadline > now ) return false;
   NotifieeConst & n = *earliest_;
   unlink( n );
   n.deadline_ = Kiv::kNever;
   // onTime() may re-arm or delete the timer, or release the wheel: touch
   // neither afterwards.
   n.onTime();
   return true;
}

Kiv::Ptr< TimerWheel > TimerWheelIs( const Kiv::Clock & clock ) {
   return Kiv::Ptr< TimerWheel >( new TimerWheel( clock ) );
}

} // namespace Tolm

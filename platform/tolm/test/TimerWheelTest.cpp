#include "tolm/TimerWheel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <tuple>
#include <utility>
#include <vector>

#include "kiv/ActivityManager.h"
#include "kiv/testing/TestLoop.h"

namespace {

using Kiv::kNever;
using Kiv::Seconds;
using Tolm::TimerWheel;

class Timer : public TimerWheel::NotifieeConst {
 public:
   explicit Timer( TimerWheel * wheel, int id = 0, std::vector< int > * log = nullptr )
         : NotifieeConst( wheel ), id_( id ), log_( log ) {}
   int id() const { return id_; }
   int fired() const { return fired_; }
   Seconds timeMinInside() const { return timeMinInside_; }
   bool armedInside() const { return armedInside_; }
   // Runs inside onTime(); must not delete this timer.
   std::function< void( Timer & ) > action;

   void onTime() override {
      ++fired_;
      timeMinInside_ = timeMin();
      armedInside_ = armed();
      if( log_ ) log_->push_back( id_ );
      if( action ) action( *this );
   }

 private:
   int id_;
   std::vector< int > * log_;
   int fired_ = 0;
   Seconds timeMinInside_ = 0.0;
   bool armedInside_ = true;
};

class TimerWheelTest : public ::testing::Test {
 protected:
   Kiv::VirtualClock & clock() { return loop_.clock(); }
   Seconds now() { return loop_.clock().now(); }

   // Fires everything due up to t in (deadline, arming) order, moving the
   // virtual clock to each deadline as the activity loop does.
   void runTo( TimerWheel & wheel, Seconds t ) {
      for( int budget = 1'000'000; budget > 0; --budget ) {
         const Seconds d = wheel.nextDeadline();
         if( d > t ) break;
         if( d > now() ) clock().nowIs( d );
         ASSERT_TRUE( wheel.fireNext( now() ) );
      }
      ASSERT_GT( wheel.nextDeadline(), t );
      if( t > now() ) clock().nowIs( t );
   }
   void runTo( Seconds t ) { runTo( *wheel_, t ); }

   Kiv::Testing::TestLoop loop_{ 0.0 };
   Kiv::Ptr< TimerWheel > wheel_ = Tolm::TimerWheelIs( loop_.clock() );
};

// ---- order ---------------------------------------------------------------------------

TEST_F( TimerWheelTest, TiesAcrossWheelsFollowGlobalArmingOrder ) {
   auto other = Tolm::TimerWheelIs( clock() );
   Timer a( wheel_.ptr() ), b( other.ptr() ), c( wheel_.ptr() );
   a.timeMinIs( 5.0 );
   b.timeMinIs( 5.0 );
   c.timeMinIs( 5.0 );
   Seconds d1, d2;
   std::uint64_t s1, s2;
   ASSERT_TRUE( wheel_->nextDue( d1, s1 ) );
   ASSERT_TRUE( other->nextDue( d2, s2 ) );
   EXPECT_EQ( d1, 5.0 );
   EXPECT_EQ( d2, 5.0 );
   EXPECT_LT( s1, s2 );   // a before b

   ASSERT_TRUE( wheel_->fireNext( 5.0 ) );
   EXPECT_EQ( a.fired(), 1 );
   ASSERT_TRUE( wheel_->nextDue( d1, s1 ) );
   EXPECT_GT( s1, s2 );   // c after b

   // Re-arming takes a new place in the order, even for the same deadline.
   b.timeMinIs( 5.0 );
   ASSERT_TRUE( other->nextDue( d2, s2 ) );
   EXPECT_LT( s1, s2 );
}

// The loop picks among the wheels by the same order.
TEST_F( TimerWheelTest, LoopFiresTiesAcrossWheelsInArmingOrder ) {
   auto other = Tolm::TimerWheelIs( clock() );
   std::vector< int > log;
   Timer a( wheel_.ptr(), 1, &log ), b( other.ptr(), 2, &log ), c( wheel_.ptr(), 3, &log ), d( other.ptr(), 4, &log );
   for( Timer * t : { &a, &b, &c, &d } ) t->timeMinIs( 5.0 );
   ASSERT_TRUE( loop_.advanceTo( 6.0 ) );
   EXPECT_EQ( log, ( std::vector< int >{ 1, 2, 3, 4 } ) );
}

TEST_F( TimerWheelTest, DeadlinesOverManyMagnitudesFireInExactOrder ) {
   const Seconds day = 86400.0;
   const std::vector< Seconds > offsets = { 1e-3, 0.3, 70.0, 5 * 3600.0, 60 * day, 10 * 365 * day, 1e15, 1e300 };
   // From a clock at zero, from a large boot time, and with a cursor that ran
   // far ahead (only the farthest timer armed when the wheel was last asked).
   for( Seconds start : { 0.0, 1.7e9 } ) {
      for( bool cursorAhead : { false, true } ) {
         SCOPED_TRACE( ::testing::Message() << "start " << start << " cursorAhead " << cursorAhead );
         Kiv::VirtualClock vclock( start );
         auto wheel = Tolm::TimerWheelIs( vclock );
         std::vector< int > log;
         std::vector< std::unique_ptr< Timer > > timers;
         for( std::size_t i = 0; i < offsets.size(); ++i ) {
            timers.push_back( std::make_unique< Timer >( wheel.ptr(), static_cast< int >( i ), &log ) );
         }
         if( cursorAhead ) {
            timers[ 5 ]->timeMinIs( start + offsets[ 5 ] );
            EXPECT_EQ( wheel->nextDeadline(), start + offsets[ 5 ] );
         }
         for( std::size_t i : { 3, 7, 0, 5, 1, 6, 2, 4 } ) timers[ i ]->timeMinIs( start + offsets[ i ] );
         for( std::size_t i = 0; i < offsets.size(); ++i ) {
            const Seconds d = start + offsets[ i ];
            ASSERT_EQ( wheel->nextDeadline(), d );
            EXPECT_FALSE( wheel->fireNext( std::nextafter( d, -kNever ) ) );
            vclock.nowIs( d );
            ASSERT_TRUE( wheel->fireNext( d ) );
         }
         EXPECT_EQ( log, ( std::vector< int >{ 0, 1, 2, 3, 4, 5, 6, 7 } ) );
         EXPECT_EQ( wheel->armedCount(), 0u );
      }
   }
}

// ---- arming and disarming -------------------------------------------------------------

TEST_F( TimerWheelTest, PastDeadlineIsDueAtOnceButNeverFiresInsideTimeMinIs ) {
   clock().nowIs( 10.0 );
   Timer t( wheel_.ptr() );
   t.timeMinIs( 3.0 );
   EXPECT_EQ( t.fired(), 0 );
   EXPECT_TRUE( t.armed() );
   EXPECT_EQ( t.timeMin(), 3.0 );
   EXPECT_EQ( wheel_->nextDeadline(), 3.0 );
   EXPECT_TRUE( wheel_->fireNext( 10.0 ) );
   EXPECT_EQ( t.fired(), 1 );
   // Firing disarms first.
   EXPECT_EQ( t.timeMinInside(), kNever );
   EXPECT_FALSE( t.armedInside() );
   EXPECT_FALSE( t.armed() );
   EXPECT_FALSE( wheel_->fireNext( 10.0 ) );
   // Before the epoch and -infinity are simply past.
   t.timeMinIs( -5.0 );
   EXPECT_TRUE( wheel_->fireNext( 10.0 ) );
   t.timeMinIs( -kNever );
   EXPECT_TRUE( wheel_->fireNext( 10.0 ) );
   EXPECT_EQ( t.fired(), 3 );
}

// Moves to an earlier deadline are filed in batches: more of them than one
// batch holds, with no search in between, mixed with later moves of the same
// timers, ties, disarming and destroying timers whose move is still waiting.
TEST_F( TimerWheelTest, ManyEarlierMovesBetweenSearchesKeepTheOrder ) {
   std::vector< int > log;
   std::vector< std::unique_ptr< Timer > > timers;
   constexpr int kCount = 300;
   for( int id = 0; id < kCount; ++id ) {
      timers.push_back( std::make_unique< Timer >( wheel_.ptr(), id, &log ) );
      timers.back()->timeMinIs( 5000.0 + id );
   }
   // No search yet: the cursor stays at 0, so every timer sits in a slot far
   // later than its place after the moves below.
   // Every move is earlier, and the last ones (still waiting to be filed when
   // the search starts) are the first due.
   for( int id = kCount - 1; id >= 0; --id ) timers[ id ]->timeMinIs( 1.0 + id * 0.5 );
   timers[ 10 ]->timeMinIs( 20000.0 );                  // earlier, then later again
   timers[ 20 ]->timeMinIs( timers[ 30 ]->timeMin() );   // a tie, armed after 30
   timers[ 7 ]->timeMinIs( kNever );
   timers[ 5 ].reset();
   timers[ 299 ]->timeMinIs( 0.5 );                      // earlier twice
   EXPECT_EQ( wheel_->armedCount(), static_cast< std::size_t >( kCount - 2 ) );
   EXPECT_EQ( wheel_->nextDeadline(), 0.5 );

   std::vector< std::tuple< Seconds, int, int > > expected;   // deadline, rank, id
   for( int id = 0; id < kCount; ++id ) {
      if( id == 5 || id == 7 ) continue;
      const int rank = id == 20 ? 1 : 0;
      expected.emplace_back( timers[ id ]->timeMin(), rank, id );
   }
   std::sort( expected.begin(), expected.end() );
   // In order and on time: all that is due by 200 s has fired by then.
   runTo( 200.0 );
   const auto due = std::count_if( expected.begin(), expected.end(),
                                   []( const auto & e ) { return std::get< 0 >( e ) <= 200.0; } );
   EXPECT_EQ( log.size(), static_cast< std::size_t >( due ) );
   runTo( 30000.0 );
   ASSERT_EQ( log.size(), expected.size() );
   for( std::size_t i = 0; i < expected.size(); ++i ) EXPECT_EQ( log[ i ], std::get< 2 >( expected[ i ] ) ) << i;
}

// ---- callbacks that change the wheel ------------------------------------------------------

TEST_F( TimerWheelTest, ReArmingToThePastInOnTimeFiresOnTheNextCallNotRecursively ) {
   Timer t( wheel_.ptr() );
   int depth = 0, maxDepth = 0;
   t.action = [ & ]( Timer & self ) {
      maxDepth = std::max( maxDepth, ++depth );
      if( self.fired() < 3 ) self.timeMinIs( 0.0 );
      --depth;
   };
   t.timeMinIs( 1.0 );
   EXPECT_TRUE( wheel_->fireNext( 1.0 ) );
   EXPECT_EQ( t.fired(), 1 );
   EXPECT_TRUE( wheel_->fireNext( 1.0 ) );
   EXPECT_TRUE( wheel_->fireNext( 1.0 ) );
   EXPECT_FALSE( wheel_->fireNext( 1.0 ) );
   EXPECT_EQ( t.fired(), 3 );
   EXPECT_EQ( maxDepth, 1 );
}

TEST_F( TimerWheelTest, ExceptionFromOnTimePropagatesAndLeavesTheWheelUsable ) {
   Timer bad( wheel_.ptr(), 1 ), good( wheel_.ptr(), 2 );
   bad.action = []( Timer & ) { throw std::runtime_error( "boom" ); };
   bad.timeMinIs( 1.0 );
   good.timeMinIs( 2.0 );
   EXPECT_THROW( wheel_->fireNext( 5.0 ), std::runtime_error );
   EXPECT_FALSE( bad.armed() );
   EXPECT_EQ( wheel_->armedCount(), 1u );
   EXPECT_TRUE( wheel_->fireNext( 5.0 ) );
   EXPECT_EQ( good.fired(), 1 );
}

// ---- lifetimes ---------------------------------------------------------------------------

TEST_F( TimerWheelTest, TimerDestroyedWhileArmedLeavesTheWheel ) {
   std::vector< int > log;
   Timer keep( wheel_.ptr(), 1, &log );
   auto gone = std::make_unique< Timer >( wheel_.ptr(), 2, &log );
   auto goneInCallback = std::make_unique< Timer >( wheel_.ptr(), 3, &log );
   gone->timeMinIs( 1.0 );
   goneInCallback->timeMinIs( 3.0 );
   keep.timeMinIs( 2.0 );
   keep.action = [ & ]( Timer & ) { goneInCallback.reset(); };
   EXPECT_EQ( wheel_->nextDeadline(), 1.0 );   // caches gone as the earliest
   gone.reset();
   EXPECT_EQ( wheel_->armedCount(), 2u );
   EXPECT_EQ( wheel_->nextDeadline(), 2.0 );
   runTo( 10.0 );
   EXPECT_EQ( log, ( std::vector< int >{ 1 } ) );
   EXPECT_EQ( wheel_->armedCount(), 0u );
}

TEST_F( TimerWheelTest, TimerMayDeleteItselfInOnTime ) {
   struct OneShot : TimerWheel::NotifieeConst {
      using NotifieeConst::NotifieeConst;
      int * fired = nullptr;
      void onTime() override {
         ++*fired;
         delete this;
      }
   };
   int fired = 0;
   auto * t = new OneShot( wheel_.ptr() );
   t->fired = &fired;
   t->timeMinIs( 1.0 );
   Timer after( wheel_.ptr() );
   after.timeMinIs( 1.0 );
   runTo( 2.0 );
   EXPECT_EQ( fired, 1 );
   EXPECT_EQ( after.fired(), 1 );
}

TEST_F( TimerWheelTest, WheelDestroyedWhileTimersAreArmedDetachesThem ) {
   auto wheel = Tolm::TimerWheelIs( clock() );
   auto near = std::make_unique< Timer >( wheel.ptr() );
   Timer far( wheel.ptr() ), idle( wheel.ptr() );
   near->timeMinIs( 1.0 );
   far.timeMinIs( 1e9 );
   EXPECT_EQ( loop_.manager().nextDeadline(), 1.0 );
   wheel = nullptr;
   EXPECT_EQ( loop_.manager().nextDeadline(), kNever );
   for( Timer * t : { near.get(), &far, &idle } ) {
      EXPECT_EQ( t->notifier(), nullptr );
      EXPECT_FALSE( t->armed() );
      EXPECT_EQ( t->timeMin(), kNever );
      t->timeMinIs( kNever );   // harmless without a wheel
   }
   near.reset();   // destructors must not reach the dead wheel (ASan)
   // A detached timer can be bound again.
   far.notifierIs( wheel_.ptr() );
   far.timeMinIs( 2.0 );
   runTo( 3.0 );
   EXPECT_EQ( far.fired(), 1 );
}

TEST_F( TimerWheelTest, OnTimeMayReleaseTheLastReferenceToItsWheel ) {
   auto wheel = Tolm::TimerWheelIs( clock() );
   TimerWheel * raw = wheel.ptr();
   Timer first( raw ), second( raw );
   first.timeMinIs( 1.0 );
   second.timeMinIs( 1.0 );
   first.action = [ & ]( Timer & ) { wheel = nullptr; };
   EXPECT_TRUE( raw->fireNext( 1.0 ) );   // the wheel dies inside
   EXPECT_EQ( second.notifier(), nullptr );
   EXPECT_EQ( second.fired(), 0 );
}

TEST_F( TimerWheelTest, RebindingDisarms ) {
   auto other = Tolm::TimerWheelIs( clock() );
   Timer t( wheel_.ptr() );
   t.timeMinIs( 5.0 );
   t.notifierIs( wheel_.ptr() );   // same wheel: nothing changes
   EXPECT_TRUE( t.armed() );
   t.notifierIs( other.ptr() );
   EXPECT_FALSE( t.armed() );
   EXPECT_EQ( t.timeMin(), kNever );
   EXPECT_EQ( wheel_->armedCount(), 0u );
   EXPECT_EQ( t.notifier(), other.ptr() );
   t.timeMinIs( 6.0 );
   EXPECT_EQ( other->armedCount(), 1u );
   t.notifierIs( nullptr );
   EXPECT_FALSE( t.armed() );
   EXPECT_EQ( other->armedCount(), 0u );
   runTo( *other, 10.0 );
   EXPECT_EQ( t.fired(), 0 );
}

#ifndef NDEBUG
using TimerWheelDeathTest = TimerWheelTest;

TEST_F( TimerWheelDeathTest, NanAndArmingWithoutAWheelAreProgrammingErrors ) {
   Timer t( wheel_.ptr() );
   EXPECT_DEATH( t.timeMinIs( std::nan( "" ) ), "NaN" );
   Timer unbound( nullptr );
   EXPECT_DEATH( unbound.timeMinIs( 1.0 ), "no wheel" );
}
#endif

// ---- against a reference ----------------------------------------------------------------

// Thousands of random arm / re-arm / disarm / destroy / rebind / peek / advance
// operations, including re-arming and disarming from inside onTime(), checked
// step by step against an ordered multiset of (deadline, arming order).
class ReferenceModel {
 public:
   ReferenceModel( std::uint64_t seed, Seconds start )
         : loop_( start ), rng_( seed ), wheel_( Tolm::TimerWheelIs( loop_.clock() ) ) {
      for( int id = 0; id < kTimers; ++id ) create( id );
   }

   void run( int steps ) {
      for( int step = 0; step < steps && !::testing::Test::HasFatalFailure(); ++step ) {
         const int op = pick( 100 );
         const int id = pick( kTimers );
         if( op < 40 ) {
            arm( id, randomDeadline() );
         } else if( op < 52 ) {
            arm( id, kNever );
         } else if( op < 56 ) {
            forget( id );
            create( id );   // the old timer dies armed or not
         } else if( op < 59 ) {
            forget( id );
            timers_[ id ]->notifierIs( nullptr );
            timers_[ id ]->notifierIs( wheel_.ptr() );
         } else if( op < 65 ) {
            peek();
         } else if( op < 66 ) {
            // A burst in one tick, now or just past: the due run gets long.
            const Seconds t = now() - pick( 2 ) * 1e-4;
            for( int k = 0; k < 60; ++k ) arm( pick( kTimers ), t );
         } else {
            advance();
         }
         ASSERT_EQ( wheel_->armedCount(), ref_.size() ) << "step " << step;
      }
      advanceTo( now() + 1e12 );   // drain
   }

   std::size_t fired() const { return fired_; }

 private:
   static constexpr int kTimers = 400;
   using Entry = std::tuple< Seconds, std::uint64_t, int >;

   int pick( int n ) { return std::uniform_int_distribution< int >( 0, n - 1 )( rng_ ); }
   Seconds now() const { return loop_.now(); }

   Seconds randomOffset() {
      static constexpr Seconds kScales[] = { 1e-3, 0.3, 70.0, 18000.0, 5.2e6, 3.2e8 };
      const Seconds scale = kScales[ pick( 6 ) ];
      return std::uniform_real_distribution< double >( 0.0, scale )( rng_ );
   }

   Seconds randomDeadline() {
      const int kind = pick( 10 );
      if( kind == 0 && !ref_.empty() ) {
         // Tie with an armed deadline.
         auto it = ref_.begin();
         std::advance( it, pick( static_cast< int >( std::min< std::size_t >( ref_.size(), 20 ) ) ) );
         return std::get< 0 >( *it );
      }
      if( kind == 1 ) return now() - randomOffset();   // already past
      if( kind == 2 ) return std::ceil( ( now() + randomOffset() ) * 4.0 ) / 4.0;   // binary fraction
      return now() + randomOffset();
   }

   void create( int id ) {
      auto t = std::make_unique< Timer >( wheel_.ptr(), id );
      t->action = [ this ]( Timer & self ) { onFire( self ); };
      if( static_cast< std::size_t >( id ) < timers_.size() ) {
         timers_[ id ] = std::move( t );
      } else {
         timers_.push_back( std::move( t ) );
         where_.push_back( ref_.end() );
      }
   }

   void forget( int id ) {
      if( where_[ id ] != ref_.end() ) ref_.erase( where_[ id ] );
      where_[ id ] = ref_.end();
   }

   void arm( int id, Seconds t ) {
      forget( id );
      timers_[ id ]->timeMinIs( t );
      if( t != kNever ) where_[ id ] = ref_.emplace( t, ++order_, id );
      ASSERT_EQ( timers_[ id ]->armed(), t != kNever );
   }

   void onFire( Timer & self ) {
      ASSERT_EQ( self.id(), expected_ ) << "fired out of order";
      EXPECT_FALSE( self.armed() );
      EXPECT_EQ( self.timeMin(), kNever );
      ++fired_;
      const int what = pick( 10 );
      if( what < 3 ) {
         arm( self.id(), now() + randomOffset() );   // periodic
      } else if( what == 3 ) {
         arm( self.id(), now() );                      // again at once
      } else if( what == 4 ) {
         arm( pick( kTimers ), kNever );               // cancel someone
      } else if( what == 5 ) {
         arm( pick( kTimers ), randomDeadline() );     // move someone
      }
   }

   void peek() {
      Seconds d;
      std::uint64_t seq;
      const bool any = wheel_->nextDue( d, seq );
      ASSERT_EQ( any, !ref_.empty() );
      if( any ) {
         ASSERT_EQ( d, std::get< 0 >( *ref_.begin() ) );
      }
   }

   void advance() {
      const Seconds step = pick( 4 ) == 0 ? 0.0 : randomOffset();
      advanceTo( now() + step );
   }

   void advanceTo( Seconds t ) {
      for( int budget = 100000; budget > 0 && !ref_.empty(); --budget ) {
         const Entry first = *ref_.begin();
         const Seconds d = std::get< 0 >( first );
         ASSERT_EQ( wheel_->nextDeadline(), d );
         if( d > t ) break;
         if( d > now() ) loop_.clock().nowIs( d );
         expected_ = std::get< 2 >( first );
         forget( expected_ );
         const std::size_t before = fired_;
         ASSERT_TRUE( wheel_->fireNext( now() ) );
         ASSERT_EQ( fired_, before + 1 );
      }
      ASSERT_FALSE( wheel_->fireNext( t ) );
      if( t > now() ) loop_.clock().nowIs( t );
   }

   Kiv::Testing::TestLoop loop_;
   std::mt19937_64 rng_;
   Kiv::Ptr< TimerWheel > wheel_;
   std::multiset< Entry > ref_;
   std::vector< std::multiset< Entry >::iterator > where_;
   std::vector< std::unique_ptr< Timer > > timers_;
   std::uint64_t order_ = 0;
   std::size_t fired_ = 0;
   int expected_ = -1;
};

TEST( TimerWheelReferenceTest, RandomOperationsMatchAnOrderedReference ) {
   for( std::uint64_t seed : { 1, 2, 3, 4 } ) {
      for( Seconds start : { 0.0, 123456.789 } ) {
         SCOPED_TRACE( ::testing::Message() << "seed " << seed << " start " << start );
         ReferenceModel model( seed, start );
         model.run( 20000 );
         if( ::testing::Test::HasFatalFailure() ) return;
         EXPECT_GT( model.fired(), 1000u );
      }
   }
}

} // namespace

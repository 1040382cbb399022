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

struct Timer : TimerWheel::NotifieeConst {
   explicit Timer( TimerWheel * wheel, int id = 0, std::vector< int > * log = nullptr )
         : NotifieeConst( wheel ), id( id ), log( log ) {}
   const int id;
   std::vector< int > * log;
   int fired = 0;
   // Runs inside onTime(); must not delete this timer.
   std::function< void( Timer & ) > action;
   void onTime() override {
      ++fired;
      if( log ) log->push_back( id );
      if( action ) action( *this );
   }
};

class TimerWheelTest : public ::testing::Test {
 protected:
   Kiv::Testing::TestLoop loop_{ 0.0 };
   Kiv::Ptr< TimerWheel > wheel_ = Tolm::TimerWheelIs( loop_.clock() );
};

TEST_F( TimerWheelTest, LoopFiresTiesAcrossWheelsInArmingOrderWhenItReachesTheirDeadline ) {
   auto other = Tolm::TimerWheelIs( loop_.clock() );
   std::vector< int > log;
   std::vector< Seconds > times;
   Timer a( wheel_.ptr(), 1, &log ), b( other.ptr(), 2, &log ), c( wheel_.ptr(), 3, &log ), d( other.ptr(), 4, &log );
   a.action = [ & ]( Timer & ) { times.push_back( loop_.now() ); };
   // On and between the wheel's ticks, near and far.
   for( const Seconds at : { 2.5, 3.0, 3.001, 4000.25, 1e6 + 0.1 } ) {
      SCOPED_TRACE( at );
      log.clear();
      for( Timer * t : { &a, &b, &c, &d } ) t->timeMinIs( at );
      ASSERT_TRUE( loop_.advanceTo( at ) );
      EXPECT_EQ( log, ( std::vector< int >{ 1, 2, 3, 4 } ) );
      EXPECT_EQ( times.back(), at );
   }
   // A past deadline fires on the next turn, not inside the arming call.
   a.timeMinIs( 1.0 );
   EXPECT_EQ( a.fired, 5 );
   ASSERT_TRUE( loop_.advanceBy( 0.0 ) );
   EXPECT_EQ( a.fired, 6 );
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
   EXPECT_EQ( good.fired, 1 );
}

// The wheel's last reference goes inside the first timer's onTime().
TEST_F( TimerWheelTest, WheelDestroyedWhileTimersAreArmedDetachesThem ) {
   auto wheel = Tolm::TimerWheelIs( loop_.clock() );
   auto near = std::make_unique< Timer >( wheel.ptr() );
   Timer first( wheel.ptr() ), far( wheel.ptr() ), idle( wheel.ptr() );
   first.action = [ & ]( Timer & ) { wheel = nullptr; };
   first.timeMinIs( 1.0 );
   near->timeMinIs( 1.0 );
   far.timeMinIs( 1e9 );
   ASSERT_TRUE( loop_.advanceTo( 1.0 ) );
   EXPECT_EQ( std::tuple( first.fired, near->fired ), std::tuple( 1, 0 ) );
   EXPECT_EQ( loop_.manager().nextDeadline(), kNever );
   for( Timer * t : { near.get(), &far, &idle } ) {
      EXPECT_EQ( std::tuple( t->notifier(), t->armed(), t->timeMin() ), std::tuple( nullptr, false, kNever ) );
      t->timeMinIs( kNever );   // harmless without a wheel
   }
   near.reset();   // destructors must not reach the dead wheel (ASan)
   // A detached timer can be bound again.
   far.notifierIs( wheel_.ptr() );
   far.timeMinIs( 2.0 );
   ASSERT_TRUE( loop_.advanceTo( 3.0 ) );
   EXPECT_EQ( far.fired, 1 );
}

// A NaN deadline is a programming error: every preset keeps assertions.
TEST_F( TimerWheelTest, NanDeadlineStopsTheProcess ) {
   Timer armed( wheel_.ptr() );
   EXPECT_DEATH( armed.timeMinIs( std::nan( "" ) ), "NaN" );
}

// Thousands of random arm / re-arm / disarm / destroy / rebind / peek / advance
// operations, including re-arming (to now or the past: it must not fire
// within the same call), disarming and destroying from inside onTime(),
// checked step by step against an ordered multiset of (deadline, arming order).
class ReferenceModel {
 public:
   ReferenceModel( std::uint64_t seed, Seconds start )
         : loop_( start ), rng_( seed ), wheel_( Tolm::TimerWheelIs( loop_.clock() ) ), where_( kTimers, ref_.end() ),
           timers_( kTimers ) {
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
      timers_[ id ] = std::make_unique< Timer >( wheel_.ptr(), id );
      timers_[ id ]->action = [ this ]( Timer & self ) { onFire( self ); };
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
      ASSERT_EQ( self.id, expected_ ) << "fired out of order";
      EXPECT_FALSE( self.armed() );
      EXPECT_EQ( self.timeMin(), kNever );
      ++fired_;
      const int what = pick( 10 );
      if( what < 3 ) {
         arm( self.id, now() + randomOffset() );   // periodic
      } else if( what == 3 ) {
         arm( self.id, now() );                      // again at once
      } else if( what == 4 ) {
         arm( pick( kTimers ), kNever );               // cancel someone
      } else if( what == 5 ) {
         arm( pick( kTimers ), randomDeadline() );     // move someone
      } else if( const int other = pick( kTimers ); what == 6 && other != self.id ) {
         forget( other );                              // destroy someone
         create( other );
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

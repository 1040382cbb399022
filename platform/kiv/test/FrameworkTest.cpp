// The promises of the entity framework and its reactor frame, grouped by promise.
#include <gtest/gtest.h>
#include <stdexcept>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kiv/EntityMacros.h"
#include "kiv/Log.h"
#include "kiv/OwnedReactor.h"
#include "kiv/ReactorMap.h"
#include "kiv/testing/TestLoop.h"
#include "tolm/TimerWheel.h"

namespace {

#define TEST_NBR_ATTRS( X )                                       \
   X( SCALAR, holdTime, HoldTime, std::uint16_t, 105 )            \
   X( SCALAR, drPriority, DrPriority, std::uint32_t, 1 )          \
   X( COUNTER, count, Count, std::uint32_t )                      \
   X( SET, secondary, Secondary, int )                            \
   X( COLL, label, Label, int, std::string )

class Nbr : public Kiv::Notifier {
 public:
   explicit Nbr( int key ) : key_( key ) {}
   int key() const { return key_; }
   KIV_ENTITY( Nbr, "Test::Nbr", TEST_NBR_ATTRS )
 private:
   int key_;
};
KIV_NOTIFIEE( Nbr, TEST_NBR_ATTRS )

#define TEST_INTF_ATTRS( X )                                      \
   X( ENTITIES, neighbor, Neighbor, int, Nbr )                    \
   X( REFS, active, Active, int, Nbr, key )                       \
   X( PTR, peer, Peer, Nbr )

class Intf : public Kiv::Notifier {
 public:
   KIV_ENTITY( Intf, "Test::Intf", TEST_INTF_ATTRS )
};
KIV_NOTIFIEE( Intf, TEST_INTF_ATTRS )

// Every callback as text, in delivery order.
using Log = std::vector< std::string >;

// Immediate callbacks (holdTime and secondary only) are marked with "!".
class NbrRecorder : public Nbr::NotifieeConst {
 public:
   NbrRecorder( Kiv::Ptr< Nbr > n, Log & log, std::string tag = "", bool immediate = false )
         : log_( log ), tag_( tag ) {
      kivImmediateIs( Nbr::kivAttr_holdTime, immediate );
      kivImmediateIs( Nbr::kivAttr_secondary, immediate );
      notifierIs( n );
   }
   void onHoldTime() override { log_.push_back( tag_ + "holdTime=" + std::to_string( notifier()->holdTime() ) ); }
   void onHoldTimekivImmediate() override {
      log_.push_back( tag_ + "!holdTime=" + std::to_string( notifier()->holdTime() ) );
   }
   void onDrPriority() override { log_.push_back( tag_ + "drPriority" ); }
   void onCount() override { log_.push_back( tag_ + "count=" + std::to_string( notifier()->count() ) ); }
   void onSecondary( const int & k ) override {
      log_.push_back( tag_ + "secondary " + std::to_string( k ) + ( notifier()->secondary( k ) ? "+" : "-" ) );
   }
   void onSecondarykivImmediate( const int & k ) override {
      log_.push_back( tag_ + "!secondary " + std::to_string( k ) );
   }
   void onLabel( const int & k ) override { log_.push_back( tag_ + "label " + std::to_string( k ) ); }
   void onNotifier() override { log_.push_back( tag_ + "resync" ); }
 private:
   Log & log_;
   std::string tag_;
};

class IntfRecorder : public Intf::NotifieeConst {
 public:
   IntfRecorder( Kiv::Ptr< Intf > i, Log & log ) : log_( log ) { notifierIs( i ); }
   void onNeighbor( const int & k ) override {
      log_.push_back( "neighbor " + std::to_string( k ) + ( notifier()->neighbor( k ) ? "+" : "-" ) );
   }
 private:
   Log & log_;
};

class FrameworkTest : public ::testing::Test {
 protected:
   Kiv::Testing::TestLoop loop_;
   Log log_;
};

// Writes within a round coalesce into one callback that sees the last value;
// rounds go first in, first out across reactors, and in declaration order
// within one.
TEST_F( FrameworkTest, WritesCoalesceAndDeliveryIsFifoAcrossReactorsAndDeclarationOrderWithinOne ) {
   auto a = Kiv::make< Nbr >( 1 ), b = Kiv::make< Nbr >( 2 );
   NbrRecorder ra( a, log_, "a:" ), rb( b, log_, "b:" );
   b->countInc( 2 );
   a->labelIs( 9, "x" );
   a->holdTimeIs( 10 );
   a->holdTimeIs( 1 );   // declared before label: delivered first
   b->holdTimeIs( 2 );
   EXPECT_TRUE( log_.empty() ) << "deferred callbacks must not run inside the mutator";
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_EQ( log_, ( Log{ "b:holdTime=2", "b:count=2", "a:holdTime=1", "a:label 9" } ) );
   // A write then its revert within a round still notifies, once.
   log_.clear();
   a->holdTimeIs( 5 );
   a->holdTimeIs( 1 );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_EQ( log_, Log{ "a:holdTime=1" } );
}

TEST_F( FrameworkTest, EqualWritesNotifyNobody ) {
   // Each equal write runs in a round of its own: a real change in the same
   // round would hide a spurious callback.
   using Write = void ( * )( Nbr & );
   const struct {
      const char * name;
      Write before;   // puts the value there (may be a no-op)
      Write equal;    // writes it again
   } cases[] = {
      { "scalar at its default", []( Nbr & ) {}, []( Nbr & n ) { n.holdTimeIs( 105 ); } },
      { "scalar set before", []( Nbr & n ) { n.drPriorityIs( 7 ); }, []( Nbr & n ) { n.drPriorityIs( 7 ); } },
      { "counter by zero", []( Nbr & n ) { n.countInc( 2 ); }, []( Nbr & n ) { n.countInc( 0 ); } },
      { "set: absent key to false", []( Nbr & ) {}, []( Nbr & n ) { n.secondaryIs( 7, false ); } },
      { "set: present key to true", []( Nbr & n ) { n.secondaryIs( 7, true ); },
        []( Nbr & n ) { n.secondaryIs( 7, true ); } },
      { "set: absent key deleted", []( Nbr & ) {}, []( Nbr & n ) { n.secondaryDel( 3 ); } },
      { "collection: same value", []( Nbr & n ) { n.labelIs( 1, "a" ); }, []( Nbr & n ) { n.labelIs( 1, "a" ); } },
      { "collection: delete all of nothing", []( Nbr & ) {}, []( Nbr & n ) { n.labelDelAll(); } },
   };
   for( const auto & c : cases ) {
      SCOPED_TRACE( c.name );
      auto n = Kiv::make< Nbr >( 1 );
      NbrRecorder r( n, log_ );
      c.before( *n );
      ASSERT_TRUE( loop_.runUntilIdle() );
      log_.clear();
      const std::uint64_t deliveries = loop_.manager().deliveries();
      c.equal( *n );
      ASSERT_TRUE( loop_.runUntilIdle() );
      EXPECT_TRUE( log_.empty() );
      EXPECT_EQ( loop_.manager().deliveries(), deliveries );
   }
}

TEST_F( FrameworkTest, CollectionCallbacksArePerKeyIncludingDeletionAndDelAll ) {
   auto i = Kiv::make< Intf >();
   IntfRecorder r( i, log_ );
   i->neighborIs( 3 );
   i->neighborIs( 1 );
   i->neighborIs( 3 );   // replaced: still one callback for key 3
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_EQ( log_, ( Log{ "neighbor 3+", "neighbor 1+" } ) );
   i->neighborDel( 3 );
   ASSERT_TRUE( loop_.runUntilIdle() );
   i->neighborIs( 5 );
   i->neighborDelAll();
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_EQ( log_, ( Log{ "neighbor 3+", "neighbor 1+", "neighbor 3-", "neighbor 5-", "neighbor 1-" } ) );
}

TEST_F( FrameworkTest, AReactorMayDeleteItsOwnerAndTheLastNotifierReferenceInsideItsCallback ) {
   // A machine owning its reactor; the reactor's callback deletes the machine,
   // and with it the last reference to the notifier being delivered.
   struct Owner {
      struct Reactor : Intf::NotifieeConst {
         std::function< void( int ) > handle;
         void onNeighbor( const int & k ) override { handle( k ); }
         void onPeer() override { handle( 0 ); }
      } reactor;
   };
   std::vector< int > seen;
   auto owner = std::make_unique< Owner >();
   owner->reactor.handle = [ & ]( int k ) {
      seen.push_back( k );
      if( k == 2 ) owner.reset();
   };
   {
      auto i = Kiv::make< Intf >();
      owner->reactor.notifierIs( i );
      i->neighborIs( 1 );
      i->neighborIs( 2 );
      i->neighborIs( 3 );
      i->peerIs( Kiv::make< Nbr >( 1 ) );   // a later attribute of the same reactor
   }
   ASSERT_TRUE( loop_.runUntilIdle() );
   // Key 3 and the peer were pending when the owner died: neither is delivered.
   EXPECT_EQ( seen, ( std::vector< int >{ 1, 2 } ) );
   EXPECT_EQ( owner, nullptr );
}

TEST_F( FrameworkTest, ZombieInactiveAndDestroyedReactorsDropQueuedNotifications ) {
   struct Sm : Kiv::StateMachine {};
   Kiv::Ptr< Sm > sm( new Sm );
   auto n = Kiv::make< Nbr >( 1 );
   NbrRecorder zombie( n, log_, "z:" ), inactive( n, log_, "i:" ), unregistered( n, log_, "u:" );
   NbrRecorder immediateZombie( n, log_, "iz:", true );
   auto destroyed = std::make_unique< NbrRecorder >( n, log_, "d:" );
   NbrRecorder live( n, log_, "l:" );
   zombie.kivOwnerIs( sm.ptr() );
   immediateZombie.kivOwnerIs( sm.ptr() );
   n->holdTimeIs( 7 );
   n->secondaryIs( 1, true );
   sm->kivDoZombieReactors( true );
   inactive.hasNotificationActiveIs( false );
   unregistered.isRegisteredNotifieeIs( false );
   destroyed.reset();
   n->holdTimeIs( 8 );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_EQ( log_, ( Log{ "iz:!holdTime=7", "iz:!secondary 1", "l:holdTime=8", "l:secondary 1+" } ) );
}

TEST_F( FrameworkTest, AnExceptionGoesToOnNotificationExceptionWhoseDefaultCountsAndLogsRateLimited ) {
   // With caught set, the reactor handles its exceptions itself.
   struct Thrower : Nbr::NotifieeConst {
      std::vector< std::string > * caught = nullptr;
      void onHoldTime() override { throw std::runtime_error( "bad " + std::to_string( notifier()->holdTime() ) ); }
      void onSecondary( const int & k ) override {
         if( caught ) caught->push_back( "secondary " + std::to_string( k ) );
      }
      void onNotificationException( const std::exception & e ) override {
         if( !caught ) return Nbr::NotifieeConst::onNotificationException( e );
         caught->push_back( e.what() );
      }
   };
   // Past any time another test left the log's rate limit at.
   ASSERT_TRUE( loop_.advanceTo( 1e8 ) );
   Kiv::LogCapture logs;
   auto n = Kiv::make< Nbr >( 1 );
   std::vector< std::string > caught;
   Thrower own, routed;
   own.caught = &caught;
   own.notifierIs( n );
   routed.notifierIs( n );
   NbrRecorder other( n, log_ );
   for( std::uint16_t v = 1; v <= 3; ++v ) {
      n->holdTimeIs( v );
      n->secondaryIs( v, true );
      ASSERT_TRUE( loop_.runUntilIdle() );
   }
   // The loop goes on: to the thrower's next attribute and to other reactors.
   EXPECT_EQ( caught, ( Log{ "bad 1", "secondary 1", "bad 2", "secondary 2", "bad 3", "secondary 3" } ) );
   EXPECT_EQ( log_.size(), 6u );
   EXPECT_EQ( loop_.manager().notificationExceptions(), 3u );
   ASSERT_EQ( logs.count( "KIV_REACTOR_EXCEPTION" ), 1u ) << "a burst logs once";
   EXPECT_TRUE( logs.contains( "KIV_REACTOR_EXCEPTION", "bad 1 (1 since start)" ) );
   ASSERT_TRUE( loop_.advanceBy( 1.5 ) );
   n->holdTimeIs( 4 );
   ASSERT_TRUE( loop_.runUntilIdle() );
   ASSERT_EQ( logs.count( "KIV_REACTOR_EXCEPTION" ), 2u );
   EXPECT_TRUE( logs.contains( "KIV_REACTOR_EXCEPTION", "bad 4 (4 since start) (2 similar messages suppressed)" ) );
}

TEST_F( FrameworkTest, ReplacingTheNotifierResynchronisesOnceAndDropsOldPending ) {
   auto a = Kiv::make< Nbr >( 1 ), b = Kiv::make< Nbr >( 2 );
   NbrRecorder r( a, log_ );
   a->holdTimeIs( 3 );
   r.notifierIs( b );
   EXPECT_EQ( log_, Log{ "resync" } );
   a->holdTimeIs( 4 );   // no longer watched
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_EQ( log_, Log{ "resync" } );
   r.notifierIs( nullptr );   // unbinding is not a replacement
   EXPECT_EQ( log_.size(), 1u );
}

TEST_F( FrameworkTest, ImmediateCallbacksSeeEveryIntermediateValue ) {
   auto n = Kiv::make< Nbr >( 1 );
   NbrRecorder r( n, log_, "", true );
   n->holdTimeIs( 1 );
   n->holdTimeIs( 2 );
   n->secondaryIs( 5, true );
   n->secondaryDel( 5 );
   const std::vector< std::string > heard = { "!holdTime=1", "!holdTime=2", "!secondary 5", "!secondary 5" };
   EXPECT_EQ( log_, heard );
   ASSERT_TRUE( loop_.runUntilIdle() );
   EXPECT_EQ( log_, heard ) << "immediate replaces the deferred form";
}

TEST_F( FrameworkTest, DetachingDuringAnImmediateWalkSkipsOnlyTheDetachedReactor ) {
   // Four immediate reactors a, b, c, d; one of them, when called, detaches
   // (or destroys) one of the others or itself. Every reactor still attached
   // is called once per write, in attachment order.
   struct Imm : NbrRecorder {
      using NbrRecorder::NbrRecorder;
      std::function< void() > action;
      void onHoldTimekivImmediate() override {
         NbrRecorder::onHoldTimekivImmediate();
         if( action ) std::exchange( action, nullptr )();
      }
   };
   const struct {
      int actor, victim;
      bool destroy;
      std::string first, second;   // who hears the first and the second write
   } cases[] = {
      { 0, 1, false, "acd", "acd" },  { 0, 0, false, "abcd", "bcd" }, { 1, 0, false, "abcd", "bcd" },
      { 1, 1, true, "abcd", "acd" },  { 2, 3, true, "abc", "abc" },
   };
   // The tags of the reactors called since the last time.
   auto called = [ & ] {
      std::string tags;
      for( const auto & e : log_ ) tags += e[ 0 ];
      log_.clear();
      return tags;
   };
   for( const auto & c : cases ) {
      SCOPED_TRACE( testing::Message() << c.actor << " detaches " << c.victim );
      auto n = Kiv::make< Nbr >( 1 );
      std::vector< std::unique_ptr< Imm > > r;
      for( const char * tag : { "a", "b", "c", "d" } ) r.push_back( std::make_unique< Imm >( n, log_, tag, true ) );
      r[ c.actor ]->action = [ &r, &c ] { c.destroy ? r[ c.victim ].reset() : r[ c.victim ]->notifierIs( nullptr ); };
      n->holdTimeIs( 1 );
      EXPECT_EQ( called(), c.first );
      n->holdTimeIs( 2 );
      EXPECT_EQ( called(), c.second );
      EXPECT_EQ( n->notifieeCount(), c.second.size() );
   }
}

TEST_F( FrameworkTest, PingPongBetweenReactorsHitsTheBudgetInsteadOfHanging ) {
   struct Ping : Nbr::NotifieeConst {
      Kiv::Ptr< Nbr > other;
      void onCount() override { other->countInc( 1 ); }
   };
   auto a = Kiv::make< Nbr >( 1 ), b = Kiv::make< Nbr >( 2 );
   Ping pa, pb;
   pa.notifierIs( a );
   pb.notifierIs( b );
   pa.other = b;
   pb.other = a;
   a->countInc( 1 );
   EXPECT_FALSE( loop_.runUntilIdle( 1000 ) );
   pa.other = nullptr;   // break the cycle before teardown
   pa.notifierIs( nullptr );
}

TEST_F( FrameworkTest, NotificationsCausedByATimerRunBeforeTheNextTimerFires ) {
   struct Tick : Tolm::TimerWheel::NotifieeConst {
      std::function< void() > f;
      Tick( Tolm::TimerWheel * w, std::function< void() > fn ) : NotifieeConst( w ), f( std::move( fn ) ) {}
      void onTime() override { f(); }
   };
   auto wheel = Tolm::TimerWheelIs( loop_.clock() );
   auto n = Kiv::make< Nbr >( 1 );
   NbrRecorder r( n, log_ );
   Tick arm( wheel.ptr(), [ & ] { n->holdTimeIs( 42 ); } ), probe( wheel.ptr(), [ & ] { log_.push_back( "probe" ); } );
   arm.timeMinIs( 1.0 );
   probe.timeMinIs( 1.0 );
   ASSERT_TRUE( loop_.advanceTo( 2.0 ) );
   EXPECT_EQ( log_, ( Log{ "holdTime=42", "probe" } ) );
}

TEST_F( FrameworkTest, WritesReportWhetherTheyChangedAnything ) {
   auto n = Kiv::make< Nbr >( 1 );
   auto i = Kiv::make< Intf >();
   // Scalar at its default, new, again; counter; collection key new, same, new value; pointer.
   const std::vector< bool > changed = { n->holdTimeIs( 105 ), n->holdTimeIs( 8 ),     n->holdTimeIs( 8 ),
                                         n->countIs( 2 ),      n->countIs( 2 ),        n->labelIs( 1, "a" ),
                                         n->labelIs( 1, "a" ), n->labelIs( 1, "b" ),   i->peerIs( n ),
                                         i->peerIs( n ) };
   EXPECT_EQ( changed, ( std::vector< bool >{ false, true, false, true, false, true, false, true, true, false } ) );
}

// Keyed reactors forward to their owner (here the log) with their key.
class KivNbr : public Kiv::KeyedReactor< Nbr::NotifieeConst, Log, std::string > {
 public:
   KivNbr( Log * o, const std::string & name, const Kiv::Ptr< Nbr > & n ) : KeyedReactor( o, name ) {
      notifierIs( n );
      owner_->push_back( "bound " + key_ );
   }
   ~KivNbr() override { owner_->push_back( "gone " + key_ ); }
   void onHoldTime() override { owner_->push_back( key_ + " holdTime" ); }
};

TEST_F( FrameworkTest, ReactorMapBuildsOncePerKeyAndHandsOver ) {
   auto a = Kiv::make< Nbr >( 1 ), b = Kiv::make< Nbr >( 2 );
   Kiv::ReactorMap< std::string, KivNbr > map;
   KivNbr & first = map.emplace( "a", &log_, "a", a );
   // A key that has its reactor keeps it: emplace builds nothing.
   EXPECT_EQ( &map.emplace( "a", &log_, "a", b ), &first );
   map.insert( "b", std::make_unique< KivNbr >( &log_, "b", b ) );

   // A reactor taken out still lives until its new holder lets it go.
   std::unique_ptr< KivNbr > taken = map.take( "a" );
   ASSERT_TRUE( taken );
   EXPECT_EQ( map.take( "a" ), nullptr );
   a->holdTimeIs( 1 );
   ASSERT_TRUE( loop_.runUntilIdle() );
   taken.reset();
   EXPECT_EQ( log_, ( Log{ "bound a", "bound b", "a holdTime", "gone a" } ) );

   // forEach tolerates unbinding the reactor it stands on.
   map.emplace( "c", &log_, "c", a );
   std::vector< std::string > visited;
   map.forEach( [ & ]( const std::string & k, KivNbr & ) {
      visited.push_back( k );
      map.unbind( k );
   } );
   EXPECT_EQ( visited, ( Log{ "b", "c" } ) );
   EXPECT_EQ( map.size(), 0u );
}

} // namespace

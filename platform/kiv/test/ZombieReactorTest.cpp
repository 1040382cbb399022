// A machine's zombie reactors hear nothing more, immediate callbacks included.
#include <gtest/gtest.h>

#include "kiv/EntityMacros.h"
#include "kiv/testing/TestLoop.h"

namespace {

#define TEST_CELL_ATTRS( X ) X( SCALAR, value, Value, int, 0 )

class Cell : public Kiv::Notifier {
 public:
   KIV_ENTITY( Cell, "Test::Cell", TEST_CELL_ATTRS )
};
KIV_NOTIFIEE( Cell, TEST_CELL_ATTRS )

struct Ear : Cell::NotifieeConst {
   Ear( const Kiv::Ptr< Cell > & c, Kiv::StateMachine * owner, bool immediate ) {
      kivImmediateIs( Cell::kivAttr_value, immediate );
      notifierIs( c );
      kivOwnerIs( owner );
   }
   int heard = 0;
   void onValuekivImmediate() override { ++heard; }
   void onValue() override { ++heard; }
};

TEST( ZombieReactor, HearsNeitherImmediateNorDeferredCallbacks ) {
   Kiv::Testing::TestLoop loop;
   struct Sm : Kiv::StateMachine {};
   Kiv::Ptr< Sm > sm( new Sm ), other( new Sm );
   auto cell = Kiv::make< Cell >();
   Ear immediate( cell, sm.ptr(), true ), deferred( cell, sm.ptr(), false ), live( cell, other.ptr(), true );
   sm->kivDoZombieReactors( true );
   cell->valueIs( 1 );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_EQ( immediate.heard, 0 );
   EXPECT_EQ( deferred.heard, 0 );
   EXPECT_EQ( live.heard, 1 );
}

} // namespace

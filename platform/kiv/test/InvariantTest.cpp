// Invariants hold in every build: this file compiles the collection with
// assertions switched off, as an NDEBUG build would.
#include <gtest/gtest.h>

#define NDEBUG 1
#include "kiv/HashMap.h"

namespace {

// A key of this file only, so that the map below is instantiated here alone.
enum class NdebugKey : int {};

void destroyUnderALiveIterator() {
   auto * m = new Kiv::HashMap< NdebugKey, int >();
   m->insertOrAssign( NdebugKey{ 1 }, 1 );
   auto it = m->iter();
   delete m;
}

TEST( InvariantDeathTest, AMapDestroyedUnderALiveIteratorStopsTheProcessWithoutAsserts ) {
   GTEST_FLAG_SET( death_test_style, "threadsafe" );
   EXPECT_DEATH( destroyUnderALiveIterator(), "invariant failed: iterator outlived its collection" );
}

} // namespace

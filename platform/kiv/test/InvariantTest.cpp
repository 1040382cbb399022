// Invariants hold in every build: this file compiles the collection with
// assertions switched off, as an NDEBUG build would.
#include <gtest/gtest.h>

#include <cstddef>
#include <functional>

#define NDEBUG 1
#include "kiv/HashMap.h"

namespace {

// A key of this file only, so that the map below is instantiated here alone.
struct NdebugKey {
   int v;
   bool operator==( const NdebugKey & ) const = default;
};
struct NdebugKeyHash {
   std::size_t operator()( const NdebugKey & k ) const { return std::hash< int >()( k.v ); }
};

using NdebugMap = Kiv::HashMap< NdebugKey, int, NdebugKeyHash >;

void destroyUnderALiveIterator() {
   auto * m = new NdebugMap();
   m->insertOrAssign( NdebugKey{ 1 }, 1 );
   auto it = m->iter();
   delete m;
}

TEST( InvariantDeathTest, AMapDestroyedUnderALiveIteratorStopsTheProcessWithoutAsserts ) {
   GTEST_FLAG_SET( death_test_style, "threadsafe" );
   EXPECT_DEATH( destroyUnderALiveIterator(), "invariant failed: iterator outlived its collection" );
}

} // namespace

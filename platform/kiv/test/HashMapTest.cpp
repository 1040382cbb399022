// The collection behind every collection attribute, against a model: a
// std::map for the contents and a vector for the insertion order. Hashes
// that collide on purpose make long probe runs that wrap around the end of
// the slots, where erasing has to move entries back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "kiv/HashMap.h"

namespace {

struct Key {
   int v;
   bool operator==( const Key & ) const = default;
};

// One hash per table row: what a key hashes to is the row's choice.
struct RowHash {
   static inline std::function< std::size_t( int ) > fn;
   std::size_t operator()( const Key & k ) const { return fn( k.v ); }
};

using Map = Kiv::HashMap< Key, int, RowHash >;

struct Model {
   std::map< int, int > values;
   std::vector< int > order;   // insertion order of the live keys
   void set( int k, int v ) {
      if( !values.count( k ) ) order.push_back( k );
      values[ k ] = v;
   }
   bool erase( int k ) {
      if( !values.erase( k ) ) return false;
      order.erase( std::find( order.begin(), order.end(), k ) );
      return true;
   }
};

// Contents, lookups of present and absent keys, and iteration order.
void expectSame( const Map & m, const Model & model, int keyRange, const std::string & where ) {
   ASSERT_EQ( m.size(), model.values.size() ) << where;
   for( int k = 0; k < keyRange; ++k ) {
      const int * v = m.find( Key{ k } );
      const auto it = model.values.find( k );
      ASSERT_EQ( v ? std::optional( *v ) : std::nullopt,
                 it == model.values.end() ? std::nullopt : std::optional( it->second ) )
            << where << " key " << k;
   }
   std::vector< int > seen;
   for( auto it = m.iter(); it; ++it ) seen.push_back( it.key().v );
   ASSERT_EQ( seen, model.order ) << where;
}

struct HashRow {
   const char * name;
   std::function< std::size_t( int ) > hash;
   int keyRange;
};

// Names the row in test listings (the struct's bytes hold pointers).
void PrintTo( const HashRow & row, std::ostream * os ) { *os << row.name; }

class HashMapModelTest : public ::testing::TestWithParam< HashRow > {};

TEST_P( HashMapModelTest, RandomOperationsMatchTheModel ) {
   const HashRow & row = GetParam();
   RowHash::fn = row.hash;
   std::mt19937 rng( 7 );
   Map m;
   Model model;
   for( int step = 0; step < 4000; ++step ) {
      const int k = int( rng() % unsigned( row.keyRange ) );
      const int v = int( rng() % 3 );
      const std::string where = std::string( row.name ) + " step " + std::to_string( step );
      switch( rng() % 8 ) {
       case 0:
       case 1:
       case 2: {
         const bool changed = !model.values.count( k ) || model.values[ k ] != v;
         ASSERT_EQ( m.insertOrAssign( Key{ k }, v ), changed ) << where;
         model.set( k, v );
         break;
       }
       case 3: {
         const bool fresh = !model.values.count( k );
         const auto [ slot, inserted ] = m.tryInsert( Key{ k }, v );
         ASSERT_EQ( inserted, fresh ) << where;
         if( fresh ) model.set( k, v );
         ASSERT_EQ( *slot, model.values[ k ] ) << where;
         break;
       }
       case 4:
       case 5:
         ASSERT_EQ( m.erase( Key{ k } ), model.erase( k ) ) << where;
         break;
       case 6: {
         // Erase while iterating: the element under the iterator and one
         // further on; the walk must go on over what is left.
         std::vector< int > visited;
         for( auto it = m.iter(); it; ++it ) {
            visited.push_back( it.key().v );
            if( it.key().v % 3 == 0 ) {
               const int ahead = ( it.key().v + 1 ) % row.keyRange;
               m.erase( it.key() );
               model.erase( visited.back() );
               m.erase( Key{ ahead } );
               model.erase( ahead );
            }
         }
         for( const int seen : visited ) ASSERT_EQ( std::count( visited.begin(), visited.end(), seen ), 1 );
         break;
       }
       default:
         if( step % 500 == 7 ) {
            m.clear();
            model = Model();
         }
         break;
      }
      if( step % 50 == 0 || step == 3999 ) expectSame( m, model, row.keyRange, where );
   }
}

INSTANTIATE_TEST_SUITE_P(
      Hashes, HashMapModelTest,
      ::testing::Values(
            HashRow{ "Identity", []( int k ) { return std::size_t( k ); }, 300 },
            // Only high bits differ: a table that masked the hash would put
            // every key in one place.
            HashRow{ "HighBitsOnly", []( int k ) { return std::size_t( k ) << 40; }, 300 },
            HashRow{ "AllCollide", []( int ) { return std::size_t( 12345 ); }, 60 },
            HashRow{ "AllCollideAtZero", []( int ) { return std::size_t( 0 ); }, 60 },
            HashRow{ "FourGroups", []( int k ) { return std::size_t( k % 4 ) * 0x51ED27u; }, 120 },
            HashRow{ "AllCollideNearTheTop", []( int ) { return ~std::size_t( 0 ) - 3; }, 60 } ),
      []( const ::testing::TestParamInfo< HashRow > & info ) { return std::string( info.param.name ); } );

// A value whose destruction erases another element of the same map, as an
// entity releasing the last reference to a machine can.
struct Eraser {
   Kiv::HashMap< int, std::shared_ptr< Eraser > > * map = nullptr;
   int victim = -1;
   ~Eraser() {
      if( map && victim >= 0 ) map->erase( victim );
   }
};

TEST( HashMapTest, ClearAndEraseSurviveValuesThatEraseOthers ) {
   Kiv::HashMap< int, std::shared_ptr< Eraser > > m;
   auto fill = [ & ] {
      for( int k = 0; k < 40; ++k ) {
         auto e = std::make_shared< Eraser >();
         e->map = &m;
         e->victim = k % 2 == 0 ? k + 1 : -1;   // each even key takes the next odd one
         m.insertOrAssignFn( k, e );
      }
   };
   fill();
   m.clear();
   EXPECT_EQ( m.size(), 0u );
   EXPECT_EQ( m.firstKey(), nullptr );

   fill();
   EXPECT_TRUE( m.erase( 10 ) );
   EXPECT_FALSE( m.contains( 11 ) );
   std::vector< int > keys;
   m.forEach( [ & ]( int k, const auto & ) { keys.push_back( k ); } );
   EXPECT_EQ( keys.size(), 38u );
   EXPECT_TRUE( std::is_sorted( keys.begin(), keys.end() ) );
   m.clear();   // the destructor is no place for values that erase
}

TEST( HashMapTest, ClearUnderALiveIteratorLeavesItsNodeUntilItMovesOn ) {
   Kiv::HashMap< std::string, int > m;
   for( int k = 0; k < 20; ++k ) m.insertOrAssign( "k" + std::to_string( k ), k );
   auto it = m.iter();
   ++it;
   ASSERT_EQ( it.key(), "k1" );
   m.clear();
   EXPECT_FALSE( m.contains( "k1" ) );
   EXPECT_EQ( it.value(), 1 );   // still readable where it stands
   m.insertOrAssign( "k1", 100 );   // the same key again: a new element
   ++it;
   // The stale node's successor is the new element, appended after it.
   ASSERT_TRUE( it );
   EXPECT_EQ( it.value(), 100 );
   ++it;
   EXPECT_FALSE( it );
}

// Keys that differ only above the low 16 bits: a table that used the hash's
// low bits alone would make this quadratic.
TEST( HashMapTest, GrowsFromEmptyToManyAndFindsEveryKey ) {
   Kiv::HashMap< std::uint64_t, std::uint64_t > m;
   constexpr std::uint64_t kCount = 100'000;
   for( std::uint64_t k = 0; k < kCount; ++k ) ASSERT_TRUE( m.insertOrAssign( k << 16, k ) );
   for( std::uint64_t k = 0; k < kCount; k += 2 ) ASSERT_TRUE( m.erase( k << 16 ) );
   EXPECT_EQ( m.size(), kCount / 2 );
   for( std::uint64_t k = 0; k < kCount; ++k ) {
      const std::uint64_t * v = m.find( k << 16 );
      ASSERT_EQ( v ? std::optional( *v ) : std::nullopt, k % 2 ? std::optional( k ) : std::nullopt );
      ASSERT_FALSE( m.contains( ( k << 16 ) + 1 ) );
   }
}

} // namespace

// The reactor frame (OwnedReactor, KeyedReactor), reactors per key
// (ReactorMap) and the write that reports a change.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kiv/EntityMacros.h"
#include "kiv/OwnedReactor.h"
#include "kiv/ReactorMap.h"
#include "kiv/testing/TestLoop.h"

namespace {

#define FRAME_ITEM_ATTRS( X )                                \
   X( SCALAR, level, Level, int, 7 )                         \
   X( COUNTER, hits, Hits, unsigned )                        \
   X( COLL, label, Label, int, std::string )                 \
   X( PTR, next, Next, Item )

class Item : public Kiv::Notifier {
 public:
   KIV_ENTITY( Item, "Test::Item", FRAME_ITEM_ATTRS )
};
KIV_NOTIFIEE( Item, FRAME_ITEM_ATTRS )

struct Owner {
   std::vector< std::string > seen;
};

class KivItem : public Kiv::KeyedReactor< Item::NotifieeConst, Owner, std::string > {
 public:
   KivItem( Owner * o, const std::string & name, const Kiv::Ptr< Item > & item ) : KeyedReactor( o, name ) {
      notifierIs( item );
      owner_->seen.push_back( "bound " + key_ );
   }
   ~KivItem() override { owner_->seen.push_back( "gone " + key_ ); }
   void onLevel() override { owner_->seen.push_back( key_ + " level" ); }
};

TEST( ReactorFrame, WritesReportWhetherTheyChangedAnything ) {
   Kiv::Testing::TestLoop loop;
   auto item = Kiv::make< Item >();
   auto other = Kiv::make< Item >();
   EXPECT_EQ( Item::levelInitial(), 7 );
   EXPECT_EQ( item->level(), Item::levelInitial() );
   struct Case {
      const char * what;
      std::function< bool() > write;
      bool changed;
   };
   const std::vector< Case > cases = {
      { "scalar, same value", [ & ] { return item->levelIs( 7 ); }, false },
      { "scalar, new value", [ & ] { return item->levelIs( 8 ); }, true },
      { "scalar, again", [ & ] { return item->levelIs( 8 ); }, false },
      { "counter, new value", [ & ] { return item->hitsIs( 2 ); }, true },
      { "counter, same value", [ & ] { return item->hitsIs( 2 ); }, false },
      { "collection, new key", [ & ] { return item->labelIs( 1, "a" ); }, true },
      { "collection, same value", [ & ] { return item->labelIs( 1, "a" ); }, false },
      { "collection, new value", [ & ] { return item->labelIs( 1, "b" ); }, true },
      { "pointer, set", [ & ] { return item->nextIs( other ); }, true },
      { "pointer, same", [ & ] { return item->nextIs( other ); }, false },
   };
   for( const auto & c : cases ) EXPECT_EQ( c.write(), c.changed ) << c.what;
}

// Keyed reactors forward to their owner with their key.
TEST( ReactorFrame, ReactorMapBuildsOncePerKeyAndHandsOver ) {
   Kiv::Testing::TestLoop loop;
   Owner owner;
   auto a = Kiv::make< Item >();
   auto b = Kiv::make< Item >();
   Kiv::ReactorMap< std::string, KivItem > map;
   KivItem & first = map.emplace( "a", &owner, "a", a );
   // A key that has its reactor keeps it: emplace builds nothing.
   EXPECT_EQ( &map.emplace( "a", &owner, "a", b ), &first );
   map.insert( "b", std::make_unique< KivItem >( &owner, "b", b ) );
   EXPECT_EQ( map.size(), 2u );
   EXPECT_EQ( map.find( "b" )->key(), "b" );
   EXPECT_EQ( map.find( "c" ), nullptr );
   ASSERT_NE( map.firstKey(), nullptr );
   EXPECT_EQ( *map.firstKey(), "a" );

   // A reactor taken out still lives until its new holder lets it go.
   std::unique_ptr< KivItem > taken = map.take( "a" );
   ASSERT_TRUE( taken );
   EXPECT_FALSE( map.contains( "a" ) );
   EXPECT_EQ( map.take( "a" ), nullptr );
   a->levelIs( 1 );
   loop.runUntilIdle();
   taken.reset();
   EXPECT_EQ( owner.seen, ( std::vector< std::string >{ "bound a", "bound b", "a level", "gone a" } ) );

   // forEach tolerates unbinding the reactor it stands on.
   map.emplace( "c", &owner, "c", a );
   std::vector< std::string > visited;
   map.forEach( [ & ]( const std::string & k, KivItem & ) {
      visited.push_back( k );
      map.unbind( k );
   } );
   EXPECT_EQ( visited, ( std::vector< std::string >{ "b", "c" } ) );
   EXPECT_EQ( map.size(), 0u );
}

} // namespace

// Directories: entries by type name, sub-directories, paths and per-entry
// notifications.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kiv/Entity.h"
#include "kiv/testing/TestLoop.h"

namespace {

class Widget : public Kiv::Entity {
 public:
   explicit Widget( const Kiv::Name & n ) : Kiv::Entity( n ) {}
   const char * typeName() const override { return "Test::Widget"; }
};
KIV_REGISTER_ENTITY_TYPE( Widget, "Test::Widget" );

struct DirWatcher : Kiv::Dir::NotifieeConst {
   std::vector< std::string > seen;
   void onEntityPtr( const Kiv::Name & n ) override {
      seen.push_back( n.str() + ( notifier()->entityRef( n ) ? "+" : "-" ) );
   }
};

TEST( DirTest, EntriesAreCreatedByRegisteredTypeNameAndReusedWhenPresent ) {
   Kiv::Testing::TestLoop loop;
   auto root = Kiv::make< Kiv::Dir >();
   auto w = root->entryIs( "w", "Test::Widget" );
   ASSERT_TRUE( Kiv::entity_cast< Widget >( w ) );
   EXPECT_EQ( root->entryIs( "w", "Test::Widget" ), w );
   EXPECT_EQ( w->parent(), root.ptr() );
   EXPECT_THROW( root->entryIs( "x", "No::SuchType" ), Kiv::RangeException );
   EXPECT_EQ( root->entityRef( "x" ), nullptr );
}

TEST( DirTest, SubdirectoriesFormPathsAndCanBeRemoved ) {
   Kiv::Testing::TestLoop loop;
   auto root = Kiv::make< Kiv::Dir >();
   auto leaf = root->dirAt( "routing/pim/application" );
   leaf->entryIs( "app1", "Test::Widget" );
   EXPECT_EQ( root->entityAt( "routing/pim/application/app1" )->fullName(), "routing/pim/application/app1" );
   EXPECT_EQ( root->entityAt( "routing/nothing" ), nullptr );
   EXPECT_EQ( root->entityAt( "routing/pim/application/app1/deeper" ), nullptr );
   auto routing = Kiv::entity_cast< Kiv::Dir >( root->entityRef( "routing" ) );
   ASSERT_TRUE( routing );
   routing->subdirDel( "pim" );
   EXPECT_EQ( root->entityAt( "routing/pim" ), nullptr );
   EXPECT_EQ( leaf->parent(), nullptr );
}

TEST( DirTest, ReactorsSeeEachEntryAddedAndRemoved ) {
   Kiv::Testing::TestLoop loop;
   auto root = Kiv::make< Kiv::Dir >();
   DirWatcher w;
   w.notifierIs( root );
   root->entryIs( "a", "Test::Widget" );
   root->subdirIs( "b" );
   root->entryDel( "a" );
   ASSERT_TRUE( loop.runUntilIdle() );
   EXPECT_EQ( w.seen, ( std::vector< std::string >{ "a-", "b+" } ) );
}

} // namespace

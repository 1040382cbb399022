// The state store: what each mount mode lets a mounter observe, and how a
// mount group fails.
#include <gtest/gtest.h>

#include "dovel/Dovel.h"
#include "kiv/Entity.h"
#include "kiv/testing/TestLoop.h"

namespace {

#define PROBE_ATTRS( X ) X( SCALAR, value, Value, int, 0 )
class Probe : public Kiv::Entity {
 public:
   explicit Probe( const Kiv::Name & n = Kiv::Name() ) : Kiv::Entity( n ) {}
   const char * typeName() const override { return "Test::Probe"; }
   KIV_ENTITY( Probe, "Test::Probe", PROBE_ATTRS )
};
KIV_NOTIFIEE( Probe, PROBE_ATTRS )

struct Recorder : Dovel::Mounter {
   void doMountsComplete( Dovel::MountStatus s, const Kiv::Ptr< Dovel::EntityManager > & ) override {
      statuses.push_back( s );
   }
   std::vector< Dovel::MountStatus > statuses;
};

class DovelTest : public ::testing::Test {
 protected:
   DovelTest() { Dovel::TypeRegistry::instance().typeIs< Probe >( "Test::Probe" ); }
   Dovel::MountStatus mount( const std::vector< Dovel::Mount > & mounts ) {
      auto g = em->getMountGroup( &rec );
      for( const auto & m : mounts ) g->doMount( m );
      g->doClose( false, "", 0.0 );
      em->doMountClosedGroups();
      return rec.statuses.empty() ? Dovel::mountSuccess_ : rec.statuses.back();
   }
   Kiv::Testing::TestLoop loop;
   Kiv::Ptr< Dovel::Store > store = Kiv::make< Dovel::Store >();
   Kiv::Ptr< Dovel::EntityManager > em = Kiv::make< Dovel::EntityManager >( store );
   Recorder rec;
};

TEST_F( DovelTest, ModesDecideAccessCreationAndFailure ) {
   struct Row {
      const char * mode;
      bool published;
      Dovel::MountStatus status;
      bool readable, writable;
   } rows[] = {
      { "r", true, Dovel::mountSuccess_, true, false },
      { "", true, Dovel::mountSuccess_, true, false },
      { "r", false, Dovel::mountNotFound_, false, false },
      { "rO", false, Dovel::mountSuccess_, false, false },
      { "w", true, Dovel::mountSuccess_, true, true },
      { "w", false, Dovel::mountNotFound_, false, false },
      { "wc", false, Dovel::mountSuccess_, true, true },
      { "wcf", false, Dovel::mountSuccess_, true, true },
      { "rc", false, Dovel::mountBadMode_, false, false },
      { "wx", true, Dovel::mountBadMode_, false, false },
   };
   int i = 0;
   for( const auto & r : rows ) {
      SCOPED_TRACE( std::string( "mode \"" ) + r.mode + "\" published " + std::to_string( r.published ) );
      const std::string path = "p/" + std::to_string( i++ );
      if( r.published ) store->entityIs( path, "Test::Probe" );
      EXPECT_EQ( mount( { { path, "Test::Probe", r.mode } } ), r.status );
      EXPECT_EQ( bool( em->getEntity< Probe >( path ) ), r.readable );
      EXPECT_EQ( bool( em->getWritableEntity< Probe >( path ) ), r.writable );
      if( r.readable ) {
         EXPECT_EQ( em->getEntity( path ), store->entity( path ) ) << "the store's own object";
      }
   }
}

TEST_F( DovelTest, FreshReplacesWhatAPreviousWriterLeftCreateKeepsIt ) {
   auto kept = Kiv::ptr_cast< Probe >( store->entityIs( "keep", "Test::Probe" ) );
   auto old = Kiv::ptr_cast< Probe >( store->entityIs( "fresh", "Test::Probe" ) );
   kept->valueIs( 7 );
   old->valueIs( 7 );
   ASSERT_EQ( mount( { { "keep", "Test::Probe", "wc" }, { "fresh", "Test::Probe", "wcf" } } ),
              Dovel::mountSuccess_ );
   EXPECT_EQ( em->getEntity< Probe >( "keep" )->value(), 7 );
   EXPECT_EQ( em->getEntity< Probe >( "fresh" )->value(), 0 );
   EXPECT_NE( store->entity( "fresh" ), Kiv::Ptr< Kiv::Notifier >( old ) );
}

TEST_F( DovelTest, AnotherTypeAtThePathFailsTheGroupAndStopsIt ) {
   store->entityIs( "a", "Kiv::Dir" );
   EXPECT_EQ( mount( { { "a", "Test::Probe", "r" }, { "b", "Test::Probe", "wc" } } ),
              Dovel::mountTypeMismatch_ );
   EXPECT_EQ( em->lastFailedPath(), "a" );
   EXPECT_FALSE( store->entity( "b" ) ) << "mounting stops at the failure";
   EXPECT_THROW( store->entityIs( "a", "Test::Probe" ), Kiv::RangeException );
   EXPECT_EQ( mount( { { "c", "No::Such", "wc" } } ), Dovel::mountUnknownType_ );
}

TEST_F( DovelTest, LiveDirectorySeesLaterEntriesFrozenOneDoesNot ) {
   store->entityIs( "dir/live", "Kiv::Dir" );
   store->entityIs( "dir/frozen", "Kiv::Dir" );
   store->entityIs( "dir/frozen/early", "Test::Probe" );
   ASSERT_EQ( mount( { { "dir/live", "Kiv::Dir", "ri" }, { "dir/frozen", "Kiv::Dir", "r" },
                       { "dir/own", "Kiv::Dir", "wc" } } ),
              Dovel::mountSuccess_ );
   em->getWritableEntity< Kiv::Dir >( "dir/own" )->entryIs( Kiv::Name( "mine" ), "Kiv::Dir" );
   EXPECT_TRUE( store->entity< Kiv::Dir >( "dir/own" )->entityRef( Kiv::Name( "mine" ) ) )
      << "a writer's directory is the store's";
   auto live = em->getEntity< Kiv::Dir >( "dir/live" );
   auto frozen = em->getEntity< Kiv::Dir >( "dir/frozen" );
   store->entityIs( "dir/live/x", "Test::Probe" );
   store->entityIs( "dir/frozen/late", "Test::Probe" );
   EXPECT_TRUE( live->entityRef( Kiv::Name( "x" ) ) );
   EXPECT_TRUE( frozen->entityRef( Kiv::Name( "early" ) ) );
   EXPECT_FALSE( frozen->entityRef( Kiv::Name( "late" ) ) );
   store->entityDel( "dir/live/x" );
   EXPECT_FALSE( live->entityRef( Kiv::Name( "x" ) ) ) << "entries disappear too";
}

} // namespace

#include <gtest/gtest.h>

#include <type_traits>

#include "kiv/RangeException.h"
#include "status/PimVarnStatus.h"
#include "varn/VarnMount.h"

namespace {

namespace V = Routing::Pim::Varn;
using Lumo::IpGenAddr;

IpGenAddr a( const char * s ) { return IpGenAddr::fromStrep( s ); }

static_assert( std::is_trivially_copyable_v< V::Intf > );
static_assert( std::is_trivially_copyable_v< V::Neighbor > );
static_assert( sizeof( V::NeighborKey ) == V::IntfName::size + 17, "keys carry no padding" );

TEST( VarnTables, RowsAreWrittenOnlyWhenChangedAndBounded ) {
   V::Status s;
   V::Intf row( "Ethernet1" );
   row.helloPeriod = 30;
   EXPECT_TRUE( s.pimIntfIs( row ) );
   EXPECT_FALSE( s.pimIntfIs( row ) ) << "an equal row is not rewritten";
   row.helloPeriod = 10;
   EXPECT_TRUE( s.pimIntfIs( row ) );
   EXPECT_EQ( s.pimIntf().row( V::IntfKey( "Ethernet1" ) )->helloPeriod, 10 );
   EXPECT_EQ( s.pimIntf().rowTable().writes(), 2u );
   EXPECT_TRUE( s.pimIntfDel( Lumo::IntfId( "Ethernet1" ) ) );
   EXPECT_FALSE( s.pimIntfDel( Lumo::IntfId( "Ethernet1" ) ) );

   // A full table refuses new rows and counts them.
   KivVarn::MountInfo small = V::Status::mountInfo();
   small.collectionIs( V::kIntfSecondaryAddressTable, 2 );
   V::Status bounded( "b", small, KivVarn::HeapTableStore::instance() );
   using K = V::IntfSecondaryAddressKey;
   EXPECT_TRUE( bounded.intfSecondaryAddressIs( V::IntfSecondaryAddress( K( "E1", a( "198.18.1.1" ) ) ) ) );
   EXPECT_TRUE( bounded.intfSecondaryAddressIs( V::IntfSecondaryAddress( K( "E1", a( "198.18.1.2" ) ) ) ) );
   EXPECT_FALSE( bounded.intfSecondaryAddressIs( V::IntfSecondaryAddress( K( "E1", a( "198.18.1.3" ) ) ) ) );
   EXPECT_EQ( bounded.intfSecondaryAddress().rowTable().overflows(), 1u );
   EXPECT_EQ( bounded.intfSecondaryAddress().size(), 2u );

   bounded.clear();
   EXPECT_EQ( bounded.intfSecondaryAddress().size(), 0u );
}

TEST( VarnMount, WritersCreateReadersAttachCleanupWaitsForTheLastMount ) {
   KivVarn::Directory dir;
   dir.typeIs< V::Status >();
   dir.typeIs< V::MessageCounters >();
   const std::string path = V::statusPath( Lumo::AddressFamily::ipv4, "red" );

   auto writer = Kiv::make< KivVarn::Mount >( dir );
   auto reader = Kiv::make< KivVarn::Mount >( dir );
   // Nothing to attach to yet.
   EXPECT_FALSE( reader->doMount( path, "r", V::Status::mountInfo() ) );

   auto w = Kiv::entity_cast< V::Status >( writer->doMount( path, "w", V::Status::mountInfo() ) );
   ASSERT_TRUE( w );
   EXPECT_EQ( writer->doMount( path, "wi", V::Status::mountInfo() ), w );
   EXPECT_EQ( dir.mounts( path ), 1u );
   auto r = Kiv::entity_cast< V::Status >( reader->doMount( path, "r", V::Status::mountInfo() ) );
   ASSERT_EQ( r, w );
   EXPECT_EQ( dir.mounts( path ), 2u );

   // What the writer writes, the reader reads.
   w->pimIntfIs( V::Intf( "Ethernet1" ) );
   EXPECT_TRUE( r->pimIntf().has( V::IntfKey( "Ethernet1" ) ) );

   // Wrong type at a mounted path, unknown type, bad mode.
   EXPECT_THROW( writer->doMount( path, "w", V::MessageCounters::mountInfo() ), Kiv::RangeException );
   EXPECT_THROW( writer->doMount( "x", "w", KivVarn::MountInfo( "No::Such", {} ) ),
                 Kiv::RangeException );
   EXPECT_THROW( writer->doMount( "x", "", V::Status::mountInfo() ), Kiv::RangeException );

   // The writer leaves; the reader still holds the tables.
   writer->doUnmount( path );
   writer->cleanup( path );
   EXPECT_FALSE( writer->getEntity( path ) );
   EXPECT_TRUE( dir.entity( path ) );
   // A restarting writer finds its rows again.
   auto again = Kiv::entity_cast< V::Status >( writer->doMount( path, "w", V::Status::mountInfo() ) );
   EXPECT_EQ( again, w );
   writer->doUnmount( path );

   reader->doUnmount( path );
   reader->cleanup( path );
   EXPECT_FALSE( dir.entity( path ) );
   EXPECT_EQ( dir.tableSets(), 0u );
   // A fresh writer gets fresh tables.
   auto fresh = Kiv::entity_cast< V::Status >( writer->doMount( path, "w", V::Status::mountInfo() ) );
   ASSERT_TRUE( fresh );
   EXPECT_EQ( fresh->pimIntf().size(), 0u );

   // Counters by their own type; a Mount that goes away unmounts.
   const std::string cpath = V::countersPath( Lumo::AddressFamily::ipv4, "red" );
   EXPECT_TRUE( Kiv::entity_cast< V::MessageCounters >(
      writer->doMount( cpath, "w", V::MessageCounters::mountInfo() ) ) );
   writer = nullptr;
   EXPECT_EQ( dir.mounts( path ), 0u );
   EXPECT_EQ( dir.mounts( cpath ), 0u );
}

} // namespace

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "kiv/testing/TestLoop.h"
#include "model/PimStatus.h"
#include "status/PimVarnStatus.h"
#include "varn/VarnMount.h"
#include "status/PimStatusWriterSm.h"

namespace {

using namespace Routing::Pim;
namespace V = Routing::Pim::Varn;

Lumo::IpGenAddr ip( const char * s ) { return Lumo::IpGenAddr::fromStrep( s ); }
Lumo::IpGenAddrWithMask ipm( const char * s ) { return Lumo::IpGenAddrWithMask::fromStrep( s ); }
Lumo::IpGenPrefix pfx( const char * s ) { return Lumo::IpGenPrefix::fromStrep( s ); }

// One table operation as the writer made it: table, "set" or "del", and the
// key in readable form.
struct Op {
   std::string table;
   std::string op;
   std::string key;
   bool operator==( const Op & ) const = default;
};
std::ostream & operator<<( std::ostream & os, const Op & o ) {
   return os << o.table << ":" << o.op << ":" << o.key;
}

std::string keyText( const std::string & table, const void * key ) {
   const char * b = static_cast< const char * >( key );
   std::ostringstream os;
   os << reinterpret_cast< const V::IntfName * >( b )->intfId();
   b += sizeof( V::IntfName );
   if( table == V::kIntfSecondaryPrefixTable ) {
      os << "/" << reinterpret_cast< const V::Prefix * >( b )->ipGenPrefix();
      return os.str();
   }
   const int addrs = table == V::kPimIntfTable ? 0 : table == V::kNeighborSecondaryAddressTable ? 2 : 1;
   for( int i = 0; i < addrs; ++i, b += sizeof( V::Addr ) ) {
      os << "/" << reinterpret_cast< const V::Addr * >( b )->ipGenAddr();
   }
   return os.str();
}

// Heap tables that also log every operation that changed something.
class RecordingStore : public KivVarn::TableStore {
 public:
   std::unique_ptr< KivVarn::RowTable > tableIs( const std::string & name, std::size_t rowSize,
                                                 std::size_t keySize,
                                                 std::size_t capacity ) override {
      return std::make_unique< Table >(
         KivVarn::HeapTableStore::instance().tableIs( name, rowSize, keySize, capacity ), ops );
   }
   std::vector< Op > ops;

 private:
   class Table : public KivVarn::RowTable {
    public:
      Table( std::unique_ptr< KivVarn::RowTable > t, std::vector< Op > & ops )
            : RowTable( t->name(), t->rowSize(), t->keySize(), t->capacity() ),
              t_( std::move( t ) ), ops_( ops ) {}
      bool rowIs( const void * row ) override {
         const bool changed = t_->rowIs( row );
         if( changed ) ops_.push_back( { name(), "set", keyText( name(), row ) } );
         return changed;
      }
      bool rowDel( const void * key ) override {
         const bool changed = t_->rowDel( key );
         if( changed ) ops_.push_back( { name(), "del", keyText( name(), key ) } );
         return changed;
      }
      const void * row( const void * key ) const override { return t_->row( key ); }
      std::size_t size() const override { return t_->size(); }
      void clear() override { t_->clear(); }
      void forEach( const std::function< void( const void * ) > & f ) const override {
         t_->forEach( f );
      }
    private:
      std::unique_ptr< KivVarn::RowTable > t_;
      std::vector< Op > & ops_;
   };
};

std::size_t indexOf( const std::vector< Op > & ops, const Op & o ) {
   const auto it = std::find( ops.begin(), ops.end(), o );
   EXPECT_NE( it, ops.end() ) << "missing " << o;
   return static_cast< std::size_t >( it - ops.begin() );
}

class StatusWriterFixture : public ::testing::Test {
 protected:
   void SetUp() override {
      allStatus_ = Kiv::make< AllStatus >( "red" );
      varn_ = Kiv::make< V::Status >( "routing/pim/status/red", V::Status::mountInfo(), store_ );
   }
   void startWriter() { writer_ = V::StatusWriterSmIs( "red", allStatus_, varn_ ); }
   void run() { ASSERT_TRUE( loop_.runUntilIdle() ); }
   Kiv::Ptr< Neighbor > addNeighbor( const Kiv::Ptr< Intf > & intf, const char * addr ) {
      return intf->neighborIs( ip( addr ), intf->id(), std::uint16_t( 105 ), DrPriorityOption{},
                               GenerationIdOption{}, LanPruneDelayOption{} );
   }
   // An interface with a neighbour carrying a secondary address, a secondary
   // address and prefix of its own, and the neighbour held inactive.
   Kiv::Ptr< Intf > populatedIntf( const char * name ) {
      auto intf = allStatus_->pimIntfIs( name, ipm( "198.18.0.1/24" ) );
      intf->secondaryAddressIs( ip( "198.18.1.1" ) );
      intf->secondaryPrefixIs( pfx( "198.18.1.0/24" ) );
      auto nbr = addNeighbor( intf, "198.18.0.2" );
      nbr->secondaryAddressIs( ip( "198.18.1.2" ) );
      addNeighbor( intf, "198.18.0.3" );
      intf->inactiveBfdNeighborIs( nbr );
      return intf;
   }
   std::size_t rows() const {
      return varn_->pimIntf().size() + varn_->neighbor().size() +
             varn_->neighborSecondaryAddress().size() + varn_->intfSecondaryAddress().size() +
             varn_->intfSecondaryPrefix().size() + varn_->inactiveNeighbor().size();
   }

   Kiv::Testing::TestLoop loop_;
   RecordingStore store_;
   Kiv::Ptr< AllStatus > allStatus_;
   Kiv::Ptr< V::Status > varn_;
   Kiv::Ptr< V::StatusWriterSm > writer_;
};

TEST_F( StatusWriterFixture, ParentGoingWithItsChildrenRemovesChildRowsFirst ) {
   startWriter();
   populatedIntf( "Ethernet1" );
   populatedIntf( "Ethernet2" );
   run();
   EXPECT_EQ( varn_->neighbor().size(), 4u );

   store_.ops.clear();
   allStatus_->pimIntfDel( "Ethernet1" );
   run();
   const auto & ops = store_.ops;
   // Exactly Ethernet1's rows went, and only deletions happened.
   ASSERT_EQ( ops.size(), 7u );
   for( const auto & o : ops ) {
      EXPECT_EQ( o.op, "del" ) << o;
      EXPECT_EQ( o.key.rfind( "Ethernet1", 0 ), 0u ) << o;
   }
   EXPECT_EQ( ops.front(), ( Op{ V::kInactiveNeighborTable, "del", "Ethernet1/198.18.0.2" } ) );
   EXPECT_EQ( ops.back(), ( Op{ V::kPimIntfTable, "del", "Ethernet1" } ) );
   const auto nbrSec = indexOf(
      ops, { V::kNeighborSecondaryAddressTable, "del", "Ethernet1/198.18.0.2/198.18.1.2" } );
   const auto nbr2 = indexOf( ops, { V::kNeighborTable, "del", "Ethernet1/198.18.0.2" } );
   const auto nbr3 = indexOf( ops, { V::kNeighborTable, "del", "Ethernet1/198.18.0.3" } );
   const auto sec = indexOf( ops, { V::kIntfSecondaryAddressTable, "del", "Ethernet1/198.18.1.1" } );
   const auto prefix = indexOf( ops, { V::kIntfSecondaryPrefixTable, "del", "Ethernet1/198.18.1.0/24" } );
   EXPECT_LT( nbrSec, nbr2 );
   EXPECT_LT( std::max( nbr2, nbr3 ), sec );
   EXPECT_LT( sec, prefix );
}

// A refresh rewrites only that neighbour's row (an equal write nothing);
// the sets and inactive neighbours follow; a neighbour going alone takes its
// secondary row first; rows added after start-up go with the interface too.
TEST_F( StatusWriterFixture, RowsFollowRefreshesSetsAndInactiveNeighbors ) {
   startWriter();
   auto intf = populatedIntf( "Ethernet1" );
   run();
   for( int i = 0; i < 2; ++i ) {
      store_.ops.clear();
      intf->neighbor( ip( "198.18.0.3" ) )->lastRefreshTimeIs( 40.0 );
      run();
      const std::vector< Op > want = { { V::kNeighborTable, "set", "Ethernet1/198.18.0.3" } };
      EXPECT_EQ( store_.ops, i ? std::vector< Op >() : want ) << "an equal write changes nothing";
   }
   EXPECT_EQ( varn_->neighbor().row( V::NeighborKey( "Ethernet1", ip( "198.18.0.3" ) ) )->lastRefreshTime, 40.0 );

   intf->secondaryAddressDel( ip( "198.18.1.1" ) );
   intf->secondaryPrefixDel( pfx( "198.18.1.0/24" ) );
   intf->secondaryPrefixIs( pfx( "198.18.2.0/24" ) );
   intf->inactiveBfdNeighborDel( ip( "198.18.0.2" ) );
   intf->inactiveBfdNeighborIs( intf->neighbor( ip( "198.18.0.3" ) ) );
   intf->neighbor( ip( "198.18.0.2" ) )->secondaryAddressIs( ip( "198.18.1.3" ) );
   intf->neighbor( ip( "198.18.0.2" ) )->secondaryAddressDel( ip( "198.18.1.2" ) );
   run();
   EXPECT_TRUE( varn_->neighborSecondaryAddress().has(
      V::NeighborSecondaryAddressKey( "Ethernet1", ip( "198.18.0.2" ), ip( "198.18.1.3" ) ) ) );
   EXPECT_EQ( varn_->intfSecondaryAddress().size(), 0u );
   EXPECT_EQ( varn_->intfSecondaryPrefix().size(), 1u );
   EXPECT_TRUE( varn_->intfSecondaryPrefix().has(
      V::IntfSecondaryPrefixKey( "Ethernet1", pfx( "198.18.2.0/24" ) ) ) );
   EXPECT_EQ( varn_->inactiveNeighbor().size(), 1u );
   EXPECT_TRUE( varn_->inactiveNeighbor().has( V::NeighborKey( "Ethernet1", ip( "198.18.0.3" ) ) ) );
   store_.ops.clear();
   intf->neighborDel( ip( "198.18.0.2" ) );
   run();
   EXPECT_EQ( store_.ops, ( std::vector< Op >{
                             { V::kNeighborSecondaryAddressTable, "del", "Ethernet1/198.18.0.2/198.18.1.3" },
                             { V::kNeighborTable, "del", "Ethernet1/198.18.0.2" } } ) );
   allStatus_->pimIntfDel( "Ethernet1" );
   run();
   EXPECT_EQ( rows(), 0u );
}

TEST_F( StatusWriterFixture, TablesHoldExactlyTheCurrentStatusAcrossWriters ) {
   // The tables outlive their writers. A writer that goes before it saw some
   // deletions still takes all its rows with it...
   populatedIntf( "Ethernet1" );
   populatedIntf( "Ethernet2" );
   startWriter();
   EXPECT_EQ( rows(), 14u );
   allStatus_->pimIntfDel( "Ethernet2" );
   allStatus_->pimIntf( "Ethernet1" )->neighborDel( ip( "198.18.0.3" ) );
   writer_ = nullptr;
   EXPECT_EQ( rows(), 0u );

   // ...and a new writer drops rows that nothing backs (left by a writer that
   // never went away cleanly), in every table, and keeps the backed ones.
   const Lumo::IntfId eth1( "Ethernet1" ), eth9( "Ethernet9" );
   varn_->pimIntfIs( V::Intf( eth9 ) );
   varn_->pimIntfIs( V::Intf( eth1 ) );
   varn_->neighborIs( V::Neighbor( eth9, ip( "198.18.0.2" ) ) );
   varn_->neighborIs( V::Neighbor( eth1, ip( "198.18.0.3" ) ) );
   varn_->neighborSecondaryAddressIs(
      V::NeighborSecondaryAddress( V::NeighborSecondaryAddressKey( eth1, ip( "198.18.0.2" ), ip( "198.18.1.9" ) ) ) );
   varn_->intfSecondaryAddressIs( V::IntfSecondaryAddress( V::IntfSecondaryAddressKey( eth1, ip( "198.18.1.9" ) ) ) );
   varn_->intfSecondaryPrefixIs( V::IntfSecondaryPrefix( V::IntfSecondaryPrefixKey( eth9, pfx( "198.18.1.0/24" ) ) ) );
   varn_->inactiveNeighborIs( V::NeighborRef( V::NeighborKey( eth1, ip( "198.18.0.3" ) ) ) );
   startWriter();
   EXPECT_EQ( varn_->pimIntf().size(), 1u );
   EXPECT_EQ( varn_->neighbor().size(), 1u );
   EXPECT_EQ( rows(), 6u ) << "one of each row, all of Ethernet1 and its neighbour 198.18.0.2";
   EXPECT_TRUE( varn_->neighborSecondaryAddress().has(
      V::NeighborSecondaryAddressKey( eth1, ip( "198.18.0.2" ), ip( "198.18.1.2" ) ) ) );
}

} // namespace

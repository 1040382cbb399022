// End to end through the configuration pipeline: PIM enabled on an interface
// by configuration alone; a Hello handed to the VRF's receive mailbox becomes
// a row of the VRF's status table, and the row goes when the neighbour
// expires.
#include "ConfigSmFixture.h"

#include "status/PimVarnStatus.h"

namespace PimConfigTest {
namespace {

class ConfigEndToEndTest : public ConfigSmFixture {
 protected:
   // The kernel of the VRF's namespace knows the interface.
   void kernelIntfIs( const char * ns, const char * intf, std::uint32_t ifIndex ) {
      auto status = kni_->doMount( KernelNetInfo::Status::mountPath( Lumo::NamespaceName( ns ) ) );
      status->devices()->deviceIntfStatusIs( Lumo::IntfId( intf ),
                                             Interface::DeviceIntfStatus{ intf, ifIndex, true } );
   }
   void receiveHello( const char * vrf, const char * intf, const char * src, std::uint16_t hold ) {
      auto container = sm_->pimVrfContainerSm( L3::VrfName( vrf ) );
      ASSERT_TRUE( container );
      auto hello = Kiv::make< Packet::HelloMessage >();
      hello->srcAddrIs( ip( src ) );
      hello->holdTimePresentIs( true );
      hello->holdTimeIs( hold );
      hello->drPriorityPresentIs( true );
      hello->drPriorityIs( 5 );
      auto rx = container->rxHelloMessageInfo();
      rx->messageIs( hello );
      rx->intfIdIs( Lumo::IntfId( intf ) );
      rx->countInc( 1 );
      ASSERT_TRUE( settle() );
   }
   Kiv::Ptr< Varn::Status > table( const char * vrf ) const {
      return Kiv::entity_cast< Varn::Status >( varnDir.entity( std::string( "routing/pim/status/" ) + vrf ) );
   }
};

// A neighbour learnt and forgotten (with BFD on, the peers asked for are in
// the store for the BFD service); then limits from configuration cap the
// table, and a clear request drops the neighbours of one interface, then of
// the whole VRF, each as if it had expired.
TEST_F( ConfigEndToEndTest, NeighboursComeAndGoLimitedByConfigurationAndClearRequests ) {
   auto vrfConfig = vrfIs( "red" );
   kernelIntfIs( "ns-red", "Ethernet7", 12 );
   kernelIntfIs( "ns-red", "Ethernet8", 13 );
   ipIntfIs( "Ethernet7", "red", "198.18.7.1/24" );
   ipIntfIs( "Ethernet8", "red", "198.18.8.1/24" );
   auto c7 = intfConfigIs( "Ethernet7", pimModeSparse );
   c7->bfdIs( intfBfdEnabled );
   c7->neighborLimitIs( 2 );
   intfConfigIs( "Ethernet8", pimModeSparse );
   vrfConfig->neighborLimitIs( 4 );
   start();
   const auto bfd = Kiv::entity_cast< Bfd::AppConfig >( bfdDir->entityAt( "red/pim" ) );
   ASSERT_TRUE( bfd );
   EXPECT_EQ( sm_->pimVrfContainerSm( L3::VrfName( "red" ) )->args().bfdPimAppConfig, bfd );
   auto status = table( "red" );
   ASSERT_TRUE( status );
   ASSERT_TRUE( status->pimIntf().has( Varn::IntfKey( Lumo::IntfId( "Ethernet7" ) ) ) );
   auto e7 = pimIntf( "red", "Ethernet7" );
   auto e8 = pimIntf( "red", "Ethernet8" );
   ASSERT_TRUE( e7 && e8 );

   const double t0 = loop_.now();
   receiveHello( "red", "Ethernet7", "198.18.7.2", 30 );
   const Varn::NeighborKey key( Lumo::IntfId( "Ethernet7" ), ip( "198.18.7.2" ) );
   auto row = status->neighbor().row( key );
   ASSERT_TRUE( row );
   EXPECT_EQ( row->holdTime, 30 );
   EXPECT_TRUE( e7->activeNeighbor( ip( "198.18.7.2" ) ) );
   // A neighbour with the higher priority is the DR, and the table says so.
   EXPECT_EQ( e7->usedDr(), ip( "198.18.7.2" ) );
   EXPECT_TRUE( bfd->peerConfig( Bfd::Peer( ip( "198.18.7.2" ), L3::VrfName( "red" ) ) ) );
   ASSERT_TRUE( loop_.advanceTo( t0 + 29.9 ) );
   EXPECT_TRUE( status->neighbor().has( key ) );
   ASSERT_TRUE( loop_.advanceTo( t0 + 30.0 ) );
   EXPECT_FALSE( status->neighbor().has( key ) );
   EXPECT_EQ( e7->usedDr(), ip( "198.18.7.1" ) );
   EXPECT_EQ( bfd->peerConfigSize(), 0u );

   EXPECT_EQ( e8->neighborLimit(), kIntfNeighborLimitDefault );
   for( const char * src : { "198.18.7.2", "198.18.7.3", "198.18.7.4" } ) receiveHello( "red", "Ethernet7", src, 105 );
   for( const char * src : { "198.18.8.2", "198.18.8.3", "198.18.8.4" } ) receiveHello( "red", "Ethernet8", src, 105 );
   EXPECT_EQ( e7->neighborSize(), 2u );
   EXPECT_EQ( e7->refusedNeighborCount(), 1u );
   EXPECT_EQ( e8->neighborSize(), 2u ) << "the VRF limit";
   EXPECT_EQ( e8->refusedNeighborCount(), 1u );
   const auto refused = status->refusedNeighbor().row( Varn::NeighborKey( Lumo::IntfId( "Ethernet8" ), ip( "198.18.8.4" ) ) );
   ASSERT_TRUE( refused );
   EXPECT_EQ( refused->count, 1u );

   auto clear = clearConfigColl->vrfClearConfigIs( L3::VrfName( "red" ) );
   clear->intfNeighborsCountIs( Lumo::IntfId( "Ethernet7" ), 0 );
   ASSERT_TRUE( settle() );
   EXPECT_EQ( e7->neighborSize(), 2u ) << "a new request entry is not a request";
   clear->intfNeighborsCountIs( Lumo::IntfId( "Ethernet7" ), 1 );
   ASSERT_TRUE( settle() );
   EXPECT_EQ( e7->neighborSize() + e7->activeNeighborSize(), 0u );
   EXPECT_EQ( e7->usedDr(), ip( "198.18.7.1" ) );
   EXPECT_EQ( e8->neighborSize(), 2u );
   EXPECT_FALSE( status->neighbor().has( key ) );
   receiveHello( "red", "Ethernet7", "198.18.7.4", 105 );
   EXPECT_EQ( e7->neighborSize(), 1u ) << "room again after the clear";

   clear->neighborsCountInc();
   ASSERT_TRUE( settle() );
   EXPECT_EQ( e7->neighborSize() + e8->neighborSize(), 0u );
   EXPECT_EQ( status->neighbor().size(), 0u );
   EXPECT_EQ( e8->usedDr(), ip( "198.18.8.1" ) );
}

} // namespace
} // namespace PimConfigTest

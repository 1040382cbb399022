#pragma once
// An agent run by the host library on virtual time over a private store and
// table directory, with the inputs that make one VRF run PIM on one
// interface: what a system around the agent would publish.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "agent/PimAgent.h"
#include "agenthost/AgentHost.h"
#include "kiv/testing/TestLoop.h"
#include "services/pimio/RxFilter.h"
#include "status/PimVarnStatus.h"

namespace PimAgentTest {

using namespace Routing::Pim;

inline Lumo::IpGenAddr ip( const char * s ) { return Lumo::IpGenAddr::fromStrep( s ); }

class AgentFixture : public ::testing::Test {
 protected:
   AgentFixture() {
      ::setenv( "RUNDLE_DISABLE", "1", 1 );
      host_.varnDirectoryIs( &varnDir_ );
   }
   ~AgentFixture() override { host_.agentDel(); }

   Lumo::AddressFamily af() const { return agent()->addressFamily(); }
   Agent * agent() const { return dynamic_cast< Agent * >( host_.agent().ptr() ); }
   template< class T >
   Kiv::Ptr< T > storeEntity( const std::string & path ) const { return store_->entity< T >( path ); }

   // Construction, init, the rest of the system published, mounts, boot.
   void start( const Kiv::Ptr< AgentBase::CAgent > & a ) {
      host_.agentIs( a );
      startHosted();
   }
   void startHosted() {
      host_.doInit();
      host_.publishMissing();
      ASSERT_EQ( host_.doMount(), Dovel::mountSuccess_ );
      ASSERT_TRUE( host_.doBoot( { "NetworkAgent", "PimIntfUpdate" } ) );
   }

   // VRF "red" (namespace "ns-red") with PIM sparse mode on Ethernet7.
   void configureRed( const char * addr = "198.18.7.1/24" ) {
      const L3::VrfName red( "red" );
      const Lumo::IntfId e7( "Ethernet7" );
      auto kni = Kiv::ptr_cast< KernelNetInfo::Status >( store_->entityIs(
         KernelNetInfo::Status::mountPath( Lumo::NamespaceName( "ns-red" ) ), "KernelNetInfo::Status" ) );
      kni->devices()->deviceIntfStatusIs( e7, Interface::DeviceIntfStatus{ "Ethernet7", 12, true } );
      storeEntity< Ip::AllVrfStatusLocal >( Cell::path( "ip/vrf/status/local" ) )
         ->vrfIs( red, Lumo::NamespaceName( "ns-red" ) );
      auto ipStatus = storeEntity< IpGen::Status >( IpGen::ipStatusPath( af() ) );
      ipStatus->intfVrfIs( e7, red );
      ipStatus->intfPrimaryIs( e7, Lumo::IpGenAddrWithMask::fromStrep( addr ) );
      storeEntity< Routing::Multicast::Fib::VrfEnabledStatus >(
         Routing::Multicast::Fib::VrfEnabledStatus::mountPath( af() ) )
         ->vrfIs( red, true );
      auto config =
         storeEntity< ConfigColl >( af() == Lumo::AddressFamily::ipv6 ? "routing6/pim/config" : "routing/pim/config" );
      config->vrfConfigIs( red );
      config->intfConfigIs( e7 )->modeIs( pimModeSparse );
      ASSERT_TRUE( loop_.runUntilIdle() );
   }
   Kiv::Ptr< ContainerSm > container( const char * vrf ) const {
      return agent()->pimConfigSm() ? agent()->pimConfigSm()->pimVrfContainerSm( L3::VrfName( vrf ) ) : nullptr;
   }
   bool receiveHello( const char * vrf, const char * intf, const char * src, std::uint16_t hold ) {
      auto c = container( vrf );
      if( !c ) return false;
      auto hello = Kiv::make< Packet::HelloMessage >();
      hello->srcAddrIs( ip( src ) );
      hello->holdTimePresentIs( true );
      hello->holdTimeIs( hold );
      const bool delivered = IO::deliverHello( *c->rxHelloMessageInfo(), L3::VrfName( vrf ), Lumo::IntfId( intf ),
                                               hello, agent()->serviceAclFilterSm().ptr() );
      EXPECT_TRUE( loop_.runUntilIdle() );
      return delivered;
   }
   Kiv::Ptr< Routing::Pim::Varn::Status > table( const char * vrf ) const {
      return Kiv::entity_cast< Routing::Pim::Varn::Status >(
         varnDir_.entity( Routing::Pim::Varn::statusPath( af(), L3::VrfName( vrf ) ) ) );
   }
   bool hasNeighborRow( const char * vrf, const char * intf, const char * addr ) const {
      auto t = table( vrf );
      return t && t->neighbor().has( Routing::Pim::Varn::NeighborKey( Lumo::IntfId( intf ), ip( addr ) ) );
   }
   Kiv::Testing::TestLoop loop_{ 1000.0 };
   KivVarn::Directory varnDir_;
   Kiv::Ptr< Dovel::Store > store_ = Kiv::make< Dovel::Store >();
   AgentBase::AgentHost host_{ store_ };
};

} // namespace PimAgentTest

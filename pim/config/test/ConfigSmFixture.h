#pragma once
// The configuration pipeline of one address family, driven end to end on
// virtual time: the inputs ConfigSm reads and the outputs it writes (the
// lab's ConfigPipeline), a kernel namespace mount that records what it was
// asked, and the stages declared complete.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <type_traits>
#include <vector>

#include "ConfigPipeline.h"
#include "kiv/Entity.h"
#include "kiv/testing/TestLoop.h"

namespace PimConfigTest {

using namespace Routing::Pim;

inline Lumo::IpGenAddr ip( const char * s ) { return Lumo::IpGenAddr::fromStrep( s ); }
inline Lumo::IpGenAddrWithMask ipm( const char * s ) { return Lumo::IpGenAddrWithMask::fromStrep( s ); }
inline Lumo::IpGenPrefix prefix( const char * s ) { return Lumo::IpGenPrefix::fromStrep( s ); }

// Mounts "kni/ns/<ns>/status" from a map of the statuses the kernel feed
// would publish; records every mount and unmount.
class TestKniMounter : public KernelNetInfoMounter {
 public:
   Kiv::Ptr< KernelNetInfo::Status > doMount( const std::string & path ) override {
      calls.push_back( "mount " + path );
      if( missing ) return nullptr;
      Kiv::Ptr< KernelNetInfo::Status > * s = statuses.find( path );
      if( s ) return *s;
      auto status = Kiv::make< KernelNetInfo::Status >( Kiv::Name( path ) );
      statuses.insertOrAssignFn( path, status );
      return status;
   }
   void doUnmount( const std::string & path ) override { calls.push_back( "unmount " + path ); }
   Kiv::HashMap< std::string, Kiv::Ptr< KernelNetInfo::Status > > statuses;
   std::vector< std::string > calls;
   bool missing = false;
};

// The loop comes first: the pipeline's entities live and die inside it.
struct WithLoop {
   Kiv::Testing::TestLoop loop_{ 5000.0 };
};

class ConfigSmFixture : public ::testing::Test, protected WithLoop, public ConfigPipeline {
 protected:
   explicit ConfigSmFixture( Lumo::AddressFamily af = Lumo::AddressFamily::ipv4 ) : ConfigPipeline( af ) {}
   ~ConfigSmFixture() override { sm_ = nullptr; }

   ConfigSmInputs inputs() {
      return ConfigPipeline::inputs( kni_, wheel_, [ this ]( const std::string & stage ) { stages_.push_back( stage ); } );
   }

   void start() { start( inputs() ); }
   void start( const ConfigSmInputs & in ) {
      sm_ = configSmFactory( in );
      ASSERT_TRUE( settle() );
   }
   bool settle() { return loop_.runUntilIdle(); }

   // ---- inputs ----
   // A VRF with PIM configured, multicast routing enabled and known to the
   // VRF agent (in namespace "ns-<vrf>").
   Kiv::Ptr< Config > vrfIs( const char * name ) {
      const L3::VrfName vrf( name );
      auto config = configColl->vrfConfigIs( vrf );
      vrfEnabledStatus->vrfIs( vrf, true );
      if( !vrf.isDefault() ) allVrfStatusLocal->vrfIs( vrf, Lumo::NamespaceName( "ns-" + std::string( name ) ) );
      return config;
   }
   void ipIntfIs( const char * intf, const char * vrf, const char * addr ) {
      ipStatus->intfVrfIs( Lumo::IntfId( intf ), L3::VrfName( vrf ) );
      ipStatus->intfPrimaryIs( Lumo::IntfId( intf ), ipm( addr ) );
   }
   Kiv::Ptr< IntfConfig > intfConfigIs( const char * intf, Mode mode, bool borderRouter = false ) {
      auto c = configColl->intfConfigIs( Lumo::IntfId( intf ) );
      c->modeIs( mode );
      c->borderRouterIs( borderRouter );
      return c;
   }
   // An application's request entry in the application directory.
   Kiv::Ptr< Application::Config > applicationIs( const std::string & name ) {
      auto c = Kiv::make< Application::Config >( Kiv::Name( name ) );
      appDir->entryIs( Kiv::Name( name ), Kiv::Ptr< Kiv::Entity >( c ) );
      return c;
   }

   // ---- outputs ----
   Kiv::Ptr< Intf > pimIntf( const char * vrf, const char * intf ) const {
      auto all = allStatusColl->vrfStatus( L3::VrfName( vrf ) );
      return all ? all->pimIntf( Lumo::IntfId( intf ) ) : nullptr;
   }
   // Membership of the VRF's sparse-mode (or bidirectional) interface set.
   bool inSparseSet( const char * vrf, const char * intf, bool bidir = false ) const {
      auto s = bidir ? sm_->vrfBidirIntf( L3::VrfName( vrf ) ) : sm_->vrfSparseModeIntf( L3::VrfName( vrf ) );
      return s && s->intfId( Lumo::IntfId( intf ) );
   }
   bool vifRequested( const char * intf ) const { return vifs->multicastIntf( Lumo::IntfId( intf ) ); }
   bool allPimRoutersJoined( const char * intf, const char * group ) const {
      return groups->isMember( Lumo::IntfId( intf ), ip( group ) );
   }
   bool sparseEnabled( const char * vrf ) const {
      return globalStatus->pimEnabledSparseModeVrf( L3::VrfName( vrf ) );
   }
   bool bidirEnabled( const char * vrf ) const {
      return globalStatus->pimEnabledBidirVrf( L3::VrfName( vrf ) );
   }
   bool hasContainer( const char * vrf ) const { return sm_->pimVrfContainerSmHas( L3::VrfName( vrf ) ); }

   Kiv::Ptr< Tolm::TimerWheel > wheel_ = Tolm::TimerWheelIs( loop_.clock() );
   Kiv::Ptr< TestKniMounter > kni_ = Kiv::make< TestKniMounter >();
   std::vector< std::string > stages_;
   Kiv::Ptr< ConfigSm > sm_;
};

} // namespace PimConfigTest

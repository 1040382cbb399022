#pragma once
// The configuration pipeline of one address family, driven end to end on
// virtual time: every configuration and status input that ConfigSm reads, the
// outputs it writes, a table mount over a private table directory, a kernel
// namespace mount that records what it was asked, the stages declared
// complete.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <type_traits>
#include <vector>

#include "config/PimConfigSm.h"
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

class ConfigSmFixture : public ::testing::Test {
 protected:
   explicit ConfigSmFixture( Lumo::AddressFamily af = Lumo::AddressFamily::ipv4 ) : af_( af ) {
      if( af == Lumo::AddressFamily::ipv6 ) {
         ipStatus_ = Kiv::make< IpGen::Ipv6Status >();
         groups_ = Kiv::make< IpGen::Ipv6MulticastGroupsForApplications >();
      } else {
         ipStatus_ = Kiv::make< IpGen::Ipv4Status >();
         groups_ = Kiv::make< IpGen::Ipv4MulticastGroupsForApplications >();
      }
   }
   ~ConfigSmFixture() override { sm_ = nullptr; }

   ConfigSmInputs inputs() {
      ConfigSmInputs in;
      in.af = af_;
      in.pimConfigColl = configColl_;
      in.pimClearConfigColl = clearConfigColl_;
      in.hostInjectConfig = hostInject_;
      in.appConfigDir = appDir_;
      in.clearMrouteConfigColl = clearMroute_;
      in.pimStatusColl = statusColl_;
      in.pimAllStatusColl = allStatusColl_;
      in.pimGlobalStatus = globalStatus_;
      in.pimCellGlobalStatus = cellGlobalStatus_;
      in.mcastPimStatus = mcastPimStatus_;
      in.mlagProtoStatus = mlag_;
      in.ipStatus = ipStatus_;
      in.allVrfStatusLocal = allVrfStatusLocal_;
      in.appVrfIntfs = appVrfIntfs_;
      in.vrfEnabledStatus = vrfEnabledStatus_;
      in.multicastGroups = groups_;
      in.multicastIntfs = vifs_;
      in.bfdAppConfigDir = bfdDir_;
      in.bfdStatusPeer = bfdStatusPeer_;
      in.varnMount = varnMount_;
      in.kniMounter = kni_;
      in.asuShutdownStatus = asuShutdown_;
      in.asuVrfStatus = asuVrfStatus_;
      in.bridgingConfig = bridging_;
      in.timerWheel = wheel_;
      in.stageComplete = [ this ]( const std::string & stage ) { stages_.push_back( stage ); };
      return in;
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
      auto config = configColl_->vrfConfigIs( vrf );
      vrfEnabledStatus_->vrfIs( vrf, true );
      if( !vrf.isDefault() ) allVrfStatusLocal_->vrfIs( vrf, Lumo::NamespaceName( "ns-" + std::string( name ) ) );
      return config;
   }
   void ipIntfIs( const char * intf, const char * vrf, const char * addr ) {
      ipStatus_->intfVrfIs( Lumo::IntfId( intf ), L3::VrfName( vrf ) );
      ipStatus_->intfPrimaryIs( Lumo::IntfId( intf ), ipm( addr ) );
   }
   Kiv::Ptr< IntfConfig > intfConfigIs( const char * intf, Mode mode, bool borderRouter = false ) {
      auto c = configColl_->intfConfigIs( Lumo::IntfId( intf ) );
      c->modeIs( mode );
      c->borderRouterIs( borderRouter );
      return c;
   }
   // An application's request entry in the application directory.
   Kiv::Ptr< Application::Config > applicationIs( const std::string & name ) {
      auto c = Kiv::make< Application::Config >( Kiv::Name( name ) );
      appDir_->entryIs( Kiv::Name( name ), Kiv::Ptr< Kiv::Entity >( c ) );
      return c;
   }

   // ---- outputs ----
   Kiv::Ptr< Intf > pimIntf( const char * vrf, const char * intf ) const {
      auto all = allStatusColl_->vrfStatus( L3::VrfName( vrf ) );
      return all ? all->pimIntf( Lumo::IntfId( intf ) ) : nullptr;
   }
   bool inSparseSet( const char * vrf, const char * intf ) const {
      auto s = sm_->vrfSparseModeIntf( L3::VrfName( vrf ) );
      return s && s->intfId( Lumo::IntfId( intf ) );
   }
   bool inBidirSet( const char * vrf, const char * intf ) const {
      auto s = sm_->vrfBidirIntf( L3::VrfName( vrf ) );
      return s && s->intfId( Lumo::IntfId( intf ) );
   }
   bool vifRequested( const char * intf ) const { return vifs_->multicastIntf( Lumo::IntfId( intf ) ); }
   bool allPimRoutersJoined( const char * intf, const char * group ) const {
      return groups_->isMember( Lumo::IntfId( intf ), ip( group ) );
   }
   bool sparseEnabled( const char * vrf ) const {
      return globalStatus_->pimEnabledSparseModeVrf( L3::VrfName( vrf ) );
   }
   bool bidirEnabled( const char * vrf ) const {
      return globalStatus_->pimEnabledBidirVrf( L3::VrfName( vrf ) );
   }
   bool hasContainer( const char * vrf ) const { return sm_->pimVrfContainerSmHas( L3::VrfName( vrf ) ); }
   Lumo::AddressFamily af_;
   Kiv::Testing::TestLoop loop_{ 5000.0 };
   Kiv::Ptr< Tolm::TimerWheel > wheel_ = Tolm::TimerWheelIs( loop_.clock() );
   KivVarn::Directory varnDir_;
   Kiv::Ptr< KivVarn::Mount > varnMount_ = Kiv::make< KivVarn::Mount >( varnDir_ );
   Kiv::Ptr< TestKniMounter > kni_ = Kiv::make< TestKniMounter >();
   Kiv::Ptr< ConfigColl > configColl_ = Kiv::make< ConfigColl >();
   Kiv::Ptr< ClearConfigColl > clearConfigColl_ = Kiv::make< ClearConfigColl >();
   Kiv::Ptr< HostInject::HostInjectConfig > hostInject_ = Kiv::make< HostInject::HostInjectConfig >();
   Kiv::Ptr< Kiv::Dir > appDir_ = Kiv::make< Kiv::Dir >( Kiv::Name( "application" ) );
   Kiv::Ptr< ClearMrouteConfigColl > clearMroute_ = Kiv::make< ClearMrouteConfigColl >();
   Kiv::Ptr< StatusColl > statusColl_ = Kiv::make< StatusColl >();
   Kiv::Ptr< AllStatusColl > allStatusColl_ = Kiv::make< AllStatusColl >();
   Kiv::Ptr< GlobalStatus > globalStatus_ = Kiv::make< GlobalStatus >( af_ );
   Kiv::Ptr< CellGlobalStatus > cellGlobalStatus_ = Kiv::make< CellGlobalStatus >();
   Kiv::Ptr< Routing::Multicast::Pim::Status > mcastPimStatus_ = Kiv::make< Routing::Multicast::Pim::Status >();
   Kiv::Ptr< Mlag::ProtoStatus > mlag_ = Kiv::make< Mlag::ProtoStatus >();
   Kiv::Ptr< IpGen::Status > ipStatus_;
   Kiv::Ptr< Ip::AllVrfStatusLocal > allVrfStatusLocal_ = Kiv::make< Ip::AllVrfStatusLocal >();
   Kiv::Ptr< McastCommon::AppVrfIntfs > appVrfIntfs_ = Kiv::make< McastCommon::AppVrfIntfs >();
   Kiv::Ptr< Routing::Multicast::Fib::VrfEnabledStatus > vrfEnabledStatus_ =
      Kiv::make< Routing::Multicast::Fib::VrfEnabledStatus >();
   Kiv::Ptr< IpGen::MulticastGroupsForApplications > groups_;
   Kiv::Ptr< McastCommon::MulticastIntfsForApplications > vifs_ =
      Kiv::make< McastCommon::MulticastIntfsForApplications >();
   Kiv::Ptr< Kiv::Dir > bfdDir_ = Kiv::make< Kiv::Dir >( Kiv::Name( "pim" ) );
   Kiv::Ptr< Bfd::StatusPeer > bfdStatusPeer_ = Kiv::make< Bfd::StatusPeer >();
   Kiv::Ptr< McastCommon::AsuShutdownStatus > asuShutdown_ = Kiv::make< McastCommon::AsuShutdownStatus >();
   Kiv::Ptr< McastCommon::AsuVrfStatus > asuVrfStatus_ = Kiv::make< McastCommon::AsuVrfStatus >();
   Kiv::Ptr< Bridging::Config > bridging_ = Kiv::make< Bridging::Config >();
   std::vector< std::string > stages_;
   Kiv::Ptr< ConfigSm > sm_;
};

} // namespace PimConfigTest

// Interface configuration and application requests to PIM interface status:
// effective parameters and modes, the sparse-mode and bidirectional membership
// sets, secondary addresses, and every way an interface stops being PIM.
#include "ConfigSmFixture.h"

#include <functional>
#include <limits>
#include <optional>
#include <tuple>
#include <utility>

namespace PimConfigTest {
namespace {

class ConfigSmIntfTest : public ConfigSmFixture {
 protected:
   void SetUp() override {
      vrfIs( "default" );
      ipIntfIs( "Ethernet1", "default", "198.18.1.1/24" );
      ipIntfIs( "Ethernet2", "default", "198.18.2.1/24" );
      start();
   }
};

TEST_F( ConfigSmIntfTest, ConfiguredParametersBecomeEffectiveParameters ) {
   auto c = intfConfigIs( "Ethernet1", pimModeSparse );
   c->helloIntervalIs( 10 );
   c->helloCountIs( 4.0 );
   c->helloPriorityIs( 200 );
   c->joinPruneIntervalIs( 20 );
   c->joinPruneCountIs( 2.5 );
   c->fastFailoverIs( true );
   c->propagationDelayIs( 750 );
   c->overrideIntervalIs( 3000 );
   ASSERT_TRUE( settle() );
   auto intf = pimIntf( "default", "Ethernet1" );
   ASSERT_TRUE( intf );
   EXPECT_EQ( std::tuple( intf->addressWithMask(), intf->helloPeriod(), intf->helloHoldTime(), intf->drPriority(),
                          intf->joinPrunePeriod(), intf->joinPruneHoldTime(), intf->propagationDelay(),
                          intf->overrideInterval(), intf->fastFailover() ),
              std::tuple( ipm( "198.18.1.1/24" ), 10, 40, 200u, 20, 50, 750, 3000, true ) );
   // A change is applied in place.
   c->helloPriorityIs( 7 );
   ASSERT_TRUE( settle() );
   EXPECT_TRUE( pimIntf( "default", "Ethernet1" ) == intf && intf->drPriority() == 7u );
}

TEST_F( ConfigSmIntfTest, HoldTimesSaturateAndKeepOnlyTheLowThirtyTwoBits ) {
   auto c = intfConfigIs( "Ethernet1", pimModeSparse );
   struct Case {
      std::uint16_t interval;
      double count;
      std::uint16_t hold;
   };
   const Case cases[] = {
      { 65535, 3.5, 65535 },                        // saturates
      { 30, 3.49, 104 },                            // truncated, not rounded
      { 1, 4294967296.0 + 100.0, 100 },             // 2^32 + 100: the low 32 bits
      { 30, -1.0, 65535 },                          // -30 as 32 unsigned bits
      { 1, std::numeric_limits< double >::infinity(), 0 },
      { 0, 3.5, 0 },
   };
   for( const Case & k : cases ) {
      c->helloIntervalIs( k.interval );
      c->helloCountIs( k.count );
      c->joinPruneIntervalIs( k.interval );
      c->joinPruneCountIs( k.count );
      ASSERT_TRUE( settle() );
      auto intf = pimIntf( "default", "Ethernet1" );
      ASSERT_TRUE( intf );
      EXPECT_EQ( std::pair( intf->helloHoldTime(), intf->joinPruneHoldTime() ), std::pair( k.hold, k.hold ) )
            << k.interval << " x " << k.count;
   }
}

// The configured mode, the border router flag and an application's request
// give the interface's mode and its membership of the VRF's sets.
TEST_F( ConfigSmIntfTest, ConfigurationAndRequestsMapToModeAndMembership ) {
   constexpr auto kUnknown = static_cast< Mode >( 9 );
   struct Row {
      const char * name;
      std::optional< Mode > config;
      bool border;
      std::optional< Mode > app;
      bool exists;
      Mode mode;
      bool sparse, bidir;
   };
   const Row rows[] = {
      { "sparse", pimModeSparse, false, {}, true, pimModeSparse, true, false },
      { "bidir", pimModeBidir, false, {}, true, pimModeBidir, false, true },
      { "bidir border", pimModeBidir, true, {}, true, pimModeBidir, true, true },
      { "none border", pimModeNone, true, {}, true, pimModeNone, true, false },
      { "none", pimModeNone, false, {}, false, pimModeNone, false, false },
      { "sparse-bidir", pimModeSparseBidir, false, {}, true, pimModeSparseBidir, true, true },
      { "unknown border", kUnknown, true, {}, true, kUnknown, true, false },
      { "request only", {}, false, pimModeSparse, true, pimModeSparse, true, false },
      { "bidir request only", {}, false, pimModeBidir, false, pimModeNone, false, false },
      { "bidir + request", pimModeBidir, false, pimModeSparse, true, pimModeSparseBidir, true, true },
      { "sparse + request", pimModeSparse, false, pimModeSparse, true, pimModeSparse, true, false },
      { "none border + request", pimModeNone, true, pimModeSparse, true, pimModeSparse, true, false },
      { "none + request", pimModeNone, false, pimModeSparse, true, pimModeSparse, true, false },
      { "nothing", {}, false, {}, false, pimModeNone, false, false },
   };
   auto app = applicationIs( "igmp" );
   for( const Row & r : rows ) {
      SCOPED_TRACE( r.name );
      configColl->intfConfigDel( Lumo::IntfId( "Ethernet1" ) );
      app->intfModeDel( "Ethernet1" );
      ASSERT_TRUE( settle() );
      if( r.config ) intfConfigIs( "Ethernet1", *r.config, r.border );
      if( r.app ) app->intfModeIs( "Ethernet1", *r.app );
      ASSERT_TRUE( settle() );
      auto intf = pimIntf( "default", "Ethernet1" );
      ASSERT_EQ( bool( intf ), r.exists );
      if( intf ) {
         EXPECT_EQ( std::pair( intf->mode(), intf->borderRouter() ), std::pair( r.mode, r.border ) );
      }
      EXPECT_EQ( std::pair( inSparseSet( "default", "Ethernet1" ), inSparseSet( "default", "Ethernet1", true ) ),
                 std::pair( r.sparse, r.bidir ) );
   }
}

TEST_F( ConfigSmIntfTest, UnknownModeWithoutBorderRouterStopsTheAgent ) {
   GTEST_FLAG_SET( death_test_style, "threadsafe" );
   EXPECT_DEATH(
      {
         intfConfigIs( "Ethernet1", static_cast< Mode >( 9 ) );
         sm_->updatePimIntf( L3::VrfName(), Lumo::IntfId( "Ethernet1" ) );
      },
      "Mode is unknown" );
}

TEST_F( ConfigSmIntfTest, BfdFollowsTheVrfDefaultUnlessConfigured ) {
   auto vrfConfig = configColl->vrfConfig( L3::VrfName( "default" ) );
   intfConfigIs( "Ethernet1", pimModeSparse );
   auto c2 = intfConfigIs( "Ethernet2", pimModeSparse );
   // VRF default, Ethernet2's setting (Ethernet1 has none), then both results;
   // an unknown setting leaves the value as it is.
   const std::tuple< bool, IntfBfd, bool, bool > steps[] = {
      { false, intfBfdDisabled, false, false },
      { true, intfBfdDisabled, true, false },
      { false, intfBfdEnabled, false, true },
      { false, static_cast< IntfBfd >( 7 ), false, true },
   };
   for( const auto & [ vrfDefault, setting, want1, want2 ] : steps ) {
      vrfConfig->bfdIntfDefaultIs( vrfDefault );
      c2->bfdIs( setting );
      ASSERT_TRUE( settle() );
      const auto bfd = [ & ]( const char * name ) { return pimIntf( "default", name )->bfdEnabled(); };
      EXPECT_EQ( std::pair( bfd( "Ethernet1" ), bfd( "Ethernet2" ) ), std::pair( want1, want2 ) ) << int( setting );
   }
}

TEST_F( ConfigSmIntfTest, ReliableTransportCapabilityNeedsAConnectionAddress ) {
   intfConfigIs( "Ethernet1", pimModeSparse )->portCapabilityFlagsIs( Reliable::kCapabilitySctp | 0x4u );
   auto port = globalStatus->portStatus( L3::VrfName( "default" ) );
   ASSERT_TRUE( port ) << "the VRF's reliable-transport status exists with its configuration";
   // Without a connection address the transport bit is cleared, the rest kept.
   for( const auto & [ addr, flags ] : { std::pair( "", 0x4u ), std::pair( "198.18.0.1", Reliable::kCapabilitySctp | 0x4u ),
                                         std::pair( "0.0.0.0", 0x4u ) } ) {
      if( *addr ) port->pimsmSctpConnectionIdIs( ip( addr ) );
      ASSERT_TRUE( settle() );
      EXPECT_EQ( pimIntf( "default", "Ethernet1" )->portCapabilityFlags(), flags ) << addr;
   }
}

TEST_F( ConfigSmIntfTest, SecondaryAddressesAndPrefixesFollowTheIpStatus ) {
   intfConfigIs( "Ethernet1", pimModeSparse );
   ipStatus->intfSecondaryIs( Lumo::IntfId( "Ethernet1" ), ipm( "198.18.10.5/24" ), true );
   ipStatus->intfSecondaryIs( Lumo::IntfId( "Ethernet1" ), ipm( "198.18.11.5/32" ), true );
   ASSERT_TRUE( settle() );
   auto intf = pimIntf( "default", "Ethernet1" );
   ASSERT_TRUE( intf );
   EXPECT_TRUE( intf->secondaryAddress( ip( "198.18.10.5" ) ) && intf->secondaryPrefix( prefix( "198.18.10.0/24" ) ) &&
                intf->secondaryPrefix( prefix( "198.18.11.5/32" ) ) ) << "a /32 is a prefix too";
   EXPECT_EQ( intf->secondaryAddressSize(), 2u ) << "the primary is not a secondary";

   ipStatus->intfSecondaryIs( Lumo::IntfId( "Ethernet1" ), ipm( "198.18.10.5/24" ), false );
   ASSERT_TRUE( settle() );
   EXPECT_FALSE( intf->secondaryAddress( ip( "198.18.10.5" ) ) || intf->secondaryPrefix( prefix( "198.18.10.0/24" ) ) );
   EXPECT_EQ( intf->secondaryAddressSize(), 1u );

   // A new primary address is taken over in place.
   ipStatus->intfPrimaryIs( Lumo::IntfId( "Ethernet1" ), ipm( "198.18.3.1/25" ) );
   ASSERT_TRUE( settle() );
   EXPECT_EQ( pimIntf( "default", "Ethernet1" ), intf );
   EXPECT_EQ( intf->addressWithMask(), ipm( "198.18.3.1/25" ) );
}

// Every way an interface stops being a PIM interface, and the inputs it
// waits for.
TEST_F( ConfigSmIntfTest, WaysAnInterfaceStopsBeingPim ) {
   intfConfigIs( "Ethernet1", pimModeSparse );
   intfConfigIs( "Ethernet2", pimModeSparse );
   ASSERT_TRUE( settle() );
   auto intf1 = pimIntf( "default", "Ethernet1" );
   ASSERT_TRUE( intf1 && pimIntf( "default", "Ethernet2" ) );

   // Address 0.0.0.0 (disabled first), multicast routing off in the VRF,
   // configuration removed, interface gone from the IP status: each removes
   // the interface, and undoing the first two brings it back.
   const std::tuple< const char *, std::function< void() >, std::function< void() > > ways[] = {
      { "Ethernet1", [ & ] { ipStatus->intfPrimaryIs( Lumo::IntfId( "Ethernet1" ), ipm( "0.0.0.0/0" ) ); },
        [ & ] { ipStatus->intfPrimaryIs( Lumo::IntfId( "Ethernet1" ), ipm( "198.18.1.1/24" ) ); } },
      { "Ethernet1", [ & ] { vrfEnabledStatus->vrfIs( L3::VrfName( "default" ), false ); },
        [ & ] { vrfEnabledStatus->vrfIs( L3::VrfName( "default" ), true ); } },
      { "Ethernet1", [ & ] { configColl->intfConfigDel( Lumo::IntfId( "Ethernet1" ) ); }, nullptr },
      { "Ethernet2", [ & ] { ipStatus->intfDel( Lumo::IntfId( "Ethernet2" ) ); }, nullptr },
   };
   for( const auto & [ name, stop, undo ] : ways ) {
      stop();
      ASSERT_TRUE( settle() );
      EXPECT_FALSE( pimIntf( "default", name ) || inSparseSet( "default", name ) ) << name;
      if( !undo ) continue;
      undo();
      ASSERT_TRUE( settle() );
      ASSERT_TRUE( pimIntf( "default", name ) );
   }
   EXPECT_FALSE( intf1->enabled() ) << "disabled before removal";

   // An interface in a VRF with multicast routing but no PIM configuration,
   // then one the VRF agent does not know (yet).
   ipIntfIs( "Ethernet3", "green", "198.18.3.1/24" );
   intfConfigIs( "Ethernet3", pimModeSparse );
   vrfEnabledStatus->vrfIs( L3::VrfName( "green" ), true );
   ASSERT_TRUE( settle() );
   sm_->updatePimIntf( L3::VrfName(), Lumo::IntfId( "Ethernet3" ) );
   EXPECT_FALSE( pimIntf( "green", "Ethernet3" ) );
   configColl->vrfConfigIs( L3::VrfName( "green" ) );
   ASSERT_TRUE( settle() );
   EXPECT_FALSE( pimIntf( "green", "Ethernet3" ) );
   allVrfStatusLocal->vrfIs( L3::VrfName( "green" ), Lumo::NamespaceName( "ns-green" ) );
   ASSERT_TRUE( settle() );
   EXPECT_TRUE( pimIntf( "green", "Ethernet3" ) );

   // An interface the IP status has never heard of.
   intfConfigIs( "Ethernet9", pimModeSparse );
   ASSERT_TRUE( settle() );
   sm_->updatePimIntf( L3::VrfName( "default" ), Lumo::IntfId( "Ethernet9" ) );
   sm_->updatePimIntf( L3::VrfName(), Lumo::IntfId( "Ethernet9" ) );
   ASSERT_TRUE( settle() );
   EXPECT_FALSE( pimIntf( "default", "Ethernet9" ) );
}

// Application-requested PIM interfaces: the requests merged with the
// configuration, and the application machines' life with the default VRF.
using ConfigSmAppTest = ConfigSmIntfTest;

TEST_F( ConfigSmAppTest, SparseRequestAloneGivesTheDefaultParameters ) {
   auto app = applicationIs( "igmp" );
   app->intfModeIs( "Ethernet1", pimModeSparse );
   ASSERT_TRUE( settle() );
   auto intf = pimIntf( "default", "Ethernet1" );
   ASSERT_TRUE( intf );
   EXPECT_EQ( std::tuple( intf->mode(), intf->helloPeriod(), intf->helloHoldTime(), intf->joinPrunePeriod(),
                          intf->joinPruneHoldTime(), intf->drPriority(), intf->bfdEnabled() ),
              std::tuple( pimModeSparse, 30, 105, 60, 210, 1u, false ) );
   EXPECT_TRUE( inSparseSet( "default", "Ethernet1" ) );
   EXPECT_TRUE( vifRequested( "Ethernet1" ) );

   // Removing the configuration removes the interface even though the
   // application still asks; the application's next event restores it.
   intfConfigIs( "Ethernet1", pimModeSparse )->helloIntervalIs( 10 );
   ASSERT_TRUE( settle() );
   EXPECT_EQ( pimIntf( "default", "Ethernet1" )->helloPeriod(), 10 );
   configColl->intfConfigDel( Lumo::IntfId( "Ethernet1" ) );
   ASSERT_TRUE( settle() );
   EXPECT_FALSE( pimIntf( "default", "Ethernet1" ) );
   app->intfModeIs( "Ethernet1", pimModeBidir );
   app->intfModeIs( "Ethernet1", pimModeSparse );
   ASSERT_TRUE( settle() );
   ASSERT_TRUE( pimIntf( "default", "Ethernet1" ) );
   EXPECT_EQ( pimIntf( "default", "Ethernet1" )->helloPeriod(), 30 );
}

// The application machines live with the default VRF; an interface stays
// while any application still requests it.
TEST_F( ConfigSmAppTest, ApplicationMachinesLiveWithTheDefaultVrf ) {
   auto a = applicationIs( "igmp" );
   auto b = applicationIs( "msdp" );
   for( auto & app : { a, b } ) app->intfModeIs( "Ethernet1", pimModeSparse );
   ASSERT_TRUE( settle() );
   EXPECT_EQ( sm_->appConfigSmSize(), 2u );
   vrfEnabledStatus->vrfIs( L3::VrfName( "default" ), false );
   ASSERT_TRUE( settle() );
   EXPECT_EQ( sm_->appConfigSmSize(), 0u );
   EXPECT_FALSE( pimIntf( "default", "Ethernet1" ) );
   vrfEnabledStatus->vrfIs( L3::VrfName( "default" ), true );
   ASSERT_TRUE( settle() );
   EXPECT_EQ( sm_->appConfigSmSize(), 2u );
   for( auto & [ app, stays ] : { std::pair( a, true ), std::pair( b, false ) } ) {
      ASSERT_TRUE( pimIntf( "default", "Ethernet1" ) );
      app->intfModeDel( "Ethernet1" );
      ASSERT_TRUE( settle() );
      EXPECT_EQ( bool( pimIntf( "default", "Ethernet1" ) ), stays );
   }
   appDir->entryDel( Kiv::Name( "msdp" ) );
   ASSERT_TRUE( settle() );
   EXPECT_EQ( sm_->appConfigSmSize(), 1u );
}

} // namespace
} // namespace PimConfigTest

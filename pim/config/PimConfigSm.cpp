#include "config/PimConfigSm.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "kiv/Clock.h"
#include "kiv/Random.h"
#include "kiv/Trace.h"

namespace Routing::Pim {

KIV_TRACE_HANDLE( "Pim::Config" )

#define CTRACE( level, expr ) KIV_TRACE( th(), level, expr )

namespace {

// A broken internal invariant: report where and stop the agent.
[[noreturn]] void fatalAssertion( const char * text, const char * file, int line,
                                  const char * function ) {
   CTRACE( 1, "Assertion failed: " << text );
   std::fprintf( stderr, "%s:%d: %s: Assertion failed: %s\n", file, line, function, text );
   std::abort();
}

// min(trunc(interval x count), 65535). The product is taken in extended
// precision and truncated to a 64-bit integer whose low 32 bits are compared
// unsigned with 65535; a product that does not fit a 64-bit integer (or is
// not a number) gives the integer-indefinite value, whose low bits are 0.
std::uint16_t holdTime( std::uint16_t interval, double count ) {
   const long double product = static_cast< long double >( interval ) * static_cast< long double >( count );
   std::int64_t truncated = INT64_MIN;
   if( !std::isnan( product ) && product < 9223372036854775808.0L &&
       product >= -9223372036854775808.0L ) {
      truncated = static_cast< std::int64_t >( product );
   }
   const std::uint32_t low = static_cast< std::uint32_t >( static_cast< std::uint64_t >( truncated ) );
   return static_cast< std::uint16_t >( low < 65535u ? low : 65535u );
}

// The subnet of an interface address. An IPv4 subnet is built as a checked
// prefix from the masked address; an IPv6 one is the address's subnet.
Lumo::IpGenPrefix subnetOf( const Lumo::IpGenAddrWithMask & a ) {
   if( a.address().isIpv4() ) {
      return Lumo::IpGenPrefix( a.address().masked( a.maskLen() ), a.maskLen() );
   }
   return a.subnet();
}

bool hasAddress( const Lumo::IpGenAddrWithMask & a ) {
   return ( a.address().isIpv4() || a.address().isIpv6() ) && !a.address().isUnspecified();
}

} // namespace

// ---- construction -------------------------------------------------------------------

// Arms a timer unless there is no wheel to arm it on.
template< class T >
static void armTimer( T & timer, Kiv::Seconds t ) {
   if( t != Kiv::kNever && !timer.notifier() ) {
      CTRACE( 1, "armTimer(), no timer wheel" );
      return;
   }
   timer.timeMinIs( t );
}

ConfigSm::ConfigSm( const ConfigSmInputs & inputs )
      : inputs_( inputs ),
        configColl_( this ),
        hostInjectConfig_( this ),
        ipStatus_( this ),
        vrfEnabledStatus_( this ),
        allVrfStatusLocal_( this ),
        globalStatus_( this ),
        mlagProtoStatus_( this ),
        asuVrfStatus_( this ),
        clearConfigColl_( this ),
        clearMrouteConfigColl_( this ),
        appConfigDir_( this ),
        appVrfIntfs_( this ),
        drInitTimer_( this, inputs.timerWheel.ptr() ),
        drDelayTimer_( this, inputs.timerWheel.ptr() ),
        mountRetryTimer_( this, inputs.timerWheel.ptr() ) {
   reactorsInit();
}

ConfigSm::~ConfigSm() {
   kivDoZombieReactors( true );
   // Containers first: their machines stop before the tables they write go.
   pimVrfContainerSmDelAll();
}

void ConfigSm::reactorsInit() {
   Kiv::NotifieeBase * const all[] = { &configColl_, &hostInjectConfig_, &ipStatus_,
                                       &vrfEnabledStatus_, &allVrfStatusLocal_, &globalStatus_,
                                       &mlagProtoStatus_, &asuVrfStatus_, &clearConfigColl_,
                                       &clearMrouteConfigColl_, &appConfigDir_, &appVrfIntfs_ };
   for( Kiv::NotifieeBase * r : all ) r->kivOwnerIs( this );
   configColl_.notifierIs( inputs_.pimConfigColl );
   hostInjectConfig_.notifierIs( inputs_.hostInjectConfig );
   ipStatus_.notifierIs( inputs_.ipStatus );
   vrfEnabledStatus_.notifierIs( inputs_.vrfEnabledStatus );
   allVrfStatusLocal_.notifierIs( inputs_.allVrfStatusLocal );
   globalStatus_.notifierIs( inputs_.pimGlobalStatus );
   mlagProtoStatus_.notifierIs( inputs_.mlagProtoStatus );
   asuVrfStatus_.notifierIs( inputs_.asuVrfStatus );
   clearConfigColl_.notifierIs( inputs_.pimClearConfigColl );
   clearMrouteConfigColl_.notifierIs( inputs_.clearMrouteConfigColl );
   appConfigDir_.notifierIs( inputs_.appConfigDir );
   appVrfIntfs_.notifierIs( inputs_.appVrfIntfs );
}

void ConfigSm::handleInitialized() {
   CTRACE( 8, "handleInitialized()" );
   doDrTimersInit();
   if( const auto & cc = inputs_.pimConfigColl ) {
      for( auto it = cc->intfConfigIter(); it; ++it ) intfConfigReactorUpdate( it.key() );
      for( auto it = cc->vrfConfigIter(); it; ++it ) vrfConfigReactorUpdate( it.key() );
   }
   if( const auto & hi = inputs_.hostInjectConfig ) {
      for( auto it = hi->configIter(); it; ++it ) hostInjectReactorUpdate( it.key() );
   }
   if( const auto & ip = inputs_.ipStatus ) {
      for( auto it = ip->intfStatusIter(); it; ++it ) ipIntfStatusReactorUpdate( it.key() );
   }
   if( const auto & cc = inputs_.pimClearConfigColl ) {
      for( auto it = cc->vrfClearConfigIter(); it; ++it ) clearConfigReactorUpdate( it.key() );
   }
   if( const auto & cc = inputs_.clearMrouteConfigColl ) {
      for( auto it = cc->vrfClearMrouteConfigIter(); it; ++it ) clearMrouteReactorUpdate( it.key() );
   }
   // Every VRF that is configured or still has status from before.
   std::vector< L3::VrfName > vrfs;
   auto note = [ & ]( const L3::VrfName & v ) {
      for( const auto & known : vrfs ) {
         if( known == v ) return;
      }
      vrfs.push_back( v );
   };
   if( const auto & cc = inputs_.pimConfigColl ) {
      cc->vrfConfigForEach( [ & ]( const L3::VrfName & v, const auto & ) { note( v ); } );
   }
   if( const auto & asc = inputs_.pimAllStatusColl ) {
      asc->vrfStatusForEach( [ & ]( const L3::VrfName & v, const auto & ) { note( v ); } );
   }
   if( const auto & gs = inputs_.pimGlobalStatus ) {
      gs->pimEnabledSparseModeVrfForEach( [ & ]( const L3::VrfName & v, bool ) { note( v ); } );
      gs->pimEnabledBidirVrfForEach( [ & ]( const L3::VrfName & v, bool ) { note( v ); } );
   }
   for( const auto & vrf : vrfs ) handleVrf( vrf );
   handleApplication();
   initializedIs( true );
}

// ---- interfaces ---------------------------------------------------------------------

Kiv::Ptr< AllStatus > ConfigSm::allStatus( const L3::VrfName & vrf ) const {
   return inputs_.pimAllStatusColl ? inputs_.pimAllStatusColl->vrfStatus( vrf ) : nullptr;
}

Kiv::Ptr< const IntfConfig > ConfigSm::intfConfig( const Lumo::IntfId & intf ) const {
   return inputs_.pimConfigColl ? inputs_.pimConfigColl->intfConfig( intf ) : nullptr;
}

Kiv::Ptr< const Config > ConfigSm::vrfConfig( const L3::VrfName & vrf ) const {
   return inputs_.pimConfigColl ? inputs_.pimConfigColl->vrfConfig( vrf ) : nullptr;
}

Kiv::Ptr< VrfPimIntf > ConfigSm::sparseModeIntfs( const L3::VrfName & vrf ) {
   if( Kiv::Ptr< VrfPimIntf > s = vrfSparseModeIntf( vrf ) ) return s;
   return vrfSparseModeIntfIs( vrf );
}

Kiv::Ptr< VrfPimIntf > ConfigSm::bidirIntfs( const L3::VrfName & vrf ) {
   if( Kiv::Ptr< VrfPimIntf > s = vrfBidirIntf( vrf ) ) return s;
   return vrfBidirIntfIs( vrf );
}

Mode ConfigSm::applicationMode( const Lumo::IntfId & intf, Mode mode ) const {
   const auto & dir = inputs_.appConfigDir;
   if( !dir ) return pimModeNone;
   const std::string name( intf.stringValue() );
   for( auto it = dir->entityPtrIter(); it; ++it ) {
      const auto * config = dynamic_cast< const Application::Config * >( it.value().ptr() );
      if( !config || !config->intfModeHas( name ) ) continue;
      if( config->intfMode( name ) == mode ) return mode;
   }
   return pimModeNone;
}

// updatePimIntf in its steps: eligibility, effective mode, the mode sets,
// secondary reconciliation, then the attributes.
void ConfigSm::updatePimIntf( L3::VrfName vrf, const Lumo::IntfId & intf ) {
   CTRACE( 8, "updatePimIntf( " << intf << ", " << vrf << " )" );
   const auto & ip = inputs_.ipStatus;
   if( !ip ) {
      CTRACE( 1, "updatePimIntf( " << intf << " ), No ipStatus" );
      deletePimIntf( vrf, intf );
      return;
   }
   if( vrf.isEmpty() ) vrf = ip->vrfOf( intf );
   if( vrf.isEmpty() ) {
      CTRACE( 7, "updatePimIntf( " << intf << " ) vrf for intf doesn't exist " );
      return;
   }
   const Kiv::Ptr< const IntfConfig > config = intfConfig( intf );
   const std::optional< Mode > mode =
      pimIntfEligible( *ip, vrf, intf ) ? effectivePimMode( intf, config.ptr() ) : std::nullopt;
   if( !mode ) {
      deletePimIntf( vrf, intf );
      return;
   }
   updateModeSets( vrf, intf, *mode, config && config->borderRouter() );

   const Lumo::IpGenAddrWithMask primary = ip->primaryAddrWithMask( intf );
   const Kiv::Ptr< AllStatus > status = allStatus( vrf );
   handleVrfNeighborLimit( vrf );
   Kiv::Ptr< Intf > pimIntf = status->pimIntf( intf );
   if( !pimIntf ) {
      CTRACE( 7, "updatePimIntf( " << intf << " ), Creating interface" );
      pimIntf = status->pimIntfIs( intf, primary );
   }
   if( pimIntf->modeIs( *mode ) ) {
      CTRACE( 7, "updatePimIntf( " << intf << " ), Updating interface - Mode: " << modeName( *mode ) );
   }
   if( pimIntf->addressWithMaskIs( primary ) ) {
      CTRACE( 7, "updatePimIntf( " << intf << " ), Updating IP address - " << primary );
   }
   reconcileSecondaries( *ip, intf, primary, *pimIntf );
   handleActiveSecondary( vrf, intf );

   if( config ) {
      applyConfiguredAttributes( vrf, intf, *config, *pimIntf );
   } else {
      applyDefaultAttributes( intf, *pimIntf );
   }
}

bool ConfigSm::pimIntfEligible( const IpGen::Status & ip, const L3::VrfName & vrf,
                                const Lumo::IntfId & intf ) const {
   if( !ip.knowsIntf( intf ) ) {
      CTRACE( 7, "updatePimIntf( " << intf << " ), No ipStatus->intf " );
   } else if( !ip.hasVrfIntfStatus( vrf ) ) {
      CTRACE( 7, "updatePimIntf( " << intf << " ) " << vrf << " vrfIpIntfStatus doesn't exist " );
   } else if( !ip.intfInVrf( intf, vrf ) ) {
      CTRACE( 7, "updatePimIntf( " << intf << " ), intf doesn't exist in the vrf " << vrf );
   } else if( !multicastEnabled( vrf ) ) {
      CTRACE( 7, "updatePimIntf( " << intf << " ), Multicast and/or unicast routing not enabled" );
   } else if( !hasAddress( ip.primaryAddrWithMask( intf ) ) ) {
      CTRACE( 7, "updatePimIntf( " << intf << " ), No IP address configured on interface" );
   } else {
      return true;
   }
   return false;
}

std::optional< Mode > ConfigSm::effectivePimMode( const Lumo::IntfId & intf, const IntfConfig * config ) const {
   const Mode app = applicationMode( intf, pimModeSparse );
   if( !config ) {
      if( app == pimModeSparse ) return pimModeSparse;
      CTRACE( 7, "updatePimIntf( " << intf << " ), No Pim or application config on interface" );
      return std::nullopt;
   }
   if( config->mode() != pimModeNone ) {
      if( app == pimModeSparse ) {
         return modeIncludesBidir( config->mode() ) ? pimModeSparseBidir : app;
      }
      return config->mode();
   }
   if( config->borderRouter() ) return app;
   if( app == pimModeSparse ) return pimModeSparse;
   CTRACE( 7, "updatePimIntf( " << intf << " ), Pim sparse, bidirectional, or mbr is not enabled" );
   return std::nullopt;
}

void ConfigSm::updateModeSets( const L3::VrfName & vrf, const Lumo::IntfId & intf, Mode mode,
                               bool borderRouter ) {
   const Kiv::Ptr< VrfPimIntf > sparse = sparseModeIntfs( vrf );
   const Kiv::Ptr< VrfPimIntf > bidir = bidirIntfs( vrf );
   switch( mode ) {
    case pimModeSparse:
      sparse->intfIdIs( intf, true );
      bidir->intfIdDel( intf );
      break;
    case pimModeBidir:
      if( borderRouter ) {
         sparse->intfIdIs( intf, true );
      } else {
         sparse->intfIdDel( intf );
      }
      bidir->intfIdIs( intf, true );
      break;
    case pimModeSparseBidir:
      sparse->intfIdIs( intf, true );
      bidir->intfIdIs( intf, true );
      break;
    default:
      if( !borderRouter ) fatalAssertion( "Mode is unknown", __FILE__, __LINE__, __func__ );
      sparse->intfIdIs( intf, true );
      bidir->intfIdDel( intf );
      break;
   }
}

void ConfigSm::reconcileSecondaries( const IpGen::Status & ip, const Lumo::IntfId & intf,
                                     const Lumo::IpGenAddrWithMask & primary, Intf & pimIntf ) {
   // Whether one of the interface's secondary addresses matches.
   const auto hasSecondary = [ & ]( const auto & matches ) {
      for( IpGen::IpIntfStatusAddrIteratorConst a( ip, intf ); a && !a->isEmpty(); ++a ) {
         if( *a != primary && matches( *a ) ) return true;
      }
      return false;
   };
   for( auto it = pimIntf.secondaryAddressIter(); it; ++it ) {
      const Lumo::IpGenAddr addr = it.key();
      if( hasSecondary( [ & ]( const Lumo::IpGenAddrWithMask & a ) { return a.address() == addr; } ) ) continue;
      CTRACE( 7, "updatePimIntf( " << intf << " ), Removing secondary address " << addr );
      pimIntf.secondaryAddressDel( addr );
   }
   for( auto it = pimIntf.secondaryPrefixIter(); it; ++it ) {
      const Lumo::IpGenPrefix prefix = it.key();
      if( hasSecondary( [ & ]( const Lumo::IpGenAddrWithMask & a ) { return subnetOf( a ) == prefix; } ) ) {
         continue;
      }
      pimIntf.secondaryPrefixDel( prefix );
      CTRACE( 7, "IntfId: " << intf << " - Removed Secondary prefix " << prefix );
   }
}

void ConfigSm::applyDefaultAttributes( const Lumo::IntfId & intf, Intf & pimIntf ) {
   // Application-only interface. portCapabilityFlags and sourceInject are
   // deliberately left as they are on this path.
   CTRACE( 7, "updatePimIntf( " << intf << " ), Setting interface config to default values" );
   pimIntf.borderRouterIs( Intf::borderRouterInitial() );
   pimIntf.helloPeriodIs( Intf::helloPeriodInitial() );
   pimIntf.helloHoldTimeIs( Intf::helloHoldTimeInitial() );
   pimIntf.drPriorityIs( Intf::drPriorityInitial() );
   pimIntf.joinPrunePeriodIs( Intf::joinPrunePeriodInitial() );
   pimIntf.joinPruneHoldTimeIs( Intf::joinPruneHoldTimeInitial() );
   pimIntf.bfdEnabledIs( Intf::bfdEnabledInitial() );
   pimIntf.fastFailoverIs( Intf::fastFailoverInitial() );
   pimIntf.propagationDelayIs( Intf::propagationDelayInitial() );
   pimIntf.overrideIntervalIs( Intf::overrideIntervalInitial() );
   pimIntf.neighborLimitIs( Intf::neighborLimitInitial() );
}

void ConfigSm::applyConfiguredAttributes( const L3::VrfName & vrf, const Lumo::IntfId & intf,
                                          const IntfConfig & config, Intf & pimIntf ) {
   // A write that changed the interface is traced.
   const auto traced = [ & ]( bool changed, const char * what, const auto & value ) {
      if( changed ) CTRACE( 7, "updatePimIntf( " << intf << " ), Updating interface - " << what << ": " << value );
   };
   traced( pimIntf.borderRouterIs( config.borderRouter() ), "MBR", config.borderRouter() );
   traced( pimIntf.helloPeriodIs( config.helloInterval() ), "Hello Period", config.helloInterval() );
   const std::uint16_t helloHold = holdTime( config.helloInterval(), config.helloCount() );
   traced( pimIntf.helloHoldTimeIs( helloHold ), "Hello HoldTime", helloHold );
   traced( pimIntf.drPriorityIs( config.helloPriority() ), "DR Priority", config.helloPriority() );
   traced( pimIntf.joinPrunePeriodIs( config.joinPruneInterval() ), "Join/Prune Period", config.joinPruneInterval() );
   const std::uint16_t jpHold = holdTime( config.joinPruneInterval(), config.joinPruneCount() );
   traced( pimIntf.joinPruneHoldTimeIs( jpHold ), "Join/Prune HoldTime", jpHold );
   const bool bfd = bfdEnabled( vrf, config, pimIntf.bfdEnabled() );
   traced( pimIntf.bfdEnabledIs( bfd ), "BFD Enabled", bfd );
   pimIntf.portCapabilityFlagsIs( portCapabilityFlags( vrf, config ) );
   traced( pimIntf.fastFailoverIs( config.fastFailover() ), "FastFailover", config.fastFailover() );
   // The router's own LAN prune delay, advertised in its Hellos.
   traced( pimIntf.propagationDelayIs( config.propagationDelay() ), "Propagation Delay", config.propagationDelay() );
   traced( pimIntf.overrideIntervalIs( config.overrideInterval() ), "Override Interval", config.overrideInterval() );
   pimIntf.sourceInjectIs( inputs_.hostInjectConfig && inputs_.hostInjectConfig->configHas( intf ) );
   traced( pimIntf.neighborLimitIs( config.neighborLimit() ), "Neighbor limit", config.neighborLimit() );
}

bool ConfigSm::bfdEnabled( const L3::VrfName & vrf, const IntfConfig & config, bool current ) const {
   switch( config.bfd() ) {
    case intfBfdEnabled: return true;
    case intfBfdDisabled: return false;
    case intfBfdDefault: {
      const Kiv::Ptr< const Config > vc = vrfConfig( vrf );
      return vc && vc->bfdIntfDefault();
    }
    default: return current;   // an unknown setting leaves it as it is
   }
}

Reliable::CapabilityFlags ConfigSm::portCapabilityFlags( const L3::VrfName & vrf, const IntfConfig & config ) const {
   // The reliable-transport capability needs a connection address.
   Lumo::IpGenAddr connection;
   if( inputs_.pimGlobalStatus ) {
      if( const auto port = inputs_.pimGlobalStatus->portStatus( vrf ) ) {
         connection = port->pimsmSctpConnectionId();
      }
   }
   Reliable::CapabilityFlags flags = config.portCapabilityFlags();
   if( !( connection.isIpv4() || connection.isIpv6() ) || connection.isUnspecified() ) {
      flags &= ~Reliable::kCapabilitySctp;
   }
   return flags;
}

void ConfigSm::deletePimIntf( const L3::VrfName & vrf, const Lumo::IntfId & intf ) {
   if( !vrf.isEmpty() ) {
      deletePimIntfFromStatus( vrf, intf );
      return;
   }
   if( !inputs_.pimAllStatusColl ) return;
   for( auto it = inputs_.pimAllStatusColl->vrfStatusIter(); it; ++it ) {
      deletePimIntfFromStatus( it.key(), intf );
   }
}

void ConfigSm::deletePimIntfFromStatus( const L3::VrfName & vrf, const Lumo::IntfId & intf ) {
   const Kiv::Ptr< AllStatus > status = allStatus( vrf );
   if( !status ) return;
   const Kiv::Ptr< Intf > pimIntf = status->pimIntf( intf );
   if( !pimIntf ) return;
   // The interface machines see the interface go down before it disappears.
   pimIntf->enabledIs( false );
   CTRACE( 7, "deletePimIntfFromStatus( " << intf << ", " << vrf << " ), Deleting interface" );
   if( const auto s = vrfSparseModeIntf( vrf ) ) s->intfIdDel( intf );
   if( const auto b = vrfBidirIntf( vrf ) ) b->intfIdDel( intf );
   status->pimIntfDel( intf );
}

void ConfigSm::updateAllPimIntf( const L3::VrfName & vrf ) {
   CTRACE( 8, "updateAllPimIntf( " << vrf << " )" );
   updatePimIntfsOf( vrf );
}

// Every interface of the VRF again, while multicast routing runs there.
void ConfigSm::updatePimIntfsOf( const L3::VrfName & vrf ) {
   if( !multicastEnabled( vrf ) ) return;
   const Kiv::Ptr< AllStatus > status = allStatus( vrf );
   if( !status ) return;
   for( auto it = status->pimIntfIter(); it; ++it ) updatePimIntf( vrf, it.key() );
}

void ConfigSm::doUpdateAllPimIntf( const L3::VrfName & vrf ) {
   CTRACE( 8, "doUpdateAllPimIntf( " << vrf << " )" );
   const Kiv::Ptr< AllStatus > status = allStatus( vrf );
   if( !status ) return;
   for( auto it = status->pimIntfIter(); it; ++it ) {
      doUpdateVif( vrf, it.key() );
      doUpdateAllPimRouters( vrf, it.key() );
   }
}

void ConfigSm::handleIntfConfig( const Lumo::IntfId & intf ) {
   if( intfConfig( intf ) ) {
      CTRACE( 7, "handleIntfConfig( " << intf << " ), created" );
      return;
   }
   CTRACE( 7, "handleIntfConfig( " << intf << " ), deleted" );
   deletePimIntf( L3::VrfName(), intf );
}

void ConfigSm::handleIpIntfStatus( const L3::VrfName & vrf, const Lumo::IntfId & intf ) {
   if( !multicastEnabled( vrf ) ) return;
   if( inputs_.ipStatus && inputs_.ipStatus->intfInVrf( intf, vrf ) ) {
      CTRACE( 7, "handleIpIntfStatus( " << intf << " ) added to vrf " << vrf );
      updatePimIntf( vrf, intf );
   } else {
      CTRACE( 7, "handleIpIntfStatus( " << intf << " ) deleted from vrf " << vrf );
      deletePimIntf( vrf, intf );
   }
}

void ConfigSm::handleActiveAddrWithMask( const L3::VrfName & vrf, const Lumo::IntfId & intf ) {
   updatePimIntf( vrf, intf );
}

void ConfigSm::handleActiveSecondary( const L3::VrfName & vrf, const Lumo::IntfId & intf ) {
   if( !multicastEnabled( vrf ) || !inputs_.ipStatus ) return;
   for( IpGen::IpIntfStatusAddrIteratorConst a( *inputs_.ipStatus, intf ); a && !a->isEmpty(); ++a ) {
      handleActiveSecondaryWithMask( intf, *a );
   }
}

void ConfigSm::handleActiveSecondaryWithMask( const Lumo::IntfId & intf,
                                              const Lumo::IpGenAddrWithMask & a ) {
   const auto & ip = inputs_.ipStatus;
   if( !ip ) return;
   const L3::VrfName vrf = ip->vrfOf( intf );
   if( !multicastEnabled( vrf ) ) return;
   const Kiv::Ptr< AllStatus > status = allStatus( vrf );
   const Kiv::Ptr< Intf > pimIntf = status ? status->pimIntf( intf ) : nullptr;
   if( !pimIntf ) return;
   if( a == ip->primaryAddrWithMask( intf ) ) return;
   const Lumo::IpGenAddr addr = a.address();
   const Lumo::IpGenPrefix prefix = subnetOf( a );
   if( ip->isActiveSecondary( intf, a ) ) {
      pimIntf->secondaryPrefixIs( prefix, true );
      if( !pimIntf->secondaryAddress( addr ) ) {
         pimIntf->secondaryAddressIs( addr, true );
         CTRACE( 7, "handleActiveSecondaryWithMask( " << intf << " ), Added secondary address " << addr
                                                       << " from interface" );
      }
   } else {
      pimIntf->secondaryPrefixDel( prefix );
      if( pimIntf->secondaryAddress( addr ) ) {
         pimIntf->secondaryAddressDel( addr );
         CTRACE( 7, "handleActiveSecondaryWithMask( " << intf << " ), Deleted secondary address " << addr
                                                       << " from interface" );
      }
   }
}

void ConfigSm::handleSourceInject( const Lumo::IntfId & intf ) {
   CTRACE( 8, "handleSourceInject( " << intf << " )" );
   updatePimIntf( L3::VrfName(), intf );
}

void ConfigSm::handleBfdIntfDefault( const L3::VrfName & vrf ) {
   CTRACE( 8, "handleBfdIntfDefault( " << vrf << " )" );
   updatePimIntfsOf( vrf );
}

void ConfigSm::handleVrfNeighborLimit( const L3::VrfName & vrf ) {
   CTRACE( 8, "handleVrfNeighborLimit( " << vrf << " )" );
   const Kiv::Ptr< AllStatus > status = allStatus( vrf );
   if( !status ) return;
   const Kiv::Ptr< const Config > vc = vrfConfig( vrf );
   status->neighborLimitIs( vc ? vc->neighborLimit() : kVrfNeighborLimitDefault );
}

// ---- VRFs -----------------------------------------------------------------------------

bool ConfigSm::multicastEnabled( const L3::VrfName & vrf ) const {
   const auto & enabled = inputs_.vrfEnabledStatus;
   if( !enabled || !enabled->vrf( vrf ) ) {
      CTRACE( 9, "multicastEnabled() multicastEnabledStatus doesn't have " << vrf );
      return false;
   }
   const bool config = bool( vrfConfig( vrf ) );
   const bool all = bool( allStatus( vrf ) );
   const bool status = inputs_.pimStatusColl && inputs_.pimStatusColl->vrfStatusHas( vrf );
   if( !config || !all || !status ) {
      CTRACE( 9, "multicastEnabled() pimConfig, pimAllStatus, pimStatus " << config << ", " << all << ", "
                                                                            << status );
      return false;
   }
   if( !vrf.isDefault() && !( inputs_.allVrfStatusLocal && inputs_.allVrfStatusLocal->vrfHas( vrf ) ) ) {
      CTRACE( 9, "multicastEnabled() allvrfStatus doesn't have " << vrf );
      return false;
   }
   return true;
}

void ConfigSm::handleVrf( const L3::VrfName & vrf ) {
   CTRACE( 8, "handleVrf( " << vrf << " )" );
   if( vrf.isEmpty() ) return;
   if( vrfConfig( vrf ) ) {
      CTRACE( 7, "handleVrf( " << vrf << " ), Creating VRF related status" );
      if( const auto & gs = inputs_.pimGlobalStatus ) {
         Kiv::Ptr< Reliable::Status > port = gs->portStatus( vrf );
         if( !port ) port = gs->portStatusIs( vrf );
         reliableStatusReactor_.emplace( vrf, this, vrf, Kiv::Ptr< const Reliable::Status >( port ) );
      }
      bidirIntfs( vrf );
      sparseModeIntfs( vrf );
      if( const auto & asc = inputs_.pimAllStatusColl ) {
         Kiv::Ptr< AllStatus > status = asc->vrfStatus( vrf );
         if( !status ) status = asc->vrfStatusIs( vrf );
         allStatusReactor_.emplace( vrf, this, vrf, Kiv::Ptr< const AllStatus >( status ) );
      }
      if( const auto & sc = inputs_.pimStatusColl ) {
         if( !sc->vrfStatusHas( vrf ) ) sc->vrfStatusIs( vrf );
      }
      if( KivPimConfig * r = pimConfigReactor_.find( vrf ) ) r->handleBfdIntfDefault( vrf );
      doUpdateMulticastEnabled( vrf );
      return;
   }
   CTRACE( 7, "handleVrf( " << vrf << " ), Deleting VRF related status" );
   doUpdateMulticastEnabled( vrf );
   if( const auto & asc = inputs_.pimAllStatusColl ) asc->vrfStatusDel( vrf );
   allStatusReactorDel( vrf );
   if( const auto & sc = inputs_.pimStatusColl ) sc->vrfStatusDel( vrf );
   vrfBidirIntfDel( vrf );
   vrfSparseModeIntfDel( vrf );
   reliableStatusReactor_.unbind( vrf );
   if( const auto & gs = inputs_.pimGlobalStatus ) gs->portStatusDel( vrf );
}

void ConfigSm::allStatusReactorDel( const L3::VrfName & vrf ) {
   KivPimAllStatus * reactor = allStatusReactor_.find( vrf );
   if( !reactor ) return;
   // Release what the interfaces still hold: their removal may not have been
   // delivered yet, and the reactor that would see it goes now.
   std::vector< Lumo::IntfId > intfs;
   reactor->pimIntf().forEach( [ & ]( const Lumo::IntfId & i, const auto & ) { intfs.push_back( i ); } );
   allStatusReactor_.unbind( vrf );
   for( const auto & intf : intfs ) {
      doUpdateVif( vrf, intf );
      doUpdateAllPimRouters( vrf, intf );
   }
}

void ConfigSm::doUpdateMulticastEnabled( const L3::VrfName & vrf ) {
   if( !multicastEnabled( vrf ) ) {
      CTRACE( 7, "doUpdateMulticastEnabled(), Disabling on vrf " << vrf );
      if( vrf.isDefault() ) appConfigSmDelAll();
      if( const Kiv::Ptr< AllStatus > status = allStatus( vrf ) ) {
         for( auto it = status->pimIntfIter(); it; ++it ) deletePimIntf( vrf, it.key() );
      }
   } else {
      CTRACE( 7, "doUpdateMulticastEnabled(), Enabling on vrf " << vrf );
      if( const auto & cc = inputs_.pimConfigColl ) {
         for( auto it = cc->intfConfigIter(); it; ++it ) {
            updatePimIntf( vrf, it.key() );
            reviewedMulticastIntfIs( it.key(), true );
         }
      }
      if( const Kiv::Ptr< AllStatus > status = allStatus( vrf ) ) {
         for( auto it = status->pimIntfIter(); it; ++it ) {
            if( reviewedMulticastIntf( it.key() ) ) continue;
            updatePimIntf( vrf, it.key() );
            reviewedMulticastIntfIs( it.key(), true );
         }
      }
      reviewedMulticastIntfDelAll();
      if( vrf.isDefault() ) handleApplication();
   }
   doMaybeUpdatePimEnabledSparseModeVrf( vrf );
   doMaybeUpdatePimEnabledBidirVrf( vrf );
   doUpdateAllPimIntf( vrf );
   doCreateOrDeleteContainer( vrf );
}

void ConfigSm::doMaybeUpdatePimEnabledSparseModeVrf( const L3::VrfName & vrf ) {
   const Kiv::Ptr< const Config > config = vrfConfig( vrf );
   const Kiv::Ptr< VrfPimIntf > set = vrfSparseModeIntf( vrf );
   const bool wanted = multicastEnabled( vrf ) &&
                       ( vrf.isDefault() || ( config && config->pimConfigured() ) || ( set && set->count() ) );
   const auto & gs = inputs_.pimGlobalStatus;
   const auto & mps = inputs_.mcastPimStatus;
   doMaybeUpdatePimEnabledVrf( vrf, wanted, gs && gs->pimEnabledSparseModeVrf( vrf ),
                               gs && gs->pimEnabledSparseModeVrfHas( vrf ),
                               "doMaybeUpdatePimEnabledSparseModeVrf", "sparse mode", [ & ]( bool on ) {
                                  if( gs && on ) gs->pimEnabledSparseModeVrfIs( vrf, true );
                                  if( gs && !on ) gs->pimEnabledSparseModeVrfDel( vrf );
                                  if( mps && on ) mps->pimEnabledSparseModeVrfIs( vrf, true );
                                  if( mps && !on ) mps->pimEnabledSparseModeVrfDel( vrf );
                               } );
}

void ConfigSm::doMaybeUpdatePimEnabledBidirVrf( const L3::VrfName & vrf ) {
   // No exception for the default VRF here, unlike sparse mode.
   const Kiv::Ptr< const Config > config = vrfConfig( vrf );
   const Kiv::Ptr< VrfPimIntf > set = vrfBidirIntf( vrf );
   const bool wanted = multicastEnabled( vrf ) &&
                       ( ( config && config->pimConfigured() ) || ( set && set->count() ) );
   const auto & gs = inputs_.pimGlobalStatus;
   const auto & mps = inputs_.mcastPimStatus;
   doMaybeUpdatePimEnabledVrf( vrf, wanted, gs && gs->pimEnabledBidirVrf( vrf ),
                               gs && gs->pimEnabledBidirVrfHas( vrf ), "doMaybeUpdatePimEnabledBidirVrf",
                               "bidir", [ & ]( bool on ) {
                                  if( gs && on ) gs->pimEnabledBidirVrfIs( vrf, true );
                                  if( gs && !on ) gs->pimEnabledBidirVrfDel( vrf );
                                  if( mps && on ) mps->pimEnabledBidirVrfIs( vrf, true );
                                  if( mps && !on ) mps->pimEnabledBidirVrfDel( vrf );
                               } );
}

void ConfigSm::doMaybeUpdatePimEnabledVrf( const L3::VrfName & vrf, bool wanted, bool enabled, bool present,
                                           const char * fn, const char * mode,
                                           const std::function< void( bool ) > & set ) {
   if( wanted ) {
      if( enabled ) {
         CTRACE( 7, fn << "( " << vrf << " ), PIM already enabled" );
         return;
      }
      set( true );
      CTRACE( 7, fn << "( " << vrf << " ), PIM enabled for " << mode );
      return;
   }
   if( present ) {
      set( false );
      CTRACE( 7, fn << "( " << vrf << " ), PIM disabled for " << mode );
   } else {
      CTRACE( 7, fn << "( " << vrf << " ), PIM not enabled" );
   }
}

Kiv::Ptr< Bfd::AppConfig > ConfigSm::bfdAppConfigFor( const L3::VrfName & vrf ) {
   const char * app = ContainerSm::bfdAppName( af() );
   Kiv::Ptr< Bfd::AppConfig > c;
   // The BFD service reads the peers from the store: the configuration is
   // the entry there, not a copy of it.
   if( const auto & dir = inputs_.bfdAppConfigDir ) {
      const Kiv::Ptr< Kiv::Dir > vrfDir = dir->subdirIs( Kiv::Name( vrf.name() ) );
      c = Kiv::entity_cast< Bfd::AppConfig >( vrfDir->entryIs( Kiv::Name( app ), "Bfd::AppConfig" ) );
   }
   if( !c ) {
      CTRACE( 1, "bfdAppConfigFor( " << vrf << " ), no BFD application directory, peers kept locally" );
      c = bfdPimAppConfig( vrf ) ? bfdPimAppConfig( vrf ) : Kiv::make< Bfd::AppConfig >( app );
   }
   bfdPimAppConfigIs( vrf, c );
   return c;
}

void ConfigSm::doCreateOrDeleteContainer( const L3::VrfName & vrf ) {
   const auto & gs = inputs_.pimGlobalStatus;
   const bool wanted = multicastEnabled( vrf ) && gs &&
                       ( gs->pimEnabledSparseModeVrf( vrf ) || gs->pimEnabledBidirVrf( vrf ) );
   const bool exists = pimVrfContainerSmHas( vrf );
   if( wanted && exists && !incompleteVrfHas( vrf ) ) {
      CTRACE( 7, "doCreateOrDeleteContainer( " << vrf << " ), container already exists" );
      return;
   }
   if( wanted ) {
      if( !inputs_.pimCellGlobalStatus || !inputs_.pimConfigColl || !inputs_.ipStatus ||
          !inputs_.timerWheel ) {
         CTRACE( 1, "doCreateOrDeleteContainer( " << vrf << " ), missing input, no ContainerSm" );
         doUpdateMissingInputs( vrf, true );
         return;
      }
      // What is missing is built without and retried: the engine runs in
      // the meantime. A container is never changed in place, so one built
      // without something is rebuilt once that something is there.
      if( !exists ) CTRACE( 7, "doCreateOrDeleteContainer( " << vrf << " ), Creating ContainerSm" );
      doKniInit( vrf );
      doMounts( vrf );
      const Lumo::NamespaceName ns = namespaceName( vrf );
      if( exists ) {
         const ContainerSmArgs & had = pimVrfContainerSm( vrf )->args();
         if( had.pimVarnStatus == pimVarnStatus( vrf ) && had.pimMessageCounters == pimVrfCounters( vrf ) &&
             had.kernelIntfStatusDir == kernelVrfIntfStatusDir( ns ) ) {
            CTRACE( 7, "doCreateOrDeleteContainer( " << vrf << " ), inputs still missing" );
            doUpdateMissingInputs( vrf, false );
            return;
         }
         CTRACE( 7, "doCreateOrDeleteContainer( " << vrf << " ), Rebuilding ContainerSm with its new inputs" );
         pimVrfContainerSmDel( vrf );
      }
      ContainerSmArgs args = inputs_.containerExtras;
      args.vrfName = vrf;
      args.af = af();
      args.pimGlobalStatus = inputs_.pimGlobalStatus;
      args.pimCellGlobalStatus = inputs_.pimCellGlobalStatus;
      args.pimVarnStatus = pimVarnStatus( vrf );
      args.pimStatus = inputs_.pimStatusColl ? inputs_.pimStatusColl->vrfStatus( vrf ) : nullptr;
      args.pimAllStatus = allStatus( vrf );
      args.pimConfigColl = inputs_.pimConfigColl;
      args.pimMessageCounters = pimVrfCounters( vrf );
      args.ipStatus = inputs_.ipStatus;
      args.namespaceName = ns;
      args.bfdPimAppConfig = bfdAppConfigFor( vrf );
      args.bfdStatusPeer = inputs_.bfdStatusPeer;
      args.timerWheel = inputs_.timerWheel;
      args.kernelIntfStatusDir = kernelVrfIntfStatusDir( ns );
      args.asuShutdownStatus = inputs_.asuShutdownStatus;
      args.asuVrfStatus = inputs_.asuVrfStatus;
      args.bridgingConfig = inputs_.bridgingConfig;
      pimVrfContainerSmIs( vrf, containerSmFactory( args ) );
      doUpdateMissingInputs( vrf, false );
      return;
   }
   incompleteVrfDel( vrf );
   if( const auto & sc = inputs_.pimStatusColl ) {
      if( const auto status = sc->vrfStatus( vrf ) ) status->missingInputDelAll();
   }
   if( exists ) {
      CTRACE( 7, "doCreateOrDeleteContainer( " << vrf << " ), Deleting ContainerSm" );
      pimVrfContainerSmDel( vrf );
      doUnmounts( vrf );
      doKniDeinit( vrf );
      return;
   }
   CTRACE( 7, "doCreateOrDeleteContainer( " << vrf << " ), container does not exist" );
}

void ConfigSm::doUpdateMissingInputs( const L3::VrfName & vrf, bool agentInputsMissing ) {
   std::vector< std::string > missing;
   bool retry = false;
   if( agentInputsMissing ) {
      missing.push_back( "agentInputs" );
   } else if( pimVrfContainerSmHas( vrf ) ) {
      if( !pimVarnStatus( vrf ) ) missing.push_back( "statusTable" );
      if( !pimVrfCounters( vrf ) ) missing.push_back( "counterTable" );
      retry = !missing.empty() && inputs_.varnMount;
      if( !kernelVrfIntfStatusDirHas( namespaceName( vrf ) ) ) {
         missing.push_back( "kernelStatus" );
         retry = retry || inputs_.kniMounter;
      }
   }
   if( const auto & sc = inputs_.pimStatusColl ) {
      if( const auto status = sc->vrfStatus( vrf ) ) {
         for( auto it = status->missingInputIter(); it; ++it ) {
            if( std::find( missing.begin(), missing.end(), it.key() ) == missing.end() ) {
               status->missingInputDel( it.key() );
            }
         }
         for( const auto & m : missing ) status->missingInputIs( m, true );
      }
   }
   if( !missing.empty() ) CTRACE( 1, "doUpdateMissingInputs( " << vrf << " ), missing " << missing.size() );
   if( !retry ) {
      incompleteVrfDel( vrf );
      return;
   }
   incompleteVrfIs( vrf, true );
   if( mountRetryTimer_.timeMin() == Kiv::kNever ) {
      armTimer( mountRetryTimer_, Kiv::System::currentTime() + kMountRetryInterval );
   }
}

void ConfigSm::handleMountRetryTimerExpiry() {
   CTRACE( 7, "handleMountRetryTimerExpiry()" );
   std::vector< L3::VrfName > vrfs;
   for( auto it = incompleteVrfIter(); it; ++it ) vrfs.push_back( it.key() );
   for( const auto & vrf : vrfs ) doCreateOrDeleteContainer( vrf );
}

void ConfigSm::doMounts( const L3::VrfName & vrf ) {
   const auto & mount = inputs_.varnMount;
   CTRACE( 7, "doMounts( " << vrf << " ), Mounting PIM counters" );
   if( !mount ) {
      CTRACE( 1, "doMounts( " << vrf << " ), no table mount" );
      return;
   }
   // A table that cannot be mounted leaves its slot empty; the VRF's status
   // says so and the mount is retried.
   const auto mountOrNull = [ & ]( auto tag, const std::string & path ) {
      using T = typename decltype( tag )::type;
      try {
         return mount->doMount< T >( path, "w" );
      } catch( const std::exception & e ) {
         CTRACE( 1, "doMounts( " << vrf << " ), cannot mount " << path << ": " << e.what() );
         return Kiv::Ptr< T >();
      }
   };
   const std::string counters = Varn::countersPath( af(), vrf );
   if( !pimVrfCounters( vrf ) ) {
      pimVrfCountersIs( vrf, mountOrNull( std::type_identity< Varn::MessageCounters >(), counters ) );
   }
   CTRACE( 7, "doMounts( " << vrf << " ), Mounting PIM varn table" );
   const std::string status = Varn::statusPath( af(), vrf );
   if( !pimVarnStatus( vrf ) ) {
      pimVarnStatusIs( vrf, mountOrNull( std::type_identity< Varn::Status >(), status ) );
   }
}

void ConfigSm::doUnmounts( const L3::VrfName & vrf ) {
   const auto & mount = inputs_.varnMount;
   const std::string counters = Varn::countersPath( af(), vrf );
   const std::string status = Varn::statusPath( af(), vrf );
   CTRACE( 7, "doUnmounts( " << vrf << " ), Unmount PIM counters" );
   pimVrfCountersDel( vrf );
   if( mount ) mount->doUnmount( counters );
   CTRACE( 7, "doUnmounts( " << vrf << " ), Unmount PIM varn table" );
   pimVarnStatusDel( vrf );
   if( mount ) {
      mount->doUnmount( status );
      mount->cleanup( counters );
      mount->cleanup( status );
   }
}

Lumo::NamespaceName ConfigSm::vrfNamespace( const L3::VrfName & vrf ) const {
   if( vrf.isDefault() ) return Lumo::NamespaceName::defaultNamespace();
   const auto & all = inputs_.allVrfStatusLocal;
   const auto local = all ? all->vrf( vrf ) : nullptr;
   return local ? local->namespaceName() : Lumo::NamespaceName::defaultNamespace();
}

std::string ConfigSm::kniPath( const Lumo::NamespaceName & ns ) const {
   return KernelNetInfo::Status::mountPath( ns );
}

void ConfigSm::doKniInit( const L3::VrfName & vrf ) {
   const Lumo::NamespaceName ns = vrfNamespace( vrf );
   if( kernelVrfIntfStatusDirHas( ns ) ) {
      CTRACE( 7, "doKniInit( " << vrf << " ), already exists" );
      return;
   }
   CTRACE( 7, "doKniInit( " << vrf << " ), initializing" );
   namespaceNameIs( vrf, ns );
   Kiv::Ptr< KernelNetInfo::Status > kni;
   if( inputs_.kniMounter ) {
      kni = inputs_.kniMounter->doMount( kniPath( ns ) );
   } else {
      CTRACE( 1, "doKniInit( " << vrf << " ), no kernel status mount" );
   }
   if( kni ) {
      kniStatusIs( ns, kni );
      kernelVrfIntfStatusDirIs( ns, kni->devices() );
   }
   vrfIntfCollReactorUpdate( vrf );
}

void ConfigSm::doKniDeinit( const L3::VrfName & vrf ) {
   if( vrf.isDefault() ) {
      CTRACE( 7, "doKniDeinit( " << vrf << " ), not cleaning up" );
      return;
   }
   if( !namespaceNameHas( vrf ) ) {
      CTRACE( 7, "doKniDeinit( " << vrf << " ), not initialized" );
      return;
   }
   CTRACE( 7, "doKniDeinit( " << vrf << " ), de-initializing" );
   const Lumo::NamespaceName ns = namespaceName( vrf );
   pimVrfIntfColl_.unbind( vrf );
   kernelVrfIntfStatusDirDel( ns );
   kniStatusDel( ns );
   if( inputs_.kniMounter ) inputs_.kniMounter->doUnmount( kniPath( ns ) );
   namespaceNameDel( vrf );
}

Lumo::IpGenAddr ConfigSm::allPimRoutersGroup() const {
   static const Lumo::IpGenAddr v4 = Lumo::ip4AddrPimRouters;
   static const Lumo::IpGenAddr v6 = Lumo::ip6AddrPimRouters;
   return af() == Lumo::AddressFamily::ipv6 ? v6 : v4;
}

// The VIF and group requests are keyed by interface name alone, while an
// interface that moves between VRFs is wanted by one and released by the
// other in either order. Each request therefore remembers the VRF that holds
// it, and only that VRF releases it.
void ConfigSm::doUpdateVif( const L3::VrfName & vrf, const Lumo::IntfId & intf ) {
   const auto & vifs = inputs_.multicastIntfs;
   doUpdateHeld( vrf, intf, { "doUpdateVif", "Allocate VIF", "VIF", "Deallocate VIF" }, vifHolderColl(),
                 [ & ]( bool take ) {
                    if( take ) {
                       vifHolderIs( intf, vrf );
                       if( vifs ) vifs->multicastIntfIs( intf, true );
                    } else {
                       vifHolderDel( intf );
                       if( vifs ) vifs->multicastIntfDel( intf );
                    }
                 } );
}

void ConfigSm::doUpdateAllPimRouters( const L3::VrfName & vrf, const Lumo::IntfId & intf ) {
   const auto & groups = inputs_.multicastGroups;
   doUpdateHeld( vrf, intf,
                 { "doUpdateAllPimRouters", "Subscribe to ALL-PIM-ROUTERS group", "ALL-PIM-ROUTERS",
                   "Unsubscribe to ALL-PIM-ROUTERS group" },
                 allPimRoutersHolderColl(), [ & ]( bool take ) {
                    if( take ) {
                       allPimRoutersHolderIs( intf, vrf );
                       if( groups ) groups->joinGroup( intf, allPimRoutersGroup() );
                    } else {
                       allPimRoutersHolderDel( intf );
                       if( groups ) groups->leaveGroup( intf, allPimRoutersGroup() );
                    }
                 } );
}

void ConfigSm::doUpdateHeld( const L3::VrfName & vrf, const Lumo::IntfId & intf, const HeldText & text,
                             const Kiv::HashMap< Lumo::IntfId, L3::VrfName > & holders,
                             const std::function< void( bool ) > & take ) {
   const Kiv::Ptr< AllStatus > status = allStatus( vrf );
   if( multicastEnabled( vrf ) && status && status->pimIntfHas( intf ) ) {
      CTRACE( 7, text.fn << "( " << intf << " ), " << text.take );
      take( true );
      return;
   }
   if( const L3::VrfName * holder = holders.find( intf ); holder && *holder != vrf ) {
      CTRACE( 7, text.fn << "( " << intf << " ), " << text.what << " held for VRF " << *holder );
      return;
   }
   CTRACE( 7, text.fn << "( " << intf << " ), " << text.release );
   take( false );
}

void ConfigSm::handlePimConfigured( const L3::VrfName & vrf ) {
   CTRACE( 8, "handlePimConfigured( " << vrf << " )" );
   doMaybeUpdatePimEnabledSparseModeVrf( vrf );
   doMaybeUpdatePimEnabledBidirVrf( vrf );
   doUpdateAllPimIntf( vrf );
}

void ConfigSm::handlePimIntf( const L3::VrfName & vrf, const Lumo::IntfId & intf ) {
   CTRACE( 8, "handlePimIntf( " << intf << ", " << vrf << " )" );
   if( KivPimAllStatus * r = allStatusReactor_.find( vrf ) ) {
      auto & intfs = r->pimIntf();
      const Kiv::Ptr< AllStatus > status = allStatus( vrf );
      const Kiv::Ptr< Intf > pimIntf = status ? status->pimIntf( intf ) : nullptr;
      if( pimIntf ) {
         intfs.insert( intf, std::make_unique< KivPimIntf >( this, vrf, pimIntf ) );
      } else {
         intfs.unbind( intf );
      }
   }
   doUpdateVif( vrf, intf );
   doUpdateAllPimRouters( vrf, intf );
   doMaybeUpdatePimEnabledSparseModeVrf( vrf );
   doMaybeUpdatePimEnabledBidirVrf( vrf );
}

void ConfigSm::handlePimIntfMode( const L3::VrfName & vrf ) {
   doMaybeUpdatePimEnabledSparseModeVrf( vrf );
   doMaybeUpdatePimEnabledBidirVrf( vrf );
}

void ConfigSm::handleVrfIntfColl( const L3::VrfName & vrf, const Lumo::IntfId & intf ) {
   if( !inputs_.ipStatus || !inputs_.ipStatus->hasVrfIntfStatus( vrf ) ) {
      CTRACE( 7, "handleVrfIntfColl(), " << vrf << " VRF not present in IP Status. So, nothing to do." );
      return;
   }
   // The kernel's view of the VRF changed: re-evaluate the interface.
   updatePimIntf( vrf, intf );
}

// ---- DR start-up timers, fast upgrade, clear commands ----------------------------------

void ConfigSm::doDrTimersInit() {
   const auto & cell = inputs_.pimCellGlobalStatus;
   if( cell && cell->reload() ) {
      armTimer( drInitTimer_, Kiv::System::currentTime() + kReloadDelay );
      CTRACE( 7, "doDrTimersInit(), DR priority with reload delay " << kReloadDelay << "second" );
   } else {
      drInitTimer_.timeMinIs( Kiv::kNever );
      CTRACE( 7, "doDrTimersInit(), Don't need reload delay " );
   }
   CTRACE( 7, "doDrTimersInit(), drDelayTimer 2 " );
   drDelayTimer_.timeMinIs( Kiv::kNever );
}

void ConfigSm::handleMlagProtoStatus() {
   const auto & mlag = inputs_.mlagProtoStatus;
   if( !initialized() || !mlag ) return;
   CTRACE( 7, "handleMlagProtoStatus(): " << mlag->portsErrdisabled() );
   if( !mlag->portsErrdisabled() ) armTimer( drInitTimer_, Kiv::System::currentTime() + kReloadDelay );
}

void ConfigSm::drInitTimerExpired() {
   const auto & cell = inputs_.pimCellGlobalStatus;
   CTRACE( 7, "drInitTimerExpired()" << " reload " << ( cell && cell->reload() ) );
   if( initialized() ) {
      const auto & mlag = inputs_.mlagProtoStatus;
      // The hold-off lasts until the MLAG handler re-arms the timer.
      if( mlag && mlag->portsErrdisabled() ) return;
      if( cell ) cell->reloadIs( false );
   }
   const auto & cc = inputs_.pimConfigColl;
   const std::uint16_t drDelay = cc && cc->globalConfig() ? cc->globalConfig()->drDelay() : 0;
   CTRACE( 7, "drInitTimerExpired() drDelayTimer 1 " << drDelay );
   armTimer( drDelayTimer_, Kiv::System::currentTime() + static_cast< double >( drDelay ) );
}

void ConfigSm::handleDrDelayTimerExpiry() {
   CTRACE( 7, "handleDrDelayTimerExpiry()" );
   if( !initialized() ) return;
   if( inputs_.pimCellGlobalStatus ) inputs_.pimCellGlobalStatus->drDelayTimerExpiredIs( true );
}

void ConfigSm::handleAsuCompletedVrf() {
   const auto & asu = inputs_.asuVrfStatus;
   bool anyCompleted = false;
   if( asu ) asu->completedVrfForEach( [ & ]( const L3::VrfName &, bool done ) { anyCompleted |= done; } );
   if( !anyCompleted ) {
      CTRACE( 7, "handleAsuCompletedVrf(), No VRFs have completed." );
      return;
   }
   for( auto it = asu->participatingVrfIter(); it; ++it ) {
      if( !asu->completedVrf( it.key() ) ) {
         CTRACE( 7, "handleAsuCompletedVrf(), in progress for VRF " << it.key() );
         return;
      }
   }
   CTRACE( 7, "handleAsuCompletedVrf(), completed for all VRFs" );
   if( inputs_.stageComplete ) inputs_.stageComplete( kShutdownStage );
}

void ConfigSm::handleClearCountersCount( const L3::VrfName & vrf ) {
   CTRACE( 7, "handleClearCountersCount()" );
   if( const Kiv::Ptr< Varn::MessageCounters > counters = pimVrfCounters( vrf ) ) {
      counters->clearMessageCounters();
      return;
   }
   CTRACE( 7, "Can not clear counters for vrf " << vrf << " vrf not defined or PIM not enabled for vrf " );
}

void ConfigSm::handleClearNeighbors( const L3::VrfName & vrf, const Lumo::IntfId & intf ) {
   CTRACE( 7, "handleClearNeighbors( " << vrf << ", " << intf << " )" );
   const Kiv::Ptr< AllStatus > status = allStatus( vrf );
   if( !status ) {
      CTRACE( 7, "Can not clear neighbors for vrf " << vrf << " vrf not defined or PIM not enabled for vrf " );
      return;
   }
   // Each deletion is the same event as an expiry; the interface machines
   // take it in O(log N) per neighbour.
   if( !intf.isEmpty() ) {
      if( const Kiv::Ptr< Intf > pimIntf = status->pimIntf( intf ) ) pimIntf->neighborDelAll();
      return;
   }
   for( auto it = status->pimIntfIter(); it; ++it ) it.value()->neighborDelAll();
}

void ConfigSm::handleClearIpMroute( const L3::VrfName & vrf ) {
   CTRACE( 7, "handleClearIpMroute" << "( " << vrf << " )" );
   const auto & cc = inputs_.clearMrouteConfigColl;
   const auto request = cc ? cc->vrfClearMrouteConfig( vrf ) : nullptr;
   if( !request ) return;
   const std::uint8_t flags = request->requestFlags();
   const bool applies = ( flags & kClearMrouteSparseMode ) || ( flags & kClearMrouteAll ) ||
                        ( flags & kClearMroutePim );
   if( !applies ) return;
   const Kiv::Ptr< AllStatus > status = allStatus( vrf );
   if( !status ) return;
   // A new generation id makes the neighbours resend their state.
   for( auto it = status->pimIntfIter(); it; ++it ) {
      it.value()->generationIdIs( ( Kiv::rand() << 1 ) ^ Kiv::rand() );
   }
}

// ---- applications ------------------------------------------------------------------------

Kiv::Ptr< ApplicationConfigSm > ConfigSm::appConfigSmIs( const std::string & name,
                                                         const Kiv::Ptr< const Application::Config > & config ) {
   if( Kiv::Ptr< ApplicationConfigSm > sm = appConfigSmColl( name ) ) {
      if( sm->config() == config ) return sm;
   }
   auto sm = Kiv::make< ApplicationConfigSm >( name, config, this );
   appConfigSmCollIs( name, sm );
   return sm;
}

void ConfigSm::appConfigSmDel( const std::string & name ) { appConfigSmCollDel( name ); }

void ConfigSm::appConfigSmDelAll() { appConfigSmCollDelAll(); }

void ConfigSm::handleApplication( const std::string & name ) {
   CTRACE( 8, "handleApplication( " << name << " )" );
   const auto & dir = inputs_.appConfigDir;
   const Kiv::Ptr< Kiv::Entity > entry = dir ? dir->entityRef( Kiv::Name( name ) ) : nullptr;
   const auto * config = dynamic_cast< const Application::Config * >( entry.ptr() );
   if( config ) {
      appConfigSmIs( name, Kiv::Ptr< const Application::Config >( config ) );
   } else {
      appConfigSmDel( name );
   }
}

void ConfigSm::handleApplication() {
   const auto & dir = inputs_.appConfigDir;
   if( !dir ) return;
   for( auto it = dir->entityPtrIter(); it; ++it ) handleApplication( it.key().str() );
}

// ---- per-key reactor bookkeeping ----------------------------------------------------------

// The key's reactor follows entity: it goes when the entity goes and is
// built afresh (its constructor binds it) for a new one; keepSame keeps the
// reactor of an unchanged entity, else it is rebuilt as well.
template< class K, class R, class E >
void ConfigSm::reactorFollows( Kiv::ReactorMap< K, R > & map, const K & key, const Kiv::Ptr< E > & entity,
                               bool keepSame ) {
   if( keepSame && entity ) {
      if( const R * r = map.find( key ); r && r->notifier() == entity ) return;
   }
   map.unbind( key );
   if( entity ) map.emplace( key, this, key, entity );
}

void ConfigSm::intfConfigReactorUpdate( const Lumo::IntfId & intf ) {
   reactorFollows( intfConfigReactor_, intf, intfConfig( intf ), true );
}

void ConfigSm::vrfConfigReactorUpdate( const L3::VrfName & vrf ) {
   reactorFollows( pimConfigReactor_, vrf, vrfConfig( vrf ), true );
}

void ConfigSm::hostInjectReactorUpdate( const Lumo::IntfId & intf ) {
   const auto & hi = inputs_.hostInjectConfig;
   const Kiv::Ptr< const HostInject::HostInjectIntfConfig > config = hi ? hi->config( intf ) : nullptr;
   reactorFollows( hostInjectReactor_, intf, config, false );
}

void ConfigSm::ipIntfStatusReactorUpdate( const Lumo::IntfId & intf ) {
   const auto & ip = inputs_.ipStatus;
   const Kiv::Ptr< const IpGen::IpIntfStatus > s = ip ? ip->intfStatus( intf ) : nullptr;
   KivIpIntfStatus * r = ipIntfStatusReactor_.find( intf );
   if( r && s && r->notifier() == s ) return;
   L3::VrfName lastVrf;
   if( r ) {
      lastVrf = r->lastVrf();
      ipIntfStatusReactor_.unbind( intf );
   }
   if( s ) {
      KivIpIntfStatus * created = &ipIntfStatusReactor_.emplace( intf, this, intf, s );
      if( !lastVrf.isEmpty() && lastVrf != created->lastVrf() ) handleIpIntfStatus( lastVrf, intf );
      if( !created->lastVrf().isEmpty() ) handleIpIntfStatus( created->lastVrf(), intf );
   } else if( !lastVrf.isEmpty() ) {
      handleIpIntfStatus( lastVrf, intf );
   }
}

void ConfigSm::clearConfigReactorUpdate( const L3::VrfName & vrf ) {
   const auto & cc = inputs_.pimClearConfigColl;
   reactorFollows( clearConfigReactor_, vrf, cc ? cc->vrfClearConfig( vrf ) : nullptr, false );
}

void ConfigSm::clearMrouteReactorUpdate( const L3::VrfName & vrf ) {
   const auto & cc = inputs_.clearMrouteConfigColl;
   reactorFollows( clearMrouteSm_, vrf, cc ? cc->vrfClearMrouteConfig( vrf ) : nullptr, false );
}

void ConfigSm::vrfIntfCollReactorUpdate( const L3::VrfName & vrf ) {
   const auto & avi = inputs_.appVrfIntfs;
   reactorFollows( pimVrfIntfColl_, vrf, avi ? avi->vrfIntf( vrf ) : nullptr, false );
}

void ConfigSm::KivPimConfigColl::onIntfConfig( const Lumo::IntfId & intf ) {
   owner_->intfConfigReactorUpdate( intf );
   owner_->handleIntfConfig( intf );
}

void ConfigSm::KivPimConfigColl::onVrfConfig( const L3::VrfName & vrf ) {
   owner_->vrfConfigReactorUpdate( vrf );
   owner_->handleVrf( vrf );
}

void ConfigSm::KivHostInjectConfig::onConfig( const Lumo::IntfId & intf ) {
   owner_->hostInjectReactorUpdate( intf );
   owner_->handleSourceInject( intf );
}

void ConfigSm::KivIpStatus::onIntfStatus( const Lumo::IntfId & intf ) {
   owner_->ipIntfStatusReactorUpdate( intf );
}

void ConfigSm::KivClearConfigColl::onVrfClearConfig( const L3::VrfName & vrf ) {
   owner_->clearConfigReactorUpdate( vrf );
}

void ConfigSm::KivClearMrouteConfigColl::onVrfClearMrouteConfig( const L3::VrfName & vrf ) {
   owner_->clearMrouteReactorUpdate( vrf );
}

void ConfigSm::KivAppVrfIntfs::onVrfIntf( const L3::VrfName & vrf ) {
   // Only VRFs whose namespace view is up watch their kernel interfaces.
   if( owner_->namespaceNameHas( vrf ) ) owner_->vrfIntfCollReactorUpdate( vrf );
}

ConfigSm::KivIntfConfig::KivIntfConfig( ConfigSm * o, const Lumo::IntfId & intf,
                                        const Kiv::Ptr< const IntfConfig > & c )
      : KeyedReactor( o, intf, c ) {
   handleMode();
   handleHelloPriority();
   handleHelloInterval();
   handleHelloCount();
   handleJoinPruneInterval();
   handleJoinPruneCount();
   handleBorderRouter();
   handleBfd();
   handlePort();
   handleFastFailover();
   handleNeighborLimit();
}

void ConfigSm::KivIntfConfig::update( const char * what ) {
   CTRACE( 8, what << "( " << key_ << " )" );
   owner_->updatePimIntf( L3::VrfName(), key_ );
}

void ConfigSm::KivIntfConfig::handleMode() { update( "handleMode" ); }
void ConfigSm::KivIntfConfig::handleHelloPriority() { update( "handleHelloPriority" ); }
void ConfigSm::KivIntfConfig::handleHelloInterval() { update( "handleHelloInterval" ); }
void ConfigSm::KivIntfConfig::handleHelloCount() { update( "handleHelloCount" ); }
void ConfigSm::KivIntfConfig::handleJoinPruneInterval() { update( "handleJoinPruneInterval" ); }
void ConfigSm::KivIntfConfig::handleJoinPruneCount() { update( "handleJoinPruneCount" ); }
void ConfigSm::KivIntfConfig::handleBorderRouter() { update( "handleBorderRouter" ); }
void ConfigSm::KivIntfConfig::handleBfd() { update( "handleBfd" ); }
void ConfigSm::KivIntfConfig::handlePort() { update( "handlePort" ); }
void ConfigSm::KivIntfConfig::handleFastFailover() { update( "handleFastFailover" ); }
void ConfigSm::KivIntfConfig::handleLanPruneDelay() { update( "handleLanPruneDelay" ); }
void ConfigSm::KivIntfConfig::handleNeighborLimit() { update( "handleNeighborLimit" ); }

ConfigSm::KivIpIntfStatus::KivIpIntfStatus( ConfigSm * o, const Lumo::IntfId & intf,
                                            const Kiv::Ptr< const IpGen::IpIntfStatus > & s )
      : KeyedReactor( o, intf, s ), lastVrf_( s->vrf() ) {}

void ConfigSm::KivIpIntfStatus::onVrf() {
   const auto s = notifier();
   const L3::VrfName current = s ? s->vrf() : L3::VrfName();
   const L3::VrfName previous = lastVrf_;
   lastVrf_ = current;
   if( !previous.isEmpty() && previous != current ) owner_->handleIpIntfStatus( previous, key_ );
   if( !current.isEmpty() ) owner_->handleIpIntfStatus( current, key_ );
}

void ConfigSm::KivIpIntfStatus::onActiveAddrWithMask() {
   const auto s = notifier();
   owner_->handleActiveAddrWithMask( s ? s->vrf() : L3::VrfName(), key_ );
}

ConfigSm::KivPimAllStatus::KivPimAllStatus( ConfigSm * o, const L3::VrfName & vrf,
                                            const Kiv::Ptr< const AllStatus > & s )
      : KeyedReactor( o, vrf, s ) {
   // Interfaces already there (status kept from an earlier run).
   for( auto it = s->pimIntfIter(); it; ++it ) {
      pimIntf_.insert( it.key(), std::make_unique< KivPimIntf >( o, vrf, it.value() ) );
   }
}

void ConfigSm::KivClearConfig::onIntfNeighborsCount( const Lumo::IntfId & intf ) {
   // Only a bump is a request; the entry going away is not.
   const auto * config = static_cast< const ClearConfig * >( kivNotifier() );
   if( config && config->intfNeighborsCountHas( intf ) ) owner_->handleClearNeighbors( key_, intf );
}

ConfigSm::ClearMrouteSm::ClearMrouteSm( ConfigSm * o, const L3::VrfName & vrf,
                                        const Kiv::Ptr< const ClearMrouteConfig > & c )
      : KeyedReactor( o, vrf, c ) {
   owner_->handleClearIpMroute( key_ );
}

Kiv::Ptr< ConfigSm > configSmFactory( const ConfigSmInputs & inputs ) {
   Kiv::Ptr< ConfigSm > sm = Kiv::make< ConfigSm >( inputs );
   sm->handleInitialized();
   return sm;
}

} // namespace Routing::Pim

#include "feeds/RouterIdSm.h"

#include <cstdint>

#include "kiv/Trace.h"

namespace Routing::Pim {

KIV_TRACE_HANDLE( "Pim::RouterIdSm" )

#define RTRACE( level, expr ) \
   KIV_TRACE( th(), level, "<Vrf:" << vrfName_ << ">" << expr )

RouterIdSm::RouterIdSm( const L3::VrfName & vrfName,
                        const Kiv::Ptr< const Bridging::Config > & bridgingConfig,
                        const Kiv::Ptr< RouterIdInfo > & routerIdInfo )
      : vrfName_( vrfName ), routerIdInfo_( routerIdInfo ), bridgingConfig_( this ) {
   bridgingConfig_.kivOwnerIs( this );
   bridgingConfig_.notifierIs( bridgingConfig );
   handleInitialized();
}

RouterIdSm::~RouterIdSm() {
   kivDoZombieReactors( true );
}

void RouterIdSm::handleInitialized() {
   RTRACE( 4, "handleInitialized" << " for VRF " << vrfName_ );
   initializedIs( true );
   updateRouterId();
}

void RouterIdSm::updateRouterId() {
   RTRACE( 4, "updateRouterId" << " for VRF " << vrfName_ );
   const Kiv::Ptr< const Bridging::Config > config = bridgingConfig_.notifier();
   if( !config ) {
      return;   // no bridging configuration: the router id keeps its value
   }
   if( !routerIdInfo_ ) {
      RTRACE( 1, "Error - No router id entity for VRF " << vrfName_ );
      return;
   }
   // The last four bytes of the bridge MAC, read big-endian.
   const auto & b = config->bridgeMacAddr().bytes;
   const std::uint32_t routerId = ( std::uint32_t( b[ 2 ] ) << 24 ) |
                                  ( std::uint32_t( b[ 3 ] ) << 16 ) |
                                  ( std::uint32_t( b[ 4 ] ) << 8 ) | std::uint32_t( b[ 5 ] );
   routerIdInfo_->routerIdIs( routerId );
}

Kiv::Ptr< RouterIdSm > routerIdSmFactory( const L3::VrfName & vrfName,
                                          const Kiv::Ptr< const Bridging::Config > & bridgingConfig,
                                          const Kiv::Ptr< RouterIdInfo > & routerIdInfo ) {
   return Kiv::make< RouterIdSm >( vrfName, bridgingConfig, routerIdInfo );
}

} // namespace Routing::Pim

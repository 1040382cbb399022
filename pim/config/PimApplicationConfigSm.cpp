#include "config/PimApplicationConfigSm.h"

#include "config/PimConfigSm.h"
#include "kiv/Trace.h"

namespace Routing::Pim {

KIV_TRACE_HANDLE( "Pim::Config" )

Kiv::Ptr< VrfPimIntf > vrfPimIntfFactory( const L3::VrfName & vrfName ) {
   return Kiv::make< VrfPimIntf >( vrfName );
}

ApplicationConfigSm::ApplicationConfigSm( const std::string & name,
                                          const Kiv::Ptr< const Application::Config > & config,
                                          ConfigSm * configSm )
      : name_( name ), configSm_( configSm ), config_( this ) {
   config_.kivOwnerIs( this );
   config_.notifierIs( config );
   if( config ) handleIntfMode();
   initializedIs( true );
}

ApplicationConfigSm::~ApplicationConfigSm() {
   kivDoZombieReactors( true );
}

void ApplicationConfigSm::handleIntfMode() {
   const Kiv::Ptr< const Application::Config > config = config_.notifier();
   if( !config ) return;
   for( auto it = config->intfModeIter(); it; ++it ) handleIntfMode( it.key() );
}

void ApplicationConfigSm::handleIntfMode( const std::string & intfName ) {
   KIV_TRACE( th(), 8, "handleIntfMode( " << name_ << ", " << intfName << " )" );
   if( configSm_ ) configSm_->updatePimIntf( L3::VrfName(), Lumo::IntfId( intfName ) );
}

} // namespace Routing::Pim

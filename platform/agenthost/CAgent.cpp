#include "agenthost/CAgent.h"

#include <cassert>

#include "kiv/ActivityManager.h"

namespace AgentBase {

CAgent::CAgent( const std::string & name )
      : name_( name ),
        redundancyStatus_( Kiv::make< Redundancy::RedundancyStatus >() ),
        timerWheel_( Tolm::TimerWheelIs( Kiv::activityManager().clock() ) ),
        varnMount_( Kiv::make< KivVarn::Mount >() ) {}

CAgent::~CAgent() = default;

void CAgent::doStage( const std::string &, const std::string & ) {}

void CAgent::varnDirectoryIs( KivVarn::Directory * dir ) {
   varnMount_ = Kiv::make< KivVarn::Mount >( dir ? *dir : KivVarn::Directory::instance() );
}

Kiv::Ptr< Dovel::MountGroup > CAgent::getMountGroup() {
   assert( entityManager_ && "the host sets the entity manager before doInit" );
   return entityManager_->getMountGroup( this );
}

Kiv::Ptr< Kiv::Notifier > CAgent::createLocalEntity( const std::string & name, const std::string & typeName,
                                                     const std::string & path ) {
   assert( entityManager_ && "the host sets the entity manager before doInit" );
   return entityManager_->localEntityIs( name, typeName, path );
}

} // namespace AgentBase

#include "services/bfd/BfdApp.h"

namespace Bfd {

StatusPeer::StatusPeer( const Kiv::Name & name ) : Kiv::Entity( name ) {}

KIV_REGISTER_ENTITY_TYPE( StatusPeer, "Bfd::StatusPeer" );

BfdAppSm::BfdAppSm( const std::string & appName, const Kiv::Ptr< const StatusPeer > & statusPeer,
                    const Kiv::Ptr< AppStatus > & appStatus, const L3::VrfName & vrf,
                    const Kiv::Ptr< const AppConfig > & appConfig )
      : appName_( appName ), vrf_( vrf ),
        appStatus_( Kiv::ValidPtr< AppStatus >( appStatus ) ), statusPeer_( this ),
        appConfig_( this ) {
   statusPeer_.notifierIs( statusPeer );
   appConfig_.notifierIs( appConfig );
   handleAll();
}

BfdAppSm::~BfdAppSm() = default;

void BfdAppSm::handlePeer( const Peer & peer ) {
   const auto config = appConfig_.notifier();
   const bool wanted = config && config->peerConfig( peer ) && peer.vrf == vrf_;
   if( !wanted ) {
      appStatus_->peerStatusDel( peer );
      return;
   }
   const auto status = statusPeer_.notifier();
   const OperState state =
      status && status->peerStatusHas( peer ) ? status->peerStatus( peer ) : operDown;
   if( const auto entry = appStatus_->peerStatus( peer ) ) {
      entry->statusIs( state );
   } else {
      appStatus_->peerStatusIs( peer, state );
   }
}

void BfdAppSm::handleAll() {
   for( auto it = appStatus_->peerStatusIter(); it; ++it ) {
      handlePeer( it.key() );
   }
   if( const auto config = appConfig_.notifier() ) {
      for( auto it = config->peerConfigIter(); it; ++it ) {
         handlePeer( it.key() );
      }
   }
}

Kiv::Ptr< BfdAppSm > bfdAppSmFactory( const std::string & appName,
                                      const Kiv::Ptr< const StatusPeer > & statusPeer,
                                      const Kiv::Ptr< AppStatus > & appStatus,
                                      const L3::VrfName & vrf,
                                      const Kiv::Ptr< const AppConfig > & appConfig ) {
   return Kiv::make< BfdAppSm >( appName, statusPeer, appStatus, vrf, appConfig );
}

} // namespace Bfd

// Out of line: the vtable, and with it this file's type registrations, come
// with any use of the types.
namespace Bfd {
const char * StatusPeer::typeName() const { return "Bfd::StatusPeer"; }
} // namespace Bfd

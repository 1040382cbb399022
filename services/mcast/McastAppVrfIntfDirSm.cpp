#include "services/mcast/McastAppVrfIntfDirSm.h"

namespace McastCommon {

McastAppVrfIntfDirSm::McastAppVrfIntfDirSm( const Kiv::Ptr< const Kiv::Dir > & dir,
                                            const Kiv::Ptr< AppVrfIntfs > & appVrfIntfs,
                                            const Kiv::Ptr< const Routing::Multicast::Fib::VrfConfig > & vrfConfig )
      : dir_( dir ), appVrfIntfs_( Kiv::ValidPtr< AppVrfIntfs >( appVrfIntfs ) ), vrfConfig_( vrfConfig ),
        dirReactor_( this ), vrfConfigReactor_( this ) {
   dirReactor_.notifierIs( dir_ );
   vrfConfigReactor_.notifierIs( vrfConfig_ );
   if( dir_ ) {
      dir_->entityPtrForEach( [ this ]( const Kiv::Name & n, const Kiv::Ptr< Kiv::Entity > & ) {
         handleVrf( L3::VrfName( n.str() ) );
      } );
   }
}

McastAppVrfIntfDirSm::~McastAppVrfIntfDirSm() = default;

Kiv::Ptr< const AppVrfIntfStatus > McastAppVrfIntfDirSm::entry( const L3::VrfName & vrf ) const {
   return dir_ ? Kiv::ptr_cast< const AppVrfIntfStatus >( dir_->entityRef( Kiv::Name( std::string( vrf.stringValue() ) ) ) ) : nullptr;
}

bool McastAppVrfIntfDirSm::enabled( const L3::VrfName & vrf ) const {
   return vrfConfig_ && vrfConfig_->routingEnabledVrf( vrf );
}

void McastAppVrfIntfDirSm::handleVrf( const L3::VrfName & vrf ) {
   const Kiv::Ptr< const AppVrfIntfStatus > e = entry( vrf );
   if( !e || !enabled( vrf ) ) {
      entries_.unbind( vrf );
      appVrfIntfs_->vrfIntfDel( vrf );
      return;
   }
   entries_.bind( vrf, e, this, vrf );
   Kiv::Ptr< VrfIntfColl > coll = appVrfIntfs_->vrfIntf( vrf );
   if( !coll ) coll = appVrfIntfs_->vrfIntfIs( vrf );
   // Drop what the entry no longer lists, add what it does.
   std::vector< Lumo::IntfId > gone;
   coll->intfsForEach( [ & ]( const Lumo::IntfId & i, bool ) {
      if( !e->intf( i ) ) gone.push_back( i );
   } );
   for( const auto & i : gone ) coll->intfsDel( i );
   e->intfForEach( [ & ]( const Lumo::IntfId & i, bool ) { coll->intfsIs( i ); } );
}

void McastAppVrfIntfDirSm::handleIntf( const L3::VrfName & vrf, const Lumo::IntfId & intf ) {
   const Kiv::Ptr< const AppVrfIntfStatus > e = entry( vrf );
   Kiv::Ptr< VrfIntfColl > coll = appVrfIntfs_->vrfIntf( vrf );
   if( !e || !coll ) return;
   coll->intfsIs( intf, e->intf( intf ) );
}

} // namespace McastCommon

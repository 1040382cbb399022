#include "agent/PimAgentSms.h"

#include <sstream>
#include <vector>

namespace Routing::Pim {

PimAttrLogSm::PimAttrLogSm( const Kiv::Ptr< Kiv::NboAttrLog::SocketOutSm > & out )
      : out_( out ), globalStatus_( this ) {}

PimAttrLogSm::~PimAttrLogSm() = default;

void PimAttrLogSm::globalStatusIs( const Kiv::Ptr< const GlobalStatus > & status ) {
   globalStatus_.notifierIs( status );
}

void PimAttrLogSm::handleEnabled( const char * attr, const L3::VrfName & vrf, bool on ) {
   if( !out_ ) return;
   std::ostringstream os;
   os << attr << "[" << vrf << "]=" << ( on ? "true" : "false" );
   out_->write( os.str() );
}

void PimAttrLogSm::KivGlobalStatus::onPimEnabledSparseModeVrf( const L3::VrfName & v ) {
   owner_->handleEnabled( "pimEnabledSparseModeVrf", v, notifier()->pimEnabledSparseModeVrf( v ) );
}

void PimAttrLogSm::KivGlobalStatus::onPimEnabledBidirVrf( const L3::VrfName & v ) {
   owner_->handleEnabled( "pimEnabledBidirVrf", v, notifier()->pimEnabledBidirVrf( v ) );
}

namespace Varn {

GlobalStatusReaderSm::GlobalStatusReaderSm( Lumo::AddressFamily af, const Kiv::Ptr< const GlobalStatus > & globalStatus,
                                            const Kiv::Ptr< const AllStatusColl > & allStatusColl,
                                            bool followAllVrfs, const Kiv::Clock & clock,
                                            const Kiv::Ptr< KivVarn::Mount > & writerMount )
      : af_( af ), followAllVrfs_( followAllVrfs ), clock_( clock ), globalStatus_( globalStatus ),
        readerMount_( Kiv::make< KivVarn::Mount >( Kiv::ValidPtr< KivVarn::Mount >( writerMount )->directory() ) ),
        globalStatusReactor_( this ), allStatusReactor_( this ) {
   globalStatusReactor_.notifierIs( globalStatus_ );
   allStatusReactor_.notifierIs( allStatusColl );
   if( globalStatus_ ) {
      globalStatus_->pimEnabledSparseModeVrfForEach( [ this ]( const L3::VrfName & v, bool ) { handleVrf( v ); } );
      globalStatus_->pimEnabledBidirVrfForEach( [ this ]( const L3::VrfName & v, bool ) { handleVrf( v ); } );
   }
}

GlobalStatusReaderSm::~GlobalStatusReaderSm() {
   tables_.forEach( [ this ]( const L3::VrfName & v, const Kiv::Ptr< const Status > & ) {
      readerMount_->doUnmount( statusPath( af_, v ) );
   } );
}

Kiv::Ptr< const Status > GlobalStatusReaderSm::statusTable( const L3::VrfName & vrf ) const {
   const Kiv::Ptr< const Status > * t = tables_.find( vrf );
   return t ? *t : nullptr;
}

void GlobalStatusReaderSm::handleVrf( const L3::VrfName & vrf ) {
   const bool wanted = globalStatus_ && ( followAllVrfs_ || vrf.isDefault() ) &&
                       ( globalStatus_->pimEnabledSparseModeVrf( vrf ) || globalStatus_->pimEnabledBidirVrf( vrf ) );
   const std::string path = statusPath( af_, vrf );
   if( !wanted ) {
      if( tables_.erase( vrf ) ) {
         readerMount_->doUnmount( path );
         lastChange_ = clock_.now();
      }
      return;
   }
   if( tables_.contains( vrf ) ) return;
   // Only attaches: a table its writer has not made yet is looked for again
   // on the next change of the VRF.
   if( !readerMount_->directory().entity( path ) ) return;
   auto table = readerMount_->doMount< Status >( path, "r" );
   if( !table ) return;
   tables_.insertOrAssignFn( vrf, Kiv::Ptr< const Status >( table ) );
   lastChange_ = clock_.now();
}

} // namespace Varn

GlobalStatusModeFilterSm::GlobalStatusModeFilterSm( const Kiv::Ptr< const AllStatusColl > & allStatusColl,
                                                    const Kiv::Ptr< StatusColl > & statusColl, Mode mode )
      : allStatusColl_( allStatusColl ), statusColl_( statusColl ), mode_( mode ), allStatusCollReactor_( this ),
        statusCollReactor_( this ) {
   allStatusCollReactor_.notifierIs( allStatusColl_ );
   statusCollReactor_.notifierIs( statusColl_ );
   if( allStatusColl_ ) {
      allStatusColl_->vrfStatusForEach( [ this ]( const L3::VrfName & v, const Kiv::Ptr< AllStatus > & ) {
         handleVrf( v );
      } );
   }
}

GlobalStatusModeFilterSm::~GlobalStatusModeFilterSm() {
   // The derived entries go with the machine.
   for( const auto & k : published_ ) {
      if( auto s = statusColl_ ? statusColl_->vrfStatus( k.vrf ) : nullptr ) s->pimIntfDel( k.intf );
   }
}

void GlobalStatusModeFilterSm::handleVrf( const L3::VrfName & vrf ) {
   const Kiv::Ptr< AllStatus > all = allStatusColl_ ? allStatusColl_->vrfStatus( vrf ) : nullptr;
   if( all ) {
      allStatus_.bind( vrf, Kiv::Ptr< const AllStatus >( all ), this, vrf );
   } else {
      allStatus_.unbind( vrf );
   }
   std::vector< Lumo::IntfId > intfs;
   if( all ) all->pimIntfForEach( [ & ]( const Lumo::IntfId & i, const Kiv::Ptr< Intf > & ) { intfs.push_back( i ); } );
   for( const auto & k : published_ ) {
      if( k.vrf == vrf ) intfs.push_back( k.intf );
   }
   for( const auto & i : intfs ) handleIntf( vrf, i );
}

void GlobalStatusModeFilterSm::handleIntf( const L3::VrfName & vrf, const Lumo::IntfId & intf ) {
   const Kiv::Ptr< AllStatus > all = allStatusColl_ ? allStatusColl_->vrfStatus( vrf ) : nullptr;
   const Kiv::Ptr< Intf > pimIntf = all ? all->pimIntf( intf ) : nullptr;
   const VrfIntf key{ vrf, intf };
   const KivIntf * r = intfs_.find( key );
   if( !pimIntf ) {
      intfs_.unbind( key );
   } else if( !r || r->notifier() != pimIntf ) {
      auto fresh = std::make_unique< KivIntf >( this, vrf, intf );
      fresh->notifierIs( pimIntf );
      intfs_.insert( key, std::move( fresh ) );
   }
   const Kiv::Ptr< Status > status = statusColl_ ? statusColl_->vrfStatus( vrf ) : nullptr;
   if( status && pimIntf && ( pimIntf->mode() & mode_ ) ) {
      status->pimIntfIs( intf, pimIntf->mode() );
      published_.insert( key );
   } else if( published_.erase( key ) && status ) {
      status->pimIntfDel( intf );
   }
}

} // namespace Routing::Pim

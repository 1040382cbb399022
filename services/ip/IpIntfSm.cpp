#include "services/ip/IpIntfSm.h"

#include "kiv/Trace.h"

KIV_TRACE_HANDLE( "IpGen::IntfSm" )

namespace IpGen {

IntfSm::IntfSm( const Kiv::Ptr< IntfStatus > & intfStatus )
      : intfStatus_( Kiv::ValidPtr< IntfStatus >( intfStatus ) ), status_( this ) {
   status_.notifierIs( intfStatus_->status() );
   handleAllIntf();
}

IntfSm::~IntfSm() {
   ipIntfStatus_.clear();
   intfStatus_->intfDelAll();
}

void IntfSm::handleAllIntf() {
   const Status & status = *intfStatus_->status();
   for( auto it = status.intfStatusIter(); it; ++it ) handleIntf( it.key() );
   // Members whose status entry went while nobody watched.
   for( auto it = intfStatus_->intfIter(); it; ++it ) handleIntf( it.key() );
}

void IntfSm::handleIntf( const Lumo::IntfId & intf ) {
   const Kiv::Ptr< const IpIntfStatus > entry = intfStatus_->status()->intfStatus( intf );
   if( entry ) {
      ipIntfStatus_.bind( intf, entry, this, intf );
   } else {
      ipIntfStatus_.unbind( intf );
   }
   const bool member = entry && entry->vrf() == intfStatus_->vrfName();
   if( member == intfStatus_->intf( intf ) ) return;
   KIV_TRACE( th(), 7, "<Vrf:" << intfStatus_->vrfName() << "> " << intf
                          << ( member ? " joins" : " leaves" ) );
   intfStatus_->intfIs( intf, member );
}

Kiv::Ptr< IntfSm > intfSmFactory( const Kiv::Ptr< IntfStatus > & intfStatus ) {
   return Kiv::make< IntfSm >( intfStatus );
}

} // namespace IpGen

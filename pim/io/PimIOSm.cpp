#include "io/PimIOSm.h"

#include "kiv/Trace.h"

KIV_TRACE_HANDLE( "Pim::IO" )

#define IOTRACE( level, expr ) \
   KIV_TRACE( th(), level, "<Vrf:" << args_.intfStatus->vrfName() << "> " << expr )

namespace Routing::Pim::IO {

IOSm::KivRxMessageInfo::KivRxMessageInfo( IOSm * o, std::uint8_t type ) : KeyedReactor( o, type ) {
   kivImmediateIs( MessageInfo::kivAttr_count, true );
}

IOSm::KivTxMessageInfo::KivTxMessageInfo( IOSm * o ) : OwnedReactor( o ) {
   kivImmediateIs( MessageInfo::kivAttr_count, true );
}

namespace {
IOSmArgs validated( const IOSmArgs & a ) {
   Kiv::ValidPtr< PamManager > pam( a.pamManager );
   Kiv::ValidPtr< const ConfigColl > config( a.configColl );
   Kiv::ValidPtr< const IpGen::IntfStatus > intfStatus( a.intfStatus );
   return a;
}
} // namespace

IOSm::IOSm( const IOSmArgs & args )
      : args_( validated( args ) ), allStatus_( this ), pamManager_( this ), txMessageInfo_( this ) {
   IOTRACE( 8, "IOSm()" );
   if( !args_.pimStatus ) IOTRACE( 5, "no PIM status entry: PIM interfaces are not published" );
   if( !args_.allStatus ) IOTRACE( 5, "no PIM interface status: PIM interfaces are not published" );
   allStatus_.notifierIs( args_.allStatus );
   pamManager_.notifierIs( args_.pamManager );
   txMessageInfo_.notifierIs( args_.pamManager->txMessageInfo() );
   for( auto it = args_.pamManager->rxMessageInfoIter(); it; ++it ) handleRxMessageInfo( it.key() );
   handleAllPimIntf();
}

IOSm::~IOSm() {
   IOTRACE( 8, "~IOSm()" );
   // Nobody keeps the published interfaces true any more.
   intf_.clear();
   if( args_.pimStatus ) args_.pimStatus->pimIntfDelAll();
}

void IOSm::handleAllPimIntf() {
   if( !args_.pimStatus ) return;
   if( args_.allStatus ) {
      for( auto it = args_.allStatus->pimIntfIter(); it; ++it ) handlePimIntf( it.key() );
   }
   // Entries of interfaces that went while nobody watched.
   for( auto it = args_.pimStatus->pimIntfIter(); it; ++it ) handlePimIntf( it.key() );
}

void IOSm::handlePimIntf( const Lumo::IntfId & intf ) {
   if( !args_.pimStatus ) return;
   const Kiv::Ptr< const Intf > pimIntf = args_.allStatus ? args_.allStatus->pimIntf( intf ) : nullptr;
   if( !pimIntf ) {
      intf_.unbind( intf );
      if( args_.pimStatus->pimIntfHas( intf ) ) {
         IOTRACE( 7, "pimIntf " << intf << " removed" );
         args_.pimStatus->pimIntfDel( intf );
      }
      return;
   }
   intf_.bind( intf, pimIntf, this, intf );
   const Mode mode = pimIntf->mode();
   if( args_.pimStatus->pimIntfHas( intf ) && args_.pimStatus->pimIntf( intf ) == mode ) return;
   IOTRACE( 7, "pimIntf " << intf << " mode " << modeName( mode ) );
   args_.pimStatus->pimIntfIs( intf, mode );
}

void IOSm::handleRxMessageInfo( std::uint8_t type ) {
   const Kiv::Ptr< MessageInfo > info = args_.pamManager->rxMessageInfo( type );
   if( info ) {
      rxMessageInfo_.bind( type, info, this, type );
   } else {
      rxMessageInfo_.unbind( type );
   }
}

void IOSm::handleRxCount( std::uint8_t type ) {
   if( args_.messageCounters ) args_.messageCounters->rxInc( type );
}

void IOSm::handleTxCount() {
   const Kiv::Ptr< const MessageInfo > tx = args_.pamManager->txMessageInfo();
   const Kiv::Ptr< const Packet::Message > msg = tx ? tx->message() : nullptr;
   if( !msg ) {
      IOTRACE( 5, "TX count without a message" );
      return;
   }
   if( args_.messageCounters ) {
      args_.messageCounters->txInc( static_cast< std::uint8_t >( msg->type() ) );
   }
}

Kiv::Ptr< IOSm > ioSmFactory( const IOSmArgs & args ) { return Kiv::make< IOSm >( args ); }

} // namespace Routing::Pim::IO

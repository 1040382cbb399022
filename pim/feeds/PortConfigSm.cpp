#include "feeds/PortConfigSm.h"

#include "kiv/Trace.h"

namespace Routing::Pim::Reliable {

KIV_TRACE_HANDLE( "Pim::PortConfig" )

#define PTRACE( level, expr ) KIV_TRACE( th(), level, "<Vrf:" << vrfName() << ">" << expr )

ConfigSm::ConfigSm( const Kiv::Ptr< const Config > & pimConfig,
                    IpGen::SourceIntf::VrfSourceIntfSm * vrfSourceIntfSm,
                    const Kiv::Ptr< Status > & reliableStatus )
      : pimConfig_( this ), vrfSourceIntfSm_( vrfSourceIntfSm ), reliableStatus_( reliableStatus ),
        sourceIntfStatusReactor_( this ) {
   pimConfig_.kivOwnerIs( this );
   sourceIntfStatusReactor_.kivOwnerIs( this );
   pimConfig_.notifierIs( pimConfig );
   handleSctpSrcIntf();
   handleAddrChange();
}

ConfigSm::~ConfigSm() {
   // The registry may already be gone (the container drops it first); the
   // registration dies with the registry's directory.
   kivDoZombieReactors( true );
}

L3::VrfName ConfigSm::vrfName() const {
   const Kiv::Ptr< const Config > config = pimConfig_.notifier();
   return config ? config->vrfName() : L3::VrfName();
}

void ConfigSm::sourceIntfStatusIs( const Kiv::Ptr< IpGen::SourceIntf::SourceIntf > & sourceIntf ) {
   if( sourceIntfStatus_ == sourceIntf ) return;
   sourceIntfStatus_ = sourceIntf;
   sourceIntfStatusReactor_.notifierIs( nullptr );
   sourceIntfStatusReactor_.notifierIs( sourceIntf );
   // A new notifier: publish its address now, later changes come through
   // the reactor.
   if( sourceIntf ) handleAddrChange();
}

void ConfigSm::sourceIntfStatusDel() {
   sourceIntfStatus_ = nullptr;
   sourceIntfStatusReactor_.notifierIs( nullptr );
   handleAddrChange();
}

void ConfigSm::handleSctpSrcIntf() {
   const Kiv::Ptr< const Config > config = pimConfig_.notifier();
   const Lumo::IntfId intf = config ? config->sctpSrcIntf() : Lumo::IntfId();
   PTRACE( 4, "handleSctpSrcIntf" << "(" << intf << ")" );
   if( intf.isEmpty() ) {
      cleanupSourceIntf();
      return;
   }
   if( sourceIntfStatus_ ) {
      if( sourceIntfStatus_->intfId() == intf ) return;   // already following it
      cleanupSourceIntf();
   }
   if( !vrfSourceIntfSm_ ) {
      PTRACE( 1, "handleSctpSrcIntf" << "(), no source interface registry" );
      return;
   }
   sourceIntfStatusIs( vrfSourceIntfSm_->registerSourceIntf( intf ) );
}

void ConfigSm::handleAddrChange() {
   PTRACE( 8, "handleAddrChange" << "()" );
   const Lumo::IpGenAddr addr = sourceIntfStatus_ ? sourceIntfStatus_->ipAddr() : Lumo::IpGenAddr();
   PTRACE( 4, "New Sctp Connection Address : " << addr );
   if( reliableStatus_ ) reliableStatus_->pimsmSctpConnectionIdIs( addr );
}

void ConfigSm::cleanupSourceIntf() {
   PTRACE( 8, "cleanupSourceIntf" << "()" );
   if( sourceIntfStatus_ && vrfSourceIntfSm_ ) vrfSourceIntfSm_->unregisterSourceIntf( sourceIntfStatus_ );
   sourceIntfStatusDel();
}

Kiv::Ptr< ConfigSm > configSmFactory( const Kiv::Ptr< const Config > & pimConfig,
                                      IpGen::SourceIntf::VrfSourceIntfSm * vrfSourceIntfSm,
                                      const Kiv::Ptr< Status > & reliableStatus ) {
   return Kiv::make< ConfigSm >( pimConfig, vrfSourceIntfSm, reliableStatus );
}

} // namespace Routing::Pim::Reliable

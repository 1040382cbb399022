#include "agent/PimAsuSm.h"

#include "kiv/Clock.h"
#include "kiv/Trace.h"

namespace Routing::Pim {

KIV_TRACE_HANDLE( "Pim::Asu" )

#define ATRACE( level, expr ) KIV_TRACE( th(), level, "<Vrf:" << vrfName() << ">" << expr )

AsuSm::AsuSm( const Kiv::Ptr< const Config > & pimConfig, const Kiv::Ptr< AllStatus > & allStatus,
              const Kiv::Ptr< Tolm::TimerWheel > & timerWheel,
              const Kiv::Ptr< const McastCommon::AsuShutdownStatus > & asuClientShutdownStatus,
              const Kiv::Ptr< McastCommon::AsuVrfStatus > & asuClientVrfStatus )
      : pimConfig_( pimConfig ),
        allStatus_( Kiv::ValidPtr< AllStatus >( allStatus ) ),
        timerWheel_( Kiv::ValidPtr< Tolm::TimerWheel >( timerWheel ) ),
        asuClientVrfStatus_( asuClientVrfStatus ),
        asuClientShutdownStatus_( this ),
        asuTimer_( this, timerWheel.ptr() ) {
   asuClientShutdownStatus_.kivOwnerIs( this );
   asuClientShutdownStatus_.notifierIs( asuClientShutdownStatus );
   handleInitialized();
}

AsuSm::~AsuSm() {
   kivDoZombieReactors( true );
}

L3::VrfName AsuSm::vrfName() const {
   if( pimConfig_ ) return pimConfig_->vrfName();
   return allStatus_ ? allStatus_->vrfName() : L3::VrfName();
}

void AsuSm::handleInitialized() {
   ATRACE( 8, "handleInitialized" << "()" );
   doAsuShutdown();
   initializedIs( true );
}

void AsuSm::doAsuShutdown() {
   ATRACE( 8, "doAsuShutdown" << "(), Handling ASU shutdown" );
   const Kiv::Ptr< const McastCommon::AsuShutdownStatus > status = asuClientShutdownStatus_.notifier();
   if( !status || !status->shutdown() ) return;
   for( auto it = allStatus_->pimIntfIter(); it; ++it ) {
      const Kiv::Ptr< Intf > & intf = it.value();
      if( !intf ) continue;
      if( intf->helloHoldTime() < asuHelloHoldTimeDefault ) {
         // The interface machine sends a Hello with the new hold time at once
         // and restarts its periodic timer at the new period.
         intf->helloHoldTimeIs( asuHelloHoldTimeDefault );
         intf->helloPeriodIs( asuHelloPeriodDefault );
      } else {
         // Already long enough: only make sure a Hello goes out now.
         intf->helloDelayIs( 0 );
         intf->triggeredHelloIs( true );
      }
   }
   ATRACE( 8, "doAsuShutdown" << "(), Starting the ASU notification timer." );
   asuTimer_.timeMinIs( Kiv::System::currentTime() + asuNotifyDelay() );
}

void AsuSm::handleAsuTimerExpiry() {
   ATRACE( 8, "handleAsuTimerExpiry" << "()" );
   if( asuClientVrfStatus_ ) {
      asuClientVrfStatus_->completedVrfIs( vrfName(), true );
   } else {
      ATRACE( 1, "handleAsuTimerExpiry" << "(), no fast-upgrade VRF status" );
   }
   asuTimer_.timeMinIs( Kiv::kNever );
}

Kiv::Ptr< AsuSm > AsuSmIs( const Kiv::Ptr< const Config > & pimConfig,
                           const Kiv::Ptr< AllStatus > & allStatus,
                           const Kiv::Ptr< Tolm::TimerWheel > & timerWheel,
                           const Kiv::Ptr< const McastCommon::AsuShutdownStatus > & asuShutdownStatus,
                           const Kiv::Ptr< McastCommon::AsuVrfStatus > & asuVrfStatus ) {
   return Kiv::make< AsuSm >( pimConfig, allStatus, timerWheel, asuShutdownStatus, asuVrfStatus );
}

Kiv::Ptr< AsuSm > asuSmFactory( const Kiv::Ptr< const Config > & pimConfig,
                                const Kiv::Ptr< AllStatus > & allStatus,
                                const Kiv::Ptr< Tolm::TimerWheel > & timerWheel,
                                const Kiv::Ptr< const McastCommon::AsuShutdownStatus > & asuShutdownStatus,
                                const Kiv::Ptr< McastCommon::AsuVrfStatus > & asuVrfStatus ) {
   return AsuSmIs( pimConfig, allStatus, timerWheel, asuShutdownStatus, asuVrfStatus );
}

} // namespace Routing::Pim

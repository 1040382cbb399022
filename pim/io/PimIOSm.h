#pragma once
// IOSm: the agent's side of the PIM I/O service for one VRF.
//
//  * It publishes, in the VRF's PIM status entry (Status.pimIntf), every PIM
//    interface of the VRF with the mode it runs: exactly the interfaces of
//    the VRF's AllStatus, however they came to be PIM interfaces
//    (configuration, an application's request, a border router without a
//    mode). Readers that need the set of PIM interfaces of a VRF, such as the
//    VXLAN feed, watch that collection.
//  * It counts, per PIM message type, every message that the transport puts
//    in one of the VRF's receive mailboxes and every message the agent hands
//    to the transmit mailbox, in the VRF's message-counter table. The
//    mailboxes are overwritten by the next message, so the counting reactors
//    are immediate: they run inside the count increment.
//
// The ACL, boundary, attribute-log, service-ACL, interface-directory and
// timer inputs are held for the socket layer's filters, which this build does
// not have: traffic is not filtered by them here.
#include <cstdint>

#include "kiv/EntityMacros.h"
#include "kiv/ReactorMap.h"
#include "model/PimConfig.h"
#include "model/PimStatus.h"
#include "services/intf/DeviceIntfStatus.h"
#include "services/ip/IpStatus.h"
#include "services/pimio/MessageInfo.h"
#include "status/PimVarnStatus.h"
#include "tolm/TimerWheel.h"
#include "kiv/OwnedReactor.h"

namespace Routing::Pim::IO {

struct IOSmArgs {
   Kiv::Ptr< PamManager > pamManager;
   Kiv::Ptr< Varn::MessageCounters > messageCounters;
   Kiv::Ptr< Status > pimStatus;
   // The VRF's PIM interfaces, as the configuration pipeline computed them.
   Kiv::Ptr< const AllStatus > allStatus;
   Kiv::Ptr< const ConfigColl > configColl;
   Kiv::Ptr< const IpGen::IntfStatus > intfStatus;
   Kiv::Ptr< const Kiv::Notifier > aclTypeConfig;
   Kiv::Ptr< const Interface::DeviceIntfStatusDir > kernelIntfStatusDir;
   Kiv::Ptr< const Kiv::Notifier > allIntfStatusDir;
   Kiv::Ptr< Kiv::Notifier > pimAttrLogSm;
   Kiv::Ptr< Kiv::Notifier > serviceAclFilterSm;
   Kiv::Ptr< Tolm::TimerWheel > timerWheel;
   Kiv::Ptr< const Kiv::Notifier > mcastBoundaryStatus;
};

class IOSm : public Kiv::StateMachine {
 public:
   // The PAM manager, the configuration and the IP interface status are
   // required ("null ValidPtr"). Without a PIM status entry or the VRF's
   // AllStatus nothing is published, without a counter table nothing is
   // counted (traced).
   explicit IOSm( const IOSmArgs & args );
   ~IOSm() override;

   const IOSmArgs & args() const { return args_; }

   // Recomputes one interface's entry in Status.pimIntf.
   void handlePimIntf( const Lumo::IntfId & intf );
   void handleAllPimIntf();
   // (Re)binds the counting reactor of one receive mailbox.
   void handleRxMessageInfo( std::uint8_t type );
   void handleRxCount( std::uint8_t type );
   void handleTxCount();

 private:
   class KivAllStatus : public Kiv::OwnedReactor< AllStatus::NotifieeConst, IOSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onPimIntf( const Lumo::IntfId & intf ) override { owner_->handlePimIntf( intf ); }
   };
   class KivIntf : public Kiv::KeyedReactor< Intf::NotifieeConst, IOSm, Lumo::IntfId > {
    public:
      using KeyedReactor::KeyedReactor;
      void onMode() override { owner_->handlePimIntf( key_ ); }
   };
   class KivPamManager : public Kiv::OwnedReactor< PamManager::NotifieeConst, IOSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onRxMessageInfo( const std::uint8_t & type ) override { owner_->handleRxMessageInfo( type ); }
   };
   class KivRxMessageInfo : public Kiv::KeyedReactor< MessageInfo::NotifieeConst, IOSm, std::uint8_t > {
    public:
      KivRxMessageInfo( IOSm * o, std::uint8_t type );
      void onCountkivImmediate() override { owner_->handleRxCount( key_ ); }
   };
   class KivTxMessageInfo : public Kiv::OwnedReactor< MessageInfo::NotifieeConst, IOSm > {
    public:
      explicit KivTxMessageInfo( IOSm * o );
      void onCountkivImmediate() override { owner_->handleTxCount(); }
   };

   IOSmArgs args_;
   KivAllStatus allStatus_;
   KivPamManager pamManager_;
   KivTxMessageInfo txMessageInfo_;
   // The VRF's PIM interfaces, watched for mode changes.
   Kiv::ReactorMap< Lumo::IntfId, KivIntf > intf_;
   Kiv::ReactorMap< std::uint8_t, KivRxMessageInfo > rxMessageInfo_;
};

Kiv::Ptr< IOSm > ioSmFactory( const IOSmArgs & args );

} // namespace Routing::Pim::IO

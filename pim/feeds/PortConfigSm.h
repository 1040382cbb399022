#pragma once
// Reliable::ConfigSm: follows the address of the interface configured as the
// source of PIM's reliable-transport connections (sctpSrcIntf of the VRF's
// configuration) and publishes it as the VRF's connection address. One per
// VRF, created by the VRF's container.
#include "kiv/EntityMacros.h"
#include "model/PimConfig.h"
#include "model/PimStatus.h"
#include "services/sourceintf/SourceIntf.h"
#include "kiv/OwnedReactor.h"

namespace Routing::Pim::Reliable {

class ConfigSm : public Kiv::StateMachine {
 public:
   // vrfSourceIntfSm is not counted: the container that owns both keeps the
   // registry alive while this machine runs. A null registry or status makes
   // the machine publish nothing it cannot follow.
   ConfigSm( const Kiv::Ptr< const Config > & pimConfig,
             IpGen::SourceIntf::VrfSourceIntfSm * vrfSourceIntfSm,
             const Kiv::Ptr< Status > & reliableStatus );
   ~ConfigSm() override;

   Kiv::Ptr< const Config > pimConfig() const { return pimConfig_.notifier(); }
   IpGen::SourceIntf::VrfSourceIntfSm * vrfSourceIntfSm() const { return vrfSourceIntfSm_; }
   const Kiv::Ptr< Status > & reliableStatus() const { return reliableStatus_; }
   const Kiv::Ptr< IpGen::SourceIntf::SourceIntf > & sourceIntfStatus() const {
      return sourceIntfStatus_;
   }
   L3::VrfName vrfName() const;

   // Binds the address reactor to the registered source interface.
   void sourceIntfStatusIs( const Kiv::Ptr< IpGen::SourceIntf::SourceIntf > & sourceIntf );
   // Drops it and republishes (the unspecified address).
   void sourceIntfStatusDel();

   void handleSctpSrcIntf();
   void handleAddrChange();
   void cleanupSourceIntf();

 private:
   class KivPimConfig : public Kiv::OwnedReactor< Config::NotifieeConst, ConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onSctpSrcIntf() override { owner_->handleSctpSrcIntf(); }
      void onNotifier() override { owner_->handleSctpSrcIntf(); }
   };
   class KivSourceIntfStatus : public Kiv::OwnedReactor< IpGen::SourceIntf::SourceIntf::NotifieeConst, ConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onIpAddr() override { owner_->handleAddrChange(); }
      void onNotifier() override { owner_->handleAddrChange(); }
   };

   KivPimConfig pimConfig_;
   IpGen::SourceIntf::VrfSourceIntfSm * vrfSourceIntfSm_;
   Kiv::Ptr< Status > reliableStatus_;
   Kiv::Ptr< IpGen::SourceIntf::SourceIntf > sourceIntfStatus_;
   KivSourceIntfStatus sourceIntfStatusReactor_;
};

Kiv::Ptr< ConfigSm > configSmFactory( const Kiv::Ptr< const Config > & pimConfig,
                                      IpGen::SourceIntf::VrfSourceIntfSm * vrfSourceIntfSm,
                                      const Kiv::Ptr< Status > & reliableStatus );

} // namespace Routing::Pim::Reliable

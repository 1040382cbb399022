#pragma once
// IntfSm: keeps one VRF's IP interface status (IntfStatus.intf) in step with
// the family's status, so that machines of the VRF can watch the VRF's
// interfaces one by one instead of every interface of every VRF.
//
// An interface is in intf while it has a status entry whose vrf is the
// VRF's. Changes reach the set on the next turn of the loop (the machine's
// reactors are deferred). When the machine goes, the set is emptied: nothing
// would keep it true any more.
#include "kiv/EntityMacros.h"
#include "kiv/ReactorMap.h"
#include "services/ip/IpStatus.h"
#include "kiv/OwnedReactor.h"

namespace IpGen {

class IntfSm : public Kiv::StateMachine {
 public:
   // intfStatus is required ("null ValidPtr").
   explicit IntfSm( const Kiv::Ptr< IntfStatus > & intfStatus );
   ~IntfSm() override;

   const Kiv::Ptr< IntfStatus > & intfStatus() const { return intfStatus_; }

   // Recomputes one interface's membership.
   void handleIntf( const Lumo::IntfId & intf );
   // Recomputes every interface's membership (start-up).
   void handleAllIntf();

 private:
   class KivStatus : public Kiv::OwnedReactor< Status::NotifieeConst, IntfSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onIntfStatus( const Lumo::IntfId & intf ) override { owner_->handleIntf( intf ); }
   };
   // One per interface of the status, whatever its VRF: an interface may
   // move into this VRF at any time.
   class KivIpIntfStatus : public Kiv::KeyedReactor< IpIntfStatus::NotifieeConst, IntfSm, Lumo::IntfId > {
    public:
      using KeyedReactor::KeyedReactor;
      void onVrf() override { owner_->handleIntf( key_ ); }
   };

   Kiv::Ptr< IntfStatus > intfStatus_;
   KivStatus status_;
   Kiv::ReactorMap< Lumo::IntfId, KivIpIntfStatus > ipIntfStatus_;
};

Kiv::Ptr< IntfSm > intfSmFactory( const Kiv::Ptr< IntfStatus > & intfStatus );

} // namespace IpGen

#pragma once
// VxlanStatusSm: publishes which PIM interfaces of the default VRF are VLAN
// interfaces whose VLAN is bridged into a VXLAN segment. vxlanIntf of the
// multicast VXLAN status holds exactly the interfaces that are (a) VLAN
// interfaces, (b) PIM interfaces of the default VRF and (c) mapped to a VNI
// other than the none value.
#include <cstdint>

#include "kiv/EntityMacros.h"
#include "model/PimStatus.h"
#include "services/mcast/Multicast.h"
#include "kiv/OwnedReactor.h"

namespace Routing::Pim {

class VxlanStatusSm : public Kiv::StateMachine {
 public:
   // Any input may be null: a missing map or PIM status qualifies nothing,
   // a missing output makes the machine inert.
   VxlanStatusSm( const Kiv::Ptr< const ::Vxlan::EnabledStatus > & vxlanEnabledStatus,
                  const Kiv::Ptr< const Status > & pimStatus,
                  const Kiv::Ptr< Multicast::Vxlan::Status > & mcastVxlanStatus );
   ~VxlanStatusSm() override;

   Kiv::Ptr< const ::Vxlan::EnabledStatus > vxlanEnabledStatus() const {
      return vxlanEnabledStatus_.notifier();
   }
   Kiv::Ptr< const Status > pimStatus() const { return pimStatus_.notifier(); }
   const Kiv::Ptr< Multicast::Vxlan::Status > & mcastVxlanStatus() const { return mcastVxlanStatus_; }

   void handleVlanId( std::uint32_t vlanId );
   void handleVlanId();
   void handlePimIntf( const Lumo::IntfId & intfId );
   void handlePimIntf();

 private:
   class KivVxlanEnabledStatus : public Kiv::OwnedReactor< ::Vxlan::EnabledStatus::NotifieeConst, VxlanStatusSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onVlanToVniMap( const std::uint32_t & vlanId ) override { owner_->handleVlanId( vlanId ); }
   };
   class KivPimStatus : public Kiv::OwnedReactor< Status::NotifieeConst, VxlanStatusSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onPimIntf( const Lumo::IntfId & intfId ) override { owner_->handlePimIntf( intfId ); }
      void onPimIntfkivImmediate( const Lumo::IntfId & ) override {}
   };

   // The VLAN maps to a VNI (an entry that is not the none value).
   bool vlanMapped( std::uint32_t vlanId ) const;
   bool isPimIntf( const Lumo::IntfId & intfId ) const;

   KivVxlanEnabledStatus vxlanEnabledStatus_;
   KivPimStatus pimStatus_;
   Kiv::Ptr< Multicast::Vxlan::Status > mcastVxlanStatus_;
};

Kiv::Ptr< VxlanStatusSm > VxlanStatusSmIs(
   const Kiv::Ptr< const ::Vxlan::EnabledStatus > & vxlanEnabledStatus,
   const Kiv::Ptr< const Status > & pimStatus,
   const Kiv::Ptr< Multicast::Vxlan::Status > & mcastVxlanStatus );

} // namespace Routing::Pim

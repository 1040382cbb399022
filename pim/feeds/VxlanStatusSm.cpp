#include "feeds/VxlanStatusSm.h"

#include <string>

namespace Routing::Pim {

VxlanStatusSm::VxlanStatusSm( const Kiv::Ptr< const ::Vxlan::EnabledStatus > & vxlanEnabledStatus,
                              const Kiv::Ptr< const Status > & pimStatus,
                              const Kiv::Ptr< Multicast::Vxlan::Status > & mcastVxlanStatus )
      : vxlanEnabledStatus_( this ), pimStatus_( this ), mcastVxlanStatus_( mcastVxlanStatus ) {
   vxlanEnabledStatus_.kivOwnerIs( this );
   pimStatus_.kivOwnerIs( this );
   if( vxlanEnabledStatus ) vxlanEnabledStatus_.notifierIs( vxlanEnabledStatus );
   if( pimStatus ) pimStatus_.notifierIs( pimStatus );
   // VLANs already mapped are picked up through their PIM interfaces.
   handlePimIntf();
}

VxlanStatusSm::~VxlanStatusSm() {
   kivDoZombieReactors( true );
}

bool VxlanStatusSm::vlanMapped( std::uint32_t vlanId ) const {
   const Kiv::Ptr< const ::Vxlan::EnabledStatus > map = vxlanEnabledStatus_.notifier();
   if( !map || !map->vlanToVniMapHas( vlanId ) ) return false;
   return !map->vlanToVniMap( vlanId ).isNone();
}

bool VxlanStatusSm::isPimIntf( const Lumo::IntfId & intfId ) const {
   const Kiv::Ptr< const Status > status = pimStatus_.notifier();
   return status && status->pimIntfHas( intfId );
}

void VxlanStatusSm::handleVlanId( std::uint32_t vlanId ) {
   if( !mcastVxlanStatus_ ) return;
   const Lumo::IntfId intf( "Vlan" + std::to_string( vlanId ) );
   if( vlanMapped( vlanId ) && isPimIntf( intf ) ) {
      mcastVxlanStatus_->vxlanIntfIs( intf, true );
   } else {
      mcastVxlanStatus_->vxlanIntfDel( intf );
   }
}

void VxlanStatusSm::handleVlanId() {
   if( !mcastVxlanStatus_ ) return;
   for( auto it = mcastVxlanStatus_->vxlanIntfIter(); it; ++it ) {
      const Lumo::IntfId intf = it.key();
      if( !vlanMapped( intf.vlanId() & 0xFFFFu ) ) mcastVxlanStatus_->vxlanIntfDel( intf );
   }
   const Kiv::Ptr< const ::Vxlan::EnabledStatus > map = vxlanEnabledStatus_.notifier();
   if( !map ) return;
   for( auto it = map->vlanToVniMapIter(); it; ++it ) handleVlanId( it.key() );
}

void VxlanStatusSm::handlePimIntf( const Lumo::IntfId & intfId ) {
   if( !mcastVxlanStatus_ ) return;
   if( isPimIntf( intfId ) && intfId.isVlan() && vlanMapped( intfId.vlanId() ) ) {
      mcastVxlanStatus_->vxlanIntfIs( intfId, true );
   } else {
      mcastVxlanStatus_->vxlanIntfDel( intfId );
   }
}

void VxlanStatusSm::handlePimIntf() {
   if( !mcastVxlanStatus_ ) return;
   for( auto it = mcastVxlanStatus_->vxlanIntfIter(); it; ++it ) {
      const Lumo::IntfId intf = it.key();
      if( !isPimIntf( intf ) ) mcastVxlanStatus_->vxlanIntfDel( intf );
   }
   const Kiv::Ptr< const Status > status = pimStatus_.notifier();
   if( !status ) return;
   for( auto it = status->pimIntfIter(); it; ++it ) handlePimIntf( it.key() );
}

Kiv::Ptr< VxlanStatusSm > VxlanStatusSmIs(
   const Kiv::Ptr< const ::Vxlan::EnabledStatus > & vxlanEnabledStatus,
   const Kiv::Ptr< const Status > & pimStatus,
   const Kiv::Ptr< Multicast::Vxlan::Status > & mcastVxlanStatus ) {
   return Kiv::make< VxlanStatusSm >( vxlanEnabledStatus, pimStatus, mcastVxlanStatus );
}

} // namespace Routing::Pim

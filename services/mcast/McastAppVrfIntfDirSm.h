#pragma once
// McastCommon::McastAppVrfIntfDirSm: an application's view of the interfaces
// that multicast routing has set up for it, per VRF.
//
// The application's directory ("multicastIntfs/application/pim") holds, per
// VRF, an McastCommon::AppVrfIntfStatus written by the multicast routing
// service (entries of other types, such as the application's own requests,
// are not looked at). The machine mirrors each into the application's
// AppVrfIntfs (vrfIntf(vrf).intfs) while multicast routing is enabled for the
// VRF in the FIB configuration, and removes the VRF's collection otherwise.
#include "kiv/Entity.h"
#include "kiv/ReactorMap.h"
#include "lumo/VrfName.h"
#include "services/mcast/Multicast.h"
#include "kiv/OwnedReactor.h"

namespace McastCommon {

#define MCAST_APP_VRF_INTF_STATUS_ATTRS( X ) X( SET, intf, Intf, Lumo::IntfId )

// Named by its VRF.
class AppVrfIntfStatus : public Kiv::Entity {
 public:
   explicit AppVrfIntfStatus( const Kiv::Name & name = Kiv::Name() ) : Kiv::Entity( name ) {}
   const char * typeName() const override { return "McastCommon::AppVrfIntfStatus"; }
   KIV_ENTITY( AppVrfIntfStatus, "McastCommon::AppVrfIntfStatus", MCAST_APP_VRF_INTF_STATUS_ATTRS )
};
KIV_NOTIFIEE( AppVrfIntfStatus, MCAST_APP_VRF_INTF_STATUS_ATTRS )

class McastAppVrfIntfDirSm : public Kiv::StateMachine {
 public:
   // appVrfIntfs is required ("null ValidPtr").
   McastAppVrfIntfDirSm( const Kiv::Ptr< const Kiv::Dir > & dir, const Kiv::Ptr< AppVrfIntfs > & appVrfIntfs,
                         const Kiv::Ptr< const Routing::Multicast::Fib::VrfConfig > & vrfConfig );
   ~McastAppVrfIntfDirSm() override;

   // Brings one VRF's collection in line (entry and enablement).
   void handleVrf( const L3::VrfName & vrf );
   void handleIntf( const L3::VrfName & vrf, const Lumo::IntfId & intf );

 private:
   class KivDir : public Kiv::OwnedReactor< Kiv::Dir::NotifieeConst, McastAppVrfIntfDirSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onEntityPtr( const Kiv::Name & n ) override { owner_->handleVrf( L3::VrfName( n.str() ) ); }
   };
   class KivVrfConfig : public Kiv::OwnedReactor< Routing::Multicast::Fib::VrfConfig::NotifieeConst, McastAppVrfIntfDirSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onRoutingEnabledVrf( const L3::VrfName & v ) override { owner_->handleVrf( v ); }
   };
   class KivEntry : public Kiv::KeyedReactor< AppVrfIntfStatus::NotifieeConst, McastAppVrfIntfDirSm, L3::VrfName > {
    public:
      using KeyedReactor::KeyedReactor;
      void onIntf( const Lumo::IntfId & i ) override { owner_->handleIntf( key_, i ); }
   };
   Kiv::Ptr< const AppVrfIntfStatus > entry( const L3::VrfName & vrf ) const;
   bool enabled( const L3::VrfName & vrf ) const;

   Kiv::Ptr< const Kiv::Dir > dir_;
   Kiv::Ptr< AppVrfIntfs > appVrfIntfs_;
   Kiv::Ptr< const Routing::Multicast::Fib::VrfConfig > vrfConfig_;
   KivDir dirReactor_;
   KivVrfConfig vrfConfigReactor_;
   Kiv::ReactorMap< L3::VrfName, KivEntry > entries_;
};

} // namespace McastCommon

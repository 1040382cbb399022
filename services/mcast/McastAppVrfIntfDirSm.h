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
   class KivDir : public Kiv::Dir::NotifieeConst {
    public:
      explicit KivDir( McastAppVrfIntfDirSm * o ) : owner_( o ) {}
      void onEntityPtr( const Kiv::Name & n ) override { owner_->handleVrf( L3::VrfName( n.str() ) ); }
    private:
      McastAppVrfIntfDirSm * owner_;
   };
   class KivVrfConfig : public Routing::Multicast::Fib::VrfConfig::NotifieeConst {
    public:
      explicit KivVrfConfig( McastAppVrfIntfDirSm * o ) : owner_( o ) {}
      void onRoutingEnabledVrf( const L3::VrfName & v ) override { owner_->handleVrf( v ); }
    private:
      McastAppVrfIntfDirSm * owner_;
   };
   class KivEntry : public AppVrfIntfStatus::NotifieeConst {
    public:
      KivEntry( McastAppVrfIntfDirSm * o, const L3::VrfName & vrf ) : owner_( o ), vrf_( vrf ) {}
      void onIntf( const Lumo::IntfId & i ) override { owner_->handleIntf( vrf_, i ); }
    private:
      McastAppVrfIntfDirSm * owner_;
      L3::VrfName vrf_;
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

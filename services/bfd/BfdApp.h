#pragma once
// The BFD service's global session states, and the per-application machine
// that projects them onto one application's status.
#include <memory>
#include <string>

#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"
#include "lumo/VrfName.h"
#include "services/bfd/Bfd.h"
#include "kiv/OwnedReactor.h"

namespace Bfd {

// Every BFD session of the system and its state ("bfd/status/peer").
#define BFD_STATUS_PEER_ATTRS( X ) \
   X( COLL, peerStatus, PeerStatus, Peer, OperState )

class StatusPeer : public Kiv::Entity {
 public:
   explicit StatusPeer( const Kiv::Name & name = Kiv::Name() );
   const char * typeName() const override;
   KIV_ENTITY( StatusPeer, "Bfd::StatusPeer", BFD_STATUS_PEER_ATTRS )
   static const char * mountPath() { return "bfd/status/peer"; }
};
KIV_NOTIFIEE( StatusPeer, BFD_STATUS_PEER_ATTRS )

// Keeps appStatus.peerStatus equal to the peers that appConfig asks for in
// this VRF, each with its state in statusPeer (Down while the service does
// not know it). Existing AppStatus entries are updated in place, so reactors
// bound to them survive state changes.
class BfdAppSm : public Kiv::StateMachine {
 public:
   // appStatus is required ("null ValidPtr"); statusPeer and appConfig may be
   // null (no sessions known / none asked for).
   BfdAppSm( const std::string & appName, const Kiv::Ptr< const StatusPeer > & statusPeer,
             const Kiv::Ptr< AppStatus > & appStatus, const L3::VrfName & vrf,
             const Kiv::Ptr< const AppConfig > & appConfig );
   ~BfdAppSm() override;

   const std::string & appName() const { return appName_; }
   const L3::VrfName & vrf() const { return vrf_; }
   const Kiv::Ptr< AppStatus > & appStatus() const { return appStatus_; }

   // Brings one peer's AppStatus entry in line.
   void handlePeer( const Peer & peer );
   // Brings every entry in line.
   void handleAll();

 private:
   class KivStatusPeer : public Kiv::OwnedReactor< StatusPeer::NotifieeConst, BfdAppSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onPeerStatus( const Peer & p ) override { owner_->handlePeer( p ); }
      void onNotifier() override { owner_->handleAll(); }
   };
   class KivAppConfig : public Kiv::OwnedReactor< AppConfig::NotifieeConst, BfdAppSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onPeerConfig( const Peer & p ) override { owner_->handlePeer( p ); }
      void onNotifier() override { owner_->handleAll(); }
   };

   const std::string appName_;
   const L3::VrfName vrf_;
   Kiv::Ptr< AppStatus > appStatus_;
   KivStatusPeer statusPeer_;
   KivAppConfig appConfig_;
};

Kiv::Ptr< BfdAppSm > bfdAppSmFactory( const std::string & appName,
                                      const Kiv::Ptr< const StatusPeer > & statusPeer,
                                      const Kiv::Ptr< AppStatus > & appStatus,
                                      const L3::VrfName & vrf,
                                      const Kiv::Ptr< const AppConfig > & appConfig );

} // namespace Bfd

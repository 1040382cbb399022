#pragma once
// The VRFs the IP layer has set up on this supervisor, with the network
// namespace each one lives in ("ip/vrf/status/local").
#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"
#include "lumo/NamespaceName.h"
#include "lumo/VrfName.h"

namespace Ip {

#define IP_VRF_STATUS_LOCAL_ATTRS( X ) \
   X( SCALAR, namespaceName, NamespaceName, Lumo::NamespaceName, {} )

class VrfStatusLocal : public Kiv::Notifier {
 public:
   explicit VrfStatusLocal( const L3::VrfName & vrfName,
                            const Lumo::NamespaceName & ns = Lumo::NamespaceName() )
         : vrfName_( vrfName ) {
      namespaceName_ = ns;
   }
   const L3::VrfName & vrfName() const { return vrfName_; }
   KIV_ENTITY( VrfStatusLocal, "Ip::VrfStatusLocal", IP_VRF_STATUS_LOCAL_ATTRS )
 private:
   const L3::VrfName vrfName_;
};
KIV_NOTIFIEE( VrfStatusLocal, IP_VRF_STATUS_LOCAL_ATTRS )

#define IP_ALL_VRF_STATUS_LOCAL_ATTRS( X ) \
   X( ENTITIES, vrf, Vrf, L3::VrfName, VrfStatusLocal )

class AllVrfStatusLocal : public Kiv::Entity {
 public:
   explicit AllVrfStatusLocal( const Kiv::Name & name = Kiv::Name() );
   const char * typeName() const override;
   KIV_ENTITY( AllVrfStatusLocal, "Ip::AllVrfStatusLocal", IP_ALL_VRF_STATUS_LOCAL_ATTRS )
   static const char * mountPath() { return "ip/vrf/status/local"; }
};
KIV_NOTIFIEE( AllVrfStatusLocal, IP_ALL_VRF_STATUS_LOCAL_ATTRS )

} // namespace Ip

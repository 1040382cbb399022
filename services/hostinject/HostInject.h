#pragma once
// Multicast attached-host injection configuration: the interfaces on which
// directly connected sources are injected, each with a preference.
#include <cstdint>

#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"
#include "lumo/AddressFamily.h"
#include "lumo/IntfId.h"

namespace HostInject {

#define HOST_INJECT_INTF_CONFIG_ATTRS( X ) \
   X( SCALAR, pref, Pref, std::uint32_t, 0 )

class HostInjectIntfConfig : public Kiv::Notifier {
 public:
   explicit HostInjectIntfConfig( const Lumo::IntfId & intfId, std::uint32_t pref = 0 )
         : intfId_( intfId ) {
      pref_ = pref;
   }
   const Lumo::IntfId & intfId() const { return intfId_; }
   KIV_ENTITY( HostInjectIntfConfig, "HostInject::HostInjectIntfConfig",
               HOST_INJECT_INTF_CONFIG_ATTRS )
 private:
   const Lumo::IntfId intfId_;
};
KIV_NOTIFIEE( HostInjectIntfConfig, HOST_INJECT_INTF_CONFIG_ATTRS )

#define HOST_INJECT_CONFIG_ATTRS( X ) \
   X( ENTITIES, config, Config, Lumo::IntfId, HostInjectIntfConfig )

class HostInjectConfig : public Kiv::Entity {
 public:
   explicit HostInjectConfig( const Kiv::Name & name = Kiv::Name() );
   const char * typeName() const override;
   KIV_ENTITY( HostInjectConfig, "HostInject::HostInjectConfig", HOST_INJECT_CONFIG_ATTRS )
   // "routing/attached-host/mcast/config", "routing6/..." for IPv6.
   static const char * mountPath( Lumo::AddressFamily af );
};
KIV_NOTIFIEE( HostInjectConfig, HOST_INJECT_CONFIG_ATTRS )

} // namespace HostInject

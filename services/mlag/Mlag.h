#pragma once
// The MLAG protocol status as routing agents need it.
#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"

namespace Mlag {

#define MLAG_PROTO_STATUS_ATTRS( X ) \
   X( SCALAR, portsErrdisabled, PortsErrdisabled, bool, false )

class ProtoStatus : public Kiv::Entity {
 public:
   explicit ProtoStatus( const Kiv::Name & name = Kiv::Name() );
   const char * typeName() const override;
   KIV_ENTITY( ProtoStatus, "Mlag::ProtoStatus", MLAG_PROTO_STATUS_ATTRS )
   static const char * mountPath() { return "mlag/proto"; }
};
KIV_NOTIFIEE( ProtoStatus, MLAG_PROTO_STATUS_ATTRS )

} // namespace Mlag

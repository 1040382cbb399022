#pragma once
// Multicast boundaries: per interface, the group prefixes that may not cross
// it ("routing/mcastboundary/status"), as the boundary service publishes them.
#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"
#include "lumo/IntfId.h"
#include "lumo/IpGenPrefix.h"

namespace Routing::McastBoundary {

struct IntfPrefix {
   Lumo::IntfId intf;
   Lumo::IpGenPrefix prefix;
   bool operator==( const IntfPrefix & ) const = default;
};

} // namespace Routing::McastBoundary

template<>
struct std::hash< Routing::McastBoundary::IntfPrefix > {
   std::size_t operator()( const Routing::McastBoundary::IntfPrefix & p ) const noexcept {
      return p.intf.hash() * 0x9E3779B97F4A7C15ull + std::hash< Lumo::IpGenPrefix >()( p.prefix );
   }
};

namespace Routing::McastBoundary {

#define MCAST_BOUNDARY_STATUS_ATTRS( X ) X( SET, boundary, Boundary, IntfPrefix )

class Status : public Kiv::Entity {
 public:
   explicit Status( const Kiv::Name & n = Kiv::Name() ) : Kiv::Entity( n ) {}
   const char * typeName() const override { return "Routing::McastBoundary::Status"; }
   KIV_ENTITY( Status, "Routing::McastBoundary::Status", MCAST_BOUNDARY_STATUS_ATTRS )
};
KIV_NOTIFIEE( Status, MCAST_BOUNDARY_STATUS_ATTRS )

} // namespace Routing::McastBoundary

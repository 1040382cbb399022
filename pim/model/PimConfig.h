#pragma once
// Configuration entities: written by other agents (command line, IP, VRF,
// MLAG, applications) and read-only for the PIM agent.
#include <cstdint>
#include <string>

#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"
#include "lumo/AddressFamily.h"
#include "lumo/IntfId.h"
#include "lumo/VrfName.h"
#include "model/PimTypes.h"

namespace Routing::Pim {

enum IntfBfd : std::uint8_t {
   intfBfdDefault = 0,   // follow the VRF's bfdIntfDefault
   intfBfdEnabled = 1,
   intfBfdDisabled = 2,
};

// propagationDelay and overrideInterval (ms) are the LAN prune delay that the
// router advertises on the interface.
#define PIM_INTF_CONFIG_ATTRS( X )                                                     \
   X( SCALAR, mode, Mode, Mode, pimModeNone )                                          \
   X( SCALAR, borderRouter, BorderRouter, bool, false )                                \
   X( SCALAR, helloInterval, HelloInterval, std::uint16_t, 30 )                        \
   X( SCALAR, helloCount, HelloCount, double, 3.5 )                                    \
   X( SCALAR, helloPriority, HelloPriority, std::uint32_t, 1 )                         \
   X( SCALAR, joinPruneInterval, JoinPruneInterval, std::uint16_t, 60 )                \
   X( SCALAR, joinPruneCount, JoinPruneCount, double, 3.5 )                            \
   X( SCALAR, bfd, Bfd, IntfBfd, intfBfdDefault )                                      \
   X( SCALAR, portCapabilityFlags, PortCapabilityFlags, Reliable::CapabilityFlags, 0 ) \
   X( SCALAR, fastFailover, FastFailover, bool, false )                                \
   X( SCALAR, propagationDelay, PropagationDelay, std::uint16_t, kPropagationDelayDefault ) \
   X( SCALAR, overrideInterval, OverrideInterval, std::uint16_t, kOverrideIntervalDefault ) \
   X( SCALAR, neighborLimit, NeighborLimit, std::uint32_t, kIntfNeighborLimitDefault )

class IntfConfig : public Kiv::Notifier {
 public:
   explicit IntfConfig( const Lumo::IntfId & id ) : id_( id ) {}
   const Lumo::IntfId & id() const { return id_; }
   KIV_ENTITY( IntfConfig, "Routing::Pim::IntfConfig", PIM_INTF_CONFIG_ATTRS )
 private:
   const Lumo::IntfId id_;
};
KIV_NOTIFIEE( IntfConfig, PIM_INTF_CONFIG_ATTRS )

// Per-VRF configuration; its presence makes the VRF known to PIM.
#define PIM_CONFIG_ATTRS( X )                                                \
   X( SCALAR, pimConfigured, PimConfigured, bool, false )                    \
   X( SCALAR, bfdIntfDefault, BfdIntfDefault, bool, false )                  \
   X( SCALAR, sctpSrcIntf, SctpSrcIntf, Lumo::IntfId, {} )                   \
   X( SCALAR, neighborChangeLog, NeighborChangeLog, bool, false )            \
   X( SCALAR, neighborLimit, NeighborLimit, std::uint32_t, kVrfNeighborLimitDefault )

class Config : public Kiv::Notifier {
 public:
   explicit Config( const L3::VrfName & vrfName ) : vrfName_( vrfName ) {}
   const L3::VrfName & vrfName() const { return vrfName_; }
   KIV_ENTITY( Config, "Routing::Pim::Config", PIM_CONFIG_ATTRS )
 private:
   const L3::VrfName vrfName_;
};
KIV_NOTIFIEE( Config, PIM_CONFIG_ATTRS )

#define PIM_GLOBAL_CONFIG_ATTRS( X ) \
   X( SCALAR, drDelay, DrDelay, std::uint16_t, 0 )

class GlobalConfig : public Kiv::Notifier {
 public:
   GlobalConfig() = default;
   KIV_ENTITY( GlobalConfig, "Routing::Pim::GlobalConfig", PIM_GLOBAL_CONFIG_ATTRS )
};
KIV_NOTIFIEE( GlobalConfig, PIM_GLOBAL_CONFIG_ATTRS )

#define PIM_CONFIG_COLL_ATTRS( X )                                       \
   X( ENTITIES, intfConfig, IntfConfig, Lumo::IntfId, IntfConfig )       \
   X( ENTITIES, vrfConfig, VrfConfig, L3::VrfName, Config )              \
   X( PTR, globalConfig, GlobalConfig, GlobalConfig )

class ConfigColl : public Kiv::Notifier {
 public:
   ConfigColl() { globalConfig_ = Kiv::make< GlobalConfig >(); }
   KIV_ENTITY( ConfigColl, "Routing::Pim::ConfigColl", PIM_CONFIG_COLL_ATTRS )
};
KIV_NOTIFIEE( ConfigColl, PIM_CONFIG_COLL_ATTRS )

// ---- clear commands -------------------------------------------------------------
// Request counters: each bump is one request. neighborsCount drops every
// neighbour of the VRF; intfNeighborsCount those of one interface.
#define PIM_CLEAR_CONFIG_ATTRS( X )                                       \
   X( COUNTER, countersCount, CountersCount, std::uint32_t )              \
   X( COUNTER, neighborsCount, NeighborsCount, std::uint32_t )            \
   X( COLL, intfNeighborsCount, IntfNeighborsCount, Lumo::IntfId, std::uint32_t )

class ClearConfig : public Kiv::Notifier {
 public:
   explicit ClearConfig( const L3::VrfName & vrfName ) : vrfName_( vrfName ) {}
   const L3::VrfName & vrfName() const { return vrfName_; }
   KIV_ENTITY( ClearConfig, "Routing::Pim::ClearConfig", PIM_CLEAR_CONFIG_ATTRS )
 private:
   const L3::VrfName vrfName_;
};
KIV_NOTIFIEE( ClearConfig, PIM_CLEAR_CONFIG_ATTRS )

#define PIM_CLEAR_CONFIG_COLL_ATTRS( X ) \
   X( ENTITIES, vrfClearConfig, VrfClearConfig, L3::VrfName, ClearConfig )

class ClearConfigColl : public Kiv::Notifier {
 public:
   ClearConfigColl() = default;
   KIV_ENTITY( ClearConfigColl, "Routing::Pim::ClearConfigColl", PIM_CLEAR_CONFIG_COLL_ATTRS )
};
KIV_NOTIFIEE( ClearConfigColl, PIM_CLEAR_CONFIG_COLL_ATTRS )

// Request flags of a clear-multicast-routes request that this agent acts on.
inline constexpr std::uint8_t kClearMrouteSparseMode = 1u << 0;
inline constexpr std::uint8_t kClearMrouteAll = 1u << 1;
inline constexpr std::uint8_t kClearMroutePim = 1u << 3;

#define PIM_CLEAR_MROUTE_CONFIG_ATTRS( X )                   \
   X( COUNTER, routesCount, RoutesCount, std::uint32_t )     \
   X( SCALAR, requestFlags, RequestFlags, std::uint8_t, 0 )

class ClearMrouteConfig : public Kiv::Notifier {
 public:
   explicit ClearMrouteConfig( const L3::VrfName & vrfName ) : vrfName_( vrfName ) {}
   const L3::VrfName & vrfName() const { return vrfName_; }
   KIV_ENTITY( ClearMrouteConfig, "Routing::Pim::ClearMrouteConfig", PIM_CLEAR_MROUTE_CONFIG_ATTRS )
 private:
   const L3::VrfName vrfName_;
};
KIV_NOTIFIEE( ClearMrouteConfig, PIM_CLEAR_MROUTE_CONFIG_ATTRS )

#define PIM_CLEAR_MROUTE_CONFIG_COLL_ATTRS( X ) \
   X( ENTITIES, vrfClearMrouteConfig, VrfClearMrouteConfig, L3::VrfName, ClearMrouteConfig )

class ClearMrouteConfigColl : public Kiv::Notifier {
 public:
   ClearMrouteConfigColl() = default;
   static std::string mountPath( Lumo::AddressFamily af, const std::string & name ) {
      return std::string( af == Lumo::AddressFamily::ipv6 ? "routing6" : "routing" ) +
             "/multicast/clear/" + name;
   }
   KIV_ENTITY( ClearMrouteConfigColl, "Routing::Pim::ClearMrouteConfigColl",
               PIM_CLEAR_MROUTE_CONFIG_COLL_ATTRS )
};
KIV_NOTIFIEE( ClearMrouteConfigColl, PIM_CLEAR_MROUTE_CONFIG_COLL_ATTRS )

// ---- application requests -------------------------------------------------------
namespace Application {

#define PIM_APPLICATION_CONFIG_ATTRS( X ) \
   X( COLL, intfMode, IntfMode, std::string, Mode )

// One application's requests; it lives in the application directory under
// the application's name.
class Config : public Kiv::Entity {
 public:
   explicit Config( const Kiv::Name & name ) : Kiv::Entity( name ) {}
   const char * typeName() const override { return "Routing::Pim::Application::Config"; }
   KIV_ENTITY( Config, "Routing::Pim::Application::Config", PIM_APPLICATION_CONFIG_ATTRS )
};
KIV_NOTIFIEE( Config, PIM_APPLICATION_CONFIG_ATTRS )

} // namespace Application
} // namespace Routing::Pim

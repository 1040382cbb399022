#pragma once
// The PIM status entities through which the Hello engine, the configuration
// pipeline and the status writer talk to one another.
#include <cstdint>
#include <string>

#include "kiv/EntityMacros.h"
#include "lumo/AddressFamily.h"
#include "lumo/IntfId.h"
#include "lumo/IpGenAddr.h"
#include "lumo/IpGenAddrWithMask.h"
#include "lumo/IpGenPrefix.h"
#include "lumo/VrfName.h"
#include "model/PimTypes.h"
#include "services/bfd/Bfd.h"

namespace Routing::Pim {

// ---- Neighbor ---------------------------------------------------------------
#define PIM_NEIGHBOR_ATTRS( X )                                                  \
   X( SCALAR, creationTime, CreationTime, double, 0.0 )                          \
   X( SCALAR, lastRefreshTime, LastRefreshTime, double, 0.0 )                    \
   X( SCALAR, holdTime, HoldTime, std::uint16_t, 0 )                             \
   X( SCALAR, drPriorityOption, DrPriorityOption, DrPriorityOption, {} )         \
   X( SCALAR, generationIdOption, GenerationIdOption, GenerationIdOption, {} )   \
   X( SCALAR, lanPruneDelayOption, LanPruneDelayOption, LanPruneDelayOption, {} ) \
   X( SET, secondaryAddress, SecondaryAddress, Lumo::IpGenAddr )                 \
   X( SCALAR, bfdState, BfdState, Bfd::OperState, Bfd::operDown )                \
   X( SCALAR, portInfo, PortInfo, Reliable::NeighborInfo, {} )                   \
   X( SCALAR, transportProtocol, TransportProtocol, Reliable::Protocol,          \
      Reliable::protocolDatagram )

class Neighbor : public Kiv::Notifier {
 public:
   Neighbor( const Lumo::IpGenAddr & address, const Lumo::IntfId & intfId, std::uint16_t holdTime,
             const DrPriorityOption & dr, const GenerationIdOption & genId,
             const LanPruneDelayOption & lpd )
         : address_( address ), intfId_( intfId ) {
      holdTime_ = holdTime;
      drPriorityOption_ = dr;
      generationIdOption_ = genId;
      lanPruneDelayOption_ = lpd;
   }
   const Lumo::IpGenAddr & address() const { return address_; }
   const Lumo::IntfId & intfId() const { return intfId_; }
   KIV_ENTITY( Neighbor, "Routing::Pim::Neighbor", PIM_NEIGHBOR_ATTRS )
 private:
   const Lumo::IpGenAddr address_;
   const Lumo::IntfId intfId_;
};
KIV_NOTIFIEE( Neighbor, PIM_NEIGHBOR_ATTRS )

// ---- Intf ---------------------------------------------------------------------
#define PIM_INTF_ATTRS( X )                                                            \
   X( SCALAR, enabled, Enabled, bool, true )                                           \
   X( SCALAR, mode, Mode, Mode, pimModeNone )                                          \
   X( SCALAR, addressWithMask, AddressWithMask, Lumo::IpGenAddrWithMask, {} )          \
   X( SCALAR, usedAddressWithMask, UsedAddressWithMask, Lumo::IpGenAddrWithMask, {} )  \
   X( SET, secondaryAddress, SecondaryAddress, Lumo::IpGenAddr )                       \
   X( SET, secondaryPrefix, SecondaryPrefix, Lumo::IpGenPrefix )                       \
   X( SCALAR, helloPeriod, HelloPeriod, std::uint16_t, 30 )                            \
   X( SCALAR, helloHoldTime, HelloHoldTime, std::uint16_t, 105 )                       \
   X( SCALAR, helloDelay, HelloDelay, std::uint32_t, 1 )                               \
   X( SCALAR, drPriority, DrPriority, std::uint32_t, 1 )                               \
   X( SCALAR, generationId, GenerationId, std::uint32_t, 0 )                           \
   X( SCALAR, joinPrunePeriod, JoinPrunePeriod, std::uint16_t, 60 )                    \
   X( SCALAR, joinPruneHoldTime, JoinPruneHoldTime, std::uint16_t, 210 )               \
   X( SCALAR, bfdEnabled, BfdEnabled, bool, false )                                    \
   X( SCALAR, borderRouter, BorderRouter, bool, false )                                \
   X( SCALAR, fastFailover, FastFailover, bool, false )                                \
   X( SCALAR, sourceInject, SourceInject, bool, false )                                \
   X( SCALAR, portCapabilityFlags, PortCapabilityFlags, Reliable::CapabilityFlags, 0 ) \
   X( SCALAR, portInterfaceId, PortInterfaceId, Reliable::InterfaceId, {} )            \
   X( ENTITIES, neighbor, Neighbor, Lumo::IpGenAddr, Neighbor )                        \
   X( REFS, activeNeighbor, ActiveNeighbor, Lumo::IpGenAddr, Neighbor, address )       \
   X( REFS, inactiveBfdNeighbor, InactiveBfdNeighbor, Lumo::IpGenAddr, Neighbor, address ) \
   X( COLL, nbSecondaryAddress, NbSecondaryAddress, Lumo::IpGenAddr, Lumo::IpGenAddr ) \
   X( SCALAR, usedDr, UsedDr, Lumo::IpGenAddr, {} )                                    \
   X( SCALAR, usedDrPriority, UsedDrPriority, std::uint32_t, 0 )                       \
   X( SCALAR, usedPropagationDelay, UsedPropagationDelay, std::uint16_t, kPropagationDelayDefault ) \
   X( SCALAR, usedOverrideInterval, UsedOverrideInterval, std::uint16_t, kOverrideIntervalDefault ) \
   X( SCALAR, usedTBit, UsedTBit, bool, false )                                        \
   X( SCALAR, triggeredHello, TriggeredHello, bool, false )                            \
   X( SCALAR, propagationDelay, PropagationDelay, std::uint16_t, kPropagationDelayDefault ) \
   X( SCALAR, overrideInterval, OverrideInterval, std::uint16_t, kOverrideIntervalDefault ) \
   X( SCALAR, tBit, TBit, bool, false )                                                \
   X( SCALAR, assertTimeout, AssertTimeout, std::uint16_t, 180 )                       \
   X( SCALAR, assertOverrideInterval, AssertOverrideInterval, std::uint16_t, 3 )       \
   X( COUNTER, triggeredHelloCount, TriggeredHelloCount, std::uint32_t )               \
   X( SCALAR, lastHelloTime, LastHelloTime, double, 0.0 )                              \
   X( SCALAR, neighborLimit, NeighborLimit, std::uint32_t, kIntfNeighborLimitDefault ) \
   X( COUNTER, refusedNeighborCount, RefusedNeighborCount, std::uint32_t )             \
   X( COLL, refusedSource, RefusedSource, Lumo::IpGenAddr, RefusedSource )             \
   X( COUNTER, refusedSourceAddressCount, RefusedSourceAddressCount, std::uint32_t )   \
   X( COUNTER, ignoredSecondaryCount, IgnoredSecondaryCount, std::uint32_t )

class Intf : public Kiv::Notifier {
 public:
   // A new interface gets a random generation id (RFC 7761 4.3.1); the clear
   // command replaces it.
   Intf( const Lumo::IntfId & id, const Lumo::IpGenAddrWithMask & addressWithMask );
   const Lumo::IntfId & id() const { return id_; }
   // This router is the DR of the interface.
   bool iAmDr() const { return usedDr_ == usedAddressWithMask_.address(); }
   KIV_ENTITY( Intf, "Routing::Pim::Intf", PIM_INTF_ATTRS )
 private:
   const Lumo::IntfId id_;
};
KIV_NOTIFIEE( Intf, PIM_INTF_ATTRS )

// ---- per-VRF and global status -------------------------------------------------
#define PIM_ALL_STATUS_ATTRS( X )                              \
   X( ENTITIES, pimIntf, PimIntf, Lumo::IntfId, Intf )         \
   X( SCALAR, neighborLimit, NeighborLimit, std::uint32_t, kVrfNeighborLimitDefault )

class AllStatus : public Kiv::Notifier {
 public:
   explicit AllStatus( const L3::VrfName & vrfName ) : vrfName_( vrfName ) {}
   const L3::VrfName & vrfName() const { return vrfName_; }
   KIV_ENTITY( AllStatus, "Routing::Pim::AllStatus", PIM_ALL_STATUS_ATTRS )
 private:
   const L3::VrfName vrfName_;
};
KIV_NOTIFIEE( AllStatus, PIM_ALL_STATUS_ATTRS )

#define PIM_ALL_STATUS_COLL_ATTRS( X ) \
   X( ENTITIES, vrfStatus, VrfStatus, L3::VrfName, AllStatus )

class AllStatusColl : public Kiv::Notifier {
 public:
   AllStatusColl() = default;
   KIV_ENTITY( AllStatusColl, "Routing::Pim::AllStatusColl", PIM_ALL_STATUS_COLL_ATTRS )
};
KIV_NOTIFIEE( AllStatusColl, PIM_ALL_STATUS_COLL_ATTRS )

// The per-VRF status root read by other agents: the VRF's PIM interfaces with
// the mode they run, and what the VRF's engine runs without while PIM is
// enabled there: "statusTable", "counterTable", "kernelStatus" (the engine
// runs; the piece is retried until it comes) or "agentInputs" (no engine can
// be built). Empty when the engine is complete or PIM is off.
#define PIM_STATUS_ATTRS( X )                          \
   X( COLL, pimIntf, PimIntf, Lumo::IntfId, Mode )     \
   X( SET, missingInput, MissingInput, std::string )

class Status : public Kiv::Notifier {
 public:
   explicit Status( const L3::VrfName & vrfName ) : vrfName_( vrfName ) {}
   const L3::VrfName & vrfName() const { return vrfName_; }
   KIV_ENTITY( Status, "Routing::Pim::Status", PIM_STATUS_ATTRS )
 private:
   const L3::VrfName vrfName_;
};
KIV_NOTIFIEE( Status, PIM_STATUS_ATTRS )

#define PIM_STATUS_COLL_ATTRS( X ) \
   X( ENTITIES, vrfStatus, VrfStatus, L3::VrfName, Status )

class StatusColl : public Kiv::Notifier {
 public:
   StatusColl() = default;
   KIV_ENTITY( StatusColl, "Routing::Pim::StatusColl", PIM_STATUS_COLL_ATTRS )
};
KIV_NOTIFIEE( StatusColl, PIM_STATUS_COLL_ATTRS )

namespace Reliable {

// The VRF's reliable-transport connection address.
#define PIM_RELIABLE_STATUS_ATTRS( X ) \
   X( SCALAR, pimsmSctpConnectionId, PimsmSctpConnectionId, Lumo::IpGenAddr, {} )

class Status : public Kiv::Notifier {
 public:
   explicit Status( const L3::VrfName & vrfName ) : vrfName_( vrfName ) {}
   const L3::VrfName & vrfName() const { return vrfName_; }
   KIV_ENTITY( Status, "Routing::Pim::Reliable::Status", PIM_RELIABLE_STATUS_ATTRS )
 private:
   const L3::VrfName vrfName_;
};
KIV_NOTIFIEE( Status, PIM_RELIABLE_STATUS_ATTRS )

} // namespace Reliable

#define PIM_GLOBAL_STATUS_ATTRS( X )                                                   \
   X( COLL, pimEnabledSparseModeVrf, PimEnabledSparseModeVrf, L3::VrfName, bool )      \
   X( COLL, pimEnabledBidirVrf, PimEnabledBidirVrf, L3::VrfName, bool )                \
   X( ENTITIES, portStatus, PortStatus, L3::VrfName, Reliable::Status )

class GlobalStatus : public Kiv::Notifier {
 public:
   explicit GlobalStatus( Lumo::AddressFamily af = Lumo::AddressFamily::ipv4 ) : af_( af ) {}
   Lumo::AddressFamily af() const { return af_; }
   static const char * mountPath( Lumo::AddressFamily af ) {
      return af == Lumo::AddressFamily::ipv6 ? "routing6/pim/status/global" : "routing/pim/status/global";
   }
   KIV_ENTITY( GlobalStatus, "Routing::Pim::GlobalStatus", PIM_GLOBAL_STATUS_ATTRS )
 private:
   Lumo::AddressFamily af_;
};
KIV_NOTIFIEE( GlobalStatus, PIM_GLOBAL_STATUS_ATTRS )

#define PIM_CELL_GLOBAL_STATUS_ATTRS( X )                                \
   X( SCALAR, drDelayTimerExpired, DrDelayTimerExpired, bool, false )    \
   X( SCALAR, reload, Reload, bool, false )

class CellGlobalStatus : public Kiv::Notifier {
 public:
   CellGlobalStatus() = default;
   KIV_ENTITY( CellGlobalStatus, "Routing::Pim::CellGlobalStatus", PIM_CELL_GLOBAL_STATUS_ATTRS )
};
KIV_NOTIFIEE( CellGlobalStatus, PIM_CELL_GLOBAL_STATUS_ATTRS )

// ---- router id ------------------------------------------------------------------
#define PIM_ROUTER_ID_INFO_ATTRS( X ) \
   X( SCALAR, routerId, RouterId, std::uint32_t, 0 )

class RouterIdInfo : public Kiv::Notifier {
 public:
   explicit RouterIdInfo( const L3::VrfName & vrfName ) : vrfName_( vrfName ) {}
   const L3::VrfName & vrfName() const { return vrfName_; }
   KIV_ENTITY( RouterIdInfo, "Routing::Pim::RouterIdInfo", PIM_ROUTER_ID_INFO_ATTRS )
 private:
   const L3::VrfName vrfName_;
};
KIV_NOTIFIEE( RouterIdInfo, PIM_ROUTER_ID_INFO_ATTRS )

Kiv::Ptr< RouterIdInfo > routerIdInfoFactory( const L3::VrfName & vrfName );

} // namespace Routing::Pim

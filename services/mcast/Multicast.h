#pragma once
// Multicast platform entities that the routing agents share: per-VRF
// multicast-routing enablement, the PIM-enabled VRFs published for the
// multicast routing side, multicast interface (VIF) requests, group
// memberships asked for by applications, fast-upgrade coordination and the
// VXLAN inputs.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>

#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"
#include "lumo/AddressFamily.h"
#include "lumo/IntfId.h"
#include "lumo/IpGenAddr.h"
#include "lumo/VrfName.h"

namespace Routing::Multicast::Fib {

// Multicast routing is enabled in a VRF (written by the multicast FIB agent).
#define MFIB_VRF_ENABLED_STATUS_ATTRS( X ) \
   X( COLL, vrf, Vrf, L3::VrfName, bool )

class VrfEnabledStatus : public Kiv::Entity {
 public:
   explicit VrfEnabledStatus( const Kiv::Name & name = Kiv::Name(),
                              Lumo::AddressFamily af = Lumo::AddressFamily::ipv4 );
   const char * typeName() const override;
   Lumo::AddressFamily af() const { return af_; }
   KIV_ENTITY( VrfEnabledStatus, "Routing::Multicast::Fib::VrfEnabledStatus",
               MFIB_VRF_ENABLED_STATUS_ATTRS )
   // "routing/multicast/vrf/status", "routing6/..." for IPv6.
   static const char * mountPath( Lumo::AddressFamily af );
 private:
   Lumo::AddressFamily af_;
};
KIV_NOTIFIEE( VrfEnabledStatus, MFIB_VRF_ENABLED_STATUS_ATTRS )

// Multicast routing configuration. The agent only mounts it (so that the
// store keeps it); the VRFs with multicast routing configured are listed.
#define MFIB_VRF_CONFIG_ATTRS( X ) \
   X( SET, routingEnabledVrf, RoutingEnabledVrf, L3::VrfName )

class VrfConfig : public Kiv::Entity {
 public:
   explicit VrfConfig( const Kiv::Name & name = Kiv::Name() );
   const char * typeName() const override;
   KIV_ENTITY( VrfConfig, "Routing::Multicast::Fib::VrfConfig", MFIB_VRF_CONFIG_ATTRS )
   // "routing/multicast/vrf/config", "routing6/..." for IPv6.
   static const char * mountPath( Lumo::AddressFamily af );
};
KIV_NOTIFIEE( VrfConfig, MFIB_VRF_CONFIG_ATTRS )

} // namespace Routing::Multicast::Fib

namespace Routing::Multicast::Pim {

// The VRFs in which PIM runs, as the multicast routing side reads them.
#define MCAST_PIM_STATUS_ATTRS( X )                                              \
   X( COLL, pimEnabledSparseModeVrf, PimEnabledSparseModeVrf, L3::VrfName, bool ) \
   X( COLL, pimEnabledBidirVrf, PimEnabledBidirVrf, L3::VrfName, bool )

class Status : public Kiv::Entity {
 public:
   explicit Status( const Kiv::Name & name = Kiv::Name(),
                    Lumo::AddressFamily af = Lumo::AddressFamily::ipv4 );
   const char * typeName() const override;
   Lumo::AddressFamily af() const { return af_; }
   KIV_ENTITY( Status, "Routing::Multicast::Pim::Status", MCAST_PIM_STATUS_ATTRS )
   // "routing/multicast/pim/status", "routing6/..." for IPv6.
   static const char * mountPath( Lumo::AddressFamily af );
 private:
   Lumo::AddressFamily af_;
};
KIV_NOTIFIEE( Status, MCAST_PIM_STATUS_ATTRS )

} // namespace Routing::Multicast::Pim

namespace Routing::Multicast::Vxlan {

// PIM interfaces that are VLANs bridged into a VXLAN segment.
#define MCAST_VXLAN_STATUS_ATTRS( X ) \
   X( SET, vxlanIntf, VxlanIntf, Lumo::IntfId )

class Status : public Kiv::Entity {
 public:
   explicit Status( const Kiv::Name & name = Kiv::Name(),
                    Lumo::AddressFamily af = Lumo::AddressFamily::ipv4 );
   const char * typeName() const override;
   Lumo::AddressFamily af() const { return af_; }
   KIV_ENTITY( Status, "Routing::Multicast::Vxlan::Status", MCAST_VXLAN_STATUS_ATTRS )
   // "routing/multicast/vxlan/status", "routing6/..." for IPv6.
   static const char * mountPath( Lumo::AddressFamily af );
 private:
   Lumo::AddressFamily af_;
};
KIV_NOTIFIEE( Status, MCAST_VXLAN_STATUS_ATTRS )

} // namespace Routing::Multicast::Vxlan

namespace Vxlan {

// A VXLAN network identifier (24 bits on the wire, kept in 32) or none; the
// none value is all ones, and is what a default-constructed value holds.
class VniExtOrNone {
 public:
   static constexpr std::uint32_t noneValue = 0xFFFFFFFFu;
   constexpr VniExtOrNone() noexcept = default;
   constexpr explicit VniExtOrNone( std::uint32_t v ) noexcept : value_( v ) {}
   static constexpr VniExtOrNone none() noexcept { return VniExtOrNone(); }
   constexpr std::uint32_t value() const noexcept { return value_; }
   constexpr bool isNone() const noexcept { return value_ == noneValue; }
   friend constexpr bool operator==( VniExtOrNone a, VniExtOrNone b ) noexcept {
      return a.value_ == b.value_;
   }
 private:
   std::uint32_t value_ = noneValue;
};
// The number, or "none".
std::ostream & operator<<( std::ostream & os, VniExtOrNone v );

// VLAN to VNI map of the VXLAN service (VLAN id as u32).
#define VXLAN_ENABLED_STATUS_ATTRS( X ) \
   X( COLL, vlanToVniMap, VlanToVniMap, std::uint32_t, VniExtOrNone )

class EnabledStatus : public Kiv::Entity {
 public:
   explicit EnabledStatus( const Kiv::Name & name = Kiv::Name() );
   const char * typeName() const override;
   KIV_ENTITY( EnabledStatus, "Vxlan::EnabledStatus", VXLAN_ENABLED_STATUS_ATTRS )
   static const char * mountPath() { return "vxlan/enabledStatus"; }
};
KIV_NOTIFIEE( EnabledStatus, VXLAN_ENABLED_STATUS_ATTRS )

} // namespace Vxlan

namespace McastCommon {

// Interfaces on which an application needs a multicast virtual interface.
#define MCAST_INTFS_FOR_APPLICATIONS_ATTRS( X ) \
   X( SET, multicastIntf, MulticastIntf, Lumo::IntfId )

class MulticastIntfsForApplications : public Kiv::Entity {
 public:
   explicit MulticastIntfsForApplications( const Kiv::Name & name = Kiv::Name() );
   const char * typeName() const override;
   KIV_ENTITY( MulticastIntfsForApplications, "McastCommon::MulticastIntfsForApplications",
               MCAST_INTFS_FOR_APPLICATIONS_ATTRS )
   // "multicastIntfs/application/pim", "multicastIntfs6/application/pim6".
   static const char * mountPath( Lumo::AddressFamily af );
};
KIV_NOTIFIEE( MulticastIntfsForApplications, MCAST_INTFS_FOR_APPLICATIONS_ATTRS )

// The interfaces of one VRF as seen in its kernel namespace.
#define MCAST_VRF_INTF_COLL_ATTRS( X ) \
   X( SET, intfs, Intfs, Lumo::IntfId )

class VrfIntfColl : public Kiv::Notifier {
 public:
   explicit VrfIntfColl( const L3::VrfName & vrfName ) : vrfName_( vrfName ) {}
   const L3::VrfName & vrfName() const { return vrfName_; }
   KIV_ENTITY( VrfIntfColl, "McastCommon::VrfIntfColl", MCAST_VRF_INTF_COLL_ATTRS )
 private:
   const L3::VrfName vrfName_;
};
KIV_NOTIFIEE( VrfIntfColl, MCAST_VRF_INTF_COLL_ATTRS )

#define MCAST_APP_VRF_INTFS_ATTRS( X ) \
   X( ENTITIES, vrfIntf, VrfIntf, L3::VrfName, VrfIntfColl )

class AppVrfIntfs : public Kiv::Entity {
 public:
   explicit AppVrfIntfs( const Kiv::Name & name = Kiv::Name() );
   const char * typeName() const override;
   KIV_ENTITY( AppVrfIntfs, "McastCommon::AppVrfIntfs", MCAST_APP_VRF_INTFS_ATTRS )
};
KIV_NOTIFIEE( AppVrfIntfs, MCAST_APP_VRF_INTFS_ATTRS )

// Fast-upgrade coordination: the VRFs taking part and those that finished.
#define MCAST_ASU_VRF_STATUS_ATTRS( X )                          \
   X( SET, participatingVrf, ParticipatingVrf, L3::VrfName )     \
   X( COLL, completedVrf, CompletedVrf, L3::VrfName, bool )

class AsuVrfStatus : public Kiv::Entity {
 public:
   explicit AsuVrfStatus( const Kiv::Name & name = Kiv::Name() );
   const char * typeName() const override;
   KIV_ENTITY( AsuVrfStatus, "McastCommon::AsuVrfStatus", MCAST_ASU_VRF_STATUS_ATTRS )
   // Every participating VRF has completed (false when none participates).
   bool allCompleted() const;
};
KIV_NOTIFIEE( AsuVrfStatus, MCAST_ASU_VRF_STATUS_ATTRS )

#define MCAST_ASU_SHUTDOWN_STATUS_ATTRS( X ) \
   X( SCALAR, shutdown, Shutdown, bool, false )

class AsuShutdownStatus : public Kiv::Entity {
 public:
   explicit AsuShutdownStatus( const Kiv::Name & name = Kiv::Name() );
   const char * typeName() const override;
   KIV_ENTITY( AsuShutdownStatus, "McastCommon::AsuShutdownStatus",
               MCAST_ASU_SHUTDOWN_STATUS_ATTRS )
};
KIV_NOTIFIEE( AsuShutdownStatus, MCAST_ASU_SHUTDOWN_STATUS_ATTRS )

} // namespace McastCommon

namespace IpGen {

// One group membership: a group joined on an interface.
struct IntfGroup {
   Lumo::IntfId intf;
   Lumo::IpGenAddr group;
   IntfGroup() = default;
   IntfGroup( const Lumo::IntfId & i, const Lumo::IpGenAddr & g ) : intf( i ), group( g ) {}
   bool operator==( const IntfGroup & ) const = default;
   bool operator<( const IntfGroup & o ) const {
      return intf < o.intf || ( intf == o.intf && group < o.group );
   }
};
std::ostream & operator<<( std::ostream & os, const IntfGroup & g );

} // namespace IpGen

template<>
struct std::hash< IpGen::IntfGroup > {
   std::size_t operator()( const IpGen::IntfGroup & g ) const noexcept {
      return g.intf.hash() * 0x9E3779B97F4A7C15ull + g.group.hash();
   }
};

namespace IpGen {

// Group memberships that applications ask the IP layer to hold on their
// behalf (the kernel joins them on the interface).
#define IPGEN_MCAST_GROUPS_FOR_APPS_ATTRS( X ) \
   X( SET, intfGroup, IntfGroup, IntfGroup )

class MulticastGroupsForApplications : public Kiv::Entity {
 public:
   MulticastGroupsForApplications( Lumo::AddressFamily af, const Kiv::Name & name = Kiv::Name() );
   const char * typeName() const override;
   Lumo::AddressFamily af() const { return af_; }
   KIV_ENTITY( MulticastGroupsForApplications, "IpGen::MulticastGroupsForApplications",
               IPGEN_MCAST_GROUPS_FOR_APPS_ATTRS )

   // Throws Kiv::RangeException unless group is a multicast address of this
   // family and intf is not empty. Joining twice is one membership.
   void joinGroup( const Lumo::IntfId & intf, const Lumo::IpGenAddr & group );
   // Leaving a group that was not joined does nothing.
   void leaveGroup( const Lumo::IntfId & intf, const Lumo::IpGenAddr & group );
   bool isMember( const Lumo::IntfId & intf, const Lumo::IpGenAddr & group ) const {
      return intfGroup( IntfGroup( intf, group ) );
   }
   // "ip/multicastGroups/application", "ip6/multicastGroups/application".
   static const char * mountPath( Lumo::AddressFamily af );

 private:
   Lumo::AddressFamily af_;
};
KIV_NOTIFIEE( MulticastGroupsForApplications, IPGEN_MCAST_GROUPS_FOR_APPS_ATTRS )

// The store's forms ("Ip::MulticastGroupsForApplications",
// "Ip6::MulticastGroupsForApplications").
class Ipv4MulticastGroupsForApplications : public MulticastGroupsForApplications {
 public:
   explicit Ipv4MulticastGroupsForApplications( const Kiv::Name & name = Kiv::Name() )
         : MulticastGroupsForApplications( Lumo::AddressFamily::ipv4, name ) {}
};
class Ipv6MulticastGroupsForApplications : public MulticastGroupsForApplications {
 public:
   explicit Ipv6MulticastGroupsForApplications( const Kiv::Name & name = Kiv::Name() )
         : MulticastGroupsForApplications( Lumo::AddressFamily::ipv6, name ) {}
};

} // namespace IpGen

#pragma once
// The IP layer's interface status as routing agents read it: per interface
// the VRF it is in, its primary (active) address and its active secondary
// addresses, for one address family.
//
// Writers (the IP agent, the lab, tests) go through Status::intfVrfIs,
// Status::intfAddrIs and friends so that the set of VRFs with interface status
// (vrf) always follows the interfaces; readers use the accessors and the
// query operations below and watch intfStatus / vrf with reactors.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"
#include "lumo/AddressFamily.h"
#include "lumo/IntfId.h"
#include "lumo/IpGenAddrWithMask.h"
#include "lumo/VrfName.h"

namespace IpGen {

// ---- one interface --------------------------------------------------------------
#define IPGEN_IP_INTF_STATUS_ATTRS( X )                                               \
   X( SCALAR, vrf, Vrf, L3::VrfName, {} )                                             \
   X( SCALAR, activeAddrWithMask, ActiveAddrWithMask, Lumo::IpGenAddrWithMask, {} )   \
   X( SET, addr, Addr, Lumo::IpGenAddrWithMask )

class IpIntfStatus : public Kiv::Notifier {
 public:
   explicit IpIntfStatus( const Lumo::IntfId & intfId ) : intfId_( intfId ) {}
   const Lumo::IntfId & intfId() const { return intfId_; }
   KIV_ENTITY( IpIntfStatus, "IpGen::IpIntfStatus", IPGEN_IP_INTF_STATUS_ATTRS )
 private:
   const Lumo::IntfId intfId_;
};
KIV_NOTIFIEE( IpIntfStatus, IPGEN_IP_INTF_STATUS_ATTRS )

// ---- all interfaces of one family ------------------------------------------------
#define IPGEN_STATUS_ATTRS( X )                                                       \
   X( ENTITIES, intfStatus, IntfStatus, Lumo::IntfId, IpIntfStatus )                  \
   X( SET, vrf, Vrf, L3::VrfName )

class Status : public Kiv::Entity {
 public:
   explicit Status( Lumo::AddressFamily af = Lumo::AddressFamily::ipv4,
                    const Kiv::Name & name = Kiv::Name() );
   const char * typeName() const override;
   Lumo::AddressFamily af() const { return af_; }
   KIV_ENTITY( Status, "IpGen::Status", IPGEN_STATUS_ATTRS )

   // ---- queries --------------------------------------------------------------
   // The VRF the interface is in; empty when the interface is unknown.
   L3::VrfName vrfOf( const Lumo::IntfId & intf ) const;
   bool knowsIntf( const Lumo::IntfId & intf ) const { return intfStatusHas( intf ); }
   // Some interface is in the VRF.
   bool hasVrfIntfStatus( const L3::VrfName & vrf ) const { return this->vrf( vrf ); }
   bool intfInVrf( const Lumo::IntfId & intf, const L3::VrfName & vrf ) const;
   // Empty when the interface is unknown or has no address.
   Lumo::IpGenAddrWithMask primaryAddrWithMask( const Lumo::IntfId & intf ) const;
   // a is one of the interface's active secondary addresses (the primary is
   // not a secondary, even when it is also listed in addr).
   bool isActiveSecondary( const Lumo::IntfId & intf, const Lumo::IpGenAddrWithMask & a ) const;

   // ---- writer side ------------------------------------------------------------
   // Creates the interface's entry when absent and moves it into vrf (an
   // empty vrf leaves it in no VRF); keeps the vrf set in step.
   Kiv::Ptr< IpIntfStatus > intfVrfIs( const Lumo::IntfId & intf, const L3::VrfName & vrf );
   // Sets the primary address (creating the entry, in no VRF, when absent).
   Kiv::Ptr< IpIntfStatus > intfPrimaryIs( const Lumo::IntfId & intf,
                                           const Lumo::IpGenAddrWithMask & a );
   // Adds or removes an active secondary address.
   void intfSecondaryIs( const Lumo::IntfId & intf, const Lumo::IpGenAddrWithMask & a, bool on );
   // Removes the interface and, if it was the last one of its VRF, the VRF.
   void intfDel( const Lumo::IntfId & intf );

 private:
   void vrfRefInc( const L3::VrfName & vrf );
   void vrfRefDec( const L3::VrfName & vrf );
   Lumo::AddressFamily af_;
   // Interfaces per VRF, behind the vrf set.
   Kiv::HashMap< L3::VrfName, std::uint32_t > vrfRefs_;
};
KIV_NOTIFIEE( Status, IPGEN_STATUS_ATTRS )

// The store's IPv4 and IPv6 forms ("Ip::Status", "Ip6::Status").
class Ipv4Status : public Status {
 public:
   explicit Ipv4Status( const Kiv::Name & name = Kiv::Name() )
         : Status( Lumo::AddressFamily::ipv4, name ) {}
   const char * typeName() const override;
};
class Ipv6Status : public Status {
 public:
   explicit Ipv6Status( const Kiv::Name & name = Kiv::Name() )
         : Status( Lumo::AddressFamily::ipv6, name ) {}
   const char * typeName() const override;
};

// Walks an interface's addresses: the primary first (when it has one), then
// the active secondaries; after the last one it yields the empty
// address-with-mask, and stays there. The addresses are taken when the
// iterator is built, so the status may change while it is walked.
class IpIntfStatusAddrIteratorConst {
 public:
   IpIntfStatusAddrIteratorConst( const Kiv::Ptr< const Status > & status,
                                  const Lumo::IntfId & intf );
   IpIntfStatusAddrIteratorConst( const Status & status, const Lumo::IntfId & intf );
   const Lumo::IpGenAddrWithMask & operator*() const;
   const Lumo::IpGenAddrWithMask * operator->() const { return &**this; }
   IpIntfStatusAddrIteratorConst & operator++();
   // True while the iterator stands on an address.
   explicit operator bool() const { return pos_ < addrs_.size(); }
 private:
   std::vector< Lumo::IpGenAddrWithMask > addrs_;
   std::size_t pos_ = 0;
};

// ---- one VRF's view -----------------------------------------------------------------
// The IP interface status of one VRF: the family's status seen through a VRF
// name. Machines of a VRF (the source-interface registry, the I/O service)
// take this instead of the whole status.
//
// intf: the interfaces that are in the VRF, as a set that can be watched per
// interface. An IntfSm (IpIntfSm.h) keeps it in step with the status; without
// one it stays empty and only the query operations below are meaningful.
#define IPGEN_INTF_STATUS_ATTRS( X )                 \
   X( SCALAR, initialized, Initialized, bool, true ) \
   X( SET, intf, Intf, Lumo::IntfId )

class IntfStatus : public Kiv::Notifier {
 public:
   // status is required ("null ValidPtr").
   IntfStatus( const Kiv::Ptr< const Status > & status, const L3::VrfName & vrf );
   KIV_ENTITY( IntfStatus, "IpGen::IntfStatus", IPGEN_INTF_STATUS_ATTRS )

   const Kiv::Ptr< const Status > & status() const { return status_; }
   const L3::VrfName & vrfName() const { return vrf_; }
   Lumo::AddressFamily af() const { return status_->af(); }
   // The interface is known and in this VRF.
   bool hasIntf( const Lumo::IntfId & intf ) const { return status_->intfInVrf( intf, vrf_ ); }
   // The interface's entry if it is in this VRF, else null.
   Kiv::Ptr< const IpIntfStatus > intfStatus( const Lumo::IntfId & intf ) const;
   // Empty unless the interface is in this VRF.
   Lumo::IpGenAddrWithMask primaryAddrWithMask( const Lumo::IntfId & intf ) const;
   // The VRF has any interface.
   bool exists() const { return status_->hasVrfIntfStatus( vrf_ ); }

 private:
   const Kiv::Ptr< const Status > status_;
   const L3::VrfName vrf_;
};
KIV_NOTIFIEE( IntfStatus, IPGEN_INTF_STATUS_ATTRS )

class Ipv4IntfStatus : public IntfStatus {
 public:
   // Refuses a status of another family.
   Ipv4IntfStatus( const Kiv::Ptr< const Status > & status, const L3::VrfName & vrf );
};
class Ipv6IntfStatus : public IntfStatus {
 public:
   Ipv6IntfStatus( const Kiv::Ptr< const Status > & status, const L3::VrfName & vrf );
};

// The form of the family of status.
Kiv::Ptr< IntfStatus > intfStatusFactory( const Kiv::Ptr< const Status > & status,
                                          const L3::VrfName & vrf );

} // namespace IpGen

namespace IpGen {

// The IP status mounter: the mounts of one family's IP status ("ip/status"
// or "ip6/status"), added to a caller's mount group.
inline const char * ipStatusPath( Lumo::AddressFamily af ) {
   return af == Lumo::AddressFamily::ipv6 ? "ip6/status" : "ip/status";
}
inline const char * ipStatusTypeName( Lumo::AddressFamily af ) {
   return af == Lumo::AddressFamily::ipv6 ? "Ip6::Status" : "Ip::Status";
}

} // namespace IpGen

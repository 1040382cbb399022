#include "services/ip/IpStatus.h"

#include "kiv/RangeException.h"

namespace IpGen {

Status::Status( Lumo::AddressFamily af, const Kiv::Name & name ) : Kiv::Entity( name ), af_( af ) {}

const char * Status::typeName() const {
   return af_ == Lumo::AddressFamily::ipv6 ? "Ip6::Status" : "Ip::Status";
}

L3::VrfName Status::vrfOf( const Lumo::IntfId & intf ) const {
   const auto s = intfStatus( intf );
   return s ? s->vrf() : L3::VrfName();
}

bool Status::intfInVrf( const Lumo::IntfId & intf, const L3::VrfName & vrf ) const {
   const auto s = intfStatus( intf );
   return s && !vrf.isEmpty() && s->vrf() == vrf;
}

Lumo::IpGenAddrWithMask Status::primaryAddrWithMask( const Lumo::IntfId & intf ) const {
   const auto s = intfStatus( intf );
   return s ? s->activeAddrWithMask() : Lumo::IpGenAddrWithMask();
}

bool Status::isActiveSecondary( const Lumo::IntfId & intf,
                                const Lumo::IpGenAddrWithMask & a ) const {
   const auto s = intfStatus( intf );
   return s && !a.isEmpty() && a != s->activeAddrWithMask() && s->addr( a );
}

void Status::vrfRefInc( const L3::VrfName & vrf ) {
   if( vrf.isEmpty() ) return;
   auto [ count, inserted ] = vrfRefs_.tryInsert( vrf, 0u );
   ++*count;
   if( inserted ) vrfIs( vrf, true );
}

void Status::vrfRefDec( const L3::VrfName & vrf ) {
   if( vrf.isEmpty() ) return;
   std::uint32_t * count = vrfRefs_.find( vrf );
   if( !count ) return;
   if( --*count == 0 ) {
      vrfRefs_.erase( vrf );
      vrfDel( vrf );
   }
}

Kiv::Ptr< IpIntfStatus > Status::intfVrfIs( const Lumo::IntfId & intf, const L3::VrfName & vrf ) {
   if( intf.isEmpty() ) throw Kiv::RangeException( "IpGen::Status::intf empty not allowed" );
   auto s = intfStatus( intf );
   if( !s ) {
      s = intfStatusIs( intf );
   } else if( s->vrf() == vrf ) {
      return s;
   }
   const L3::VrfName old = s->vrf();
   // The VRF set gains the new VRF before the interface moves and loses the
   // old one after, so a reader never sees an interface in a VRF that is not
   // in the set.
   vrfRefInc( vrf );
   s->vrfIs( vrf );
   vrfRefDec( old );
   return s;
}

Kiv::Ptr< IpIntfStatus > Status::intfPrimaryIs( const Lumo::IntfId & intf,
                                                const Lumo::IpGenAddrWithMask & a ) {
   auto s = intfStatus( intf );
   if( !s ) s = intfVrfIs( intf, L3::VrfName() );
   s->activeAddrWithMaskIs( a );
   return s;
}

void Status::intfSecondaryIs( const Lumo::IntfId & intf, const Lumo::IpGenAddrWithMask & a,
                              bool on ) {
   auto s = intfStatus( intf );
   if( !s ) {
      if( !on ) return;
      s = intfVrfIs( intf, L3::VrfName() );
   }
   s->addrIs( a, on );
}

void Status::intfDel( const Lumo::IntfId & intf ) {
   const auto s = intfStatus( intf );
   if( !s ) return;
   const L3::VrfName vrf = s->vrf();
   intfStatusDel( intf );
   vrfRefDec( vrf );
}

// ---- address iterator ------------------------------------------------------------
IpIntfStatusAddrIteratorConst::IpIntfStatusAddrIteratorConst( const Status & status,
                                                              const Lumo::IntfId & intf ) {
   const auto s = status.intfStatus( intf );
   if( !s ) return;
   const Lumo::IpGenAddrWithMask primary = s->activeAddrWithMask();
   if( !primary.isEmpty() ) addrs_.push_back( primary );
   s->addrForEach( [ & ]( const Lumo::IpGenAddrWithMask & a, bool ) {
      if( a != primary && !a.isEmpty() ) addrs_.push_back( a );
   } );
}

IpIntfStatusAddrIteratorConst::IpIntfStatusAddrIteratorConst(
   const Kiv::Ptr< const Status > & status, const Lumo::IntfId & intf ) {
   if( status ) *this = IpIntfStatusAddrIteratorConst( *status, intf );
}

const Lumo::IpGenAddrWithMask & IpIntfStatusAddrIteratorConst::operator*() const {
   static const Lumo::IpGenAddrWithMask empty;
   return pos_ < addrs_.size() ? addrs_[ pos_ ] : empty;
}

IpIntfStatusAddrIteratorConst & IpIntfStatusAddrIteratorConst::operator++() {
   if( pos_ < addrs_.size() ) ++pos_;
   return *this;
}

// ---- one VRF's view ----------------------------------------------------------------
IntfStatus::IntfStatus( const Kiv::Ptr< const Status > & status, const L3::VrfName & vrf )
      : status_( Kiv::ValidPtr< const Status >( status ) ), vrf_( vrf ) {}

Kiv::Ptr< const IpIntfStatus > IntfStatus::intfStatus( const Lumo::IntfId & intf ) const {
   if( !hasIntf( intf ) ) return nullptr;
   return status_->intfStatus( intf );
}

Lumo::IpGenAddrWithMask IntfStatus::primaryAddrWithMask( const Lumo::IntfId & intf ) const {
   return hasIntf( intf ) ? status_->primaryAddrWithMask( intf ) : Lumo::IpGenAddrWithMask();
}

namespace {
const Kiv::Ptr< const Status > & checkFamily( const Kiv::Ptr< const Status > & status,
                                              Lumo::AddressFamily af ) {
   if( status && status->af() != af ) {
      throw Kiv::RangeException( "IpGen::IntfStatus::af != status af not allowed" );
   }
   return status;
}
} // namespace

Ipv4IntfStatus::Ipv4IntfStatus( const Kiv::Ptr< const Status > & status, const L3::VrfName & vrf )
      : IntfStatus( checkFamily( status, Lumo::AddressFamily::ipv4 ), vrf ) {}

Ipv6IntfStatus::Ipv6IntfStatus( const Kiv::Ptr< const Status > & status, const L3::VrfName & vrf )
      : IntfStatus( checkFamily( status, Lumo::AddressFamily::ipv6 ), vrf ) {}

Kiv::Ptr< IntfStatus > intfStatusFactory( const Kiv::Ptr< const Status > & status,
                                          const L3::VrfName & vrf ) {
   Kiv::ValidPtr< const Status > s( status );
   if( s->af() == Lumo::AddressFamily::ipv6 ) return Kiv::make< Ipv6IntfStatus >( s, vrf );
   return Kiv::make< Ipv4IntfStatus >( s, vrf );
}

KIV_REGISTER_ENTITY_TYPE( Ipv4Status, "Ip::Status" );
KIV_REGISTER_ENTITY_TYPE( Ipv6Status, "Ip6::Status" );

} // namespace IpGen

// Out of line: the vtable, and with it this file's type registrations, come
// with any use of the types.
namespace IpGen {
const char * Ipv4Status::typeName() const { return "Ip::Status"; }
} // namespace IpGen
namespace IpGen {
const char * Ipv6Status::typeName() const { return "Ip6::Status"; }
} // namespace IpGen

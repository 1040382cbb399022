#include "status/PimVarnStatus.h"

#include <algorithm>

#include "kiv/RangeException.h"
#include "varn/VarnMount.h"

namespace Routing::Pim::Varn {

// ---- value pieces -------------------------------------------------------------------
IntfName::IntfName( const Lumo::IntfId & intf ) : IntfName() {
   const std::string_view n = intf.stringValue();
   if( n.size() > size - 1 ) {
      throw Kiv::RangeException( "Varn::IntfName::bytes > 63 not allowed" );
   }
   std::memcpy( name, n.data(), n.size() );
}

Lumo::IntfId IntfName::intfId() const {
   return Lumo::IntfId( std::string_view( name, strnlen( name, size ) ) );
}

Addr::Addr( const Lumo::IpGenAddr & a ) : Addr() {
   const auto b = a.bytes();
   std::copy( b.begin(), b.end(), bytes );
   af = static_cast< std::uint8_t >( a.af() );
}

Lumo::IpGenAddr Addr::ipGenAddr() const {
   if( af == static_cast< std::uint8_t >( Lumo::AddressFamily::ipv4 ) ) {
      return Lumo::IpGenAddr( Lumo::IpGenAddr::Bytes4{ bytes[ 0 ], bytes[ 1 ], bytes[ 2 ], bytes[ 3 ] } );
   }
   if( af == static_cast< std::uint8_t >( Lumo::AddressFamily::ipv6 ) ) {
      Lumo::IpGenAddr::Bytes16 b;
      std::copy( bytes, bytes + 16, b.begin() );
      return Lumo::IpGenAddr( b );
   }
   return Lumo::IpGenAddr();
}

AddrWithMask::AddrWithMask( const Lumo::IpGenAddrWithMask & a ) : AddrWithMask() {
   addr = Addr( a.address() );
   maskLen = static_cast< std::uint8_t >( a.maskLen() );
}

Lumo::IpGenAddrWithMask AddrWithMask::ipGenAddrWithMask() const {
   const Lumo::IpGenAddr a = addr.ipGenAddr();
   if( a.isEmpty() ) return Lumo::IpGenAddrWithMask();
   return Lumo::IpGenAddrWithMask( a, maskLen );
}

Prefix::Prefix( const Lumo::IpGenPrefix & p ) : Prefix() {
   addr = Addr( p.address() );
   len = static_cast< std::uint8_t >( p.len() );
}

Lumo::IpGenPrefix Prefix::ipGenPrefix() const {
   const Lumo::IpGenAddr a = addr.ipGenAddr();
   if( a.isEmpty() ) return Lumo::IpGenPrefix();
   return Lumo::IpGenPrefix::masked( a, len );
}

std::ostream & operator<<( std::ostream & os, const IntfName & n ) { return os << n.intfId(); }
std::ostream & operator<<( std::ostream & os, const Addr & a ) { return os << a.ipGenAddr(); }
std::ostream & operator<<( std::ostream & os, const NeighborKey & k ) {
   return os << k.intf << "/" << k.addr;
}

// ---- status tables ------------------------------------------------------------------
KivVarn::MountInfo Status::mountInfo() {
   // Limits, not sizes: shared-memory tables grow with their rows. The
   // neighbour limits of the engine keep the rows well below these.
   return KivVarn::MountInfo( kTypeName, { { kPimIntfTable, 1u << 16 },
                                           { kNeighborTable, 1u << 20 },
                                           { kNeighborSecondaryAddressTable, 1u << 22 },
                                           { kIntfSecondaryAddressTable, 1u << 18 },
                                           { kIntfSecondaryPrefixTable, 1u << 18 },
                                           { kInactiveNeighborTable, 1u << 20 },
                                           { kRefusedNeighborTable, 4096 } } );
}

Status::Status( const Kiv::Name & name, const KivVarn::MountInfo & info,
                KivVarn::TableStore & store )
      : Kiv::Entity( name ) {
   const KivVarn::MountInfo dflt = mountInfo();
   auto size = [ & ]( const char * table ) { return info.size( table, dflt.size( table, 0 ) ); };
   pimIntf_ = KivVarn::Table< Intf >::make( store, kPimIntfTable, size( kPimIntfTable ) );
   neighbor_ = KivVarn::Table< Neighbor >::make( store, kNeighborTable, size( kNeighborTable ) );
   neighborSecondaryAddress_ = KivVarn::Table< NeighborSecondaryAddress >::make(
      store, kNeighborSecondaryAddressTable, size( kNeighborSecondaryAddressTable ) );
   intfSecondaryAddress_ = KivVarn::Table< IntfSecondaryAddress >::make(
      store, kIntfSecondaryAddressTable, size( kIntfSecondaryAddressTable ) );
   intfSecondaryPrefix_ = KivVarn::Table< IntfSecondaryPrefix >::make(
      store, kIntfSecondaryPrefixTable, size( kIntfSecondaryPrefixTable ) );
   inactiveNeighbor_ = KivVarn::Table< NeighborRef >::make( store, kInactiveNeighborTable,
                                                            size( kInactiveNeighborTable ) );
   refusedNeighbor_ = KivVarn::Table< RefusedNeighbor >::make( store, kRefusedNeighborTable,
                                                               size( kRefusedNeighborTable ) );
}

Status::Status( const Kiv::Name & name )
      : Status( name, mountInfo(), KivVarn::HeapTableStore::instance() ) {}

void Status::clear() {
   refusedNeighbor_.clear();
   inactiveNeighbor_.clear();
   neighborSecondaryAddress_.clear();
   neighbor_.clear();
   intfSecondaryAddress_.clear();
   intfSecondaryPrefix_.clear();
   pimIntf_.clear();
}

namespace {
std::string familyRoot( Lumo::AddressFamily af ) {
   return af == Lumo::AddressFamily::ipv6 ? "routing6/pim/" : "routing/pim/";
}
} // namespace

std::string statusPath( Lumo::AddressFamily af, const L3::VrfName & vrf ) {
   return familyRoot( af ) + "status/" + std::string( vrf.stringValue() );
}

std::string countersPath( Lumo::AddressFamily af, const L3::VrfName & vrf ) {
   return familyRoot( af ) + "counters/" + std::string( vrf.stringValue() ) + "/pim";
}

// ---- message counters ------------------------------------------------------------------
KivVarn::MountInfo MessageCounters::mountInfo() {
   return KivVarn::MountInfo( kTypeName, { { "messageTypeCounters", kMessageTypes } } );
}

MessageCounters::MessageCounters( const Kiv::Name & name, const KivVarn::MountInfo & info,
                                  KivVarn::TableStore & store )
      : Kiv::Entity( name ) {
   // One row per message type, whatever the info asks for.
   (void)info;
   counters_ = KivVarn::Table< MessageTypeCounters >::make( store, "messageTypeCounters",
                                                            kMessageTypes );
}

MessageCounters::MessageCounters( const Kiv::Name & name )
      : MessageCounters( name, mountInfo(), KivVarn::HeapTableStore::instance() ) {}

template< class F >
void MessageCounters::update( std::uint8_t type, F && f ) {
   MessageTypeCounters c = counters( type );
   f( c );
   counters_.rowIs( c );
}

MessageTypeCounters MessageCounters::counters( std::uint8_t type ) const {
   if( type >= kMessageTypes ) {
      throw Kiv::RangeException( "MessageCounters::type >= 16 not allowed" );
   }
   MessageTypeCounters::Key k;
   k.type = type;
   if( auto row = counters_.row( k ) ) return *row;
   return MessageTypeCounters( type );
}

void MessageCounters::rxInc( std::uint8_t type, std::uint64_t n ) {
   update( type, [ n ]( MessageTypeCounters & c ) { c.rx += n; } );
}

void MessageCounters::txInc( std::uint8_t type, std::uint64_t n ) {
   update( type, [ n ]( MessageTypeCounters & c ) { c.tx += n; } );
}

void MessageCounters::rxRejectedInc( std::uint8_t type, std::uint64_t n ) {
   update( type, [ n ]( MessageTypeCounters & c ) { c.rxRejected += n; } );
}

void MessageCounters::clearMessageCounters() { counters_.clear(); }

} // namespace Routing::Pim::Varn

#pragma once
// The per-VRF PIM status table set that other processes (show commands, the
// multicast routing agents) read: interfaces, neighbours, their secondary
// addresses and prefixes, and neighbours held inactive by BFD.
//
// Rows are fixed-size, trivially copyable structs: names in fixed character
// arrays, addresses as 16 bytes plus a family. Every row's first member is
// its key, built from byte arrays only, so that the rows can sit in a
// shared-memory slab (see VarnTable.h). Build rows with their constructors,
// which zero every byte first: the key bytes are compared as they are.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>

#include "kiv/Entity.h"
#include "lumo/AddressFamily.h"
#include "lumo/IntfId.h"
#include "lumo/IpGenAddr.h"
#include "lumo/IpGenAddrWithMask.h"
#include "lumo/IpGenPrefix.h"
#include "lumo/VrfName.h"
#include "varn/VarnTable.h"

namespace KivVarn {
struct MountInfo;
}

namespace Routing::Pim::Varn {

// Zeroes a row or key, padding included (rows are compared and keyed by
// their bytes).
#define PIM_VARN_ZEROED( T ) \
   T() { std::memset( static_cast< void * >( this ), 0, sizeof( T ) ); }

// ---- fixed-size value pieces ------------------------------------------------------
// An interface name, NUL-padded.
struct IntfName {
   static constexpr std::size_t size = 64;
   char name[ size ];
   PIM_VARN_ZEROED( IntfName )
   // Throws Kiv::RangeException "Varn::IntfName::bytes > 63 not allowed".
   explicit IntfName( const Lumo::IntfId & intf );
   Lumo::IntfId intfId() const;
   bool operator==( const IntfName & o ) const { return std::memcmp( name, o.name, size ) == 0; }
};

// An address: 16 bytes in network order and the family (0 none, 1 IPv4,
// 2 IPv6).
struct Addr {
   std::uint8_t bytes[ 16 ];
   std::uint8_t af;
   PIM_VARN_ZEROED( Addr )
   explicit Addr( const Lumo::IpGenAddr & a );
   Lumo::IpGenAddr ipGenAddr() const;
   bool operator==( const Addr & o ) const { return std::memcmp( this, &o, sizeof( Addr ) ) == 0; }
};

struct AddrWithMask {
   Addr addr;
   std::uint8_t maskLen;
   PIM_VARN_ZEROED( AddrWithMask )
   explicit AddrWithMask( const Lumo::IpGenAddrWithMask & a );
   Lumo::IpGenAddrWithMask ipGenAddrWithMask() const;
   bool operator==( const AddrWithMask & o ) const {
      return std::memcmp( this, &o, sizeof( AddrWithMask ) ) == 0;
   }
};

struct Prefix {
   Addr addr;
   std::uint8_t len;
   PIM_VARN_ZEROED( Prefix )
   explicit Prefix( const Lumo::IpGenPrefix & p );
   Lumo::IpGenPrefix ipGenPrefix() const;
   bool operator==( const Prefix & o ) const { return std::memcmp( this, &o, sizeof( Prefix ) ) == 0; }
};

// ---- keys ------------------------------------------------------------------------
struct IntfKey {
   IntfName intf;
   PIM_VARN_ZEROED( IntfKey )
   explicit IntfKey( const Lumo::IntfId & i ) : intf( i ) {}
   bool operator==( const IntfKey & ) const = default;
};

struct NeighborKey {
   IntfName intf;
   Addr addr;
   PIM_VARN_ZEROED( NeighborKey )
   NeighborKey( const Lumo::IntfId & i, const Lumo::IpGenAddr & a ) : intf( i ), addr( a ) {}
   bool operator==( const NeighborKey & ) const = default;
};

struct NeighborSecondaryAddressKey {
   IntfName intf;
   Addr neighbor;
   Addr secondary;
   PIM_VARN_ZEROED( NeighborSecondaryAddressKey )
   NeighborSecondaryAddressKey( const Lumo::IntfId & i, const Lumo::IpGenAddr & nbr,
                                const Lumo::IpGenAddr & sec )
         : intf( i ), neighbor( nbr ), secondary( sec ) {}
   bool operator==( const NeighborSecondaryAddressKey & ) const = default;
};

struct IntfSecondaryAddressKey {
   IntfName intf;
   Addr addr;
   PIM_VARN_ZEROED( IntfSecondaryAddressKey )
   IntfSecondaryAddressKey( const Lumo::IntfId & i, const Lumo::IpGenAddr & a )
         : intf( i ), addr( a ) {}
   bool operator==( const IntfSecondaryAddressKey & ) const = default;
};

struct IntfSecondaryPrefixKey {
   IntfName intf;
   Prefix prefix;
   PIM_VARN_ZEROED( IntfSecondaryPrefixKey )
   IntfSecondaryPrefixKey( const Lumo::IntfId & i, const Lumo::IpGenPrefix & p )
         : intf( i ), prefix( p ) {}
   bool operator==( const IntfSecondaryPrefixKey & ) const = default;
};

// ---- rows --------------------------------------------------------------------------
// One PIM interface.
struct Intf {
   using Key = IntfKey;
   Key key;
   bool enabled;
   std::uint32_t mode;               // 0 none, 1 sparse, 2 bidir, 3 both
   AddrWithMask addressWithMask;
   AddrWithMask usedAddressWithMask;
   std::uint16_t helloPeriod;        // s
   std::uint16_t helloHoldTime;      // s
   std::uint32_t helloDelay;         // s
   std::uint32_t drPriority;
   std::uint32_t generationId;
   std::uint16_t joinPrunePeriod;    // s
   std::uint16_t joinPruneHoldTime;  // s
   bool bfdEnabled;
   bool borderRouter;
   bool fastFailover;
   bool sourceInject;
   std::uint32_t portCapabilityFlags;
   std::uint64_t portInterfaceId;    // router id << 32 | ifindex
   Addr usedDr;
   std::uint32_t usedDrPriority;
   std::uint16_t propagationDelay;   // ms
   std::uint16_t overrideInterval;   // ms
   bool tBit;
   std::uint16_t usedPropagationDelay;  // ms
   std::uint16_t usedOverrideInterval;  // ms
   bool usedTBit;
   bool triggeredHello;
   std::uint32_t triggeredHelloCount;
   double lastHelloTime;
   std::uint16_t assertTimeout;
   std::uint16_t assertOverrideInterval;
   std::uint32_t neighborLimit;
   std::uint32_t refusedNeighborCount;      // Hellos refused by a neighbour limit
   std::uint32_t refusedSourceAddressCount; // Hellos from the subnet's network or broadcast address
   std::uint32_t ignoredSecondaryCount;     // secondary addresses not taken
   PIM_VARN_ZEROED( Intf )
   explicit Intf( const Lumo::IntfId & id ) : Intf() { key = Key( id ); }
};

struct DrPriorityValue {
   bool valid;
   std::uint32_t value;
};
struct GenerationIdValue {
   bool valid;
   std::uint32_t value;
};
struct LanPruneDelayValue {
   bool valid;
   std::uint16_t propagationDelay;   // ms
   std::uint16_t overrideInterval;   // ms
   bool tBit;
};
struct PortInfoValue {
   std::uint8_t transport;           // 0 datagram, 1 SCTP
   std::uint32_t capabilityFlags;
   Addr connectionAddr;
   Addr secondAddr;
};

// One neighbour.
struct Neighbor {
   using Key = NeighborKey;
   Key key;
   double creationTime;
   double lastRefreshTime;
   std::uint16_t holdTime;           // s; 0 goodbye, 0xFFFF never expires
   DrPriorityValue drPriorityOption;
   GenerationIdValue generationIdOption;
   LanPruneDelayValue lanPruneDelayOption;
   std::uint8_t bfdState;            // 0 admin down, 1 down, 2 init, 3 up
   PortInfoValue portInfo;
   std::uint8_t transportProtocol;   // 0 datagram, 1 SCTP
   PIM_VARN_ZEROED( Neighbor )
   Neighbor( const Lumo::IntfId & intf, const Lumo::IpGenAddr & addr ) : Neighbor() {
      key = Key( intf, addr );
   }
};

// A row that is its key alone: the row says that the keyed thing exists.
template< class K >
struct KeyRow {
   using Key = K;
   Key key;
   PIM_VARN_ZEROED( KeyRow )
   explicit KeyRow( const Key & k ) : KeyRow() { key = k; }
};

using NeighborSecondaryAddress = KeyRow< NeighborSecondaryAddressKey >;
using IntfSecondaryAddress = KeyRow< IntfSecondaryAddressKey >;
using IntfSecondaryPrefix = KeyRow< IntfSecondaryPrefixKey >;
// A neighbour held inactive (its BFD session went down).
using NeighborRef = KeyRow< NeighborKey >;

// A source refused by a neighbour limit, among the most recent of its
// interface.
struct RefusedNeighbor {
   using Key = NeighborKey;
   Key key;
   std::uint32_t count;
   double lastTime;
   PIM_VARN_ZEROED( RefusedNeighbor )
   explicit RefusedNeighbor( const Key & k ) : RefusedNeighbor() { key = k; }
};

std::ostream & operator<<( std::ostream & os, const IntfName & n );
std::ostream & operator<<( std::ostream & os, const Addr & a );
std::ostream & operator<<( std::ostream & os, const NeighborKey & k );

// ---- the table set -----------------------------------------------------------------
// Table names, as MountInfo names the collections.
inline constexpr const char * kPimIntfTable = "pimIntf";
inline constexpr const char * kNeighborTable = "neighbor";
inline constexpr const char * kNeighborSecondaryAddressTable = "neighborSecondaryAddress";
inline constexpr const char * kIntfSecondaryAddressTable = "intfSecondaryAddress";
inline constexpr const char * kIntfSecondaryPrefixTable = "intfSecondaryPrefix";
inline constexpr const char * kInactiveNeighborTable = "inactiveNeighbor";
inline constexpr const char * kRefusedNeighborTable = "refusedNeighbor";

class Status : public Kiv::Entity {
 public:
   static constexpr const char * kTypeName = "Routing::Pim::Varn::Status";
   // Tables sized as mountInfo says (a collection it does not name gets its
   // default size), kept in store.
   Status( const Kiv::Name & name, const KivVarn::MountInfo & mountInfo,
           KivVarn::TableStore & store );
   // In process memory, default sizes.
   explicit Status( const Kiv::Name & name = Kiv::Name() );
   const char * typeName() const override { return kTypeName; }
   // The collections and default sizes of this table set.
   static KivVarn::MountInfo mountInfo();

   // Writers. Each returns true when the table changed.
   bool pimIntfIs( const Intf & row ) { return pimIntf_.rowIs( row ); }
   bool pimIntfDel( const IntfKey & key ) { return pimIntf_.rowDel( key ); }
   bool pimIntfDel( const Lumo::IntfId & id ) { return pimIntfDel( IntfKey( id ) ); }
   bool neighborIs( const Neighbor & row ) { return neighbor_.rowIs( row ); }
   bool neighborDel( const NeighborKey & key ) { return neighbor_.rowDel( key ); }
   bool neighborSecondaryAddressIs( const NeighborSecondaryAddress & row ) {
      return neighborSecondaryAddress_.rowIs( row );
   }
   bool neighborSecondaryAddressDel( const NeighborSecondaryAddressKey & key ) {
      return neighborSecondaryAddress_.rowDel( key );
   }
   bool intfSecondaryAddressIs( const IntfSecondaryAddress & row ) {
      return intfSecondaryAddress_.rowIs( row );
   }
   bool intfSecondaryAddressDel( const IntfSecondaryAddressKey & key ) {
      return intfSecondaryAddress_.rowDel( key );
   }
   bool intfSecondaryPrefixIs( const IntfSecondaryPrefix & row ) {
      return intfSecondaryPrefix_.rowIs( row );
   }
   bool intfSecondaryPrefixDel( const IntfSecondaryPrefixKey & key ) {
      return intfSecondaryPrefix_.rowDel( key );
   }
   bool inactiveNeighborIs( const NeighborRef & row ) { return inactiveNeighbor_.rowIs( row ); }
   bool inactiveNeighborDel( const NeighborKey & key ) { return inactiveNeighbor_.rowDel( key ); }
   bool refusedNeighborIs( const RefusedNeighbor & row ) { return refusedNeighbor_.rowIs( row ); }
   bool refusedNeighborDel( const NeighborKey & key ) { return refusedNeighbor_.rowDel( key ); }
   // Empties every table.
   void clear();

   // Readers.
   const KivVarn::Table< Intf > & pimIntf() const { return pimIntf_; }
   const KivVarn::Table< Neighbor > & neighbor() const { return neighbor_; }
   const KivVarn::Table< NeighborSecondaryAddress > & neighborSecondaryAddress() const {
      return neighborSecondaryAddress_;
   }
   const KivVarn::Table< IntfSecondaryAddress > & intfSecondaryAddress() const {
      return intfSecondaryAddress_;
   }
   const KivVarn::Table< IntfSecondaryPrefix > & intfSecondaryPrefix() const {
      return intfSecondaryPrefix_;
   }
   const KivVarn::Table< NeighborRef > & inactiveNeighbor() const { return inactiveNeighbor_; }
   const KivVarn::Table< RefusedNeighbor > & refusedNeighbor() const { return refusedNeighbor_; }

 private:
   KivVarn::Table< Intf > pimIntf_;
   KivVarn::Table< Neighbor > neighbor_;
   KivVarn::Table< NeighborSecondaryAddress > neighborSecondaryAddress_;
   KivVarn::Table< IntfSecondaryAddress > intfSecondaryAddress_;
   KivVarn::Table< IntfSecondaryPrefix > intfSecondaryPrefix_;
   KivVarn::Table< NeighborRef > inactiveNeighbor_;
   KivVarn::Table< RefusedNeighbor > refusedNeighbor_;
};

// "routing/pim/status/<vrf>", "routing6/pim/status/<vrf>".
std::string statusPath( Lumo::AddressFamily af, const L3::VrfName & vrf );

// ---- message counters ----------------------------------------------------------------
// Per message type: received, sent, and received but rejected.
struct MessageTypeCounters {
   struct Key {
      std::uint8_t type;
   };
   Key key;
   std::uint64_t rx;
   std::uint64_t tx;
   std::uint64_t rxRejected;
   PIM_VARN_ZEROED( MessageTypeCounters )
   explicit MessageTypeCounters( std::uint8_t type ) : MessageTypeCounters() { key.type = type; }
};

class MessageCounters : public Kiv::Entity {
 public:
   static constexpr const char * kTypeName = "Routing::Pim::Varn::MessageCounters";
   // PIM message types are 4 bits.
   static constexpr unsigned kMessageTypes = 16;
   MessageCounters( const Kiv::Name & name, const KivVarn::MountInfo & mountInfo,
                    KivVarn::TableStore & store );
   explicit MessageCounters( const Kiv::Name & name = Kiv::Name() );
   const char * typeName() const override { return kTypeName; }
   static KivVarn::MountInfo mountInfo();

   // Types >= kMessageTypes are refused with Kiv::RangeException.
   void rxInc( std::uint8_t type, std::uint64_t n = 1 );
   void txInc( std::uint8_t type, std::uint64_t n = 1 );
   void rxRejectedInc( std::uint8_t type, std::uint64_t n = 1 );
   MessageTypeCounters counters( std::uint8_t type ) const;
   std::uint64_t rx( std::uint8_t type ) const { return counters( type ).rx; }
   std::uint64_t tx( std::uint8_t type ) const { return counters( type ).tx; }
   std::uint64_t rxRejected( std::uint8_t type ) const { return counters( type ).rxRejected; }
   // Zeroes every counter (the clear command).
   void clearMessageCounters();

 private:
   template< class F >
   void update( std::uint8_t type, F && f );
   KivVarn::Table< MessageTypeCounters > counters_;
};

// "routing/pim/counters/<vrf>/pim", "routing6/pim/counters/<vrf>/pim".
std::string countersPath( Lumo::AddressFamily af, const L3::VrfName & vrf );

} // namespace Routing::Pim::Varn

#undef PIM_VARN_ZEROED

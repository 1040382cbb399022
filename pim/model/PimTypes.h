#pragma once
// Value types shared by the PIM entities: modes, Hello option values and the
// reliable-transport (PIM over SCTP) types.
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>

#include "lumo/IpGenAddr.h"

namespace Routing::Pim {

// Kept as a plain u32 enumeration: configuration may carry values outside
// 0..3, which the configuration pipeline must be able to see and reject.
enum Mode : std::uint32_t {
   pimModeNone = 0,
   pimModeSparse = 1,
   pimModeBidir = 2,
   pimModeSparseBidir = 3,
};
const char * modeName( Mode m );
inline bool modeIncludesBidir( Mode m ) { return m == pimModeBidir || m == pimModeSparseBidir; }

struct DrPriorityOption {
   bool valid = false;
   std::uint32_t value = 0xFFFFFFFF;
   bool operator==( const DrPriorityOption & ) const = default;
};
std::ostream & operator<<( std::ostream & os, const DrPriorityOption & o );

struct GenerationIdOption {
   bool valid = false;
   std::uint32_t value = 0;
   bool operator==( const GenerationIdOption & ) const = default;
};
std::ostream & operator<<( std::ostream & os, const GenerationIdOption & o );

// RFC 7761 4.3.3 defaults: Propagation_Delay_default 500 ms,
// t_override_default 2500 ms.
inline constexpr std::uint16_t kPropagationDelayDefault = 500;
inline constexpr std::uint16_t kOverrideIntervalDefault = 2500;

struct LanPruneDelayOption {
   bool valid = false;
   std::uint16_t propagationDelay = kPropagationDelayDefault;
   std::uint16_t overrideInterval = kOverrideIntervalDefault;
   bool tBit = false;
   bool operator==( const LanPruneDelayOption & ) const = default;
};
std::ostream & operator<<( std::ostream & os, const LanPruneDelayOption & o );

inline constexpr std::uint16_t kHoldTimeGoodbye = 0;
inline constexpr std::uint16_t kHoldTimeInfinite = 0xFFFF;
inline constexpr std::uint32_t kDrPriorityAddressOnly = 0xFFFFFFFF;

// Limits that keep one hostile sender from growing the neighbour table
// without bound. The interface and VRF limits are configurable; a widely
// deployed peer caps an interface at 4,096; the VRF's default matches the
// rows its status table holds.
inline constexpr std::uint32_t kIntfNeighborLimitDefault = 4096;
inline constexpr std::uint32_t kVrfNeighborLimitDefault = 8192;
// Secondary addresses kept per neighbour (the codec keeps at most 64 per Hello).
inline constexpr std::uint32_t kNeighborSecondaryAddressLimit = 32;
// Refused sources remembered per interface, the most recent ones.
inline constexpr std::size_t kRefusedSourcesKept = 8;

// One source whose Hellos were refused by a neighbour limit.
struct RefusedSource {
   std::uint32_t count = 0;
   double lastTime = 0.0;
   bool operator==( const RefusedSource & ) const = default;
};
std::ostream & operator<<( std::ostream & os, const RefusedSource & r );

namespace Reliable {

enum Protocol : std::uint8_t {
   protocolDatagram = 0,
   protocolSctp = 1,
};

using CapabilityFlags = std::uint32_t;
inline constexpr CapabilityFlags kCapabilitySctp = 1u << 0;

// Identifies an interface for PIM over a reliable transport: the VRF's router
// id and the kernel interface index.
struct InterfaceId {
   std::uint32_t routerId = 0;
   std::uint32_t ifIndex = 0;
   bool operator==( const InterfaceId & ) const = default;
   std::uint64_t value() const { return ( std::uint64_t( routerId ) << 32 ) | ifIndex; }
};
std::ostream & operator<<( std::ostream & os, const InterfaceId & id );

// What a neighbour's Hello said about reliable transport. All-empty means no
// port capability.
struct NeighborInfo {
   Protocol transport = protocolDatagram;
   CapabilityFlags capabilityFlags = 0;
   Lumo::IpGenAddr connectionAddr;
   Lumo::IpGenAddr secondAddr;
   bool operator==( const NeighborInfo & ) const = default;
};
std::ostream & operator<<( std::ostream & os, const NeighborInfo & i );

} // namespace Reliable
} // namespace Routing::Pim

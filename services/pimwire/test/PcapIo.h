#pragma once
// Just enough capture-file handling for the codec tests: reads pcapng files
// of Ethernet frames and peels Ethernet and IPv4 headers off PIM packets (the
// captures are of IPv4 Hellos).
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "services/pimwire/HelloCodec.h"

namespace PimWireTest {

using Bytes = std::vector< std::uint8_t >;

// Ethernet frames of the file; nullopt if it cannot be read or parsed.
std::optional< std::vector< Bytes > > readCaptureFrames( const std::string & path );

struct PimPacket {
   PimWire::Family family = PimWire::Family::none;
   PimWire::Addr src;
   PimWire::Addr dst;
   Bytes payload; // the PIM message
};
// The PIM message inside an untagged Ethernet frame, nullopt if the frame is
// not IPv4 protocol 103.
std::optional< PimPacket > pimFromFrame( const Bytes & frame );

} // namespace PimWireTest

#pragma once
// Encoder and decoder of PIM Hello messages (the PIM payload only; the raw
// socket layer adds and strips the IP header).
//
// Decoding is total: any input gives either a Hello or a reject reason, it
// never throws, and the memory it takes is bounded (at most
// kMaxAddressesKept distinct secondary addresses are kept; repeats and the
// rest are counted).
// Damage confined to one option costs that option only: it is skipped and
// counted in DecodeStats while the rest of the Hello is used.
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <vector>

#include "services/pimwire/Addr.h"
#include "services/pimwire/Hello.h"

namespace PimWire {

inline constexpr std::size_t kPimHeaderLen = 4;
inline constexpr std::uint8_t kPimVersion = 2;
inline constexpr std::uint8_t kIpProtoPim = 103;
inline constexpr std::size_t kMaxAddressesKept = 64;

enum class RejectReason : std::uint8_t {
   none = 0,
   badFamily,     // family none, or src/dst not of the given family
   tooShort,      // shorter than the PIM header
   badVersion,    // PIM version is not 2
   notHello,      // PIM type is not 0
   badChecksum,
   optionOverrun, // an option header or value runs past the end
};
inline constexpr int kRejectReasonCount = 7;
const char * rejectReasonName( RejectReason r );
std::ostream & operator<<( std::ostream & os, RejectReason r );

// What the decoder skipped while still accepting the Hello.
struct DecodeStats {
   std::uint32_t options = 0;           // options seen
   std::uint32_t unknownOptions = 0;    // option types this codec does not know
   std::uint32_t badLengthOptions = 0;  // known options whose length is wrong
   std::uint32_t duplicateOptions = 0;  // repeats of a single-valued option (last one wins)
   std::uint32_t otherFamilyAddrs = 0;  // address list entries of the other family
   std::uint32_t badAddressEntries = 0; // entries of unknown family or encoding (rest of list lost)
   std::uint32_t droppedAddrs = 0;      // addresses beyond kMaxAddressesKept
   std::uint32_t duplicateAddrs = 0;    // repeats of an address already kept
   bool operator==( const DecodeStats & ) const = default;
   // Anything at all skipped?
   bool clean() const {
      return unknownOptions == 0 && badLengthOptions == 0 && duplicateOptions == 0 &&
             otherFamilyAddrs == 0 && badAddressEntries == 0 && droppedAddrs == 0 &&
             duplicateAddrs == 0;
   }
};
std::ostream & operator<<( std::ostream & os, const DecodeStats & s );

struct DecodeResult {
   RejectReason reason = RejectReason::none;
   Hello hello; // meaningful only when ok()
   DecodeStats stats;
   bool ok() const { return reason == RejectReason::none; }
};

// Decodes the PIM message data[0, len) received from src to dst over IP of
// the given family. Fills out (clearing it first but keeping the address
// list's capacity, so that a reused Hello makes the common case
// allocation-free) and stats; returns the reject reason, none on success.
// On a reject out is left cleared; stats count what was seen up to the fault.
RejectReason decodeHello( const std::uint8_t * data, std::size_t len, Family family,
                          const Addr & src, const Addr & dst, Hello & out,
                          DecodeStats & stats );
DecodeResult decodeHello( const std::uint8_t * data, std::size_t len, Family family,
                          const Addr & src, const Addr & dst );

// Bytes the encoding of h takes, 0 if h cannot be encoded (a value out of
// its field's range or an address of family none in the address list).
std::size_t encodedHelloSize( const Hello & h );

// Writes the Hello as a PIM message with its checksum for the given family,
// source and destination. Returns the bytes written, 0 when h cannot be
// encoded, family/src/dst do not agree, or cap is too small. Options go out
// in ascending type order; address list entries keep their own family.
std::size_t encodeHello( const Hello & h, Family family, const Addr & src, const Addr & dst,
                         std::uint8_t * buf, std::size_t cap );
// Same, into a new vector (empty on failure).
std::vector< std::uint8_t > encodeHello( const Hello & h, Family family, const Addr & src,
                                         const Addr & dst );

// PIM checksum: over the message for IPv4, over the IPv6 pseudo-header
// (next header 103) and the message for IPv6. pimChecksum returns the value
// to store with the checksum field counted as zero; checksumOk checks a
// message as received.
std::uint16_t pimChecksum( const std::uint8_t * msg, std::size_t len, Family family,
                           const Addr & src, const Addr & dst );
bool checksumOk( const std::uint8_t * msg, std::size_t len, Family family, const Addr & src,
                 const Addr & dst );
// Recomputes and stores the checksum of msg (len >= kPimHeaderLen).
void setChecksum( std::uint8_t * msg, std::size_t len, Family family, const Addr & src,
                  const Addr & dst );

} // namespace PimWire

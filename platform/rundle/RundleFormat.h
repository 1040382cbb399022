#pragma once
// The on-disk layout shared by the writer and the reader (native byte order).
#include <cstddef>
#include <cstdint>

namespace Rundle::Format {

inline constexpr char kFileMagic[ 8 ] = { 'R', 'U', 'N', 'D', 'L', 'E', '0', '1' };
inline constexpr std::uint32_t kVersion = 1;
inline constexpr std::uint32_t kRecordMagic = 0x52444e52;  // "RNDR"
inline constexpr std::uint8_t kFlagTruncated = 1;
inline constexpr std::size_t kMaxRings = 64;

struct FileHeader {
   char magic[ 8 ];
   std::uint32_t version;
   std::uint32_t headerBytes;  // this header plus the ring descriptors
   std::uint32_t ringCount;
   std::uint32_t maxRecordBytes;
   std::uint64_t fileBytes;
   std::uint32_t pid;
   std::uint32_t reserved0;
   std::uint64_t reserved[ 3 ];
};
static_assert( sizeof( FileHeader ) == 64 );

// Rewritten by the writer after every record; informational except for
// offset and capacity, which the reader needs to find the ring.
struct RingDesc {
   std::uint64_t offset;
   std::uint64_t capacity;
   std::uint64_t head;     // bytes ever written
   std::uint64_t records;  // records ever written
   std::uint64_t dropped;
};
static_assert( sizeof( RingDesc ) == 40 );

// Followed by fileLen + funcLen + textLen bytes, then zero padding to 8.
struct RecordHeader {
   std::uint32_t magic;
   std::uint32_t length;  // header and payload, without padding
   std::uint32_t crc;     // CRC-32 of the header (crc = 0, magic = 0) and payload
   std::int32_t line;
   std::uint64_t seq;
   double time;
   std::uint16_t fileLen;
   std::uint16_t funcLen;
   std::uint16_t textLen;
   std::int8_t level;
   std::uint8_t flags;
};
static_assert( sizeof( RecordHeader ) == 40 );

inline constexpr std::size_t align( std::size_t n ) { return ( n + 7 ) & ~std::size_t{ 7 }; }

std::uint32_t crc32( std::uint32_t crc, const void * data, std::size_t len );
// CRC of a record whose payload follows at payload (h.magic and h.crc ignored).
std::uint32_t recordCrc( const RecordHeader & h, const std::uint8_t * payload );

} // namespace Rundle::Format

#pragma once
// A generic IP address: IPv4, IPv6 or empty (default-constructed).
//
// Seventeen bytes, no heap: the address in network order (an IPv4 address
// uses the first four bytes, the rest stay zero) and the family. Neighbour
// tables key on this type, so equality, order and hash work on two 64-bit
// words rather than byte loops.
//
// Order: empty < every IPv4 < every IPv6; within a family the address bytes
// as an unsigned big-endian number, so "higher address" means what DR
// election expects.
#include <array>
#include <bit>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <span>
#include <string>
#include <string_view>

#include <netinet/in.h>

#include "kiv/String.h"
#include "lumo/AddressFamily.h"
#include "lumo/Strep.h"

namespace Lumo {

class IpGenAddr {
 public:
   using Bytes4 = std::array< std::uint8_t, 4 >;
   using Bytes16 = std::array< std::uint8_t, 16 >;

   constexpr IpGenAddr() noexcept = default;
   constexpr explicit IpGenAddr( const Bytes4 & b ) noexcept : af_( AddressFamily::ipv4 ) {
      for( std::size_t i = 0; i < 4; ++i ) bytes_[ i ] = b[ i ];
   }
   constexpr explicit IpGenAddr( const Bytes16 & b ) noexcept
         : bytes_( b ), af_( AddressFamily::ipv6 ) {}
   explicit IpGenAddr( const in_addr & a ) noexcept;
   explicit IpGenAddr( const in6_addr & a ) noexcept;

   static constexpr IpGenAddr ipv4( std::uint32_t hostOrder ) noexcept {
      return IpGenAddr( Bytes4{ static_cast< std::uint8_t >( hostOrder >> 24 ),
                                static_cast< std::uint8_t >( hostOrder >> 16 ),
                                static_cast< std::uint8_t >( hostOrder >> 8 ),
                                static_cast< std::uint8_t >( hostOrder ) } );
   }
   // Throws Kiv::RangeException unless s is exactly one address ("" is the
   // empty address).
   static IpGenAddr fromStrep( std::string_view s );

   constexpr AddressFamily af() const noexcept { return af_; }
   constexpr bool isIpv4() const noexcept { return af_ == AddressFamily::ipv4; }
   constexpr bool isIpv6() const noexcept { return af_ == AddressFamily::ipv6; }
   constexpr bool isEmpty() const noexcept { return af_ == AddressFamily::none; }
   // 0.0.0.0 or ::
   constexpr bool isUnspecified() const noexcept {
      const Words w = words();
      return !isEmpty() && w.hi == 0 && w.lo == 0;
   }
   // 224.0.0.0/4, ff00::/8
   constexpr bool isMulticast() const noexcept {
      return ( isIpv4() && ( bytes_[ 0 ] & 0xF0 ) == 0xE0 ) || ( isIpv6() && bytes_[ 0 ] == 0xFF );
   }
   // 169.254.0.0/16, fe80::/10
   constexpr bool isLinkLocal() const noexcept {
      return ( isIpv4() && bytes_[ 0 ] == 169 && bytes_[ 1 ] == 254 ) ||
             ( isIpv6() && bytes_[ 0 ] == 0xFE && ( bytes_[ 1 ] & 0xC0 ) == 0x80 );
   }

   // Network order: 4 bytes for IPv4, 16 for IPv6, none when empty.
   std::span< const std::uint8_t > bytes() const noexcept {
      return std::span< const std::uint8_t >( bytes_.data(), byteLength( af_ ) );
   }
   // The IPv4 address as a host-order number; 0 for anything else.
   constexpr std::uint32_t v4HostOrder() const noexcept {
      if( !isIpv4() ) return 0;
      return ( std::uint32_t( bytes_[ 0 ] ) << 24 ) | ( std::uint32_t( bytes_[ 1 ] ) << 16 ) |
             ( std::uint32_t( bytes_[ 2 ] ) << 8 ) | std::uint32_t( bytes_[ 3 ] );
   }
   in_addr toInAddr() const noexcept;   // 0.0.0.0 unless IPv4
   in6_addr toIn6Addr() const noexcept; // :: unless IPv6

   static constexpr unsigned byteLength( AddressFamily af ) noexcept {
      return af == AddressFamily::ipv4 ? 4 : af == AddressFamily::ipv6 ? 16 : 0;
   }
   static constexpr unsigned maxMaskLen( AddressFamily af ) noexcept {
      return byteLength( af ) * 8;
   }
   constexpr unsigned maxMaskLen() const noexcept { return maxMaskLen( af_ ); }

   // This address with every bit after the first len cleared; len is capped
   // at maxMaskLen().
   constexpr IpGenAddr masked( unsigned len ) const noexcept {
      const Words m = maskWords( len < maxMaskLen() ? len : maxMaskLen() );
      const Words w = words();
      IpGenAddr r;
      r.af_ = af_;
      r.setWords( Words{ w.hi & m.hi, w.lo & m.lo } );
      return r;
   }
   // True when a and b agree in their family and their first len bits.
   static constexpr bool samePrefix( const IpGenAddr & a, const IpGenAddr & b,
                                     unsigned len ) noexcept {
      if( a.af_ != b.af_ ) return false;
      const Words m = maskWords( len );
      const Words wa = a.words();
      const Words wb = b.words();
      return ( ( wa.hi ^ wb.hi ) & m.hi ) == 0 && ( ( wa.lo ^ wb.lo ) & m.lo ) == 0;
   }

   // Fast and well mixed in the low bits (hash tables mask rather than divide).
   std::size_t hash() const noexcept {
      const auto raw = std::bit_cast< std::array< std::uint64_t, 2 > >( bytes_ );
      std::uint64_t h = raw[ 0 ] + 0x9E3779B97F4A7C15ull * ( raw[ 1 ] + std::uint64_t( af_ ) );
      h ^= h >> 33;
      h *= 0xFF51AFD7ED558CCDull;
      h ^= h >> 33;
      h *= 0xC4CEB9FE1A85EC53ull;
      h ^= h >> 33;
      return static_cast< std::size_t >( h );
   }

   friend constexpr bool operator==( const IpGenAddr & a, const IpGenAddr & b ) noexcept {
      // Equality needs no byte swap.
      const auto wa = std::bit_cast< std::array< std::uint64_t, 2 > >( a.bytes_ );
      const auto wb = std::bit_cast< std::array< std::uint64_t, 2 > >( b.bytes_ );
      return a.af_ == b.af_ && wa[ 0 ] == wb[ 0 ] && wa[ 1 ] == wb[ 1 ];
   }
   friend constexpr std::strong_ordering operator<=>( const IpGenAddr & a,
                                                      const IpGenAddr & b ) noexcept {
      if( a.af_ != b.af_ ) return a.af_ <=> b.af_;
      const Words wa = a.words();
      const Words wb = b.words();
      if( wa.hi != wb.hi ) return wa.hi <=> wb.hi;
      return wa.lo <=> wb.lo;
   }

 private:
   // The 128 address bits as two host-order numbers, most significant first;
   // an IPv4 address sits in the top 32 bits of hi.
   struct Words {
      std::uint64_t hi;
      std::uint64_t lo;
   };
   static constexpr std::uint64_t fromBigEndian( std::uint64_t v ) noexcept {
      if constexpr( std::endian::native == std::endian::little ) return __builtin_bswap64( v );
      return v;
   }
   constexpr Words words() const noexcept {
      const auto raw = std::bit_cast< std::array< std::uint64_t, 2 > >( bytes_ );
      return Words{ fromBigEndian( raw[ 0 ] ), fromBigEndian( raw[ 1 ] ) };
   }
   constexpr void setWords( const Words & w ) noexcept {
      bytes_ = std::bit_cast< Bytes16 >(
         std::array< std::uint64_t, 2 >{ fromBigEndian( w.hi ), fromBigEndian( w.lo ) } );
   }
   static constexpr Words maskWords( unsigned len ) noexcept {
      const std::uint64_t ones = ~std::uint64_t( 0 );
      const std::uint64_t hi = len == 0 ? 0 : len >= 64 ? ones : ones << ( 64 - len );
      const std::uint64_t lo = len <= 64 ? 0 : len >= 128 ? ones : ones << ( 128 - len );
      return Words{ hi, lo };
   }

   Bytes16 bytes_{};
   AddressFamily af_ = AddressFamily::none;
};

static_assert( sizeof( IpGenAddr ) == 17 );

// Dotted quad for IPv4; RFC 5952 text for IPv6 (IPv4-mapped addresses end in
// a dotted quad); "" for the empty address.
std::string valueToStrep( const IpGenAddr & a );
std::ostream & operator<<( std::ostream & os, const IpGenAddr & a );
// Reads one address: the longest run of hex digits, ':' and '.', IPv6 if it
// holds a ':'. An empty range reads as the empty address; anything else that
// is not an address is malformed. Octets with leading zeros are rejected
// rather than guessed at.
bool strepToValue( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                   IpGenAddr & out );

// ALL-PIM-ROUTERS
inline constexpr IpGenAddr ip4AddrPimRouters = IpGenAddr::ipv4( 0xE000000D );
inline constexpr IpGenAddr ip6AddrPimRouters =
   IpGenAddr( IpGenAddr::Bytes16{ 0xFF, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x0D } );

} // namespace Lumo

template<>
struct std::hash< Lumo::IpGenAddr > {
   std::size_t operator()( const Lumo::IpGenAddr & a ) const noexcept { return a.hash(); }
};

LUMO_FMT_VIA_STREP( Lumo::IpGenAddr )

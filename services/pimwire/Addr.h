#pragma once
// The codec's own address type: a family tag and up to 16 bytes in network
// order. Kept free of the platform's address classes so that the codec
// depends on the standard library only; an adapter converts at the edge.
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace PimWire {

// Values are the address family numbers PIM puts on the wire.
enum class Family : std::uint8_t { none = 0, ipv4 = 1, ipv6 = 2 };

const char * familyName( Family f );
// Length in bytes of an address of family f (0 for none).
constexpr std::size_t familyAddrLen( Family f ) {
   return f == Family::ipv4 ? 4 : f == Family::ipv6 ? 16 : 0;
}

struct Addr {
   Family family = Family::none;
   // Unused trailing bytes stay zero so that defaulted comparison works.
   std::array< std::uint8_t, 16 > bytes{};

   static Addr v4( std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d );
   static Addr v4( std::uint32_t hostOrder );
   static Addr v6( const std::array< std::uint8_t, 16 > & b );
   // Copies familyAddrLen( f ) bytes from p.
   static Addr fromBytes( Family f, const std::uint8_t * p );
   // Dotted quad or RFC 5952 text; nullopt on anything else.
   static std::optional< Addr > parse( std::string_view text );

   std::size_t size() const { return familyAddrLen( family ); }
   bool isSet() const { return family != Family::none; }
   std::string toString() const;
   bool operator==( const Addr & ) const = default;
};
std::ostream & operator<<( std::ostream & os, const Addr & a );

} // namespace PimWire

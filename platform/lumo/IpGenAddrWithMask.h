#pragma once
// An interface address with its mask length, e.g. "198.18.0.1/24": unlike a
// prefix, the host bits are the point.
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "kiv/String.h"
#include "lumo/IpGenAddr.h"
#include "lumo/IpGenPrefix.h"
#include "lumo/Strep.h"

namespace Lumo {

class IpGenAddrWithMask {
 public:
   constexpr IpGenAddrWithMask() noexcept = default;
   // Throws Kiv::RangeException "IpGenAddrWithMask::maskLen > N not allowed"
   // when maskLen exceeds the family's maximum N (32, 128; 0 when empty).
   IpGenAddrWithMask( const IpGenAddr & address, unsigned maskLen );
   static IpGenAddrWithMask fromStrep( std::string_view s );

   const IpGenAddr & address() const noexcept { return address_; }
   unsigned maskLen() const noexcept { return maskLen_; }
   AddressFamily af() const noexcept { return address_.af(); }
   bool isEmpty() const noexcept { return address_.isEmpty(); }

   // The attached subnet: the address with its host bits cleared.
   IpGenPrefix subnet() const { return IpGenPrefix::masked( address_, maskLen_ ); }
   // Whether a is on the attached subnet.
   bool contains( const IpGenAddr & a ) const noexcept {
      return !isEmpty() && IpGenAddr::samePrefix( address_, a, maskLen_ );
   }

   std::size_t hash() const noexcept { return address_.hash() * 31 + maskLen_; }

   friend bool operator==( const IpGenAddrWithMask &, const IpGenAddrWithMask & ) noexcept =
      default;
   // By address, then mask length.
   friend std::strong_ordering operator<=>( const IpGenAddrWithMask &,
                                            const IpGenAddrWithMask & ) noexcept = default;

 private:
   IpGenAddr address_;
   std::uint8_t maskLen_ = 0;
};

// "198.18.0.1/24"; "" when empty.
std::string valueToStrep( const IpGenAddrWithMask & a );
std::ostream & operator<<( std::ostream & os, const IpGenAddrWithMask & a );
bool strepToValue( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                   IpGenAddrWithMask & out );

} // namespace Lumo

template<>
struct std::hash< Lumo::IpGenAddrWithMask > {
   std::size_t operator()( const Lumo::IpGenAddrWithMask & a ) const noexcept {
      return a.hash();
   }
};

LUMO_FMT_VIA_STREP( Lumo::IpGenAddrWithMask )

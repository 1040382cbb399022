#pragma once
// A network prefix: an address whose bits after the first len are all zero.
// Default-constructed it is the empty prefix, which contains nothing.
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "kiv/String.h"
#include "lumo/IpGenAddr.h"
#include "lumo/Strep.h"

namespace Lumo {

class IpGenPrefix {
 public:
   constexpr IpGenPrefix() noexcept = default;
   // Throws Kiv::RangeException "Prefix::validAsPrefix != true not allowed"
   // unless validAsPrefix( address, len ).
   IpGenPrefix( const IpGenAddr & address, unsigned len );

   // len fits the family and no bit after the first len is set. The empty
   // address is valid only with length 0.
   static bool validAsPrefix( const IpGenAddr & address, unsigned len ) noexcept;
   // Clears the host bits instead of refusing them; a len beyond the family's
   // maximum still throws Kiv::RangeException.
   static IpGenPrefix masked( const IpGenAddr & address, unsigned len );
   static IpGenPrefix fromStrep( std::string_view s );

   const IpGenAddr & address() const noexcept { return address_; }
   unsigned len() const noexcept { return len_; }
   AddressFamily af() const noexcept { return address_.af(); }
   bool isEmpty() const noexcept { return address_.isEmpty(); }

   bool contains( const IpGenAddr & a ) const noexcept {
      return !isEmpty() && IpGenAddr::samePrefix( address_, a, len_ );
   }
   // Whether every address of p is in this prefix.
   bool contains( const IpGenPrefix & p ) const noexcept {
      return p.len_ >= len_ && contains( p.address_ );
   }

   std::size_t hash() const noexcept { return address_.hash() * 31 + len_; }

   friend bool operator==( const IpGenPrefix &, const IpGenPrefix & ) noexcept = default;
   // By address, then length.
   friend std::strong_ordering operator<=>( const IpGenPrefix &,
                                            const IpGenPrefix & ) noexcept = default;

 private:
   struct Unchecked {};
   IpGenPrefix( Unchecked, const IpGenAddr & address, unsigned len ) noexcept
         : address_( address ), len_( static_cast< std::uint8_t >( len ) ) {}

   IpGenAddr address_;
   std::uint8_t len_ = 0;
};

// "198.18.0.0/15", "2001:db8::/32"; "" for the empty prefix. The parser
// rejects host bits, like the constructor.
std::string valueToStrep( const IpGenPrefix & p );
std::ostream & operator<<( std::ostream & os, const IpGenPrefix & p );
bool strepToValue( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                   IpGenPrefix & out );

namespace Detail {
// Reads "<address>/<len>" with len in 0..max for the address's family and no
// leading zeros; an empty range reads as the empty address with length 0.
bool parseAddrSlashLen( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                        IpGenAddr & address, unsigned & len );
std::string addrSlashLen( const IpGenAddr & address, unsigned len );
} // namespace Detail

} // namespace Lumo

template<>
struct std::hash< Lumo::IpGenPrefix > {
   std::size_t operator()( const Lumo::IpGenPrefix & p ) const noexcept { return p.hash(); }
};

LUMO_FMT_VIA_STREP( Lumo::IpGenPrefix )

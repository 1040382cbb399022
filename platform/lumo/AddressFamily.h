#pragma once
// Address family of a generic IP address or prefix. The numeric order
// (none < ipv4 < ipv6) is the order IP addresses sort by first.
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "kiv/String.h"
#include "lumo/Strep.h"

namespace Lumo {

enum class AddressFamily : std::uint8_t {
   none = 0,
   ipv4 = 1,
   ipv6 = 2,
};

// "none", "ipv4", "ipv6"; a value outside the enumeration gives "unknown".
const char * addressFamilyName( AddressFamily af ) noexcept;
std::ostream & operator<<( std::ostream & os, AddressFamily af );
std::string valueToStrep( AddressFamily af );
bool strepToValue( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                   AddressFamily & out );
// An enumeration has no static members: this is its fromStrep.
AddressFamily addressFamilyFromStrep( std::string_view s );

} // namespace Lumo

template<>
struct std::hash< Lumo::AddressFamily > {
   std::size_t operator()( Lumo::AddressFamily af ) const noexcept {
      return static_cast< std::size_t >( af );
   }
};

LUMO_FMT_VIA_STREP( Lumo::AddressFamily )

#pragma once
// Shared plumbing for the value types' string forms: whole-string parsing for
// T::fromStrep and fmt support through valueToStrep.
#include <string>
#include <string_view>

#include <fmt/core.h>

#include "kiv/RangeException.h"
#include "kiv/String.h"

namespace Lumo::Detail {

[[noreturn]] void throwMalformed( const char * typeName, std::string_view text );

// Parses all of text with the type's strepToValue; trailing characters count
// as malformed.
template< class T >
T parseWhole( std::string_view text, const char * typeName ) {
   Kiv::String::IteratorConst begin = text.data();
   const Kiv::String::IteratorConst end = begin + text.size();
   T value;
   if( !strepToValue( begin, end, value ) || begin != end ) throwMalformed( typeName, text );
   return value;
}

} // namespace Lumo::Detail

// fmt::format( "{}", v ) for a type with valueToStrep( v ).
#define LUMO_FMT_VIA_STREP( T )                                                 \
   template<>                                                                   \
   struct fmt::formatter< T > : fmt::formatter< std::string_view > {            \
      auto format( const T & v, fmt::format_context & ctx ) const {            \
         return fmt::formatter< std::string_view >::format( valueToStrep( v ), ctx ); \
      }                                                                         \
   };

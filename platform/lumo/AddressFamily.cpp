#include "lumo/AddressFamily.h"

namespace Lumo {

const char * addressFamilyName( AddressFamily af ) noexcept {
   switch( af ) {
    case AddressFamily::none: return "none";
    case AddressFamily::ipv4: return "ipv4";
    case AddressFamily::ipv6: return "ipv6";
   }
   return "unknown";
}

std::ostream & operator<<( std::ostream & os, AddressFamily af ) {
   return os << addressFamilyName( af );
}

std::string valueToStrep( AddressFamily af ) { return addressFamilyName( af ); }

bool strepToValue( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                   AddressFamily & out ) {
   const std::string_view rest( begin, static_cast< std::size_t >( end - begin ) );
   for( AddressFamily af : { AddressFamily::none, AddressFamily::ipv4, AddressFamily::ipv6 } ) {
      const std::string_view name = addressFamilyName( af );
      if( rest.substr( 0, name.size() ) == name ) {
         out = af;
         begin += name.size();
         return true;
      }
   }
   return false;
}

AddressFamily addressFamilyFromStrep( std::string_view s ) {
   return Detail::parseWhole< AddressFamily >( s, "AddressFamily" );
}

} // namespace Lumo

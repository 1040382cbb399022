#include "lumo/IntfId.h"

#include <fmt/format.h>

#include "kiv/RangeException.h"

namespace Lumo {

std::uint16_t IntfId::vlanIdOf( std::string_view name ) noexcept {
   constexpr std::string_view prefix = "Vlan";
   if( name.size() <= prefix.size() || name.substr( 0, prefix.size() ) != prefix ) return 0;
   unsigned v = 0;
   for( char c : name.substr( prefix.size() ) ) {
      if( c < '0' || c > '9' ) return 0;
      v = v * 10 + unsigned( c - '0' );
      if( v > vlanIdMax ) return 0; // also stops overflow on long digit runs
   }
   return v >= vlanIdMin ? static_cast< std::uint16_t >( v ) : 0;
}

IntfId IntfId::fromVlan( std::uint16_t vlanId ) {
   if( vlanId < vlanIdMin || vlanId > vlanIdMax ) {
      throw Kiv::RangeException( "IntfId::vlanId outside 1..4094 not allowed" );
   }
   return IntfId( fmt::format( "Vlan{}", vlanId ) );
}

std::string valueToStrep( const IntfId & i ) { return i.name().str(); }

std::ostream & operator<<( std::ostream & os, const IntfId & i ) { return os << i.name(); }

bool strepToValue( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                   IntfId & out ) {
   out = IntfId( std::string_view( begin, static_cast< std::size_t >( end - begin ) ) );
   begin = end;
   return true;
}

} // namespace Lumo

#include "lumo/VrfName.h"

#include "kiv/RangeException.h"

namespace L3 {

namespace {

void checkLength( std::size_t size ) {
   if( size > VrfName::maxLength ) {
      throw Kiv::RangeException( "VrfName::bytes > VrfName::maxLength not allowed" );
   }
}

} // namespace

VrfName::VrfName( std::string_view name ) {
   checkLength( name.size() );
   name_ = Kiv::String( name );
}

VrfName::VrfName( const Kiv::String & name ) {
   checkLength( name.size() );
   name_ = name;
}

VrfName VrfName::defaultVrf() {
   // One shared buffer for every copy of the default VRF's name.
   static const Kiv::String name( "default" );
   return VrfName( name );
}

std::string valueToStrep( const VrfName & v ) { return v.name().str(); }

std::ostream & operator<<( std::ostream & os, const VrfName & v ) { return os << v.name(); }

bool strepToValue( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                   VrfName & out ) {
   const auto size = static_cast< std::size_t >( end - begin );
   if( size > VrfName::maxLength ) return false;
   out = VrfName( std::string_view( begin, size ) );
   begin = end;
   return true;
}

} // namespace L3

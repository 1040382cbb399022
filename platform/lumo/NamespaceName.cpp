#include "lumo/NamespaceName.h"

#include "kiv/RangeException.h"

namespace Lumo {

namespace {

void checkLength( std::size_t size ) {
   if( size > NamespaceName::maxLength ) {
      throw Kiv::RangeException( "NamespaceName::bytes > 150 not allowed" );
   }
}

} // namespace

NamespaceName::NamespaceName( std::string_view name ) {
   checkLength( name.size() );
   name_ = Kiv::String( name );
}

NamespaceName::NamespaceName( const Kiv::String & name ) {
   checkLength( name.size() );
   name_ = name;
}

std::string valueToStrep( const NamespaceName & n ) { return n.name().str(); }

std::ostream & operator<<( std::ostream & os, const NamespaceName & n ) {
   return os << n.name();
}

bool strepToValue( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                   NamespaceName & out ) {
   const auto size = static_cast< std::size_t >( end - begin );
   if( size > NamespaceName::maxLength ) return false;
   out = NamespaceName( std::string_view( begin, size ) );
   begin = end;
   return true;
}

} // namespace Lumo

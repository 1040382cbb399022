#include "kiv/String.h"

#include <cstring>
#include <new>

namespace Kiv {

String::String( std::string_view s ) {
   if( s.empty() ) return;
   void * mem = ::operator new( sizeof( Rep ) + s.size() + 1 );
   Rep * rep = new( mem ) Rep;
   rep->refs.store( 1, std::memory_order_relaxed );
   rep->size = s.size();
   rep->hash = std::hash< std::string_view >()( s );
   std::memcpy( rep->chars(), s.data(), s.size() );
   rep->chars()[ s.size() ] = '\0';
   rep_ = rep;
}

void String::release( Rep * rep ) noexcept {
   if( rep->refs.fetch_sub( 1, std::memory_order_acq_rel ) == 1 ) {
      rep->~Rep();
      ::operator delete( rep );
   }
}

std::string valueToStrep( const String & s ) { return s.str(); }

bool strepToValue( String::IteratorConst & begin, String::IteratorConst end, String & out ) {
   out = String( std::string_view( begin, static_cast< std::size_t >( end - begin ) ) );
   begin = end;
   return true;
}

std::string valueToStrep( const Name & n ) { return n.str(); }

bool strepToValue( Name::IteratorConst & begin, Name::IteratorConst end, Name & out ) {
   out = Name( std::string_view( begin, static_cast< std::size_t >( end - begin ) ) );
   begin = end;
   return true;
}

} // namespace Kiv

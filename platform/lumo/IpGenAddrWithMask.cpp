#include "lumo/IpGenAddrWithMask.h"

#include <fmt/format.h>

#include "kiv/RangeException.h"

namespace Lumo {

IpGenAddrWithMask::IpGenAddrWithMask( const IpGenAddr & address, unsigned maskLen ) {
   if( maskLen > address.maxMaskLen() ) {
      throw Kiv::RangeException(
         fmt::format( "IpGenAddrWithMask::maskLen > {} not allowed", address.maxMaskLen() ) );
   }
   address_ = address;
   maskLen_ = static_cast< std::uint8_t >( maskLen );
}

IpGenAddrWithMask IpGenAddrWithMask::fromStrep( std::string_view s ) {
   return Detail::parseWhole< IpGenAddrWithMask >( s, "IpGenAddrWithMask" );
}

std::string valueToStrep( const IpGenAddrWithMask & a ) {
   return Detail::addrSlashLen( a.address(), a.maskLen() );
}

std::ostream & operator<<( std::ostream & os, const IpGenAddrWithMask & a ) {
   return os << valueToStrep( a );
}

bool strepToValue( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                   IpGenAddrWithMask & out ) {
   IpGenAddr address;
   unsigned len = 0;
   if( !Detail::parseAddrSlashLen( begin, end, address, len ) ) return false;
   out = IpGenAddrWithMask( address, len );
   return true;
}

} // namespace Lumo

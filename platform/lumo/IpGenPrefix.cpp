#include "lumo/IpGenPrefix.h"

#include <fmt/format.h>

#include "kiv/RangeException.h"

namespace Lumo {

IpGenPrefix::IpGenPrefix( const IpGenAddr & address, unsigned len ) {
   if( !validAsPrefix( address, len ) ) {
      throw Kiv::RangeException( "Prefix::validAsPrefix != true not allowed" );
   }
   address_ = address;
   len_ = static_cast< std::uint8_t >( len );
}

bool IpGenPrefix::validAsPrefix( const IpGenAddr & address, unsigned len ) noexcept {
   return len <= address.maxMaskLen() && address.masked( len ) == address;
}

IpGenPrefix IpGenPrefix::masked( const IpGenAddr & address, unsigned len ) {
   if( len > address.maxMaskLen() ) {
      throw Kiv::RangeException(
         fmt::format( "IpGenPrefix::len > {} not allowed", address.maxMaskLen() ) );
   }
   return IpGenPrefix( Unchecked(), address.masked( len ), len );
}

IpGenPrefix IpGenPrefix::fromStrep( std::string_view s ) {
   return Detail::parseWhole< IpGenPrefix >( s, "IpGenPrefix" );
}

std::string valueToStrep( const IpGenPrefix & p ) {
   return Detail::addrSlashLen( p.address(), p.len() );
}

std::ostream & operator<<( std::ostream & os, const IpGenPrefix & p ) {
   return os << valueToStrep( p );
}

bool strepToValue( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                   IpGenPrefix & out ) {
   Kiv::String::IteratorConst p = begin;
   IpGenAddr address;
   unsigned len = 0;
   if( !Detail::parseAddrSlashLen( p, end, address, len ) ) return false;
   if( !IpGenPrefix::validAsPrefix( address, len ) ) return false;
   out = IpGenPrefix( address, len );
   begin = p;
   return true;
}

namespace Detail {

bool parseAddrSlashLen( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                        IpGenAddr & address, unsigned & len ) {
   Kiv::String::IteratorConst p = begin;
   if( p == end ) {
      address = IpGenAddr();
      len = 0;
      return true;
   }
   IpGenAddr a;
   if( !strepToValue( p, end, a ) || a.isEmpty() ) return false;
   if( p == end || *p != '/' ) return false;
   ++p;
   const Kiv::String::IteratorConst digits = p;
   unsigned v = 0;
   while( p != end && *p >= '0' && *p <= '9' && p - digits < 4 ) v = v * 10 + unsigned( *p++ - '0' );
   if( p == digits || ( *digits == '0' && p - digits > 1 ) ) return false;
   if( p != end && *p >= '0' && *p <= '9' ) return false;
   if( v > a.maxMaskLen() ) return false;
   address = a;
   len = v;
   begin = p;
   return true;
}

std::string addrSlashLen( const IpGenAddr & address, unsigned len ) {
   if( address.isEmpty() ) return std::string();
   return fmt::format( "{}/{}", valueToStrep( address ), len );
}

} // namespace Detail

} // namespace Lumo

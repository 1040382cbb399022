#include "lumo/IpGenAddr.h"

#include <cstring>

namespace Lumo {

namespace {

bool isDigit( char c ) { return c >= '0' && c <= '9'; }

int hexValue( char c ) {
   if( c >= '0' && c <= '9' ) return c - '0';
   if( c >= 'a' && c <= 'f' ) return c - 'a' + 10;
   if( c >= 'A' && c <= 'F' ) return c - 'A' + 10;
   return -1;
}

bool isAddrChar( char c ) { return hexValue( c ) >= 0 || c == ':' || c == '.'; }

// Exactly [b, e) as a dotted quad of decimal octets.
bool parseIpv4( const char * b, const char * e, std::uint8_t * out ) {
   for( int part = 0; part < 4; ++part ) {
      if( part > 0 ) {
         if( b == e || *b != '.' ) return false;
         ++b;
      }
      const char * start = b;
      unsigned v = 0;
      while( b != e && isDigit( *b ) && b - start < 3 ) v = v * 10 + unsigned( *b++ - '0' );
      if( b == start || v > 255 ) return false;
      if( b != e && isDigit( *b ) ) return false;            // four or more digits
      if( *start == '0' && b - start > 1 ) return false;     // leading zero
      out[ part ] = static_cast< std::uint8_t >( v );
   }
   return b == e;
}

// Exactly [b, e) as IPv6 text (RFC 4291 2.2): up to eight groups of one to
// four hex digits, at most one "::" standing for one or more zero groups, and
// optionally a dotted quad in place of the last two groups.
bool parseIpv6( const char * b, const char * e, std::uint8_t * out ) {
   std::uint16_t groups[ 8 ] = {};
   int n = 0;
   int gap = -1; // index where "::" sits
   const char * p = b;
   if( p == e ) return false;
   if( *p == ':' ) {
      if( e - p < 2 || p[ 1 ] != ':' ) return false;
      p += 2;
      gap = 0;
   }
   while( p != e ) {
      const char * start = p;
      unsigned v = 0;
      while( p != e && hexValue( *p ) >= 0 ) v = ( v << 4 ) | unsigned( hexValue( *p++ ) );
      if( p != e && *p == '.' ) {
         if( n > 6 ) return false;
         std::uint8_t quad[ 4 ];
         if( !parseIpv4( start, e, quad ) ) return false;
         groups[ n++ ] = static_cast< std::uint16_t >( quad[ 0 ] << 8 | quad[ 1 ] );
         groups[ n++ ] = static_cast< std::uint16_t >( quad[ 2 ] << 8 | quad[ 3 ] );
         p = e;
         break;
      }
      if( p == start || p - start > 4 || n == 8 ) return false;
      groups[ n++ ] = static_cast< std::uint16_t >( v );
      if( p == e ) break;
      if( *p != ':' ) return false;
      ++p;
      if( p != e && *p == ':' ) {
         if( gap >= 0 ) return false;
         gap = n;
         ++p;
      } else if( p == e ) {
         return false; // a single trailing ':'
      }
   }
   if( gap < 0 ? n != 8 : n > 7 ) return false;
   const int zeros = 8 - n;
   for( int i = 0, o = 0; i < n; ++i, ++o ) {
      if( i == gap ) o += zeros;
      out[ 2 * o ] = static_cast< std::uint8_t >( groups[ i ] >> 8 );
      out[ 2 * o + 1 ] = static_cast< std::uint8_t >( groups[ i ] );
   }
   for( int o = gap; gap >= 0 && o < gap + zeros; ++o ) out[ 2 * o ] = out[ 2 * o + 1 ] = 0;
   return true;
}

char * writeDecimal( char * p, unsigned v ) {
   if( v >= 100 ) *p++ = char( '0' + v / 100 );
   if( v >= 10 ) *p++ = char( '0' + v / 10 % 10 );
   *p++ = char( '0' + v % 10 );
   return p;
}

char * writeQuad( char * p, const std::uint8_t * b ) {
   for( int i = 0; i < 4; ++i ) {
      if( i ) *p++ = '.';
      p = writeDecimal( p, b[ i ] );
   }
   return p;
}

char * writeHexGroup( char * p, unsigned g ) {
   static const char digits[] = "0123456789abcdef";
   bool started = false;
   for( int shift = 12; shift >= 0; shift -= 4 ) {
      const unsigned d = ( g >> shift ) & 0xF;
      if( d || started || shift == 0 ) {
         *p++ = digits[ d ];
         started = true;
      }
   }
   return p;
}

// RFC 5952 4: lowercase, no leading zeros, the longest run (first on a tie)
// of two or more zero groups as "::"; 5: IPv4-mapped addresses keep their
// dotted quad.
char * writeIpv6( char * p, const std::uint8_t * b ) {
   unsigned g[ 8 ];
   for( int i = 0; i < 8; ++i ) g[ i ] = unsigned( b[ 2 * i ] ) << 8 | b[ 2 * i + 1 ];
   int bestStart = -1;
   int bestLen = 1;
   for( int i = 0; i < 8; ) {
      if( g[ i ] != 0 ) {
         ++i;
         continue;
      }
      int j = i;
      while( j < 8 && g[ j ] == 0 ) ++j;
      if( j - i > bestLen ) {
         bestStart = i;
         bestLen = j - i;
      }
      i = j;
   }
   const bool mapped = bestStart == 0 && bestLen == 5 && g[ 5 ] == 0xFFFF;
   const int groups = mapped ? 6 : 8;
   for( int i = 0; i < groups; ) {
      if( i == bestStart ) {
         *p++ = ':';
         *p++ = ':';
         i += bestLen;
         continue;
      }
      if( i > 0 && i != bestStart + bestLen ) *p++ = ':';
      p = writeHexGroup( p, g[ i ] );
      ++i;
   }
   if( mapped ) {
      *p++ = ':';
      p = writeQuad( p, b + 12 );
   }
   return p;
}

} // namespace

IpGenAddr::IpGenAddr( const in_addr & a ) noexcept : af_( AddressFamily::ipv4 ) {
   std::memcpy( bytes_.data(), &a.s_addr, 4 );
}

IpGenAddr::IpGenAddr( const in6_addr & a ) noexcept : af_( AddressFamily::ipv6 ) {
   std::memcpy( bytes_.data(), a.s6_addr, 16 );
}

in_addr IpGenAddr::toInAddr() const noexcept {
   in_addr a{};
   if( isIpv4() ) std::memcpy( &a.s_addr, bytes_.data(), 4 );
   return a;
}

in6_addr IpGenAddr::toIn6Addr() const noexcept {
   in6_addr a{};
   if( isIpv6() ) std::memcpy( a.s6_addr, bytes_.data(), 16 );
   return a;
}

IpGenAddr IpGenAddr::fromStrep( std::string_view s ) {
   return Detail::parseWhole< IpGenAddr >( s, "IpGenAddr" );
}

std::string valueToStrep( const IpGenAddr & a ) {
   char buf[ 64 ];
   char * p = buf;
   if( a.isIpv4() ) {
      p = writeQuad( p, a.bytes().data() );
   } else if( a.isIpv6() ) {
      p = writeIpv6( p, a.bytes().data() );
   }
   return std::string( buf, p );
}

std::ostream & operator<<( std::ostream & os, const IpGenAddr & a ) {
   return os << valueToStrep( a );
}

bool strepToValue( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                   IpGenAddr & out ) {
   if( begin == end ) {
      out = IpGenAddr();
      return true;
   }
   const char * stop = begin;
   bool colon = false;
   while( stop != end && isAddrChar( *stop ) ) colon |= *stop++ == ':';
   if( colon ) {
      IpGenAddr::Bytes16 b;
      if( !parseIpv6( begin, stop, b.data() ) ) return false;
      out = IpGenAddr( b );
   } else {
      IpGenAddr::Bytes4 b;
      if( !parseIpv4( begin, stop, b.data() ) ) return false;
      out = IpGenAddr( b );
   }
   begin = stop;
   return true;
}

} // namespace Lumo

#include "services/pimwire/Addr.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace PimWire {

const char * familyName( Family f ) {
   switch ( f ) {
    case Family::none: return "none";
    case Family::ipv4: return "ipv4";
    case Family::ipv6: return "ipv6";
   }
   return "?";
}

Addr Addr::v4( std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d ) {
   Addr r;
   r.family = Family::ipv4;
   r.bytes[ 0 ] = a;
   r.bytes[ 1 ] = b;
   r.bytes[ 2 ] = c;
   r.bytes[ 3 ] = d;
   return r;
}

Addr Addr::v4( std::uint32_t hostOrder ) {
   return v4( std::uint8_t( hostOrder >> 24 ), std::uint8_t( hostOrder >> 16 ),
              std::uint8_t( hostOrder >> 8 ), std::uint8_t( hostOrder ) );
}

Addr Addr::v6( const std::array< std::uint8_t, 16 > & b ) {
   Addr r;
   r.family = Family::ipv6;
   r.bytes = b;
   return r;
}

Addr Addr::fromBytes( Family f, const std::uint8_t * p ) {
   Addr r;
   r.family = f;
   if ( familyAddrLen( f ) ) {
      std::memcpy( r.bytes.data(), p, familyAddrLen( f ) );
   }
   return r;
}

namespace {

std::optional< Addr > parseV4( std::string_view s ) {
   Addr r;
   r.family = Family::ipv4;
   std::size_t part = 0;
   std::size_t i = 0;
   while ( part < 4 ) {
      unsigned v = 0;
      std::size_t digits = 0;
      while ( i < s.size() && s[ i ] >= '0' && s[ i ] <= '9' && digits < 4 ) {
         v = v * 10 + unsigned( s[ i ] - '0' );
         ++i;
         ++digits;
      }
      if ( digits == 0 || digits > 3 || v > 255 ) {
         return std::nullopt;
      }
      r.bytes[ part++ ] = std::uint8_t( v );
      if ( part < 4 ) {
         if ( i >= s.size() || s[ i ] != '.' ) {
            return std::nullopt;
         }
         ++i;
      }
   }
   if ( i != s.size() ) {
      return std::nullopt;
   }
   return r;
}

int hexValue( char c ) {
   if ( c >= '0' && c <= '9' ) return c - '0';
   if ( c >= 'a' && c <= 'f' ) return c - 'a' + 10;
   if ( c >= 'A' && c <= 'F' ) return c - 'A' + 10;
   return -1;
}

// Parses colon-separated hex groups (an IPv4 tail allowed at the very end)
// into out; returns false on malformed text.
bool parseGroups( std::string_view s, std::vector< std::uint8_t > & out, bool allowV4Tail ) {
   if ( s.empty() ) {
      return true;
   }
   std::size_t start = 0;
   while ( true ) {
      std::size_t colon = s.find( ':', start );
      std::string_view g = s.substr( start, colon == std::string_view::npos ? std::string_view::npos
                                                                             : colon - start );
      if ( colon == std::string_view::npos && allowV4Tail &&
           g.find( '.' ) != std::string_view::npos ) {
         auto v4 = parseV4( g );
         if ( !v4 ) {
            return false;
         }
         out.insert( out.end(), v4->bytes.begin(), v4->bytes.begin() + 4 );
         return true;
      }
      if ( g.empty() || g.size() > 4 ) {
         return false;
      }
      unsigned v = 0;
      for ( char c : g ) {
         int h = hexValue( c );
         if ( h < 0 ) {
            return false;
         }
         v = v * 16 + unsigned( h );
      }
      out.push_back( std::uint8_t( v >> 8 ) );
      out.push_back( std::uint8_t( v ) );
      if ( colon == std::string_view::npos ) {
         return true;
      }
      start = colon + 1;
   }
}

std::optional< Addr > parseV6( std::string_view s ) {
   std::vector< std::uint8_t > head;
   std::vector< std::uint8_t > tail;
   std::size_t gap = s.find( "::" );
   if ( gap == std::string_view::npos ) {
      if ( !parseGroups( s, head, true ) || head.size() != 16 ) {
         return std::nullopt;
      }
   } else {
      std::string_view left = s.substr( 0, gap );
      std::string_view right = s.substr( gap + 2 );
      if ( right.find( "::" ) != std::string_view::npos ) {
         return std::nullopt;
      }
      if ( !parseGroups( left, head, false ) || !parseGroups( right, tail, true ) ||
           head.size() + tail.size() > 14 ) {
         return std::nullopt;
      }
   }
   std::array< std::uint8_t, 16 > b{};
   std::copy( head.begin(), head.end(), b.begin() );
   std::copy( tail.begin(), tail.end(), b.end() - long( tail.size() ) );
   return Addr::v6( b );
}

} // namespace

std::optional< Addr > Addr::parse( std::string_view text ) {
   if ( text.find( ':' ) != std::string_view::npos ) {
      return parseV6( text );
   }
   return parseV4( text );
}

std::string Addr::toString() const {
   std::string s;
   if ( family == Family::ipv4 ) {
      for ( int i = 0; i < 4; ++i ) {
         if ( i ) {
            s += '.';
         }
         s += std::to_string( bytes[ i ] );
      }
      return s;
   }
   if ( family != Family::ipv6 ) {
      return "none";
   }
   std::uint16_t g[ 8 ];
   for ( int i = 0; i < 8; ++i ) {
      g[ i ] = std::uint16_t( ( bytes[ 2 * i ] << 8 ) | bytes[ 2 * i + 1 ] );
   }
   // Compress the first longest run of two or more zero groups.
   int bestStart = -1;
   int bestLen = 1;
   for ( int i = 0; i < 8; ) {
      if ( g[ i ] != 0 ) {
         ++i;
         continue;
      }
      int j = i;
      while ( j < 8 && g[ j ] == 0 ) {
         ++j;
      }
      if ( j - i > bestLen ) {
         bestStart = i;
         bestLen = j - i;
      }
      i = j;
   }
   static const char hex[] = "0123456789abcdef";
   for ( int i = 0; i < 8; ++i ) {
      if ( i == bestStart ) {
         s += "::";
         i += bestLen - 1;
         continue;
      }
      if ( i && i != bestStart + bestLen ) {
         s += ':';
      }
      bool lead = true;
      for ( int shift = 12; shift >= 0; shift -= 4 ) {
         unsigned nib = ( g[ i ] >> shift ) & 0xf;
         if ( nib == 0 && lead && shift ) {
            continue;
         }
         lead = false;
         s += hex[ nib ];
      }
   }
   return s;
}

std::ostream & operator<<( std::ostream & os, const Addr & a ) {
   return os << a.toString();
}

} // namespace PimWire

#include "services/pimwire/HelloCodec.h"

#include <algorithm>
#include <cstring>

namespace PimWire {

const char * rejectReasonName( RejectReason r ) {
   switch ( r ) {
    case RejectReason::none: return "none";
    case RejectReason::badFamily: return "badFamily";
    case RejectReason::tooShort: return "tooShort";
    case RejectReason::badVersion: return "badVersion";
    case RejectReason::notHello: return "notHello";
    case RejectReason::badChecksum: return "badChecksum";
    case RejectReason::optionOverrun: return "optionOverrun";
   }
   return "unknown";
}

std::ostream & operator<<( std::ostream & os, RejectReason r ) {
   return os << rejectReasonName( r );
}

std::ostream & operator<<( std::ostream & os, const DecodeStats & s ) {
   return os << "options=" << s.options << " unknown=" << s.unknownOptions
             << " badLength=" << s.badLengthOptions << " duplicate=" << s.duplicateOptions
             << " otherFamilyAddrs=" << s.otherFamilyAddrs
             << " badAddressEntries=" << s.badAddressEntries << " droppedAddrs=" << s.droppedAddrs
             << " duplicateAddrs=" << s.duplicateAddrs;
}

namespace {

inline std::uint16_t get16( const std::uint8_t * p ) {
   return std::uint16_t( ( p[ 0 ] << 8 ) | p[ 1 ] );
}

inline std::uint32_t get32( const std::uint8_t * p ) {
   return ( std::uint32_t( p[ 0 ] ) << 24 ) | ( std::uint32_t( p[ 1 ] ) << 16 ) |
          ( std::uint32_t( p[ 2 ] ) << 8 ) | p[ 3 ];
}

inline std::uint8_t * put16( std::uint8_t * p, std::uint16_t v ) {
   p[ 0 ] = std::uint8_t( v >> 8 );
   p[ 1 ] = std::uint8_t( v );
   return p + 2;
}

inline std::uint8_t * put32( std::uint8_t * p, std::uint32_t v ) {
   p[ 0 ] = std::uint8_t( v >> 24 );
   p[ 1 ] = std::uint8_t( v >> 16 );
   p[ 2 ] = std::uint8_t( v >> 8 );
   p[ 3 ] = std::uint8_t( v );
   return p + 4;
}

// One's complement sum of big-endian 16-bit words, not yet folded; an odd
// trailing byte is padded with zero.
inline std::uint64_t sumWords( const std::uint8_t * p, std::size_t len, std::uint64_t acc ) {
   while ( len >= 2 ) {
      acc += get16( p );
      p += 2;
      len -= 2;
   }
   if ( len ) {
      acc += std::uint32_t( p[ 0 ] ) << 8;
   }
   return acc;
}

inline std::uint16_t fold( std::uint64_t acc ) {
   while ( acc >> 16 ) {
      acc = ( acc & 0xffff ) + ( acc >> 16 );
   }
   return std::uint16_t( acc );
}

// Sum over the IPv6 pseudo-header; nothing for IPv4, whose PIM checksum
// covers the message only.
inline std::uint64_t pseudoHeaderSum( std::size_t len, Family family, const Addr & src,
                                      const Addr & dst ) {
   if ( family != Family::ipv6 ) {
      return 0;
   }
   std::uint64_t acc = sumWords( src.bytes.data(), 16, 0 );
   acc = sumWords( dst.bytes.data(), 16, acc );
   acc += std::uint64_t( len ) >> 16;
   acc += std::uint64_t( len ) & 0xffff;
   acc += kIpProtoPim;
   return acc;
}

constexpr std::size_t kOptionHeaderLen = 4;
// Address list entries per option, so that the worst case (IPv6, 18 bytes
// each) fits in the 16-bit option length.
constexpr std::size_t kAddrsPerOption = 0xffff / 18;

inline bool fitsFamily( Family f ) { return f == Family::ipv4 || f == Family::ipv6; }

bool transportOk( const TransportCapable & t ) {
   return !t.present || t.flags <= 0xffffff;
}

std::size_t transportSize( const TransportCapable & t ) {
   return t.present ? kOptionHeaderLen + 4 + t.connectionAddr.size() : 0;
}

std::uint8_t * putTransport( std::uint8_t * p, OptionType type, const TransportCapable & t ) {
   if ( !t.present ) {
      return p;
   }
   p = put16( p, std::uint16_t( type ) );
   p = put16( p, std::uint16_t( 4 + t.connectionAddr.size() ) );
   p = put32( p, ( std::uint32_t( t.connectionAddr.family ) << 24 ) | t.flags );
   std::memcpy( p, t.connectionAddr.bytes.data(), t.connectionAddr.size() );
   return p + t.connectionAddr.size();
}

// Returns false when the option's length does not fit its AFI.
bool getTransport( const std::uint8_t * v, std::size_t len, TransportCapable & t ) {
   if ( len < 4 ) {
      return false;
   }
   std::uint32_t word = get32( v );
   Family afi = Family( word >> 24 );
   if ( !( afi == Family::none || fitsFamily( afi ) ) || len != 4 + familyAddrLen( afi ) ) {
      return false;
   }
   t.present = true;
   t.flags = word & 0xffffff;
   t.connectionAddr = Addr::fromBytes( afi, v + 4 );
   return true;
}

enum class ListResult { ok, badLength, badEntry };

// Appends the entries of one Address List option of the Hello's family to
// out; on a malformed option leaves out and stats as they were.
ListResult getAddressList( const std::uint8_t * v, std::size_t len, Family family,
                           std::vector< Addr > & out, DecodeStats & stats ) {
   const std::size_t before = out.size();
   std::uint32_t other = 0;
   std::uint32_t dropped = 0;
   std::uint32_t duplicates = 0;
   ListResult result = ListResult::ok;
   std::size_t i = 0;
   while ( i < len ) {
      if ( len - i < 2 ) {
         result = ListResult::badLength;
         break;
      }
      Family f = Family( v[ i ] );
      if ( v[ i + 1 ] != 0 || !fitsFamily( f ) ) { // only native encoding is defined
         result = ListResult::badEntry;
         break;
      }
      std::size_t alen = familyAddrLen( f );
      if ( len - i - 2 < alen ) {
         result = ListResult::badLength;
         break;
      }
      if ( f != family ) {
         ++other;
      } else if ( out.size() < kMaxAddressesKept ) {
         // Repeats must not eat the cap; the scan is bounded by the cap.
         const Addr a = Addr::fromBytes( f, v + i + 2 );
         if ( std::find( out.begin(), out.end(), a ) != out.end() ) {
            ++duplicates;
         } else {
            out.push_back( a );
         }
      } else {
         ++dropped;
      }
      i += 2 + alen;
   }
   if ( result != ListResult::ok ) {
      out.resize( before );
      return result;
   }
   stats.otherFamilyAddrs += other;
   stats.droppedAddrs += dropped;
   stats.duplicateAddrs += duplicates;
   return result;
}

} // namespace

std::uint16_t pimChecksum( const std::uint8_t * msg, std::size_t len, Family family,
                           const Addr & src, const Addr & dst ) {
   std::uint64_t acc = pseudoHeaderSum( len, family, src, dst );
   acc = sumWords( msg, len < 2 ? len : 2, acc );
   if ( len > kPimHeaderLen ) {
      acc = sumWords( msg + kPimHeaderLen, len - kPimHeaderLen, acc );
   }
   return std::uint16_t( ~fold( acc ) );
}

bool checksumOk( const std::uint8_t * msg, std::size_t len, Family family, const Addr & src,
                 const Addr & dst ) {
   std::uint64_t acc = pseudoHeaderSum( len, family, src, dst );
   return fold( sumWords( msg, len, acc ) ) == 0xffff;
}

void setChecksum( std::uint8_t * msg, std::size_t len, Family family, const Addr & src,
                  const Addr & dst ) {
   put16( msg + 2, pimChecksum( msg, len, family, src, dst ) );
}

RejectReason decodeHello( const std::uint8_t * data, std::size_t len, Family family,
                          const Addr & src, const Addr & dst, Hello & out,
                          DecodeStats & stats ) {
   out.clear();
   stats = DecodeStats{};
   if ( !fitsFamily( family ) || src.family != family || dst.family != family ) {
      return RejectReason::badFamily;
   }
   if ( len < kPimHeaderLen ) {
      return RejectReason::tooShort;
   }
   if ( ( data[ 0 ] >> 4 ) != kPimVersion ) {
      return RejectReason::badVersion;
   }
   if ( ( data[ 0 ] & 0x0f ) != 0 ) {
      return RejectReason::notHello;
   }
   if ( !checksumOk( data, len, family, src, dst ) ) {
      return RejectReason::badChecksum;
   }
   out.source = src;
   out.destination = dst;
   std::size_t pos = kPimHeaderLen;
   while ( pos < len ) {
      if ( len - pos < kOptionHeaderLen ||
           len - pos - kOptionHeaderLen < get16( data + pos + 2 ) ) {
         out.clear();
         return RejectReason::optionOverrun;
      }
      const std::uint16_t type = get16( data + pos );
      const std::size_t olen = get16( data + pos + 2 );
      const std::uint8_t * v = data + pos + kOptionHeaderLen;
      pos += kOptionHeaderLen + olen;
      ++stats.options;
      // Fixed-size options: a wrong length loses the option, not the Hello.
      auto sized = [ & ]( std::size_t want, bool & present ) {
         if ( olen != want ) {
            ++stats.badLengthOptions;
            return false;
         }
         if ( present ) {
            ++stats.duplicateOptions;
         }
         present = true;
         return true;
      };
      switch ( OptionType( type ) ) {
       case OptionType::holdtime:
         if ( sized( 2, out.holdtimePresent ) ) {
            out.holdtime = get16( v );
         }
         break;
       case OptionType::lanPruneDelay:
         if ( sized( 4, out.lanPruneDelay.present ) ) {
            out.lanPruneDelay.tBit = ( v[ 0 ] & 0x80 ) != 0;
            out.lanPruneDelay.propagationDelay = get16( v ) & 0x7fff;
            out.lanPruneDelay.overrideInterval = get16( v + 2 );
         }
         break;
       case OptionType::drPriority:
         if ( sized( 4, out.drPriorityPresent ) ) {
            out.drPriority = get32( v );
         }
         break;
       case OptionType::generationId:
         if ( sized( 4, out.generationIdPresent ) ) {
            out.generationId = get32( v );
         }
         break;
       case OptionType::bidirCapable:
         sized( 0, out.bidirCapable );
         break;
       case OptionType::interfaceId:
         if ( sized( 8, out.interfaceId.present ) ) {
            out.interfaceId.routerId = get32( v );
            out.interfaceId.ifIndex = get32( v + 4 );
         }
         break;
       case OptionType::tcpCapable:
       case OptionType::sctpCapable: {
         TransportCapable & t = OptionType( type ) == OptionType::tcpCapable ? out.tcpCapable
                                                                             : out.sctpCapable;
         const bool was = t.present;
         TransportCapable parsed;
         if ( !getTransport( v, olen, parsed ) ) {
            ++stats.badLengthOptions;
         } else {
            if ( was ) {
               ++stats.duplicateOptions;
            }
            t = parsed;
         }
         break;
       }
       case OptionType::addressList:
         switch ( getAddressList( v, olen, family, out.addressList, stats ) ) {
          case ListResult::ok: break;
          case ListResult::badLength: ++stats.badLengthOptions; break;
          case ListResult::badEntry: ++stats.badAddressEntries; break;
         }
         break;
       default:
         ++stats.unknownOptions;
         break;
      }
   }
   return RejectReason::none;
}

DecodeResult decodeHello( const std::uint8_t * data, std::size_t len, Family family,
                          const Addr & src, const Addr & dst ) {
   DecodeResult r;
   r.reason = decodeHello( data, len, family, src, dst, r.hello, r.stats );
   if ( !r.ok() ) {
      r.hello = Hello{};
   }
   return r;
}

std::size_t encodedHelloSize( const Hello & h ) {
   if ( h.lanPruneDelay.present && h.lanPruneDelay.propagationDelay > 0x7fff ) {
      return 0;
   }
   if ( !transportOk( h.tcpCapable ) || !transportOk( h.sctpCapable ) ) {
      return 0;
   }
   std::size_t n = kPimHeaderLen;
   n += h.holdtimePresent ? kOptionHeaderLen + 2 : 0;
   n += h.lanPruneDelay.present ? kOptionHeaderLen + 4 : 0;
   n += h.drPriorityPresent ? kOptionHeaderLen + 4 : 0;
   n += h.generationIdPresent ? kOptionHeaderLen + 4 : 0;
   n += h.bidirCapable ? kOptionHeaderLen : 0;
   for ( std::size_t i = 0; i < h.addressList.size(); ++i ) {
      const Addr & a = h.addressList[ i ];
      if ( !fitsFamily( a.family ) ) {
         return 0;
      }
      n += ( i % kAddrsPerOption == 0 ? kOptionHeaderLen : 0 ) + 2 + a.size();
   }
   n += transportSize( h.tcpCapable );
   n += transportSize( h.sctpCapable );
   n += h.interfaceId.present ? kOptionHeaderLen + 8 : 0;
   return n;
}

std::size_t encodeHello( const Hello & h, Family family, const Addr & src, const Addr & dst,
                         std::uint8_t * buf, std::size_t cap ) {
   if ( !fitsFamily( family ) || src.family != family || dst.family != family ) {
      return 0;
   }
   const std::size_t n = encodedHelloSize( h );
   if ( n == 0 || n > cap ) {
      return 0;
   }
   std::uint8_t * p = buf;
   *p++ = std::uint8_t( kPimVersion << 4 ); // type 0: Hello
   *p++ = 0;
   p = put16( p, 0 );
   auto header = [ &p ]( OptionType t, std::size_t len ) {
      p = put16( p, std::uint16_t( t ) );
      p = put16( p, std::uint16_t( len ) );
   };
   if ( h.holdtimePresent ) {
      header( OptionType::holdtime, 2 );
      p = put16( p, h.holdtime );
   }
   if ( h.lanPruneDelay.present ) {
      header( OptionType::lanPruneDelay, 4 );
      p = put16( p, std::uint16_t( ( h.lanPruneDelay.tBit ? 0x8000 : 0 ) |
                                   h.lanPruneDelay.propagationDelay ) );
      p = put16( p, h.lanPruneDelay.overrideInterval );
   }
   if ( h.drPriorityPresent ) {
      header( OptionType::drPriority, 4 );
      p = put32( p, h.drPriority );
   }
   if ( h.generationIdPresent ) {
      header( OptionType::generationId, 4 );
      p = put32( p, h.generationId );
   }
   if ( h.bidirCapable ) {
      header( OptionType::bidirCapable, 0 );
   }
   for ( std::size_t first = 0; first < h.addressList.size(); first += kAddrsPerOption ) {
      std::size_t last = std::min( h.addressList.size(), first + kAddrsPerOption );
      std::size_t olen = 0;
      for ( std::size_t i = first; i < last; ++i ) {
         olen += 2 + h.addressList[ i ].size();
      }
      header( OptionType::addressList, olen );
      for ( std::size_t i = first; i < last; ++i ) {
         const Addr & a = h.addressList[ i ];
         *p++ = std::uint8_t( a.family );
         *p++ = 0; // native encoding
         std::memcpy( p, a.bytes.data(), a.size() );
         p += a.size();
      }
   }
   p = putTransport( p, OptionType::tcpCapable, h.tcpCapable );
   p = putTransport( p, OptionType::sctpCapable, h.sctpCapable );
   if ( h.interfaceId.present ) {
      header( OptionType::interfaceId, 8 );
      p = put32( p, h.interfaceId.routerId );
      p = put32( p, h.interfaceId.ifIndex );
   }
   setChecksum( buf, n, family, src, dst );
   return n;
}

std::vector< std::uint8_t > encodeHello( const Hello & h, Family family, const Addr & src,
                                         const Addr & dst ) {
   std::vector< std::uint8_t > out( encodedHelloSize( h ) );
   std::size_t n = out.empty() ? 0 : encodeHello( h, family, src, dst, out.data(), out.size() );
   out.resize( n );
   return out;
}

} // namespace PimWire

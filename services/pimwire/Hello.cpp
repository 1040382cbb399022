#include "services/pimwire/Hello.h"

#include <cstdio>

namespace PimWire {

void Hello::clear() {
   std::vector< Addr > keep = std::move( addressList );
   keep.clear();
   *this = Hello{};
   addressList = std::move( keep );
}

namespace {

std::string hex32( std::uint32_t v ) {
   char buf[ 16 ];
   std::snprintf( buf, sizeof( buf ), "0x%x", v );
   return buf;
}

std::string transportText( const char * name, const TransportCapable & t ) {
   return std::string( name ) + "=(flags=" + hex32( t.flags ) + ",addr=" +
          t.connectionAddr.toString() + ')';
}

} // namespace

std::string toString( const Hello & h ) {
   std::string s;
   auto field = [ &s ]( const std::string & text ) {
      if ( !s.empty() ) {
         s += ' ';
      }
      s += text;
   };
   if ( h.source.isSet() ) {
      field( "src=" + h.source.toString() );
   }
   if ( h.holdtimePresent ) {
      field( "hold=" + std::to_string( h.holdtime ) );
   }
   if ( h.lanPruneDelay.present ) {
      field( "lpd=(T=" + std::to_string( int( h.lanPruneDelay.tBit ) ) +
             ",pd=" + std::to_string( h.lanPruneDelay.propagationDelay ) +
             ",oi=" + std::to_string( h.lanPruneDelay.overrideInterval ) + ')' );
   }
   if ( h.drPriorityPresent ) {
      field( "prio=" + std::to_string( h.drPriority ) );
   }
   if ( h.generationIdPresent ) {
      field( "genid=" + hex32( h.generationId ) );
   }
   if ( h.bidirCapable ) {
      field( "bidir" );
   }
   if ( h.interfaceId.present ) {
      field( "ifid=(rid=" + Addr::v4( h.interfaceId.routerId ).toString() +
             ",idx=" + std::to_string( h.interfaceId.ifIndex ) + ')' );
   }
   if ( h.tcpCapable.present ) {
      field( transportText( "tcp", h.tcpCapable ) );
   }
   if ( h.sctpCapable.present ) {
      field( transportText( "sctp", h.sctpCapable ) );
   }
   if ( !h.addressList.empty() ) {
      std::string a = "addrs=[";
      for ( std::size_t i = 0; i < h.addressList.size(); ++i ) {
         if ( i ) {
            a += ',';
         }
         a += h.addressList[ i ].toString();
      }
      field( a + ']' );
   }
   return s.empty() ? std::string( "(no options)" ) : s;
}

std::ostream & operator<<( std::ostream & os, const Hello & h ) {
   return os << toString( h );
}

} // namespace PimWire

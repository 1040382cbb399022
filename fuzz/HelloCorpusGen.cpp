// Writes seed Hellos for hello_decode_fuzz into the directory given: our
// encodings of typical and full Hellos for both families, plus the Hello
// FRRouting pimd sends (IPv4, with an IPv6 link-local address in its list).
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "FuzzAddrs.h"
#include "services/pimwire/HelloCodec.h"

using namespace PimWire;

namespace {

bool write( const std::string & dir, const std::string & name, const std::vector< std::uint8_t > & b ) {
   std::ofstream o( dir + "/" + name, std::ios::binary );
   o.write( reinterpret_cast< const char * >( b.data() ), std::streamsize( b.size() ) );
   return bool( o ) && !b.empty();
}

Hello typical( Family f ) {
   Hello h;
   h.holdtimePresent = true;
   h.holdtime = 105;
   h.lanPruneDelay = { true, false, 500, 2500 };
   h.drPriorityPresent = true;
   h.drPriority = 1;
   h.generationIdPresent = true;
   h.generationId = 0x189f988e;
   Addr a = PimWireFuzz::src( f );
   a.bytes[ 3 ] ^= 0x40;
   h.addressList = { a };
   return h;
}

Hello full( Family f ) {
   Hello h = typical( f );
   h.lanPruneDelay.tBit = true;
   h.bidirCapable = true;
   h.interfaceId = { true, 0xc6120001, 3 };
   h.tcpCapable = { true, 0, Addr::v4( 198, 18, 0, 1 ) };
   h.sctpCapable = { true, 0x1, PimWireFuzz::src( Family::ipv6 ) };
   return h;
}

} // namespace

int main( int argc, char ** argv ) {
   if ( argc != 2 ) {
      std::fprintf( stderr, "usage: %s <corpus dir>\n", argv[ 0 ] );
      return 2;
   }
   const std::string dir = argv[ 1 ];
   bool ok = true;
   for ( Family f : { Family::ipv4, Family::ipv6 } ) {
      const std::string fam = familyName( f );
      const Addr s = PimWireFuzz::src( f );
      const Addr d = PimWireFuzz::dst( f );
      ok &= write( dir, "typical-" + fam, encodeHello( typical( f ), f, s, d ) );
      ok &= write( dir, "full-" + fam, encodeHello( full( f ), f, s, d ) );
      Hello goodbye; // holdtime 0: the neighbour leaves
      goodbye.holdtimePresent = true;
      ok &= write( dir, "goodbye-" + fam, encodeHello( goodbye, f, s, d ) );
   }
   // pimd 8.4.4's Hello: options 1, 2, 19, 20 and an IPv6 link-local address.
   Hello frr = typical( Family::ipv4 );
   frr.drPriority = 10;
   frr.addressList = { *Addr::parse( "fe80::94d1:26ff:fe9a:d21b" ) };
   ok &= write( dir, "frr-ipv4", encodeHello( frr, Family::ipv4, PimWireFuzz::src( Family::ipv4 ),
                                                PimWireFuzz::dst( Family::ipv4 ) ) );
   return ok ? 0 : 1;
}

// Decodes arbitrary bytes as a Hello over IPv4 and over IPv6. Whatever
// decodes must encode again and decode to the same value. Each input is
// tried as is and with its checksum repaired, so that the fuzzer gets past
// the checksum into the option parser.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "FuzzAddrs.h"
#include "services/pimwire/HelloCodec.h"

using namespace PimWire;

namespace {

void fail( const char * what, const Hello & a, const Hello & b ) {
   std::fprintf( stderr, "%s\n  first:  %s\n  second: %s\n", what, toString( a ).c_str(),
                 toString( b ).c_str() );
   std::abort();
}

void check( const std::uint8_t * data, std::size_t len, Family f ) {
   const Addr src = PimWireFuzz::src( f );
   const Addr dst = PimWireFuzz::dst( f );
   DecodeResult first = decodeHello( data, len, f, src, dst );
   if ( !first.ok() ) {
      if ( !( first.hello == Hello{} ) ) {
         fail( "rejected Hello is not empty", first.hello, Hello{} );
      }
      return;
   }
   if ( first.hello.addressList.size() > kMaxAddressesKept ) {
      fail( "address cap exceeded", first.hello, first.hello );
   }
   std::vector< std::uint8_t > again = encodeHello( first.hello, f, src, dst );
   if ( again.empty() ) {
      fail( "decoded Hello does not encode", first.hello, first.hello );
   }
   DecodeResult second = decodeHello( again.data(), again.size(), f, src, dst );
   if ( !second.ok() ) {
      fail( rejectReasonName( second.reason ), first.hello, second.hello );
   }
   if ( !( second.hello == first.hello ) ) {
      fail( "re-encoded Hello decodes differently", first.hello, second.hello );
   }
   if ( !second.stats.clean() ) {
      fail( "our own encoding needed leniency", first.hello, second.hello );
   }
   // Our encoding is canonical: once more gives the same bytes.
   if ( encodeHello( second.hello, f, src, dst ) != again ) {
      fail( "encoding is not stable", first.hello, second.hello );
   }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t * data, std::size_t size ) {
   std::vector< std::uint8_t > fixed( data, data + size );
   for ( Family f : { Family::ipv4, Family::ipv6 } ) {
      check( data, size, f );
      if ( size >= kPimHeaderLen ) {
         setChecksum( fixed.data(), fixed.size(), f, PimWireFuzz::src( f ), PimWireFuzz::dst( f ) );
         check( fixed.data(), fixed.size(), f );
      }
   }
   return 0;
}

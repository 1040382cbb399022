// Drives the Hello engine of one VRF on virtual time with a sequence of
// events read from the input (Hellos with any options, goodbyes, generation
// id changes, time, interface address, priority, mode and limits, BFD,
// clear requests) over a few sources and two interfaces, and after every
// event checks what the engine keeps incrementally against a recomputation
// from the entities. Any broken invariant aborts with a description.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "VrfPipeline.h"
#include "hello/ActiveNeighbors.h"
#include "kiv/Log.h"
#include "kiv/testing/TestLoop.h"
#include "status/PimStatusWriterSm.h"
#include "varn/VarnMount.h"

using namespace Routing::Pim;

namespace {

[[noreturn]] void fail( const std::string & what ) {
   std::fprintf( stderr, "invariant broken: %s\n", what.c_str() );
   std::abort();
}

template< class T >
std::string str( const T & v ) {
   std::ostringstream os;
   os << v;
   return os.str();
}

// The input, read a byte at a time; zeros once it runs out.
class Reader {
 public:
   Reader( const std::uint8_t * d, std::size_t n ) : d_( d ), n_( n ) {}
   bool more() const { return i_ < n_; }
   std::uint8_t u8() { return i_ < n_ ? d_[ i_++ ] : 0; }
 private:
   const std::uint8_t * d_;
   std::size_t n_;
   std::size_t i_ = 0;
};

const Lumo::IntfId kIntf[ 2 ] = { Lumo::IntfId( "Ethernet1" ), Lumo::IntfId( "Ethernet2" ) };

Lumo::IpGenAddr v4( std::uint32_t a ) { return Lumo::IpGenAddr::ipv4( a ); }

// Sources: hosts of both subnets, their network and broadcast addresses, and
// addresses no neighbour may use.
Lumo::IpGenAddr source( std::uint8_t b ) {
   switch( b % 24 ) {
    case 20: return v4( 0 );
    case 21: return v4( 0xE0000005 );   // 224.0.0.5
    case 22: return v4( 0x7F000001 );   // 127.0.0.1
    case 23: return v4( 0xFFFFFFFF );
    default: break;
   }
   const std::uint32_t i = b % 24;
   // 198.18.0.0/24 (hosts .0 .. .9 and .255) and 198.18.1.0/28 (.0 .. .7, .15).
   if( i < 10 ) return v4( 0xC6120000 + i );
   if( i == 10 ) return v4( 0xC61200FF );
   if( i < 19 ) return v4( 0xC6120100 + ( i - 11 ) );
   return v4( 0xC612010F );
}

Lumo::IpGenAddrWithMask intfAddress( int intf, std::uint8_t b ) {
   if( intf == 0 ) return Lumo::IpGenAddrWithMask( v4( 0xC6120001 + b % 3 ), b & 8 ? 16 : 24 );
   return Lumo::IpGenAddrWithMask( v4( 0xC6120101 + b % 3 ), 28 );
}

class Engine {
 public:
   Engine() : loop_( 1000.0, 1 ), vrf( Lumo::AddressFamily::ipv4, L3::VrfName( "default" ),
                                       Tolm::TimerWheelIs( loop_.clock() ) ) {
      // Tables just large enough for what the limits let in: the default
      // sizes would make setting up dominate every run.
      const KivVarn::MountInfo sizes( Varn::Status::kTypeName,
                                      { { Varn::kPimIntfTable, 4 },
                                        { Varn::kNeighborTable, 32 },
                                        { Varn::kNeighborSecondaryAddressTable, 512 },
                                        { Varn::kIntfSecondaryAddressTable, 8 },
                                        { Varn::kIntfSecondaryPrefixTable, 8 },
                                        { Varn::kInactiveNeighborTable, 32 },
                                        { Varn::kRefusedNeighborTable, 32 } } );
      varn = Kiv::make< Varn::Status >( "routing/pim/status/default", sizes,
                                        KivVarn::HeapTableStore::instance() );
      writer = Varn::StatusWriterSmIs( "default", vrf.allStatus, varn );
      vrf.start();
      // Small limits, so that floods reach them.
      vrf.allStatus->neighborLimitIs( 10 );
      for( int i = 0; i < 2; ++i ) addIntf( i );
      settle();
   }
   ~Engine() {
      vrf.helloSm = nullptr;
      vrf.global = nullptr;
      writer = nullptr;
      loop_.runUntilIdle();
   }

   void settle() {
      if( !loop_.runUntilIdle() ) fail( "notifications do not settle" );
   }
   void advance( double seconds ) {
      if( !loop_.advanceBy( seconds ) ) fail( "time does not advance" );
   }
   void addIntf( int i ) {
      auto intf = vrf.allStatus->pimIntfIs( kIntf[ i ], intfAddress( i, 0 ) );
      intf->modeIs( pimModeSparse );
      intf->neighborLimitIs( 6 );
      vrf.kernelAdd( kIntf[ i ], std::uint32_t( 11 + i ) );
   }

   void event( Reader & in );
   void check() const;

   // A neighbour whose delays change while another neighbour lacks the
   // option keeps its recorded option on purpose; a later raise compared
   // with that record can go unapplied until the next full recomputation.
   // From then on the interface's used delays are not held to the
   // advertised maxima, until it has no active neighbour left.
   struct SeenLanPrune {
      std::uint32_t lacking = 0;
      std::vector< std::pair< Lumo::IpGenAddr, LanPruneDelayOption > > options;
   };
   std::map< std::string, SeenLanPrune > seenLanPrune() const;
   void followLanPruneLag( const std::map< std::string, SeenLanPrune > & before );
   std::set< std::string > lanPruneMayLag;

   Kiv::Testing::TestLoop loop_;
   VrfPipeline vrf;
   Kiv::Ptr< Varn::Status > varn;
   Kiv::Ptr< Varn::StatusWriterSm > writer;
};

std::map< std::string, Engine::SeenLanPrune > Engine::seenLanPrune() const {
   std::map< std::string, SeenLanPrune > seen;
   for( auto it = vrf.allStatus->pimIntfIter(); it; ++it ) {
      const Intf & intf = *it.value();
      const Kiv::Ptr< IntfSm > sm = vrf.global->intfSm( intf.id() );
      if( !sm || !sm->initialized() ) continue;
      SeenLanPrune & s = seen[ str( intf.id() ) ];
      s.lacking = sm->activeNeighbors().notUsingLanPrune();
      for( auto a = intf.activeNeighborIter(); a; ++a ) {
         if( const Kiv::Ptr< Neighbor > nb = intf.neighbor( a.key() ) ) {
            s.options.emplace_back( a.key(), nb->lanPruneDelayOption() );
         }
      }
   }
   return seen;
}

void Engine::followLanPruneLag( const std::map< std::string, SeenLanPrune > & before ) {
   const auto after = seenLanPrune();
   for( auto it = lanPruneMayLag.begin(); it != lanPruneMayLag.end(); ) {
      const auto a = after.find( *it );
      it = ( a == after.end() || a->second.options.empty() ) ? lanPruneMayLag.erase( it ) : std::next( it );
   }
   for( const auto & [ id, now ] : after ) {
      const auto b = before.find( id );
      if( b == before.end() || b->second.lacking == 0 ) continue;
      for( const auto & [ addr, option ] : now.options ) {
         for( const auto & [ was, old ] : b->second.options ) {
            if( was == addr && old.valid && option.valid &&
                ( old.propagationDelay != option.propagationDelay || old.overrideInterval != option.overrideInterval ) ) {
               lanPruneMayLag.insert( id );
            }
         }
      }
   }
}

void Engine::event( Reader & in ) {
   const auto lanPruneBefore = seenLanPrune();
   const std::uint8_t op = in.u8();
   const int i = op >> 7;
   const Kiv::Ptr< Intf > intf = vrf.allStatus->pimIntf( kIntf[ i ] );
   switch( op & 0x0F ) {
    case 0: case 1: case 2: case 3: case 4: {   // a Hello (op 0: a goodbye)
      auto h = Kiv::make< Packet::HelloMessage >();
      h->srcAddrIs( source( in.u8() ) );
      const std::uint8_t opts = in.u8();
      if( ( op & 0x0F ) == 0 ) {
         h->holdTimePresentIs( true );
         h->holdTimeIs( 0 );
      } else if( opts & 1 ) {
         h->holdTimePresentIs( true );
         static const std::uint16_t holds[] = { 3, 10, 105, 0xFFFF };
         h->holdTimeIs( holds[ ( opts >> 1 ) & 3 ] );
      }
      if( opts & 8 ) {
         h->drPriorityPresentIs( true );
         h->drPriorityIs( in.u8() % 4 );
      }
      if( opts & 16 ) {
         h->generationIdPresentIs( true );
         h->generationIdIs( in.u8() % 3 );
      }
      if( opts & 32 ) {
         const std::uint8_t v = in.u8();
         h->lanPruneDelayPresentIs( true );
         h->propagationDelayIs( std::uint16_t( 400 + 100 * ( v & 3 ) ) );
         h->overrideIntervalIs( std::uint16_t( 2400 + 100 * ( ( v >> 2 ) & 3 ) ) );
         h->tBitIs( v & 16 );
      }
      h->bidirCapableIs( opts & 64 );
      if( opts & 128 ) {
         const int n = in.u8() % 40;
         for( int k = 0; k < n; ++k ) h->secondaryAddrIs( source( in.u8() ), true );
      }
      vrf.rx->messageIs( h );
      vrf.rx->intfIdIs( kIntf[ i ] );
      vrf.rx->countInc( 1 );
      break;
    }
    case 5:
      advance( 0.25 * in.u8() );
      break;
    case 6:
      if( intf ) intf->addressWithMaskIs( intfAddress( i, in.u8() ) );
      break;
    case 7:
      if( intf ) intf->drPriorityIs( in.u8() % 4 );
      break;
    case 8:
      if( intf ) intf->modeIs( Mode( 1 + in.u8() % 3 ) );
      break;
    case 9: {
      const Bfd::Peer peer( source( in.u8() ), vrf.vrfName );
      const auto state = Bfd::OperState( in.u8() % 4 );
      if( const auto s = vrf.bfdAppStatus->peerStatus( peer ) ) {
         s->statusIs( state );
      } else {
         vrf.bfdAppStatus->peerStatusIs( peer, state );
      }
      break;
    }
    case 10:
      if( intf ) intf->bfdEnabledIs( !intf->bfdEnabled() );
      break;
    case 11: {   // the interface's own delays
      const std::uint8_t v = in.u8();
      if( !intf ) break;
      intf->propagationDelayIs( std::uint16_t( 400 + 100 * ( v & 3 ) ) );
      intf->overrideIntervalIs( std::uint16_t( 2400 + 100 * ( ( v >> 2 ) & 3 ) ) );
      break;
    }
    case 12:   // a clear request, as the configuration side runs it
      if( op & 0x40 ) {
         for( auto it = vrf.allStatus->pimIntfIter(); it; ++it ) it.value()->neighborDelAll();
      } else if( intf ) {
         intf->neighborDelAll();
      }
      break;
    case 13:
      if( intf ) intf->neighborLimitIs( in.u8() % 8 );
      break;
    case 14:   // the interface goes and comes back
      if( intf ) {
         intf->enabledIs( false );
         settle();
         vrf.allStatus->pimIntfDel( kIntf[ i ] );
      } else {
         addIntf( i );
      }
      break;
    default:
      if( intf ) intf->enabledIs( !intf->enabled() );
      break;
   }
   settle();
   followLanPruneLag( lanPruneBefore );
}

void Engine::check() const {
   std::size_t inVrf = 0;
   for( auto it = vrf.allStatus->pimIntfIter(); it; ++it ) {
      const Intf & intf = *it.value();
      const std::string where = "interface " + str( intf.id() ) + ": ";
      inVrf += intf.neighborSize();
      if( intf.refusedSourceSize() > kRefusedSourcesKept ) fail( where + "refused-source table over its bound" );

      // The status rows equal the entities.
      const auto row = varn->pimIntf().row( Varn::IntfKey( intf.id() ) );
      const Varn::Intf expected = Varn::intfRow( intf );
      if( !row || std::memcmp( &*row, &expected, sizeof( expected ) ) != 0 ) fail( where + "status row differs" );
      for( auto n = intf.neighborIter(); n; ++n ) {
         const auto nrow = varn->neighbor().row( Varn::NeighborKey( intf.id(), n.key() ) );
         const Varn::Neighbor nexp = Varn::neighborRow( intf.id(), *n.value() );
         if( !nrow || std::memcmp( &*nrow, &nexp, sizeof( nexp ) ) != 0 ) {
            fail( where + "neighbor row of " + str( n.key() ) + " differs" );
         }
      }
      for( auto r = intf.refusedSourceIter(); r; ++r ) {
         const auto rrow = varn->refusedNeighbor().row( Varn::NeighborKey( intf.id(), r.key() ) );
         if( !rrow || rrow->count != r.value().count ) fail( where + "refused row differs" );
      }

      // Secondary addresses: the map and the neighbours' sets agree, no
      // secondary is anyone's primary or unusable, none over the limit.
      std::size_t secondaries = 0;
      for( auto n = intf.neighborIter(); n; ++n ) {
         const Neighbor & nb = *n.value();
         if( nb.secondaryAddressSize() > kNeighborSecondaryAddressLimit ) fail( where + "secondary limit" );
         for( auto s = nb.secondaryAddressIter(); s; ++s ) {
            ++secondaries;
            const Lumo::IpGenAddr & a = s.key();
            if( !intf.nbSecondaryAddressHas( a ) || intf.nbSecondaryAddress( a ) != nb.address() ) {
               fail( where + "secondary " + str( a ) + " of " + str( nb.address() ) + " not mapped to it" );
            }
            if( intf.neighborColl().find( a ) ) fail( where + "secondary " + str( a ) + " is a primary" );
            if( a.isUnspecified() || a.isMulticast() || ( a.v4HostOrder() >> 24 ) == 127 ||
                a.v4HostOrder() == 0xFFFFFFFFu ) {
               fail( where + "unusable secondary " + str( a ) );
            }
            if( !varn->neighborSecondaryAddress().has(
                   Varn::NeighborSecondaryAddressKey( intf.id(), nb.address(), a ) ) ) {
               fail( where + "secondary row missing" );
            }
         }
      }
      if( intf.nbSecondaryAddressSize() != secondaries ) fail( where + "stale secondary mapping" );

      const Kiv::Ptr< IntfSm > sm = vrf.global->intfSm( intf.id() );
      if( !sm || !sm->initialized() ) continue;
      if( sm->neighborSmSize() != intf.neighborSize() ) fail( where + "a neighbour without its machine" );
      for( auto n = intf.neighborIter(); n; ++n ) {
         if( !sm->neighborSm( n.key() ) ) fail( where + "no machine for " + str( n.key() ) );
      }

      // What is counted equals the active neighbours as they are now.
      const ActiveNeighbors & counted = sm->activeNeighbors();
      if( counted.size() != intf.activeNeighborSize() ) fail( where + "counted set differs from the active set" );
      std::uint32_t noDr = 0, noLanPrune = 0, noTBit = 0;
      std::uint16_t maxPd = 0, maxOi = 0;
      std::vector< DrCandidate > candidates;
      for( auto a = intf.activeNeighborIter(); a; ++a ) {
         const Kiv::Ptr< Neighbor > nb = intf.neighbor( a.key() );
         if( !nb ) fail( where + "active neighbour " + str( a.key() ) + " has no entry" );
         if( intf.inactiveBfdNeighborHas( a.key() ) ) fail( where + "active and held down by BFD" );
         const ActiveNeighbors::Counted * c = counted.find( a.key() );
         if( !c ) fail( where + "active neighbour " + str( a.key() ) + " not counted" );
         if( !( c->drPriority == nb->drPriorityOption() ) ) fail( where + "counted DR priority is stale" );
         noDr += !nb->drPriorityOption().valid;
         noLanPrune += !nb->lanPruneDelayOption().valid;
         noTBit += !c->lanPrune.tBit;
         if( c->lanPrune.valid != nb->lanPruneDelayOption().valid ) fail( where + "counted LAN prune validity" );
         maxPd = std::max( maxPd, nb->lanPruneDelayOption().propagationDelay );
         maxOi = std::max( maxOi, nb->lanPruneDelayOption().overrideInterval );
         candidates.push_back( { a.key(), nb->drPriorityOption().value } );
      }
      if( counted.notUsingDrPriority() != noDr ) fail( where + "neighbours lacking DR priority: counted " +
                                                       str( counted.notUsingDrPriority() ) + ", are " + str( noDr ) );
      if( counted.notUsingLanPrune() != noLanPrune ) fail( where + "neighbours lacking LAN prune delay" );
      if( counted.notUsingTBit() != noTBit ) fail( where + "neighbours without T bit" );
      if( counted.maxPropagationDelay() != maxPd || counted.maxOverrideInterval() != maxOi ) {
         fail( where + "delay maxima" );
      }
      const DrCandidate self{ intf.usedAddressWithMask().address(), intf.drPriority() };
      for( const bool addressOnly : { false, true } ) {
         const auto strongest = counted.strongest( addressOnly );
         const DrResult kept = electDr( self, strongest ? &*strongest : nullptr, addressOnly );
         const DrResult scratch = electDrFromScratch( self, candidates.begin(), candidates.end(), addressOnly );
         if( !( kept.dr == scratch.dr ) || kept.priority != scratch.priority ) fail( where + "DR candidates" );
      }
      // The DR is a candidate: this router or an active neighbour.
      if( !( intf.usedDr() == self.address ) && !intf.activeNeighborHas( intf.usedDr() ) ) {
         fail( where + "DR " + str( intf.usedDr() ) + " is no candidate" );
      }
      if( noLanPrune != 0 ) {
         if( intf.usedPropagationDelay() != kPropagationDelayDefault ||
             intf.usedOverrideInterval() != kOverrideIntervalDefault ) {
            fail( where + "used delays without every neighbour's option" );
         }
      } else if( !lanPruneMayLag.count( str( intf.id() ) ) &&
                 ( intf.usedPropagationDelay() < std::max( intf.propagationDelay(), maxPd ) ||
                   intf.usedOverrideInterval() < std::max( intf.overrideInterval(), maxOi ) ) ) {
         fail( where + "used delays below the advertised ones" );
      }
      if( intf.usedTBit() != ( noTBit == 0 && intf.activeNeighborSize() != 0 ) ) fail( where + "used T bit" );
   }
   if( inVrf > vrf.allStatus->neighborLimit() ) fail( "VRF over its neighbour limit" );
   std::size_t rows = 0;
   varn->neighbor().forEach( [ & ]( const Varn::Neighbor & ) { ++rows; } );
   if( rows != inVrf ) fail( "neighbour rows: " + str( rows ) + ", neighbours: " + str( inVrf ) );
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t * data, std::size_t size ) {
   static const bool quiet = [] {
      Kiv::LogHandle::outputIs( Kiv::LogOutput::None );
      return true;
   }();
   (void)quiet;
   Reader in( data, size );
   Engine engine;
   engine.check();
   while( in.more() ) {
      engine.event( in );
      engine.check();
   }
   return 0;
}

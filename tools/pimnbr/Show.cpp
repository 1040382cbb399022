#include "Show.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "status/PimVarnStatus.h"
#include "varn/shm/ShmTable.h"

namespace PimNbr {

namespace {

using Json = nlohmann::ordered_json;
namespace V = Routing::Pim::Varn;
using KivVarn::Shm::TableReader;
using KivVarn::Shm::TypedReader;

// Thrown for anything that ends the command with a message.
struct Failure {
   std::string message;
};

// ---- reading the tables -----------------------------------------------------------
struct VrfTables {
   std::string vrf;
   std::vector< V::Intf > intfs;
   std::vector< V::Neighbor > neighbors;
   std::vector< V::NeighborSecondaryAddress > neighborSecondaries;
   std::vector< V::IntfSecondaryAddress > intfSecondaries;
   std::vector< V::MessageTypeCounters > counters;
   double now = 0;
};

Lumo::AddressFamily family( const Request & req ) {
   return req.ipv6 ? Lumo::AddressFamily::ipv6 : Lumo::AddressFamily::ipv4;
}

template< class Row >
std::vector< Row > readTable( const std::string & stateDir, const std::string & path,
                              std::ostream & err, std::optional< double > * clock = nullptr ) {
   std::string why;
   auto raw = TableReader::open( stateDir, path, &why );
   if( !raw ) throw Failure{ why };
   if( raw->rowSize() != sizeof( Row ) ) {
      throw Failure{ fmt::format( "{}: rows of {} bytes, this pimnbr reads {}", path, raw->rowSize(),
                                  sizeof( Row ) ) };
   }
   if( raw->stale() ) {
      err << fmt::format( "pimnbr: warning: {}: its writer (pid {}) is gone, the rows may be old\n", path,
                          raw->writerPid() );
   }
   if( clock ) *clock = raw->writerClock();
   TypedReader< Row > reader( std::move( raw ) );
   std::vector< Row > rows = reader.rows();
   // Replaced while we read: read the new table once.
   if( reader.raw().retired() && reader.raw().reopen() && reader.valid() ) rows = reader.rows();
   return rows;
}

double monotonicNow() {
   timespec ts;
   clock_gettime( CLOCK_MONOTONIC, &ts );
   return static_cast< double >( ts.tv_sec ) + static_cast< double >( ts.tv_nsec ) * 1e-9;
}

std::string intfName( const V::IntfName & n ) { return std::string( n.name, strnlen( n.name, V::IntfName::size ) ); }

bool addrLess( const V::Addr & a, const V::Addr & b ) {
   return std::memcmp( &a, &b, sizeof( V::Addr ) ) < 0;
}

VrfTables readVrf( const Request & req, const std::string & vrf, std::ostream & err ) {
   VrfTables t;
   t.vrf = vrf;
   const Lumo::AddressFamily af = family( req );
   if( req.what == Request::What::traffic ) {
      t.counters = readTable< V::MessageTypeCounters >(
         req.stateDir, V::countersPath( af, L3::VrfName( vrf ) ) + "/messageTypeCounters", err );
      return t;
   }
   const std::string base = V::statusPath( af, L3::VrfName( vrf ) ) + "/";
   std::optional< double > clock;
   t.intfs = readTable< V::Intf >( req.stateDir, base + V::kPimIntfTable, err, &clock );
   t.neighbors = readTable< V::Neighbor >( req.stateDir, base + V::kNeighborTable, err );
   t.neighborSecondaries =
      readTable< V::NeighborSecondaryAddress >( req.stateDir, base + V::kNeighborSecondaryAddressTable, err );
   t.intfSecondaries =
      readTable< V::IntfSecondaryAddress >( req.stateDir, base + V::kIntfSecondaryAddressTable, err );
   t.now = req.now ? *req.now : clock ? *clock : monotonicNow();
   std::sort( t.intfs.begin(), t.intfs.end(), []( const V::Intf & a, const V::Intf & b ) {
      return intfName( a.key.intf ) < intfName( b.key.intf );
   } );
   std::sort( t.neighbors.begin(), t.neighbors.end(), []( const V::Neighbor & a, const V::Neighbor & b ) {
      const std::string na = intfName( a.key.intf ), nb = intfName( b.key.intf );
      return na != nb ? na < nb : addrLess( a.key.addr, b.key.addr );
   } );
   return t;
}

// The VRFs that have tables of the request's kind, sorted.
std::vector< std::string > vrfNames( const Request & req ) {
   const std::string root = std::string( req.ipv6 ? "routing6" : "routing" ) + "/pim/" +
                            ( req.what == Request::What::traffic ? "counters/" : "status/" );
   const std::string leaf = req.what == Request::What::traffic ? "/pim/messageTypeCounters"
                                                               : std::string( "/" ) + V::kPimIntfTable;
   std::vector< std::string > out;
   for( const std::string & p : KivVarn::Shm::tablePaths( req.stateDir ) ) {
      if( p.size() > root.size() + leaf.size() && p.compare( 0, root.size(), root ) == 0 &&
          p.compare( p.size() - leaf.size(), leaf.size(), leaf ) == 0 ) {
         out.push_back( p.substr( root.size(), p.size() - root.size() - leaf.size() ) );
      }
   }
   return out;
}

// ---- formatting pieces ----------------------------------------------------------------
constexpr const char * kAbsent = "-";

std::string addrText( const V::Addr & a ) {
   char buf[ INET6_ADDRSTRLEN ] = {};
   if( a.af == 1 ) return inet_ntop( AF_INET, a.bytes, buf, sizeof buf );
   if( a.af == 2 ) return inet_ntop( AF_INET6, a.bytes, buf, sizeof buf );
   return kAbsent;
}

bool hasAddr( const V::Addr & a ) { return a.af == 1 || a.af == 2; }

std::string hms( double seconds ) {
   const long s = seconds < 0 ? 0 : static_cast< long >( seconds );
   return fmt::format( "{:02}:{:02}:{:02}", s / 3600, ( s / 60 ) % 60, s % 60 );
}

constexpr std::uint16_t kHoldForever = 0xffff;

std::string upTime( const V::Neighbor & n, double now ) { return hms( now - n.creationTime ); }

std::string expiresIn( const V::Neighbor & n, double now ) {
   if( n.holdTime == kHoldForever ) return "never";
   return hms( n.lastRefreshTime + n.holdTime - now );
}

const char * yesNo( bool b ) { return b ? "yes" : "no"; }

template< class T >
std::string orAbsent( bool valid, T v ) {
   return valid ? fmt::format( "{}", v ) : kAbsent;
}

// Columns as wide as their widest cell, two spaces apart.
std::string table( const std::vector< std::vector< std::string > > & rows ) {
   std::vector< std::size_t > width;
   for( const auto & r : rows ) {
      width.resize( std::max( width.size(), r.size() ) );
      for( std::size_t i = 0; i < r.size(); ++i ) width[ i ] = std::max( width[ i ], r[ i ].size() );
   }
   std::string out;
   for( const auto & r : rows ) {
      out += ' ';
      for( std::size_t i = 0; i < r.size(); ++i ) out += fmt::format( "{:<{}}  ", r[ i ], width[ i ] );
      out += '\n';
   }
   return out;
}

// The interface's own address: the configured one, else the one in use.
const V::Addr & intfAddr( const V::Intf & i ) {
   return hasAddr( i.addressWithMask.addr ) ? i.addressWithMask.addr : i.usedAddressWithMask.addr;
}

bool drIsLocal( const V::Intf & i ) { return hasAddr( i.usedDr ) && i.usedDr == intfAddr( i ); }

std::string drText( const V::Intf & i ) {
   if( !hasAddr( i.usedDr ) ) return kAbsent;
   return drIsLocal( i ) ? "local" : addrText( i.usedDr );
}

const char * stateText( const V::Intf & i ) { return i.enabled ? "up" : "down"; }

const V::Intf * findIntf( const VrfTables & t, const std::string & name ) {
   for( const auto & i : t.intfs ) {
      if( intfName( i.key.intf ) == name ) return &i;
   }
   return nullptr;
}

std::size_t neighborCount( const VrfTables & t, const V::Intf & i ) {
   return std::count_if( t.neighbors.begin(), t.neighbors.end(),
                         [ & ]( const V::Neighbor & n ) { return n.key.intf == i.key.intf; } );
}

bool hasSecondaries( const VrfTables & t, const V::Neighbor & n ) {
   return std::any_of( t.neighborSecondaries.begin(), t.neighborSecondaries.end(),
                       [ & ]( const V::NeighborSecondaryAddress & s ) {
                          return s.key.intf == n.key.intf && s.key.neighbor == n.key.addr;
                       } );
}

// The interface fields that head an interface's object in detail JSON.
void intfHead( Json & j, const VrfTables & t, const std::string & ifname ) {
   j[ "name" ] = ifname;
   if( const V::Intf * i = findIntf( t, ifname ) ) {
      j[ "state" ] = stateText( *i );
      if( hasAddr( intfAddr( *i ) ) ) j[ "address" ] = addrText( intfAddr( *i ) );
      j[ "lanDelayEnabled" ] = i->usedPropagationDelay != 0 || i->usedOverrideInterval != 0;
   }
}

// ---- neighbours ----------------------------------------------------------------------------
bool neighborMatches( const Request & req, const V::Neighbor & n ) {
   if( req.filter.empty() ) return true;
   // Compare as addresses, so "2001:db8::0:1" finds 2001:db8::1.
   unsigned char b[ 16 ] = {};
   const int af = req.ipv6 ? AF_INET6 : AF_INET;
   if( inet_pton( af, req.filter.c_str(), b ) != 1 ) return false;
   return std::memcmp( b, n.key.addr.bytes, req.ipv6 ? 16 : 4 ) == 0;
}

void neighborDetailJson( Json & j, const VrfTables & t, const V::Neighbor & n ) {
   const std::string addr = addrText( n.key.addr );
   j[ "interface" ] = intfName( n.key.intf );
   j[ "address" ] = addr;
   j[ "upTime" ] = upTime( n, t.now );
   j[ "holdtime" ] = expiresIn( n, t.now );
   if( n.drPriorityOption.valid ) j[ "drPriority" ] = n.drPriorityOption.value;
   if( n.generationIdOption.valid ) j[ "generationId" ] = n.generationIdOption.value;
   if( n.lanPruneDelayOption.valid ) {
      j[ "overrideInterval" ] = n.lanPruneDelayOption.overrideInterval;
      j[ "propagationDelay" ] = n.lanPruneDelayOption.propagationDelay;
   }
   j[ "helloOptionAddressList" ] = hasSecondaries( t, n );
   j[ "helloOptionDrPriority" ] = n.drPriorityOption.valid;
   j[ "helloOptionGenerationId" ] = n.generationIdOption.valid;
   j[ "helloOptionHoldtime" ] = true;
   j[ "helloOptionLanPruneDelay" ] = n.lanPruneDelayOption.valid;
   j[ "helloOptionTBit" ] = n.lanPruneDelayOption.valid && n.lanPruneDelayOption.tBit;
}

std::string neighborDetailText( const VrfTables & t, const V::Neighbor & n ) {
   const auto & lpd = n.lanPruneDelayOption;
   std::string out = fmt::format( "Interface : {}\nNeighbor  : {}\n", intfName( n.key.intf ), addrText( n.key.addr ) );
   auto line = [ & ]( const char * label, const std::string & v ) { out += fmt::format( "    {:<30} : {}\n", label, v ); };
   line( "Uptime", upTime( n, t.now ) );
   line( "Holdtime", expiresIn( n, t.now ) );
   line( "DR Priority", orAbsent( n.drPriorityOption.valid, n.drPriorityOption.value ) );
   line( "Generation ID",
         n.generationIdOption.valid ? fmt::format( "{:08x}", n.generationIdOption.value ) : kAbsent );
   line( "Override Interval (msec)", orAbsent( lpd.valid, lpd.overrideInterval ) );
   line( "Propagation Delay (msec)", orAbsent( lpd.valid, lpd.propagationDelay ) );
   line( "Hello Option - Address List", yesNo( hasSecondaries( t, n ) ) );
   line( "Hello Option - DR Priority", yesNo( n.drPriorityOption.valid ) );
   line( "Hello Option - Generation ID", yesNo( n.generationIdOption.valid ) );
   line( "Hello Option - Holdtime", yesNo( true ) );
   line( "Hello Option - LAN Prune Delay", yesNo( lpd.valid ) );
   line( "Hello Option - T-bit", yesNo( lpd.valid && lpd.tBit ) );
   return out + "\n";
}

// Fills j and text with the VRF's neighbours; returns how many were shown.
std::size_t showNeighbors( const Request & req, const VrfTables & t, Json & j, std::string & text ) {
   std::vector< std::vector< std::string > > rows{ { "Interface", "Neighbor", "Uptime", "Holdtime", "DR Pri" } };
   std::size_t shown = 0;
   for( const V::Neighbor & n : t.neighbors ) {
      if( !neighborMatches( req, n ) ) continue;
      ++shown;
      const std::string ifname = intfName( n.key.intf ), addr = addrText( n.key.addr );
      if( req.json ) {
         Json & ji = j[ ifname ];
         if( req.detail || !req.filter.empty() ) {
            if( ji.empty() ) intfHead( ji, t, ifname );
            neighborDetailJson( ji[ addr ], t, n );
         } else {
            Json & jn = ji[ addr ];
            jn[ "interface" ] = ifname;
            jn[ "neighbor" ] = addr;
            jn[ "upTime" ] = upTime( n, t.now );
            jn[ "holdTime" ] = expiresIn( n, t.now );
            jn[ "holdTimeMax" ] = n.holdTime;
            if( n.drPriorityOption.valid ) jn[ "drPriority" ] = n.drPriorityOption.value;
         }
      } else if( req.detail ) {
         text += neighborDetailText( t, n );
      } else {
         rows.push_back( { ifname, addr, upTime( n, t.now ), expiresIn( n, t.now ),
                           orAbsent( n.drPriorityOption.valid, n.drPriorityOption.value ) } );
      }
   }
   if( shown && !req.json && !req.detail ) text += table( rows ) + "\n";
   return shown;
}

// ---- interfaces ------------------------------------------------------------------------------
std::string intfDetailText( const VrfTables & t, const V::Intf & i ) {
   std::string out;
   auto line = [ & ]( int w, const char * label, const std::string & v ) {
      out += fmt::format( "{:<{}} : {}\n", label, w, v );
   };
   auto section = [ & ]( const char * title ) {
      out += fmt::format( "\n{}\n{}\n", title, std::string( std::strlen( title ), '-' ) );
   };
   line( 10, "Interface", intfName( i.key.intf ) );
   line( 10, "State", stateText( i ) );
   line( 10, "Address", hasAddr( intfAddr( i ) ) ? addrText( intfAddr( i ) ) + " (primary)" : kAbsent );
   for( const auto & s : t.intfSecondaries ) {
      if( s.key.intf == i.key.intf ) line( 10, "", addrText( s.key.addr ) );
   }
   bool first = true;
   for( const auto & n : t.neighbors ) {
      if( !( n.key.intf == i.key.intf ) ) continue;
      if( first ) section( "PIM Neighbors" );
      first = false;
      out += fmt::format( "{:<15} : up for {}, holdtime expires in {}\n", addrText( n.key.addr ),
                          upTime( n, t.now ), expiresIn( n, t.now ) );
   }
   if( !first ) out += "\n";
   section( "Designated Router" );
   line( 9, "Address", addrText( i.usedDr ) );
   line( 9, "Priority", orAbsent( hasAddr( i.usedDr ), i.usedDrPriority ) );
   out += "\n";
   section( "Hellos" );
   line( 14, "Period", fmt::format( "{}", i.helloPeriod ) );
   line( 14, "HoldTime", fmt::format( "{}", i.helloHoldTime ) );
   line( 14, "Generation ID", fmt::format( "{:08x}", i.generationId ) );
   line( 14, "DR Priority", fmt::format( "{}", i.drPriority ) );
   out += "\n";
   section( "Join Prune Interval" );
   line( 28, "LAN Delay", yesNo( i.usedPropagationDelay != 0 || i.usedOverrideInterval != 0 ) );
   line( 28, "Effective Propagation Delay", fmt::format( "{} msec", i.usedPropagationDelay ) );
   line( 28, "Effective Override Interval", fmt::format( "{} msec", i.usedOverrideInterval ) );
   line( 28, "Join Prune Override Interval",
         fmt::format( "{} msec", i.usedPropagationDelay + i.usedOverrideInterval ) );
   out += "\n";
   section( "LAN Prune Delay" );
   line( 27, "Propagation Delay", fmt::format( "{} msec", i.propagationDelay ) );
   line( 27, "Propagation Delay (Highest)", fmt::format( "{} msec", i.usedPropagationDelay ) );
   line( 27, "Override Interval", fmt::format( "{} msec", i.overrideInterval ) );
   line( 27, "Override Interval (Highest)", fmt::format( "{} msec", i.usedOverrideInterval ) );
   line( 27, "T-bit", yesNo( i.usedTBit ) );
   return out + "\n\n";
}

void intfDetailJson( Json & j, const VrfTables & t, const V::Intf & i ) {
   intfHead( j, t, intfName( i.key.intf ) );
   Json sec = Json::array();
   for( const auto & s : t.intfSecondaries ) {
      if( s.key.intf == i.key.intf ) sec.push_back( addrText( s.key.addr ) );
   }
   j[ "secondaryAddressList" ] = sec;
   Json nbrs = Json::object();
   for( const auto & n : t.neighbors ) {
      if( !( n.key.intf == i.key.intf ) ) continue;
      Json & jn = nbrs[ addrText( n.key.addr ) ];
      jn[ "address" ] = addrText( n.key.addr );
      jn[ "upTime" ] = upTime( n, t.now );
      jn[ "holdtime" ] = expiresIn( n, t.now );
   }
   j[ "neighbors" ] = nbrs;
   if( hasAddr( i.usedDr ) ) {
      j[ "drAddress" ] = addrText( i.usedDr );
      j[ "drPriority" ] = i.usedDrPriority;
   }
   j[ "helloPeriod" ] = i.helloPeriod;
   j[ "holdTime" ] = i.helloHoldTime;
   j[ "helloGenerationId" ] = i.generationId;
   j[ "effectivePropagationDelay" ] = i.usedPropagationDelay;
   j[ "effectiveOverrideInterval" ] = i.usedOverrideInterval;
   j[ "joinPruneOverrideInterval" ] = i.usedPropagationDelay + i.usedOverrideInterval;
   j[ "propagationDelay" ] = i.propagationDelay;
   j[ "propagationDelayHighest" ] = i.usedPropagationDelay;
   j[ "overrideInterval" ] = i.overrideInterval;
   j[ "overrideIntervalHighest" ] = i.usedOverrideInterval;
}

std::size_t showIntfs( const Request & req, const VrfTables & t, Json & j, std::string & text ) {
   std::vector< std::vector< std::string > > rows{
      { "Interface", "State", "Address", "PIM Nbrs", "PIM DR", "FHR", "IfChannels" } };
   std::size_t shown = 0;
   for( const V::Intf & i : t.intfs ) {
      const std::string ifname = intfName( i.key.intf );
      if( !req.filter.empty() && ifname != req.filter ) continue;
      ++shown;
      if( req.json && ( req.detail || !req.filter.empty() ) ) {
         intfDetailJson( j[ ifname ], t, i );
      } else if( req.json ) {
         Json & ji = j[ ifname ];
         intfHead( ji, t, ifname );
         ji[ "pimNeighbors" ] = neighborCount( t, i );
         if( hasAddr( i.usedDr ) ) {
            ji[ "pimDesignatedRouter" ] = addrText( i.usedDr );
            ji[ "pimDesignatedRouterLocal" ] = drIsLocal( i );
         }
      } else if( req.detail ) {
         text += intfDetailText( t, i );
      } else {
         // This agent keeps no first-hop or channel state: those stay absent.
         rows.push_back( { ifname, stateText( i ), addrText( intfAddr( i ) ),
                           fmt::format( "{}", neighborCount( t, i ) ), drText( i ), kAbsent, kAbsent } );
      }
   }
   if( shown && !req.json && !req.detail ) text += table( rows ) + "\n";
   return shown;
}

// ---- message counters ------------------------------------------------------------------------
struct MessageType {
   std::uint8_t type;
   const char * text;
   const char * json;
};
// Join and Prune share one message type, so they share one column.
constexpr MessageType kTrafficTypes[] = { { 0, "HELLO", "hello" },        { 3, "JOIN/PRUNE", "joinPrune" },
                                          { 1, "REGISTER", "register" },  { 2, "REGISTER-STOP", "registerStop" },
                                          { 5, "ASSERT", "assert" },      { 4, "BSM", "bsm" } };
// The counters are kept for the VRF, not per interface.
constexpr const char * kAllIntfs = "*";

std::size_t showTraffic( const Request & req, const VrfTables & t, Json & j, std::string & text ) {
   auto counters = [ & ]( std::uint8_t type ) {
      for( const auto & c : t.counters ) {
         if( c.key.type == type ) return c;
      }
      return V::MessageTypeCounters( type );
   };
   if( req.json ) {
      Json & ji = j[ kAllIntfs ];
      ji[ "name" ] = kAllIntfs;
      for( const auto & m : kTrafficTypes ) {
         const auto c = counters( m.type );
         ji[ std::string( m.json ) + "Rx" ] = c.rx;
         ji[ std::string( m.json ) + "Tx" ] = c.tx;
         ji[ std::string( m.json ) + "RxRejected" ] = c.rxRejected;
      }
      return 1;
   }
   std::string head = fmt::format( "\n{:<16}", "Interface" ), sub = fmt::format( "{:<16}", "" ),
               line = fmt::format( "{:<16}", kAllIntfs );
   for( const auto & m : kTrafficTypes ) {
      const auto c = counters( m.type );
      head += fmt::format( "{:>16}", m.text );
      sub += fmt::format( "{:>16}", "Rx/Tx" );
      line += fmt::format( "{:>16}", fmt::format( "{}/{}", c.rx, c.tx ) );
   }
   text += head + "\n" + sub + "\n" + std::string( 16 * 7, '-' ) + "\n" + line + "\n";
   return 1;
}

} // namespace

std::string parseWords( const std::vector< std::string > & words, Request & req ) {
   std::size_t i = 0;
   auto next = [ & ]() -> std::string { return i < words.size() ? words[ i++ ] : std::string(); };
   auto peek = [ & ]() -> std::string { return i < words.size() ? words[ i ] : std::string(); };
   const std::string fam = next();
   if( fam != "ip" && fam != "ipv6" ) return "expected 'ip' or 'ipv6'";
   req.ipv6 = fam == "ipv6";
   if( next() != "pim" ) return "expected 'pim'";
   if( peek() == "vrf" ) {
      ++i;
      req.vrf = next();
      if( req.vrf.empty() ) return "'vrf' needs a name or 'all'";
   }
   const std::string what = next();
   if( what == "neighbor" ) {
      req.what = Request::What::neighbor;
   } else if( what == "interface" ) {
      req.what = Request::What::interface;
      if( peek() == "traffic" ) {
         ++i;
         req.what = Request::What::traffic;
      }
   } else {
      return "expected 'neighbor' or 'interface'";
   }
   for( std::string w = next(); !w.empty(); w = next() ) {
      if( w == "json" ) {
         req.json = true;
      } else if( w == "detail" && req.what != Request::What::traffic ) {
         req.detail = true;
      } else if( req.filter.empty() && req.what != Request::What::traffic && !req.json && !req.detail ) {
         req.filter = w;
      } else {
         return "unexpected '" + w + "'";
      }
   }
   return {};
}

int show( const Request & req, std::ostream & out, std::ostream & err ) {
   Json all = Json::object();
   std::string text;
   std::size_t shown = 0;
   try {
      const bool everyVrf = req.vrf == "all";
      const std::vector< std::string > vrfs = everyVrf ? vrfNames( req ) : std::vector< std::string >{ req.vrf };
      if( vrfs.empty() ) throw Failure{ fmt::format( "no PIM tables under state directory {}", req.stateDir ) };
      for( const std::string & vrf : vrfs ) {
         const VrfTables t = readVrf( req, vrf, err );
         Json j = Json::object();
         std::string vrfText;
         std::size_t n = 0;
         switch( req.what ) {
          case Request::What::neighbor: n = showNeighbors( req, t, j, vrfText ); break;
          case Request::What::interface: n = showIntfs( req, t, j, vrfText ); break;
          case Request::What::traffic: n = showTraffic( req, t, j, vrfText ); break;
         }
         shown += n;
         if( everyVrf ) {
            if( n ) all[ vrf ] = j;
            if( n ) text += "VRF: " + vrf + "\n" + vrfText;
         } else {
            all = j;
            text = vrfText;
         }
      }
      if( !shown ) {
         const char * what = req.what == Request::What::neighbor ? "neighbor" : "interface";
         throw Failure{ req.filter.empty() ? fmt::format( "no PIM {}s", what )
                                           : fmt::format( "no such PIM {} {}", what, req.filter ) };
      }
   } catch( const Failure & f ) {
      err << "pimnbr: " << f.message << "\n";
      if( req.json ) out << "{}\n";
      return 1;
   }
   if( req.json ) {
      out << all.dump( 2 ) << "\n";
   } else {
      out << text;
   }
   return 0;
}

} // namespace PimNbr

#include "Scenario.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <stdexcept>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace PimLab {

using nlohmann::json;

namespace {

constexpr const char * kDefaultScenario = R"json({
  "name": "dr-failover",
  "seed": 1,
  "duration": 330,
  "segments": [ { "name": "lan1", "delay": 0.001 } ],
  "routers": [
    { "name": "r1", "interfaces": [ { "name": "Ethernet1", "segment": "lan1",
      "address": "198.18.1.1/24", "drPriority": 10 } ] },
    { "name": "r2", "interfaces": [ { "name": "Ethernet1", "segment": "lan1",
      "address": "198.18.1.2/24", "drPriority": 20 } ] },
    { "name": "r3", "interfaces": [ { "name": "Ethernet1", "segment": "lan1",
      "address": "198.18.1.3/24", "drPriority": 30 } ] },
    { "name": "r4", "start": null, "interfaces": [ { "name": "Ethernet1", "segment": "lan1",
      "address": "198.18.1.4/24", "drPriority": 40 } ] }
  ],
  "events": [
    { "at": 60,  "action": "checkpoint", "name": "formed" },
    { "at": 100, "action": "stop", "router": "r3" },
    { "at": 200, "action": "checkpoint", "name": "after-failover" },
    { "at": 260, "action": "start", "router": "r4" }
  ]
})json";

[[noreturn]] void fail( const std::string & where, const std::string & what ) {
   throw std::runtime_error( where.empty() ? what : where + ": " + what );
}

template< class T >
T get( const json & j, const char * key, const T & def, const std::string & where ) {
   auto it = j.find( key );
   if( it == j.end() || it->is_null() ) return def;
   try {
      return it->get< T >();
   } catch( const json::exception & e ) {
      fail( where + "." + key, e.what() );
   }
}

std::string getString( const json & j, const char * key, const std::string & where, bool required ) {
   auto it = j.find( key );
   if( it == j.end() ) {
      if( required ) fail( where, std::string( "missing \"" ) + key + "\"" );
      return {};
   }
   if( !it->is_string() ) fail( where + "." + key, "must be a string" );
   return it->get< std::string >();
}

const std::pair< const char *, Action > kActions[] = {
   { "start", Action::start },       { "stop", Action::stop },         { "shutdown", Action::shutdown },
   { "priority", Action::priority }, { "cut", Action::cut },           { "heal", Action::heal },
   { "loss", Action::loss },         { "detach", Action::detach },     { "attach", Action::attach },
   { "checkpoint", Action::checkpoint },
};

Action actionFromName( const std::string & s, const std::string & where ) {
   for( const auto & [ name, a ] : kActions ) {
      if( s == name ) return a;
   }
   fail( where, "unknown action \"" + s + "\"" );
}

IntfDesc intfFromJson( const json & j, const std::string & where ) {
   if( !j.is_object() ) fail( where, "an interface must be an object" );
   IntfDesc i;
   i.name = getString( j, "name", where, true );
   i.segment = getString( j, "segment", where, true );
   const std::string addr = getString( j, "address", where, true );
   try {
      i.address = Lumo::IpGenAddrWithMask::fromStrep( addr );
   } catch( const std::exception & e ) {
      fail( where + ".address", "\"" + addr + "\" is not an address with mask (" + e.what() + ")" );
   }
   if( i.address.isEmpty() ) fail( where + ".address", "must not be empty" );
   const std::int64_t prio = get< std::int64_t >( j, "drPriority", 1, where );
   if( prio < 0 || prio > 0xFFFFFFFFll ) fail( where + ".drPriority", "must lie in 0..4294967295" );
   i.drPriority = static_cast< std::uint32_t >( prio );
   const std::int64_t interval = get< std::int64_t >( j, "helloInterval", 30, where );
   if( interval < 1 || interval > 0xFFFF ) fail( where + ".helloInterval", "must lie in 1..65535" );
   i.helloInterval = static_cast< std::uint16_t >( interval );
   i.holdMultiplier = get< double >( j, "holdMultiplier", 3.5, where );
   if( !( i.holdMultiplier >= 1.0 ) || i.helloInterval * i.holdMultiplier > 65535.0 ) {
      fail( where + ".holdMultiplier", "must be >= 1 and keep the hold time within 65535 s" );
   }
   return i;
}

} // namespace

std::uint16_t IntfDesc::holdTime() const {
   return static_cast< std::uint16_t >( std::lround( helloInterval * holdMultiplier ) );
}

const char * actionName( Action a ) {
   for( const auto & [ name, x ] : kActions ) {
      if( x == a ) return name;
   }
   return "?";
}

const RouterDesc * Scenario::router( const std::string & n ) const {
   for( const auto & r : routers ) {
      if( r.name == n ) return &r;
   }
   return nullptr;
}

void Scenario::validate() const {
   if( !( duration > 0.0 ) || std::isinf( duration ) ) fail( "duration", "must be a positive number of seconds" );
   if( routers.empty() ) fail( "routers", "at least one router is needed" );
   std::set< std::string > names;
   std::set< std::string > addrs;
   for( const auto & r : routers ) {
      if( r.name.empty() ) fail( "routers", "a router needs a name" );
      if( !names.insert( r.name ).second ) fail( "routers", "duplicate router \"" + r.name + "\"" );
      if( r.start && ( *r.start < 0.0 || *r.start > duration ) ) {
         fail( "routers." + r.name + ".start", "must lie within the duration" );
      }
      std::set< std::string > intfs;
      for( const auto & i : r.interfaces ) {
         if( !intfs.insert( i.name ).second ) fail( "routers." + r.name, "duplicate interface \"" + i.name + "\"" );
         if( !addrs.insert( valueToStrep( i.address.address() ) ).second ) {
            fail( "routers." + r.name + "." + i.name, "address " + valueToStrep( i.address ) + " is used twice" );
         }
      }
   }
   std::set< std::string > segs;
   for( const auto & s : segments ) {
      if( !segs.insert( s.name ).second ) fail( "segments", "duplicate segment \"" + s.name + "\"" );
   }
   for( const auto & r : routers ) {
      for( const auto & i : r.interfaces ) segs.insert( i.segment );
   }
   for( const auto & e : events ) {
      const std::string where = fmt::format( "events[at {}]", e.at );
      if( e.at < 0.0 || e.at > duration ) fail( where, "time outside the duration" );
      switch( e.action ) {
         case Action::start:
         case Action::stop:
         case Action::shutdown:
         case Action::priority:
         case Action::detach:
         case Action::attach: {
            const RouterDesc * r = router( e.router );
            if( !r ) fail( where, "unknown router \"" + e.router + "\"" );
            if( !e.interface.empty() &&
                std::none_of( r->interfaces.begin(), r->interfaces.end(),
                              [ & ]( const IntfDesc & i ) { return i.name == e.interface; } ) ) {
               fail( where, "router " + e.router + " has no interface \"" + e.interface + "\"" );
            }
            if( e.action == Action::priority && ( e.value < 0 || e.value > 4294967295.0 ) ) {
               fail( where, "priority must lie in 0..4294967295" );
            }
            break;
         }
         case Action::cut:
         case Action::heal:
         case Action::loss:
            if( !segs.count( e.segment ) ) fail( where, "unknown segment \"" + e.segment + "\"" );
            if( e.action == Action::loss && !( e.value >= 0.0 && e.value <= 1.0 ) ) {
               fail( where, "loss must lie in [0, 1]" );
            }
            break;
         case Action::checkpoint: break;
      }
   }
}

Scenario scenarioFromJson( const std::string & text ) {
   json j;
   try {
      j = json::parse( text );
   } catch( const json::exception & e ) {
      fail( "", std::string( "not valid JSON: " ) + e.what() );
   }
   if( !j.is_object() ) fail( "", "a scenario is a JSON object" );
   Scenario s;
   s.name = get< std::string >( j, "name", "scenario", "" );
   s.seed = get< std::uint64_t >( j, "seed", 1, "" );
   s.duration = get< double >( j, "duration", 600.0, "" );
   if( auto it = j.find( "segments" ); it != j.end() ) {
      if( !it->is_array() ) fail( "segments", "must be an array" );
      for( const auto & sj : *it ) {
         SegmentDesc seg;
         seg.name = getString( sj, "name", "segments", true );
         seg.delay = get< double >( sj, "delay", 0.001, "segments." + seg.name );
         seg.loss = get< double >( sj, "loss", 0.0, "segments." + seg.name );
         if( !( seg.delay >= 0.0 ) || std::isinf( seg.delay ) ) fail( "segments." + seg.name, "delay must be >= 0" );
         if( !( seg.loss >= 0.0 && seg.loss <= 1.0 ) ) fail( "segments." + seg.name, "loss must lie in [0, 1]" );
         s.segments.push_back( seg );
      }
   }
   auto rit = j.find( "routers" );
   if( rit == j.end() || !rit->is_array() ) fail( "routers", "an array of routers is needed" );
   for( const auto & rj : *rit ) {
      if( !rj.is_object() ) fail( "routers", "a router must be an object" );
      RouterDesc r;
      r.name = getString( rj, "name", "routers", true );
      const std::string where = "routers." + r.name;
      if( auto st = rj.find( "start" ); st != rj.end() ) {
         if( st->is_null() ) {
            r.start.reset();
         } else if( st->is_number() ) {
            r.start = st->get< double >();
         } else {
            fail( where + ".start", "must be a number of seconds or null" );
         }
      }
      auto iit = rj.find( "interfaces" );
      if( iit == rj.end() || !iit->is_array() ) fail( where, "an array of interfaces is needed" );
      for( const auto & ij : *iit ) r.interfaces.push_back( intfFromJson( ij, where ) );
      s.routers.push_back( std::move( r ) );
   }
   if( auto eit = j.find( "events" ); eit != j.end() ) {
      if( !eit->is_array() ) fail( "events", "must be an array" );
      for( const auto & ej : *eit ) {
         if( !ej.is_object() ) fail( "events", "an event must be an object" );
         Event e;
         if( !ej.contains( "at" ) || !ej[ "at" ].is_number() ) fail( "events", "every event needs \"at\" (seconds)" );
         e.at = ej[ "at" ].get< double >();
         const std::string where = fmt::format( "events[at {}]", e.at );
         e.action = actionFromName( getString( ej, "action", where, true ), where );
         e.router = getString( ej, "router", where, false );
         e.interface = getString( ej, "interface", where, false );
         e.segment = getString( ej, "segment", where, false );
         e.name = getString( ej, "name", where, false );
         e.value = get< double >( ej, "value", 0.0, where );
         s.events.push_back( std::move( e ) );
      }
   }
   std::stable_sort( s.events.begin(), s.events.end(),
                     []( const Event & a, const Event & b ) { return a.at < b.at; } );
   s.validate();
   return s;
}

std::string scenarioToJson( const Scenario & s ) {
   json j;
   j[ "name" ] = s.name;
   j[ "seed" ] = s.seed;
   j[ "duration" ] = s.duration;
   j[ "segments" ] = json::array();
   for( const auto & seg : s.segments ) {
      j[ "segments" ].push_back( { { "name", seg.name }, { "delay", seg.delay }, { "loss", seg.loss } } );
   }
   j[ "routers" ] = json::array();
   for( const auto & r : s.routers ) {
      json rj{ { "name", r.name } };
      rj[ "start" ] = r.start ? json( *r.start ) : json( nullptr );
      rj[ "interfaces" ] = json::array();
      for( const auto & i : r.interfaces ) {
         rj[ "interfaces" ].push_back( { { "name", i.name },
                                         { "segment", i.segment },
                                         { "address", valueToStrep( i.address ) },
                                         { "drPriority", i.drPriority },
                                         { "helloInterval", i.helloInterval },
                                         { "holdMultiplier", i.holdMultiplier } } );
      }
      j[ "routers" ].push_back( rj );
   }
   j[ "events" ] = json::array();
   for( const auto & e : s.events ) {
      json ej{ { "at", e.at }, { "action", actionName( e.action ) } };
      if( !e.router.empty() ) ej[ "router" ] = e.router;
      if( !e.interface.empty() ) ej[ "interface" ] = e.interface;
      if( !e.segment.empty() ) ej[ "segment" ] = e.segment;
      if( !e.name.empty() ) ej[ "name" ] = e.name;
      if( e.action == Action::priority || e.action == Action::loss ) ej[ "value" ] = e.value;
      j[ "events" ].push_back( ej );
   }
   return j.dump( 2 );
}

Scenario defaultScenario() { return scenarioFromJson( kDefaultScenario ); }

} // namespace PimLab

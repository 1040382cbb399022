#include "Lab.h"

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "Router.h"
#include "kiv/ActivityManager.h"
#include "kiv/Clock.h"
#include "kiv/Random.h"
#include "model/PimStatus.h"
#include "services/simlan/SimLan.h"
#include "tolm/TimerWheel.h"
#include "kiv/OwnedReactor.h"

namespace PimLab {

using namespace Routing::Pim;

namespace {

Kiv::Seconds now() { return Kiv::System::currentTime(); }

std::string str( const Lumo::IpGenAddr & a ) { return a.isEmpty() ? std::string( "none" ) : valueToStrep( a ); }

// ---- status watching -------------------------------------------------------------

// Follows one router's status: per interface its active neighbours and its
// elected DR. Reports each change as it is delivered (deferred reactions, so
// at the virtual time at which the engine made it).
class RouterWatch {
 public:
   RouterWatch( std::vector< LabEvent > & out, const std::string & router,
                const Kiv::Ptr< AllStatusColl > & coll )
         : out_( out ), router_( router ), collReactor_( this ) {
      collReactor_.notifierIs( coll );
      coll->vrfStatusForEach( [ this ]( const L3::VrfName & vrf, const Kiv::Ptr< AllStatus > & ) { handleVrf( vrf ); } );
   }

 private:
   class KivIntf : public Intf::NotifieeConst {
    public:
      KivIntf( RouterWatch * w, const Kiv::Ptr< Intf > & intf ) : w_( w ) {
         notifierIs( intf );
         intf->activeNeighborForEach(
            [ this ]( const Lumo::IpGenAddr & a, const Kiv::Ptr< const Neighbor > & ) { onActiveNeighbor( a ); } );
         onUsedDr();
      }
      void onActiveNeighbor( const Lumo::IpGenAddr & a ) override {
         const auto intf = notifier();
         const auto nb = intf->activeNeighbor( a );
         auto it = active_.find( a );
         if( nb && it == active_.end() ) {
            active_.emplace( a, nb );
            LabEvent e = w_->event( "up", intf->id() );
            e.neighbor = str( a );
            if( nb->drPriorityOption().valid ) e.priority = nb->drPriorityOption().value;
            e.detail = fmt::format( "neighbor {} up (DR priority {}, hold time {} s)", e.neighbor,
                                    e.priority ? std::to_string( *e.priority ) : std::string( "none" ),
                                    nb->holdTime() );
            w_->out_.push_back( e );
         } else if( nb ) {
            it->second = nb;   // replaced entry, still active
         } else if( it != active_.end() ) {
            const Kiv::Ptr< const Neighbor > old = it->second;
            active_.erase( it );
            LabEvent e = w_->event( "down", intf->id() );
            e.neighbor = str( a );
            const double expiry = old->lastRefreshTime() + old->holdTime();
            if( old->holdTime() == kHoldTimeGoodbye ) {
               e.detail = fmt::format( "neighbor {} down (goodbye)", e.neighbor );
            } else if( old->holdTime() != kHoldTimeInfinite && now() >= expiry - 1e-9 ) {
               e.detail = fmt::format( "neighbor {} down (expired: last Hello at {:.3f}, hold time {} s)",
                                       e.neighbor, old->lastRefreshTime(), old->holdTime() );
            } else {
               e.detail = fmt::format( "neighbor {} down", e.neighbor );
            }
            w_->out_.push_back( e );
         }
      }
      void onUsedDr() override {
         const auto intf = notifier();
         const Lumo::IpGenAddr dr = intf->usedDr();
         if( dr == dr_ ) return;
         LabEvent e = w_->event( "dr", intf->id() );
         e.previous = dr_.isEmpty() ? std::string() : str( dr_ );
         e.neighbor = dr.isEmpty() ? std::string() : str( dr );
         if( !dr.isEmpty() ) e.priority = intf->usedDrPriority();
         e.detail = fmt::format( "DR {} -> {}{}", str( dr_ ), str( dr ),
                                 dr.isEmpty() ? std::string()
                                 : intf->iAmDr() ? fmt::format( " (priority {}, self)", intf->usedDrPriority() )
                                                 : fmt::format( " (priority {})", intf->usedDrPriority() ) );
         dr_ = dr;
         w_->out_.push_back( e );
      }
    private:
      RouterWatch * w_;
      std::map< Lumo::IpGenAddr, Kiv::Ptr< const Neighbor > > active_;
      Lumo::IpGenAddr dr_;
   };

   class KivAllStatus : public AllStatus::NotifieeConst {
    public:
      KivAllStatus( RouterWatch * w, const Kiv::Ptr< AllStatus > & s ) : w_( w ) {
         notifierIs( s );
         s->pimIntfForEach( [ this ]( const Lumo::IntfId & id, const Kiv::Ptr< Intf > & ) { onPimIntf( id ); } );
      }
      void onPimIntf( const Lumo::IntfId & id ) override {
         const Kiv::Ptr< Intf > intf = notifier()->pimIntf( id );
         if( !intf ) {
            intfs_.erase( id );
            return;
         }
         auto it = intfs_.find( id );
         if( it == intfs_.end() || it->second->notifier().ptr() != intf.ptr() ) {
            intfs_[ id ] = std::make_unique< KivIntf >( w_, intf );
         }
      }
    private:
      RouterWatch * w_;
      std::map< Lumo::IntfId, std::unique_ptr< KivIntf > > intfs_;
   };

   class KivAllStatusColl : public Kiv::OwnedReactor< AllStatusColl::NotifieeConst, RouterWatch > {
    public:
      using OwnedReactor::OwnedReactor;
      void onVrfStatus( const L3::VrfName & vrf ) override { owner_->handleVrf( vrf ); }
   };

   void handleVrf( const L3::VrfName & vrf ) {
      const auto s = collReactor_.notifier()->vrfStatus( vrf );
      if( !s ) {
         vrfs_.erase( vrf );
         return;
      }
      auto it = vrfs_.find( vrf );
      if( it == vrfs_.end() || it->second->notifier().ptr() != s.ptr() ) {
         vrfs_[ vrf ] = std::make_unique< KivAllStatus >( this, s );
      }
   }

   LabEvent event( const char * kind, const Lumo::IntfId & intf ) const {
      LabEvent e;
      e.time = now();
      e.router = router_;
      e.kind = kind;
      e.interface = std::string( intf.stringValue() );
      return e;
   }

   std::vector< LabEvent > & out_;
   std::string router_;
   KivAllStatusColl collReactor_;
   std::map< L3::VrfName, std::unique_ptr< KivAllStatus > > vrfs_;
};

// ---- tables ------------------------------------------------------------------------

// Columns sized to their widest cell; the columns listed in right are
// right-aligned (numbers).
std::string table( const std::vector< std::string > & header, const std::vector< std::vector< std::string > > & rows,
                   const std::set< std::size_t > & right ) {
   std::vector< std::size_t > w( header.size(), 0 );
   for( std::size_t c = 0; c < header.size(); ++c ) w[ c ] = header[ c ].size();
   for( const auto & r : rows ) {
      for( std::size_t c = 0; c < r.size() && c < w.size(); ++c ) w[ c ] = std::max( w[ c ], r[ c ].size() );
   }
   std::string out;
   auto line = [ & ]( const std::vector< std::string > & cells ) {
      std::string l = "  ";
      for( std::size_t c = 0; c < w.size(); ++c ) {
         const std::string & cell = c < cells.size() ? cells[ c ] : std::string();
         if( c ) l += "  ";
         l += right.count( c ) ? fmt::format( "{:>{}}", cell, w[ c ] ) : fmt::format( "{:<{}}", cell, w[ c ] );
      }
      while( !l.empty() && l.back() == ' ' ) l.pop_back();
      out += l + "\n";
   };
   line( header );
   std::vector< std::string > rule;
   for( std::size_t c = 0; c < w.size(); ++c ) rule.push_back( std::string( w[ c ], '-' ) );
   line( rule );
   for( const auto & r : rows ) line( r );
   return out;
}

std::string seconds( double s ) { return fmt::format( "{:.1f}s", s ); }

// ---- the run ------------------------------------------------------------------------

// Installs an activity manager on a virtual clock for the lifetime of the object.
class VirtualLoop {
 public:
   explicit VirtualLoop( std::uint64_t seed ) : clock_( 0.0 ), random_( seed ), previous_( &Kiv::activityManager() ) {
      manager_.clockIs( &clock_ );
      manager_.randomIs( &random_ );
      Kiv::activityManagerIs( &manager_ );
   }
   ~VirtualLoop() { Kiv::activityManagerIs( previous_ ); }
   Kiv::ActivityManager & manager() { return manager_; }
   Kiv::VirtualClock & clock() { return clock_; }
   void settle() {
      if( !manager_.runUntilIdle() ) throw std::runtime_error( "the activity loop did not settle" );
   }
   void advanceTo( double t ) {
      if( !manager_.advanceTo( t ) ) throw std::runtime_error( fmt::format( "the activity loop did not settle before {:.3f}", t ) );
   }

 private:
   Kiv::VirtualClock clock_;
   Kiv::SeededRandom random_;
   Kiv::ActivityManager * previous_;
   Kiv::ActivityManager manager_;
};

class LabRun {
 public:
   LabRun( const Scenario & sc, const LabOptions & o )
         : sc_( sc ), seed_( o.seed.value_or( sc.seed ) ), until_( o.until.value_or( sc.duration ) ),
           engine_( o.engine ), shmDir_( o.shmDir ), atEnd_( o.atEnd ), loop_( seed_ ) {}

   Report run() {
      report_.scenario = sc_.name;
      report_.seed = seed_;
      report_.until = until_;
      report_.routers = sc_.routers.size();
      report_.engine = engineName( engine_ );
      {
         wheel_ = Tolm::TimerWheelIs( loop_.clock() );
         lan_ = std::make_unique< SimLan::Lan >();
         for( const auto & s : sc_.segments ) {
            SimLan::Segment & seg = lan_->segmentIs( s.name, s.delay );
            seg.lossIs( s.loss );
         }
         std::uint32_t index = 0;
         for( const auto & r : sc_.routers ) {
            for( const auto & i : r.interfaces ) lan_->segmentIs( i.segment );
            routers_.push_back( std::make_unique< Router >( r, ++index, *lan_, wheel_, engine_ ) );
            routers_.back()->shmDirIs( shmDir_ );
         }
         // Router start times first, then the scenario's events, each in order.
         std::vector< Event > timeline;
         for( const auto & r : sc_.routers ) {
            if( !r.start ) continue;
            Event e;
            e.at = *r.start;
            e.action = Action::start;
            e.router = r.name;
            timeline.push_back( e );
         }
         std::stable_sort( timeline.begin(), timeline.end(), []( const Event & a, const Event & b ) { return a.at < b.at; } );
         std::vector< Event > merged;
         std::merge( timeline.begin(), timeline.end(), sc_.events.begin(), sc_.events.end(), std::back_inserter( merged ),
                     []( const Event & a, const Event & b ) { return a.at < b.at; } );
         for( const auto & e : merged ) {
            if( e.at > until_ ) break;
            loop_.advanceTo( e.at );
            apply( e );
            loop_.settle();
         }
         loop_.advanceTo( until_ );
         report_.snapshots.push_back( snapshot( "end" ) );
         if( atEnd_ ) {
            for( auto & r : routers_ ) r->publishClock( loop_.clock().now() );
            atEnd_();
         }
         // Watches before routers, routers before the LAN, all before the wheel.
         watches_.clear();
         for( auto & r : routers_ ) r->stop();
         routers_.clear();
         lan_.reset();
         loop_.settle();
         wheel_ = nullptr;
      }
      return std::move( report_ );
   }

 private:
   Router * router( const std::string & name ) {
      for( auto & r : routers_ ) {
         if( r->name() == name ) return r.get();
      }
      return nullptr;
   }

   void note( const Event & e, const std::string & router, const std::string & detail ) {
      LabEvent l;
      l.time = now();
      l.router = router;
      l.kind = actionName( e.action );
      l.interface = e.interface;
      l.detail = detail;
      report_.events.push_back( l );
   }

   void apply( const Event & e ) {
      Router * r = e.router.empty() ? nullptr : router( e.router );
      switch( e.action ) {
         case Action::start: {
            if( r->running() ) {
               note( e, r->name(), "start: already running" );
               break;
            }
            std::string what;
            for( const auto & i : r->desc().interfaces ) {
               what += fmt::format( "{}{} {} on {}, DR priority {}, hello {} s, hold {} s", what.empty() ? "" : "; ",
                                    i.name, valueToStrep( i.address ), i.segment, i.drPriority, i.helloInterval,
                                    i.holdTime() );
            }
            note( e, r->name(), "started: " + what );
            r->start();
            watches_[ r->name() ] = std::make_unique< RouterWatch >( report_.events, r->name(), r->allStatusColl() );
            break;
         }
         case Action::stop: {
            if( !r->running() ) break;
            note( e, r->name(), fmt::format( "stopped silently (last Hello at {:.3f})", lastHello( *r ) ) );
            watches_.erase( r->name() );
            r->stop();
            break;
         }
         case Action::shutdown: {
            if( !r->running() ) break;
            watches_.erase( r->name() );
            r->goodbyeIs();
            loop_.settle();
            note( e, r->name(), "shut down (goodbye sent)" );
            r->stop();
            break;
         }
         case Action::priority:
            note( e, r->name(), fmt::format( "{}: DR priority set to {}", e.interface.empty() ? "every interface" : e.interface,
                                             static_cast< std::uint32_t >( e.value ) ) );
            r->drPriorityIs( e.interface, static_cast< std::uint32_t >( e.value ) );
            break;
         case Action::detach:
            note( e, r->name(), ( e.interface.empty() ? std::string( "every interface" ) : e.interface ) + " unplugged" );
            r->detach( e.interface );
            break;
         case Action::attach:
            note( e, r->name(), ( e.interface.empty() ? std::string( "every interface" ) : e.interface ) + " plugged back" );
            r->attach( e.interface );
            break;
         case Action::cut:
            lan_->segmentIs( e.segment ).cutIs( true );
            note( e, "", "segment " + e.segment + " cut" );
            break;
         case Action::heal:
            lan_->segmentIs( e.segment ).cutIs( false );
            note( e, "", "segment " + e.segment + " healed" );
            break;
         case Action::loss:
            lan_->segmentIs( e.segment ).lossIs( e.value );
            note( e, "", fmt::format( "segment {} loss set to {:g}%", e.segment, e.value * 100.0 ) );
            break;
         case Action::checkpoint:
            report_.snapshots.push_back( snapshot( e.name ) );
            break;
      }
   }

   static double lastHello( const Router & r ) {
      double t = 0.0;
      r.allStatusColl()->vrfStatusForEach( [ & ]( const L3::VrfName &, const Kiv::Ptr< AllStatus > & s ) {
         s->pimIntfForEach( [ & ]( const Lumo::IntfId &, const Kiv::Ptr< Intf > & i ) {
            t = std::max( t, i->lastHelloTime() );
         } );
      } );
      return t;
   }

   Snapshot snapshot( const std::string & name ) {
      Snapshot s;
      s.name = name;
      s.time = now();
      for( const auto & r : routers_ ) {
         const auto c = r->counters();
         s.counters.push_back( CounterRow{ r->name(), r->running(), c.txFrames, c.rxFrames, c.rxLost, c.rxCut, c.rxDetached,
                                           c.rejected() } );
         if( !r->running() ) continue;
         std::map< std::pair< std::string, std::string >, Kiv::Ptr< Intf > > intfs;
         r->allStatusColl()->vrfStatusForEach( [ & ]( const L3::VrfName & vrf, const Kiv::Ptr< AllStatus > & st ) {
            st->pimIntfForEach( [ & ]( const Lumo::IntfId & id, const Kiv::Ptr< Intf > & i ) {
               intfs[ { std::string( vrf.stringValue() ), std::string( id.stringValue() ) } ] = i;
            } );
         } );
         for( const auto & [ key, intf ] : intfs ) {
            IntfRow row;
            row.router = r->name();
            row.interface = key.second;
            row.address = valueToStrep( intf->addressWithMask() );
            row.drPriority = intf->drPriority();
            row.dr = intf->usedDr().isEmpty() ? std::string() : valueToStrep( intf->usedDr() );
            row.drDrPriority = intf->usedDrPriority();
            row.iAmDr = intf->iAmDr();
            row.neighbors = intf->neighborSize();
            s.interfaces.push_back( row );
            std::map< Lumo::IpGenAddr, Kiv::Ptr< Neighbor > > nbs;
            intf->neighborForEach( [ & ]( const Lumo::IpGenAddr & a, const Kiv::Ptr< Neighbor > & n ) { nbs[ a ] = n; } );
            for( const auto & [ addr, n ] : nbs ) {
               NeighborRow nr;
               nr.router = r->name();
               nr.interface = key.second;
               nr.neighbor = valueToStrep( addr );
               nr.uptime = s.time - n->creationTime();
               if( n->holdTime() != kHoldTimeInfinite ) nr.expiresIn = n->lastRefreshTime() + n->holdTime() - s.time;
               if( n->drPriorityOption().valid ) nr.drPriority = n->drPriorityOption().value;
               if( n->generationIdOption().valid ) nr.generationId = n->generationIdOption().value;
               s.neighbors.push_back( nr );
            }
         }
      }
      return s;
   }

   const Scenario & sc_;
   std::uint64_t seed_;
   double until_;
   Engine engine_;
   std::string shmDir_;
   std::function< void() > atEnd_;
   VirtualLoop loop_;
   Report report_;
   Kiv::Ptr< Tolm::TimerWheel > wheel_;
   std::unique_ptr< SimLan::Lan > lan_;
   std::vector< std::unique_ptr< Router > > routers_;
   std::map< std::string, std::unique_ptr< RouterWatch > > watches_;
};

std::string renderSnapshot( const Snapshot & s ) {
   std::string out = s.name == "end" ? fmt::format( "\n== end at {:.3f} s ==\n", s.time )
                                     : fmt::format( "\n== checkpoint \"{}\" at {:.3f} s ==\n", s.name, s.time );
   out += "Interfaces\n";
   std::vector< std::vector< std::string > > rows;
   for( const auto & i : s.interfaces ) {
      rows.push_back( { i.router, i.interface, i.address, std::to_string( i.drPriority ), std::to_string( i.neighbors ),
                        i.dr.empty() ? "-" : i.dr, i.dr.empty() ? "-" : std::to_string( i.drDrPriority ),
                        i.iAmDr ? "yes" : "no" } );
   }
   out += table( { "router", "interface", "address", "priority", "neighbors", "DR", "DR priority", "I am DR" }, rows,
                 { 3, 4, 6 } );
   out += "Neighbors\n";
   rows.clear();
   for( const auto & n : s.neighbors ) {
      rows.push_back( { n.router, n.interface, n.neighbor, seconds( n.uptime ),
                        n.expiresIn ? seconds( *n.expiresIn ) : std::string( "never" ),
                        n.drPriority ? std::to_string( *n.drPriority ) : std::string( "-" ),
                        n.generationId ? fmt::format( "0x{:08x}", *n.generationId ) : std::string( "-" ) } );
   }
   out += table( { "router", "interface", "neighbor", "uptime", "expires in", "DR priority", "generation id" }, rows,
                 { 3, 4, 5 } );
   return out;
}

} // namespace

const Snapshot * Report::snapshot( const std::string & name ) const {
   for( const auto & s : snapshots ) {
      if( s.name == name ) return &s;
   }
   return nullptr;
}

Report runScenario( const Scenario & scenario, const LabOptions & options ) {
   scenario.validate();
   LabRun run( scenario, options );
   return run.run();
}

std::string renderText( const Report & r ) {
   std::string out = fmt::format( "pimlab: scenario \"{}\", seed {}, {} routers, {:.0f} s of virtual time\n\n", r.scenario,
                                  r.seed, r.routers, r.until );
   std::size_t who = 3;   // "lan"
   for( const auto & e : r.events ) who = std::max( who, e.router.size() );
   std::size_t si = 0;
   for( std::size_t ei = 0; ei <= r.events.size(); ++ei ) {
      // Checkpoints appear in the story where they were taken.
      while( si < r.snapshots.size() && r.snapshots[ si ].name != "end" &&
             ( ei == r.events.size() || r.snapshots[ si ].time < r.events[ ei ].time ) ) {
         out += renderSnapshot( r.snapshots[ si++ ] ) + "\n";
      }
      if( ei == r.events.size() ) break;
      const LabEvent & e = r.events[ ei ];
      const std::string router = e.router.empty() ? std::string( "lan" ) : e.router;
      const std::string where = e.interface.empty() || e.kind == "priority" || e.kind == "detach" || e.kind == "attach"
                                   ? std::string()
                                   : e.interface + ": ";
      out += fmt::format( "{:>10.3f}  {:<{}}  {}{}\n", e.time, router, who, where, e.detail );
   }
   for( ; si < r.snapshots.size(); ++si ) out += renderSnapshot( r.snapshots[ si ] );
   if( const Snapshot * end = r.snapshot( "end" ) ) {
      out += "Frames\n";
      std::vector< std::vector< std::string > > rows;
      for( const auto & c : end->counters ) {
         rows.push_back( { c.router, c.running ? "running" : "stopped", std::to_string( c.tx ), std::to_string( c.rx ),
                           std::to_string( c.lost ), std::to_string( c.cut ), std::to_string( c.detached ),
                           std::to_string( c.rejected ) } );
      }
      out += table( { "router", "state", "sent", "received", "lost", "cut", "unplugged", "rejected" }, rows,
                    { 2, 3, 4, 5, 6, 7 } );
   }
   return out;
}

std::string renderJson( const Report & r ) {
   using nlohmann::json;
   json j;
   j[ "scenario" ] = r.scenario;
   j[ "seed" ] = r.seed;
   j[ "until" ] = r.until;
   j[ "engine" ] = r.engine;
   j[ "events" ] = json::array();
   for( const auto & e : r.events ) {
      json ej{ { "time", e.time }, { "kind", e.kind }, { "detail", e.detail } };
      if( !e.router.empty() ) ej[ "router" ] = e.router;
      if( !e.interface.empty() ) ej[ "interface" ] = e.interface;
      if( !e.neighbor.empty() ) ej[ e.kind == "dr" ? "dr" : "neighbor" ] = e.neighbor;
      if( e.kind == "dr" ) ej[ "previous" ] = e.previous.empty() ? json( nullptr ) : json( e.previous );
      if( e.priority ) ej[ "priority" ] = *e.priority;
      j[ "events" ].push_back( ej );
   }
   j[ "snapshots" ] = json::array();
   for( const auto & s : r.snapshots ) {
      json sj{ { "name", s.name }, { "time", s.time } };
      sj[ "interfaces" ] = json::array();
      for( const auto & i : s.interfaces ) {
         sj[ "interfaces" ].push_back( { { "router", i.router },
                                         { "interface", i.interface },
                                         { "address", i.address },
                                         { "drPriority", i.drPriority },
                                         { "neighbors", i.neighbors },
                                         { "dr", i.dr.empty() ? json( nullptr ) : json( i.dr ) },
                                         { "drDrPriority", i.drDrPriority },
                                         { "iAmDr", i.iAmDr } } );
      }
      sj[ "neighbors" ] = json::array();
      for( const auto & n : s.neighbors ) {
         sj[ "neighbors" ].push_back( { { "router", n.router },
                                        { "interface", n.interface },
                                        { "neighbor", n.neighbor },
                                        { "uptime", n.uptime },
                                        { "expiresIn", n.expiresIn ? json( *n.expiresIn ) : json( nullptr ) },
                                        { "drPriority", n.drPriority ? json( *n.drPriority ) : json( nullptr ) },
                                        { "generationId", n.generationId ? json( *n.generationId ) : json( nullptr ) } } );
      }
      sj[ "counters" ] = json::array();
      for( const auto & c : s.counters ) {
         sj[ "counters" ].push_back( { { "router", c.router },
                                       { "running", c.running },
                                       { "sent", c.tx },
                                       { "received", c.rx },
                                       { "lost", c.lost },
                                       { "cut", c.cut },
                                       { "unplugged", c.detached },
                                       { "rejected", c.rejected } } );
      }
      j[ "snapshots" ].push_back( sj );
   }
   return j.dump( 2 ) + "\n";
}

} // namespace PimLab

#pragma once
// One VRF of the Hello engine on virtual time, with a recorder of every Hello
// handed to the transmit mailbox and captures of traces and structured logs.
// A test pins a random delay by pushing the draw right before the event that
// makes it; the generation id of a new interface never eats a scripted value.
#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <initializer_list>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "VrfPipeline.h"
#include "kiv/Log.h"
#include "kiv/Trace.h"
#include "kiv/testing/TestLoop.h"

namespace PimScenario {

using namespace Routing::Pim;

inline Lumo::IpGenAddr ip( std::string_view s ) { return Lumo::IpGenAddr::fromStrep( s ); }
inline Lumo::IpGenAddrWithMask ipm( std::string_view s ) {
   return Lumo::IpGenAddrWithMask::fromStrep( s );
}
inline const Lumo::IntfId eth1( "Ethernet1" ), eth2( "Ethernet2" );

// Each test starts its clock far from the others', so the static log handles'
// rate limits never carry a spent budget from one test into the next.
inline double nextStartTime() {
   static int n = 0;
   return 1.0e6 * ++n;
}

class ScriptedRandom final : public Kiv::Random {
 public:
   explicit ScriptedRandom( std::uint64_t seed ) : fallback_( seed ) {}
   void push( std::initializer_list< std::uint32_t > values ) {
      script_.insert( script_.end(), values.begin(), values.end() );
   }
   std::uint32_t rand() override {
      if( script_.empty() ) return fallback_.rand();
      const std::uint32_t v = script_.front();
      script_.pop_front();
      return v;
   }

 private:
   std::deque< std::uint32_t > script_;
   Kiv::SeededRandom fallback_;
};

// The draw that makes a triggered-Hello delay of `tenths` tenths of a second.
inline std::uint32_t drawForTenths( std::uint32_t tenths ) { return tenths - 1; }

// A Hello as a neighbour sends it. Options are absent unless set.
struct HelloBuilder {
   Lumo::IpGenAddr src;
   std::optional< std::uint16_t > holdTime = 105;
   std::optional< std::uint32_t > drPriority = {};
   std::optional< std::uint32_t > generationId = {};
   std::optional< LanPruneDelayOption > lanPruneDelay = {};   // its valid flag is ignored
   bool bidir = false;
   std::vector< Lumo::IpGenAddr > secondary = {};
   std::optional< Reliable::NeighborInfo > port = {};

   HelloBuilder & hold( std::optional< std::uint16_t > v ) { holdTime = v; return *this; }
   HelloBuilder & dr( std::uint32_t v ) { drPriority = v; return *this; }
   HelloBuilder & genId( std::uint32_t v ) { generationId = v; return *this; }
   HelloBuilder & lpd( std::uint16_t pd, std::uint16_t oi, bool t ) {
      lanPruneDelay = LanPruneDelayOption{ true, pd, oi, t };
      return *this;
   }
   HelloBuilder & bidirCapable() { bidir = true; return *this; }

   Kiv::Ptr< Packet::HelloMessage > build() const {
      auto h = Kiv::make< Packet::HelloMessage >();
      h->srcAddrIs( src );
      if( holdTime ) h->holdTimePresentIs( true ), h->holdTimeIs( *holdTime );
      if( drPriority ) h->drPriorityPresentIs( true ), h->drPriorityIs( *drPriority );
      if( generationId ) h->generationIdPresentIs( true ), h->generationIdIs( *generationId );
      if( lanPruneDelay ) {
         h->lanPruneDelayPresentIs( true );
         h->propagationDelayIs( lanPruneDelay->propagationDelay );
         h->overrideIntervalIs( lanPruneDelay->overrideInterval );
         h->tBitIs( lanPruneDelay->tBit );
      }
      h->bidirCapableIs( bidir );
      for( const auto & a : secondary ) h->secondaryAddrIs( a, true );
      if( port ) {
         h->portOptionPresentIs( true );
         h->portCapabilityFlagsIs( port->capabilityFlags );
         h->portTransportIs( static_cast< std::uint8_t >( port->transport ) );
         if( !port->connectionAddr.isEmpty() )
            h->connectionAddrPresentIs( true ), h->connectionAddrIs( port->connectionAddr );
         h->portSecondAddrIs( port->secondAddr );
      }
      return h;
   }
};

inline HelloBuilder hello( std::string_view src ) { return HelloBuilder{ ip( src ) }; }

// One Hello handed to the transmit mailbox (every send makes a new message).
struct SentHello {
   double time = 0.0;
   Lumo::IntfId intfId;
   Kiv::Ptr< const Packet::HelloMessage > hello;

   const Packet::HelloMessage * operator->() const { return hello.ptr(); }
};

struct IntfParams {
   Mode mode = pimModeSparse;
   std::uint32_t drPriority = 1;
   std::uint16_t helloPeriod = 30;
   std::uint16_t helloHoldTime = 105;
   std::uint16_t propagationDelay = 500;
   std::uint16_t overrideInterval = 2500;
   bool tBit = false;
   bool bfdEnabled = false;
   Reliable::CapabilityFlags portCapabilityFlags = 0;
   std::vector< Lumo::IpGenAddr > secondary = {};
   std::uint32_t ifIndex = 11;
   bool kernelKnown = true;
};

class EngineFixture {
 public:
   static constexpr std::uint64_t kSeed = 7;
   explicit EngineFixture( Lumo::AddressFamily af = Lumo::AddressFamily::ipv4 )
         : loop_( nextStartTime(), kSeed ), random_( kSeed * 31 + 1 ),
           vrf( af, L3::VrfName( "default" ), Tolm::TimerWheelIs( loop_.clock() ) ) {
      loop_.manager().randomIs( &random_ );
      trace.enable( "Pim::*/1-9" );
      txRecorder_.emplace( this, vrf.pamManager->txMessageInfo() );
      vrf.start();
      runUntilIdle();
   }

   ~EngineFixture() {
      // Machines first, while the wheel, the inputs and the loop still exist.
      vrf.routerIdSm = nullptr;
      vrf.helloSm = nullptr;
      vrf.global = nullptr;
      txRecorder_.reset();
      loop_.runUntilIdle();
      loop_.manager().randomIs( &loop_.random() );
   }

   double t0() const { return t0_; }
   double now() const { return loop_.now(); }
   void runUntilIdle() { EXPECT_TRUE( loop_.runUntilIdle() ) << "notification ping-pong"; }
   // Moves to t0 + rel, firing every timer due on the way.
   void at( double rel ) { EXPECT_TRUE( loop_.advanceTo( t0_ + rel ) ); }
   void advanceTo( double absolute ) { EXPECT_TRUE( loop_.advanceTo( absolute ) ); }
   void advanceBy( double d ) { EXPECT_TRUE( loop_.advanceBy( d ) ); }
   ScriptedRandom & random() { return random_; }

   // Creates the PIM interface (and, unless told otherwise, its kernel entry).
   Kiv::Ptr< Intf > addIntf( const Lumo::IntfId & id, std::string_view addressWithMask,
                             const IntfParams & p = {} ) {
      loop_.manager().randomIs( &loop_.random() );
      auto intf = vrf.allStatus->pimIntfIs( id, ipm( addressWithMask ) );
      loop_.manager().randomIs( &random_ );
      intf->modeIs( p.mode );
      intf->drPriorityIs( p.drPriority );
      intf->helloPeriodIs( p.helloPeriod );
      intf->helloHoldTimeIs( p.helloHoldTime );
      intf->propagationDelayIs( p.propagationDelay );
      intf->overrideIntervalIs( p.overrideInterval );
      intf->tBitIs( p.tBit );
      intf->bfdEnabledIs( p.bfdEnabled );
      intf->portCapabilityFlagsIs( p.portCapabilityFlags );
      for( const auto & a : p.secondary ) intf->secondaryAddressIs( a, true );
      if( p.kernelKnown ) vrf.kernelAdd( id, p.ifIndex );
      runUntilIdle();
      return intf;
   }
   // addIntf, then lets the start-up Hello go and forgets it.
   Kiv::Ptr< Intf > startIntf( const Lumo::IntfId & id, std::string_view addressWithMask,
                               const IntfParams & p = {} ) {
      auto intf = addIntf( id, addressWithMask, p );
      advanceBy( 1.0 );
      clearSent();
      return intf;
   }
   Kiv::Ptr< IntfSm > intfSm( const Lumo::IntfId & id ) const { return vrf.global->intfSm( id ); }

   void receive( const Lumo::IntfId & id, const HelloBuilder & h ) {
      vrf.rx->messageIs( h.build() );
      vrf.rx->intfIdIs( id );
      vrf.rx->countInc( 1 );
      runUntilIdle();
   }
   Kiv::Ptr< Neighbor > neighbor( const Lumo::IntfId & id, std::string_view addr ) const {
      auto i = vrf.allStatus->pimIntf( id );
      return i ? i->neighbor( ip( addr ) ) : Kiv::Ptr< Neighbor >();
   }
   bool active( const Lumo::IntfId & id, std::string_view addr ) const {
      auto i = vrf.allStatus->pimIntf( id );
      return i && i->activeNeighbor( ip( addr ) );
   }

   const std::vector< SentHello > & sent() const { return sent_; }
   std::vector< SentHello > sentOn( const Lumo::IntfId & id ) const {
      std::vector< SentHello > r;
      for( const auto & s : sent_ ) if( s.intfId == id ) r.push_back( s );
      return r;
   }
   void clearSent() { sent_.clear(); }

   std::vector< std::string > logTexts( std::string_view name ) const {
      std::vector< std::string > r;
      for( const auto & m : log.messages() ) if( m.name == name ) r.push_back( m.text );
      return r;
   }

 private:
   class TxRecorder : public IO::MessageInfo::NotifieeConst {
    public:
      TxRecorder( EngineFixture * f, const Kiv::Ptr< IO::MessageInfo > & m ) : f_( f ) {
         kivImmediateIs( IO::MessageInfo::kivAttr_count, true );
         notifierIs( m );
      }
      void onCountkivImmediate() override { f_->recordTx( *notifier() ); }

    private:
      EngineFixture * f_;
   };

   void recordTx( const IO::MessageInfo & m ) {
      auto h = m.helloMessage();
      EXPECT_TRUE( h ) << "a non-Hello message was handed to the transmit mailbox";
      if( h ) sent_.push_back( SentHello{ loop_.now(), m.intfId(), h } );
   }

   Kiv::Testing::TestLoop loop_;
   ScriptedRandom random_;
   double t0_ = loop_.now();
   std::vector< SentHello > sent_;
   std::optional< TxRecorder > txRecorder_;

 public:
   Kiv::TraceCapture trace;
   Kiv::LogCapture log;
   VrfPipeline vrf;
};

// The interface's DR and used LAN prune delay values, and how many active
// neighbours lack the DR priority option, the LAN prune delay option and the
// T bit, as one line.
inline std::string usedState( const Intf & i, const IntfSm & sm ) {
   std::ostringstream os;
   os << "dr " << i.usedDr() << "/" << i.usedDrPriority() << " lpd " << i.usedPropagationDelay() << "/"
      << i.usedOverrideInterval() << "/" << i.usedTBit() << " lacking " << sm.neighborNotUsingDrPriority() << "/"
      << sm.neighborNotUsingLanPrune() << "/" << sm.neighborNotUsingTBit();
   return os.str();
}

// The full option set of a Hello that is not a goodbye, as the interface
// advertises it.
inline void expectFullHello( const SentHello & s, const Intf & intf, std::uint32_t drPriority ) {
   EXPECT_EQ( s.intfId, intf.id() );
   EXPECT_EQ( s->srcAddr(), intf.usedAddressWithMask().address() );
   EXPECT_TRUE( s->holdTimePresent() && s->lanPruneDelayPresent() && s->drPriorityPresent() &&
                s->generationIdPresent() && s->interfaceIdPresent() );
   EXPECT_EQ( std::tuple( s->holdTime(), s->propagationDelay(), s->overrideInterval(), s->tBit(), s->drPriority() ),
              std::tuple( intf.helloHoldTime(), intf.propagationDelay(), intf.overrideInterval(), intf.tBit(),
                          drPriority ) );
   EXPECT_EQ( std::tuple( s->generationId(), s->bidirCapable(), s->interfaceIdRouterId(), s->interfaceIdIfIndex() ),
              std::tuple( intf.generationId(), modeIncludesBidir( intf.mode() ), intf.portInterfaceId().routerId,
                          intf.portInterfaceId().ifIndex ) );
   std::set< Lumo::IpGenAddr > own, sent;
   intf.secondaryAddressForEach( [ & ]( const Lumo::IpGenAddr & a, bool ) { own.insert( a ); } );
   s->secondaryAddrForEach( [ & ]( const Lumo::IpGenAddr & a, bool ) { sent.insert( a ); } );
   EXPECT_EQ( sent, own );
}

// A goodbye carries the hold time, the bidir flag when the mode needs it and
// the Interface ID, and nothing else of the neighbour-facing options.
inline void expectGoodbye( const SentHello & s, const Intf & intf, const Lumo::IpGenAddr & src ) {
   EXPECT_EQ( s.intfId, intf.id() );
   EXPECT_EQ( s->srcAddr(), src );
   EXPECT_TRUE( s->holdTimePresent() && s->holdTime() == 0 && s->interfaceIdPresent() );
   EXPECT_FALSE( s->lanPruneDelayPresent() || s->drPriorityPresent() || s->generationIdPresent() ||
                 s->secondaryAddrSize() );
   EXPECT_EQ( s->bidirCapable(), modeIncludesBidir( intf.mode() ) );
}

} // namespace PimScenario

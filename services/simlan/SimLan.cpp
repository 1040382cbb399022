#include "services/simlan/SimLan.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "kiv/Random.h"
#include "kiv/Trace.h"
#include "services/pimio/HelloAdapter.h"

namespace SimLan {

KIV_TRACE_HANDLE( "SimLan" )

using Routing::Pim::IO::MessageInfo;
using Routing::Pim::IO::PamManager;

namespace {
// Message type of Hellos in the receive mailboxes of a PamManager.
constexpr std::uint8_t kHelloMessageType = 0;

Kiv::Seconds now() { return Kiv::System::currentTime(); }
} // namespace

std::uint64_t EndpointCounters::rejected() const {
   std::uint64_t n = 0;
   for( std::uint64_t c : rxRejected ) n += c;
   return n;
}

// ---- Segment -----------------------------------------------------------------

Segment::Segment( std::string name, Kiv::Seconds delay ) : name_( std::move( name ) ), delay_( 0.0 ) {
   delayIs( delay );
}

Segment::~Segment() {
   // Endpoints outliving their LAN forget the segment (and what it carries).
   for( const Port & p : ports_ ) p.endpoint->ports_.erase( p.intfId );
   for( const Port & p : ports_ ) {
      auto & q = p.endpoint->queue_;
      for( auto it = q.begin(); it != q.end(); ) {
         it = it->second.segment == this ? q.erase( it ) : std::next( it );
      }
   }
}

void Segment::delayIs( Kiv::Seconds d ) {
   if( !( d >= 0.0 ) || std::isinf( d ) ) throw std::invalid_argument( "segment delay must be finite and >= 0" );
   delay_ = d;
}

void Segment::lossIs( double p ) {
   if( !( p >= 0.0 && p <= 1.0 ) ) throw std::invalid_argument( "segment loss must lie in [0, 1]" );
   loss_ = p;
}

bool Segment::attached( const Endpoint & e, const Lumo::IntfId & intf ) const {
   return std::any_of( ports_.begin(), ports_.end(), [ & ]( const Port & p ) {
      return p.endpoint == &e && p.intfId == intf;
   } );
}

void Segment::portIs( Endpoint & e, const Lumo::IntfId & intf ) {
   if( !attached( e, intf ) ) ports_.push_back( Port{ &e, intf } );
}

void Segment::portDel( Endpoint & e, const Lumo::IntfId & intf ) {
   ports_.erase( std::remove_if( ports_.begin(), ports_.end(),
                                 [ & ]( const Port & p ) { return p.endpoint == &e && p.intfId == intf; } ),
                 ports_.end() );
}

void Segment::carry( const Endpoint & from, const Lumo::IntfId & fromIntf, PimWire::Family family,
                     const Lumo::IpGenAddr & src, const Lumo::IpGenAddr & dst,
                     const std::shared_ptr< const Bytes > & bytes ) {
   ++framesCarried_;
   const Kiv::Seconds due = now() + delay_;
   // Copy: a delivery can never run from here, but keep the walk independent
   // of attach/detach calls anyway.
   const std::vector< Port > ports = ports_;
   for( const Port & p : ports ) {
      if( p.endpoint == &from && p.intfId == fromIntf ) continue;
      if( cut_ ) {
         ++p.endpoint->counters_.rxCut;
         continue;
      }
      // Draw only when loss is configured, so that a lossless LAN leaves the
      // random sequence of the agents untouched.
      if( loss_ > 0.0 ) {
         const double draw = double( Kiv::rand() ) / ( double( Kiv::Random::kRandMax ) + 1.0 );
         if( draw < loss_ ) {
            p.endpoint->lostIs();
            KIV_TRACE( th(), 6, "lost on " << name_ << " to " << p.endpoint->name() << ":" << p.intfId << " from " << src );
            continue;
         }
      }
      p.endpoint->frameIs( due, Endpoint::Frame{ p.intfId, this, family, src, dst, bytes } );
   }
}

// ---- Lan ---------------------------------------------------------------------

Lan::~Lan() { segments_.clear(); }

Segment & Lan::segmentIs( const std::string & name, Kiv::Seconds delay ) {
   auto it = segments_.find( name );
   if( it != segments_.end() ) return *it->second;
   auto s = std::make_unique< Segment >( name, delay );
   Segment & r = *s;
   segments_.emplace( name, std::move( s ) );
   return r;
}

Segment * Lan::segment( const std::string & name ) const {
   auto it = segments_.find( name );
   return it == segments_.end() ? nullptr : it->second.get();
}

std::vector< std::string > Lan::segmentNames() const {
   std::vector< std::string > r;
   for( const auto & [ name, s ] : segments_ ) r.push_back( name );
   return r;
}

// ---- Endpoint ----------------------------------------------------------------

Endpoint::KivTxMessageInfo::KivTxMessageInfo( Endpoint * owner, const Kiv::Ptr< MessageInfo > & tx )
      : OwnedReactor( owner ) {
   kivImmediateIs( MessageInfo::kivAttr_count, true );
   notifierIs( tx );
}

static Tolm::TimerWheel * requiredWheel( const Kiv::Ptr< Tolm::TimerWheel > & w ) {
   if( !w ) throw std::invalid_argument( "SimLan::Endpoint needs a timer wheel" );
   return w.ptr();
}

Endpoint::Endpoint( Lan & lan, std::string name, const Kiv::Ptr< PamManager > & pamManager,
                    const Kiv::Ptr< Tolm::TimerWheel > & wheel )
      : lan_( lan ), name_( std::move( name ) ), pamManager_( pamManager ), wheel_( wheel ),
        deliveryTimer_( this, requiredWheel( wheel ) ) {
   if( !pamManager_ || !pamManager_->txMessageInfo() ) {
      throw std::invalid_argument( "SimLan::Endpoint needs a PamManager with a transmit mailbox" );
   }
   txReactor_ = std::make_unique< KivTxMessageInfo >( this, pamManager_->txMessageInfo() );
   ++lan_.endpoints_;
}

Endpoint::~Endpoint() {
   txReactor_.reset();
   for( const auto & [ intf, seg ] : ports_ ) seg->portDel( *this, intf );
   --lan_.endpoints_;
}

void Endpoint::attach( const Lumo::IntfId & intf, const std::string & segment ) {
   Segment & seg = lan_.segmentIs( segment );
   auto it = ports_.find( intf );
   if( it != ports_.end() ) {
      if( it->second == &seg ) return;
      it->second->portDel( *this, intf );
   }
   ports_[ intf ] = &seg;
   seg.portIs( *this, intf );
   KIV_TRACE( th(), 3, name_ << ":" << intf << " attached to " << segment );
}

void Endpoint::detach( const Lumo::IntfId & intf ) {
   auto it = ports_.find( intf );
   if( it == ports_.end() ) return;
   it->second->portDel( *this, intf );
   ports_.erase( it );
   KIV_TRACE( th(), 3, name_ << ":" << intf << " detached" );
}

Segment * Endpoint::segmentOf( const Lumo::IntfId & intf ) const {
   auto it = ports_.find( intf );
   return it == ports_.end() ? nullptr : it->second;
}

void Endpoint::handleTx() {
   const Kiv::Ptr< const MessageInfo > tx = txReactor_->notifier();
   const auto hello = tx->helloMessage();
   if( !hello ) {
      ++counters_.txEncodeFailed;
      return;
   }
   if( !up_ ) {
      ++counters_.txWhileDown;
      return;
   }
   const PimWire::Hello wire = Routing::Pim::IO::wireHelloFrom( *hello );
   const PimWire::Family family = wire.source.family;
   auto bytes = std::make_shared< Bytes >(
      PimWire::encodeHello( wire, family, wire.source, wire.destination ) );
   if( bytes->empty() ) {
      ++counters_.txEncodeFailed;
      KIV_TRACE( th(), 1, name_ << ":" << tx->intfId() << " cannot encode " << *hello );
      return;
   }
   KIV_TRACE( th(), 5, name_ << ":" << tx->intfId() << " TX " << wire );
   send( tx->intfId(), family, hello->srcAddr(), Routing::Pim::IO::ipGenAddr( wire.destination ),
         std::move( bytes ) );
}

void Endpoint::sendBytes( const Lumo::IntfId & intf, const Lumo::IpGenAddr & src, const Lumo::IpGenAddr & dst,
                          Bytes bytes ) {
   if( !up_ ) {
      ++counters_.txWhileDown;
      return;
   }
   send( intf, Routing::Pim::IO::wireFamily( src.af() ), src, dst,
         std::make_shared< const Bytes >( std::move( bytes ) ) );
}

void Endpoint::send( const Lumo::IntfId & intf, PimWire::Family family, const Lumo::IpGenAddr & src,
                     const Lumo::IpGenAddr & dst, std::shared_ptr< const Bytes > bytes ) {
   Segment * seg = segmentOf( intf );
   if( !seg ) {
      ++counters_.txNotAttached;
      return;
   }
   ++counters_.txFrames;
   seg->carry( *this, intf, family, src, dst, bytes );
}

void Endpoint::frameIs( Kiv::Seconds due, Frame frame ) {
   queue_.emplace( QueueKey{ due, lan_.nextSeq() }, std::move( frame ) );
   armDeliveryTimer();
}

void Endpoint::armDeliveryTimer() {
   if( queue_.empty() ) {
      deliveryTimer_.timeMinIs( Kiv::kNever );
      return;
   }
   // A due time already past fires at the next turn of the loop.
   const Kiv::Seconds due = queue_.begin()->first.first;
   if( deliveryTimer_.timeMin() != due ) deliveryTimer_.timeMinIs( due );
}

void Endpoint::handleDeliveryTimer() {
   if( queue_.empty() ) return;
   // One frame per firing: the loop runs until idle before the next one.
   auto it = queue_.begin();
   const Frame f = std::move( it->second );
   queue_.erase( it );
   armDeliveryTimer();
   deliver( f );
}

void Endpoint::deliver( const Frame & f ) {
   if( f.segment->cut() ) {
      ++counters_.rxCut;
      return;
   }
   if( !up_ || segmentOf( f.intfId ) != f.segment ) {
      ++counters_.rxDetached;
      return;
   }
   const PimWire::DecodeResult r = PimWire::decodeHello( f.bytes->data(), f.bytes->size(), f.family,
                                                         Routing::Pim::IO::wireAddr( f.src ),
                                                         Routing::Pim::IO::wireAddr( f.dst ) );
   if( !r.ok() ) {
      ++counters_.rxRejected[ static_cast< std::size_t >( r.reason ) ];
      KIV_TRACE( th(), 2, name_ << ":" << f.intfId << " rejected a frame from " << f.src << ": " << r.reason );
      return;
   }
   const Kiv::Ptr< MessageInfo > rx = pamManager_->rxMessageInfo( kHelloMessageType );
   if( !rx ) {
      ++counters_.rxNoMailbox;
      return;
   }
   ++counters_.rxFrames;
   KIV_TRACE( th(), 5, name_ << ":" << f.intfId << " RX " << r.hello );
   rx->messageIs( Routing::Pim::IO::helloMessageFromWire( r.hello ) );
   rx->intfIdIs( f.intfId );
   rx->countInc( 1 );
}

} // namespace SimLan

#include "kiv/Notifiee.h"

#include "kiv/Invariant.h"

#include <algorithm>

namespace Kiv {

// ---- DeliveryGuard ------------------------------------------------------------
DeliveryGuard::DeliveryGuard( NotifieeBase & n ) : n_( &n ), prev_( n.guard_ ) {
   n.guard_ = this;
}

DeliveryGuard::~DeliveryGuard() {
   if( n_ ) n_->guard_ = prev_;
}

// ---- NotifieeBase -------------------------------------------------------------
NotifieeBase::~NotifieeBase() {
   for( DeliveryGuard * g = guard_; g; g = g->prev_ ) {
      g->n_ = nullptr;
   }
   dropQueued();
   if( notifier_ ) notifier_->detach( this );
   kivOwnerIs( nullptr );
}

void NotifieeBase::dropQueued() {
   if( queued_ ) detail::manager().dequeue( *this );
   dirty_ = 0;
}

void NotifieeBase::kivNotifierIs( const Notifier * n ) {
   if( notifier_.ptr() == n ) return;
   const bool replaced = notifier_ && n;
   dropQueued();
   kivDropPending();
   // Keep the old notifier alive until it is detached: it may hold the last
   // reference to this reactor's owner's input.
   Ptr< const Notifier > old = std::move( notifier_ );
   if( old && registered_ ) old->detach( this );
   notifier_ = Ptr< const Notifier >( n );
   if( notifier_ && registered_ ) notifier_->attach( this );
   if( replaced ) {
      DeliveryGuard g( *this );
      kivCall( [ this ] { onNotifier(); } );
   }
}

void NotifieeBase::isRegisteredNotifieeIs( bool on ) {
   if( registered_ == on ) return;
   registered_ = on;
   if( !notifier_ ) return;
   if( on ) {
      notifier_->attach( this );
   } else {
      notifier_->detach( this );
      dropQueued();
      kivDropPending();
   }
}

void NotifieeBase::hasNotificationActiveIs( bool on ) {
   active_ = on;
   if( !on ) {
      dropQueued();
      kivDropPending();
   }
}

void NotifieeBase::kivZombieIs( bool on ) {
   zombie_ = on;
   if( on ) {
      dropQueued();
      kivDropPending();
   }
}

void NotifieeBase::kivImmediateIs( AttrId id, bool on ) {
   const std::uint64_t bit = 1ull << id;
   if( on ) {
      immediateMask_ |= bit;
      if( notifier_ ) notifier_->anyImmediate_ |= bit;
   } else {
      immediateMask_ &= ~bit;
   }
}

void NotifieeBase::onNotificationException( const std::exception & e ) {
   detail::manager().notificationExceptionIs( e.what() );
}

void NotifieeBase::kivOwnerIs( StateMachine * owner ) {
   if( owner_ == owner ) return;
   if( owner_ ) {
      auto & v = owner_->reactors_;
      v.erase( std::remove( v.begin(), v.end(), this ), v.end() );
   }
   owner_ = owner;
   if( owner_ ) owner_->reactors_.push_back( this );
}

// ---- Notifier ------------------------------------------------------------------
Notifier::~Notifier() {
   // Reactors hold counted pointers to their notifier, so none can be left.
   KIV_INVARIANT( std::count( notifiees_.begin(), notifiees_.end(), nullptr ) ==
                     static_cast< long >( notifiees_.size() ),
                  "a notifier died under a live reactor" );
}

std::size_t Notifier::notifieeCount() const {
   return static_cast< std::size_t >(
      std::count_if( notifiees_.begin(), notifiees_.end(), []( auto * n ) { return n; } ) );
}

void Notifier::attach( NotifieeBase * n ) const {
   notifiees_.pushBack( n );
   anyImmediate_ |= n->immediateMask_;
}

void Notifier::detach( NotifieeBase * n ) const {
   auto it = std::find( notifiees_.begin(), notifiees_.end(), n );
   if( it == notifiees_.end() ) return;
   if( walking_ ) {
      *it = nullptr;     // tombstone; compacted when the walk ends
      tombstones_ = true;
   } else {
      notifiees_.eraseAt( static_cast< std::uint32_t >( it - notifiees_.begin() ) );
   }
}

void Notifier::notifySlow( AttrId id, const void * key ) const {
   const std::uint64_t bit = 1ull << id;
   // An immediate callback may drop the last reference to this notifier.
   Ptr< const Notifier > keep( this );
   ++walking_;
   KIV_INVARIANT( walking_ < 64, "immediate callbacks recurse without bound" );
   const std::uint32_t count = notifiees_.size();
   for( std::uint32_t i = 0; i < count; ++i ) {
      NotifieeBase * n = notifiees_[ i ];
      if( !n || !n->active_ || n->zombie_ ) continue;
      if( n->immediateMask_ & bit ) {
         DeliveryGuard g( *n );
         n->kivImmediate( id, key, g );
      } else if( key ) {
         n->kivMarkKeyDirty( id, key );
      } else {
         n->kivMarkDirty( bit );
      }
   }
   if( --walking_ == 0 && tombstones_ ) {
      notifiees_.removeNulls();
      tombstones_ = false;
   }
}

// ---- StateMachine ------------------------------------------------------------------
void StateMachine::kivDoZombieReactors( bool on ) {
   for( NotifieeBase * n : reactors_ ) n->kivZombieIs( on );
}

StateMachine::~StateMachine() {
   for( NotifieeBase * n : reactors_ ) n->owner_ = nullptr;
}

} // namespace Kiv

#pragma once
// Notifiers (entities whose attributes can be watched) and notifiees
// (reactors). The delivery contract is documented in ActivityManager.h.
//
// Lifetime rules:
//  * A reactor holds a counted pointer to the notifier it watches.
//  * A notifier's reactor list tolerates removal while it is being walked
//    (tombstones, compacted when the walk ends).
//  * A reactor destroyed while queued leaves the queue in its destructor.
//  * A reactor destroyed inside one of its own callbacks is detected by the
//    DeliveryGuard on the stack; nothing further is delivered to it.
//
// Immediate callbacks (on<Attr>kivImmediate) run inside the mutator. They are
// for mirrors that never write back into what they watch; re-entrant writes
// are allowed but bounded by a depth assertion.
#include <cassert>
#include <cstdint>
#include <exception>
#include <memory>
#include <vector>

#include "kiv/ActivityManager.h"
#include "kiv/HashMap.h"
#include "kiv/Ptr.h"

namespace Kiv {

using AttrId = unsigned;

class Notifier;
class StateMachine;
class NotifieeBase;

// Marks a reactor that is being delivered to; cleared by the reactor's
// destructor so the caller can tell that it is gone.
class DeliveryGuard {
 public:
   explicit DeliveryGuard( NotifieeBase & n );
   ~DeliveryGuard();
   bool alive() const { return n_ != nullptr; }
 private:
   friend class NotifieeBase;
   NotifieeBase * n_;
   DeliveryGuard * prev_;
};

namespace detail {
extern ActivityManager * currentManager;
ActivityManager & createManager();
inline ActivityManager & manager() {
   return currentManager ? *currentManager : createManager();
}
} // namespace detail

// The pending keys of one collection attribute of one reactor: deduplicated,
// in first-dirtied order.
template< class K >
using PendingKeys = HashMap< K, char >;

class NotifieeBase {
 public:
   NotifieeBase() = default;
   NotifieeBase( const NotifieeBase & ) = delete;
   NotifieeBase & operator=( const NotifieeBase & ) = delete;
   virtual ~NotifieeBase();

   bool isRegisteredNotifiee() const { return registered_; }
   // Off: the reactor leaves its notifier's list and drops what is queued.
   void isRegisteredNotifieeIs( bool on );
   bool hasNotificationActive() const { return active_; }
   // Off: queued and future notifications are dropped (the reactor stays bound).
   void hasNotificationActiveIs( bool on );
   bool kivZombie() const { return zombie_; }
   void kivZombieIs( bool on );
   // Requests the immediate form of one attribute's callback.
   void kivImmediateIs( AttrId id, bool on );
   // Where an exception that escaped a callback goes; the loop goes on.
   virtual void onNotificationException( const std::exception & e );
   // Called once when the notifier is replaced by another non-null one, so
   // that the owner can resynchronise with its new input.
   virtual void onNotifier() {}

   // Owner bookkeeping for StateMachine::kivDoZombieReactors().
   void kivOwnerIs( StateMachine * owner );

   // --- used by Notifier and the generated code ---------------------------
   const Notifier * kivNotifier() const { return notifier_.ptr(); }
   void kivNotifierIs( const Notifier * n );
   bool kivWantsImmediate( std::uint64_t bit ) const { return immediateMask_ & bit; }
   void kivMarkDirty( std::uint64_t bit ) {
      if( !active_ || zombie_ ) return;
      dirty_ |= bit;
      if( !queued_ ) detail::manager().enqueue( *this );
   }
   void kivMarkKeyDirty( AttrId id, const void * key ) {
      if( !active_ || zombie_ ) return;
      kivKeyDirty( id, key );
      kivMarkDirty( 1ull << id );
   }
   virtual void kivImmediate( AttrId id, const void * key, DeliveryGuard & g ) = 0;

 protected:
   virtual void kivDeliver( std::uint64_t mask, DeliveryGuard & g ) = 0;
   virtual void kivKeyDirty( AttrId id, const void * key ) = 0;
   virtual void kivDropPending() = 0;
   // Runs one callback, routing an escaping exception.
   template< class F >
   void kivCall( F && f ) {
      try {
         f();
      } catch( const std::exception & e ) {
         onNotificationException( e );
      }
   }
   template< class K >
   static void kivPendingAdd( std::unique_ptr< PendingKeys< K > > & p, const K & k ) {
      if( !p ) p = std::make_unique< PendingKeys< K > >();
      p->tryInsert( k, 0 );
   }
   // Delivers the pending keys of one attribute through cb; stops when the
   // reactor dies. The emptied set is kept for reuse.
   template< class K, class F >
   void kivDeliverKeys( std::unique_ptr< PendingKeys< K > > & slot, DeliveryGuard & g, F && cb ) {
      std::unique_ptr< PendingKeys< K > > p = std::move( slot );
      if( !p ) return;
      for( auto it = p->iter(); it; ++it ) {
         K k = it.key();
         kivCall( [ & ] { cb( k ); } );
         if( !g.alive() ) return;   // p dies with this frame, the reactor is gone
      }
      if( !slot ) {
         p->clear();
         slot = std::move( p );
      }
   }

 private:
   friend class ActivityManager;
   friend class DeliveryGuard;
   friend class Notifier;
   friend class StateMachine;
   void dropQueued();

   Ptr< const Notifier > notifier_;
   std::uint64_t dirty_ = 0;
   std::uint64_t immediateMask_ = 0;
   NotifieeBase * qprev_ = nullptr;
   NotifieeBase * qnext_ = nullptr;
   std::uint64_t round_ = 0;
   DeliveryGuard * guard_ = nullptr;
   StateMachine * owner_ = nullptr;
   bool queued_ = false;
   bool registered_ = true;
   bool active_ = true;
   bool zombie_ = false;
};

// The reactors bound to one notifier. Most entities have one or two, so those
// live inline: a notification then touches no extra heap memory.
class NotifieeList {
 public:
   NotifieeList() = default;
   NotifieeList( const NotifieeList & ) = delete;
   NotifieeList & operator=( const NotifieeList & ) = delete;
   ~NotifieeList() {
      if( data_ != inline_ ) delete[] data_;
   }
   bool empty() const { return size_ == 0; }
   std::uint32_t size() const { return size_; }
   NotifieeBase * operator[]( std::uint32_t i ) const { return data_[ i ]; }
   NotifieeBase ** begin() const { return data_; }
   NotifieeBase ** end() const { return data_ + size_; }
   void pushBack( NotifieeBase * n ) {
      if( size_ == cap_ ) {
         auto ** bigger = new NotifieeBase *[ cap_ * 2 ];
         for( std::uint32_t i = 0; i < size_; ++i ) bigger[ i ] = data_[ i ];
         if( data_ != inline_ ) delete[] data_;
         data_ = bigger;
         cap_ *= 2;
      }
      data_[ size_++ ] = n;
   }
   // Removes the element at i, keeping the order of the others.
   void eraseAt( std::uint32_t i ) {
      for( ; i + 1 < size_; ++i ) data_[ i ] = data_[ i + 1 ];
      --size_;
   }
   void removeNulls() {
      std::uint32_t out = 0;
      for( std::uint32_t i = 0; i < size_; ++i ) {
         if( data_[ i ] ) data_[ out++ ] = data_[ i ];
      }
      size_ = out;
   }
 private:
   NotifieeBase * inline_[ 2 ] = { nullptr, nullptr };
   NotifieeBase ** data_ = inline_;
   std::uint32_t size_ = 0;
   std::uint32_t cap_ = 2;
};

// Base of every watchable type: carries the reference count and the list of
// reactors bound to it.
class Notifier : public PtrInterface {
 public:
   Notifier() = default;
   Notifier( const Notifier & ) = delete;
   Notifier & operator=( const Notifier & ) = delete;
   std::size_t notifieeCount() const;

 protected:
   ~Notifier() override;
   void kivNotify( AttrId id ) const {
      if( notifiees_.empty() ) return;
      const std::uint64_t bit = 1ull << id;
      if( !( anyImmediate_ & bit ) ) {
         for( NotifieeBase * n : notifiees_ ) {
            if( n ) n->kivMarkDirty( bit );
         }
         return;
      }
      notifySlow( id, nullptr );
   }
   template< class K >
   void kivNotifyKey( AttrId id, const K & key ) const {
      if( notifiees_.empty() ) return;
      const std::uint64_t bit = 1ull << id;
      if( !( anyImmediate_ & bit ) ) {
         for( NotifieeBase * n : notifiees_ ) {
            if( n ) n->kivMarkKeyDirty( id, &key );
         }
         return;
      }
      notifySlow( id, &key );
   }

 private:
   friend class NotifieeBase;
   void notifySlow( AttrId id, const void * key ) const;
   void attach( NotifieeBase * n ) const;
   void detach( NotifieeBase * n ) const;
   mutable NotifieeList notifiees_;
   mutable std::uint64_t anyImmediate_ = 0;
   mutable std::uint32_t walking_ = 0;
   mutable bool tombstones_ = false;
};

// Base of state machines: a notifier that knows its reactors, so that it can
// turn them into zombies while it is being torn down.
class StateMachine : public Notifier {
 public:
   void kivDoZombieReactors( bool on );
 protected:
   ~StateMachine() override;
 private:
   friend class NotifieeBase;
   std::vector< NotifieeBase * > reactors_;
};

} // namespace Kiv

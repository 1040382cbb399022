#pragma once
// Keyed collection behind every collection attribute.
//
// An open-addressing hash table (linear probing) whose slots hold each key's
// hash beside a pointer to its node; the nodes are also linked in insertion
// order, so iteration is deterministic (insertion order; callers that need
// another order sort). Iterators are "stale-safe": erasing the node an
// iterator stands on only marks it dead; the node leaves the iteration chain
// when the last iterator moves off it. A loop may therefore delete the
// element it is on (or any other) and carry on.
//
// Why slots and not chains: once a table is larger than the cache, every
// node visited is a cache miss. A lookup here reads the slots (usually one
// cache line) and only the node whose hash matches; a key that is absent,
// as every key about to be inserted is, costs no node visit at all, and
// growing the table moves slots without touching a single node.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "kiv/Invariant.h"

namespace Kiv {

template< class K, class V, class H = std::hash< K > >
class HashMap {
   struct Node {
      Node * prev;
      Node * next;
      std::uint32_t iterRefs;
      bool dead;
      K key;
      V value;
      template< class VV >
      Node( const K & k, VV && v )
            : prev( nullptr ), next( nullptr ), iterRefs( 0 ), dead( false ), key( k ),
              value( std::forward< VV >( v ) ) {}
   };
   // An empty slot has no node.
   struct Slot {
      std::size_t hash;
      Node * node;
   };

 public:
   HashMap() = default;
   HashMap( const HashMap & ) = delete;
   HashMap & operator=( const HashMap & ) = delete;
   ~HashMap() {
      for( Node * n = head_; n; ) {
         Node * next = n->next;
         KIV_INVARIANT( n->iterRefs == 0, "iterator outlived its collection" );
         delete n;
         n = next;
      }
   }

   std::size_t size() const { return size_; }
   bool empty() const { return size_ == 0; }

   V * find( const K & k ) {
      Node * n = lookup( k, hasher_( k ) );
      return n ? &n->value : nullptr;
   }
   const V * find( const K & k ) const { return const_cast< HashMap * >( this )->find( k ); }
   bool contains( const K & k ) const { return find( k ) != nullptr; }

   // Inserts or replaces. Returns true when the key is new or the value changed.
   template< class VV >
   bool insertOrAssign( const K & k, VV && v ) {
      const std::size_t h = hasher_( k );
      std::size_t end;
      if( Node * n = lookup( k, h, end ) ) {
         if( n->value == v ) {
            return false;
         }
         n->value = std::forward< VV >( v );
         return true;
      }
      insertNew( h, end, k, std::forward< VV >( v ) );
      return true;
   }
   // Inserts or replaces without comparing values (for values without ==).
   template< class VV >
   void insertOrAssignFn( const K & k, VV && v ) {
      const std::size_t h = hasher_( k );
      std::size_t end;
      if( Node * n = lookup( k, h, end ) ) {
         n->value = std::forward< VV >( v );
         return;
      }
      insertNew( h, end, k, std::forward< VV >( v ) );
   }
   // Inserts when absent; returns the value slot and whether it was inserted.
   template< class VV >
   std::pair< V *, bool > tryInsert( const K & k, VV && v ) {
      const std::size_t h = hasher_( k );
      std::size_t end;
      if( Node * n = lookup( k, h, end ) ) {
         return { &n->value, false };
      }
      return { &insertNew( h, end, k, std::forward< VV >( v ) )->value, true };
   }

   bool erase( const K & k ) {
      const std::size_t h = hasher_( k );
      if( !slots_ ) {
         return false;
      }
      for( std::size_t i = home( h );; i = ( i + 1 ) & mask_ ) {
         Node * n = slots_[ i ].node;
         if( !n ) return false;
         if( slots_[ i ].hash == h && n->key == k ) {
            vacate( i );
            release( n );
            return true;
         }
      }
   }

   // Key of the first live element (insertion order); null when empty.
   const K * firstKey() const {
      const Node * n = firstLive();
      return n ? &n->key : nullptr;
   }

   // Starts over from the head after each node: a value's destructor may
   // erase other elements.
   void clear() {
      while( Node * n = firstLive() ) {
         vacate( slotOf( n ) );
         release( n );
      }
   }

   class Iterator {
    public:
      Iterator() = default;
      explicit Iterator( const HashMap * m ) : m_( const_cast< HashMap * >( m ) ) {
         settle( m_->head_ );
      }
      Iterator( const Iterator & o ) : m_( o.m_ ), n_( o.n_ ) { if( n_ ) ++n_->iterRefs; }
      Iterator & operator=( const Iterator & o ) {
         if( this != &o ) {
            Iterator tmp( o );
            std::swap( m_, tmp.m_ );
            std::swap( n_, tmp.n_ );
         }
         return *this;
      }
      ~Iterator() { release(); }
      explicit operator bool() const { return n_ != nullptr; }
      const K & key() const { return n_->key; }
      V & value() const { return n_->value; }
      Iterator & operator++() {
         Node * next = n_->next;
         release();
         settle( next );
         return *this;
      }
    private:
      void settle( Node * n ) {
         while( n && n->dead ) n = n->next;
         n_ = n;
         if( n_ ) ++n_->iterRefs;
      }
      void release() {
         if( !n_ ) return;
         Node * n = std::exchange( n_, nullptr );
         if( --n->iterRefs == 0 && n->dead ) {
            m_->unlinkOrder( n );
            delete n;
         }
      }
      HashMap * m_ = nullptr;
      Node * n_ = nullptr;
   };

   Iterator iter() const { return Iterator( this ); }

   // Plain forward iteration for code that does not mutate while iterating.
   template< class F >
   void forEach( F && f ) const {
      for( Node * n = head_; n; n = n->next ) {
         if( !n->dead ) f( n->key, n->value );
      }
   }

   bool operator==( const HashMap & o ) const {
      if( size_ != o.size_ ) return false;
      for( Node * n = head_; n; n = n->next ) {
         if( n->dead ) continue;
         const V * v = o.find( n->key );
         if( !v || !( *v == n->value ) ) return false;
      }
      return true;
   }

 private:
   // Fibonacci hashing spreads any hash, including the identity of std::hash
   // on integers, over the slots; linear probing needs that.
   std::size_t home( std::size_t h ) const {
      return static_cast< std::size_t >( ( std::uint64_t( h ) * 0x9E3779B97F4A7C15ull ) >> shift_ );
   }
   std::size_t capacity() const { return slots_ ? mask_ + 1 : 0; }
   Node * firstLive() const {
      Node * n = head_;
      while( n && n->dead ) n = n->next;
      return n;
   }

   Node * lookup( const K & k, std::size_t h ) const {
      std::size_t end;
      return lookup( k, h, end );
   }
   // Without the key, end is the empty slot its probe stopped at: where an
   // insertion goes unless the table grows first.
   Node * lookup( const K & k, std::size_t h, std::size_t & end ) const {
      end = 0;
      if( !slots_ ) return nullptr;
      for( std::size_t i = home( h );; i = ( i + 1 ) & mask_ ) {
         const Slot & s = slots_[ i ];
         if( !s.node ) {
            end = i;
            return nullptr;
         }
         if( s.hash == h && s.node->key == k ) return s.node;
      }
   }
   template< class VV >
   Node * insertNew( std::size_t h, std::size_t end, const K & k, VV && v ) {
      // At most one entry per two slots: a lookup then rarely reads past
      // the cache line it starts in, and always finds an empty slot.
      if( 2 * ( size_ + 1 ) > capacity() ) {
         grow( slots_ ? capacity() * 2 : 4 );
         end = emptySlotFor( h );
      }
      Node * n = new Node( k, std::forward< VV >( v ) );
      slots_[ end ] = Slot{ h, n };
      n->prev = tail_;
      if( tail_ ) tail_->next = n; else head_ = n;
      tail_ = n;
      ++size_;
      return n;
   }
   std::size_t emptySlotFor( std::size_t h ) const {
      std::size_t i = home( h );
      while( slots_[ i ].node ) i = ( i + 1 ) & mask_;
      return i;
   }
   void grow( std::size_t count ) {
      const std::size_t oldCount = capacity();
      std::unique_ptr< Slot[] > old = std::exchange( slots_, std::make_unique< Slot[] >( count ) );
      mask_ = count - 1;
      shift_ = 64;
      for( std::size_t c = count; c > 1; c >>= 1 ) --shift_;
      // The slots carry the hashes: no node is visited.
      for( std::size_t i = 0; i < oldCount; ++i ) {
         if( old[ i ].node ) slots_[ emptySlotFor( old[ i ].hash ) ] = old[ i ];
      }
   }
   // The slot of a live node.
   std::size_t slotOf( const Node * n ) const {
      for( std::size_t i = home( hasher_( n->key ) );; i = ( i + 1 ) & mask_ ) {
         KIV_INVARIANT( slots_[ i ].node, "a live node is missing from its table" );
         if( slots_[ i ].node == n ) return i;
      }
   }
   // Empties slot i, moving back the entries after it that may move (no
   // tombstones: lookups stay as short as the load allows).
   void vacate( std::size_t i ) {
      for( std::size_t j = ( i + 1 ) & mask_; slots_[ j ].node; j = ( j + 1 ) & mask_ ) {
         // The entry at j may fill i unless its home lies after i (cyclically).
         if( ( ( j - home( slots_[ j ].hash ) ) & mask_ ) >= ( ( j - i ) & mask_ ) ) {
            slots_[ i ] = slots_[ j ];
            i = j;
         }
      }
      slots_[ i ].node = nullptr;
   }
   // Drops a node that has left the slots; an iterator standing on it frees it later.
   void release( Node * n ) {
      --size_;
      if( n->iterRefs ) {
         n->dead = true;
      } else {
         unlinkOrder( n );
         delete n;
      }
   }
   void unlinkOrder( Node * n ) {
      if( n->prev ) n->prev->next = n->next; else head_ = n->next;
      if( n->next ) n->next->prev = n->prev; else tail_ = n->prev;
   }

   std::unique_ptr< Slot[] > slots_;
   std::size_t mask_ = 0;
   unsigned shift_ = 64;
   Node * head_ = nullptr;
   Node * tail_ = nullptr;
   std::size_t size_ = 0;
   [[no_unique_address]] H hasher_;
};

} // namespace Kiv

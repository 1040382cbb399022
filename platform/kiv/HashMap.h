#pragma once
// Keyed collection behind every collection attribute.
//
// A chained hash table whose nodes are also linked in insertion order, so
// iteration is deterministic (insertion order; callers that need another
// order sort). Iterators are "stale-safe": erasing the node an iterator
// stands on only marks it dead; the node leaves the iteration chain when the
// last iterator moves off it. A loop may therefore delete the element it is
// on (or any other) and carry on.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "kiv/Invariant.h"

namespace Kiv {

template< class K, class V, class H = std::hash< K > >
class HashMap {
   struct Node {
      Node * hnext;
      Node * prev;
      Node * next;
      std::size_t hash;
      std::uint32_t iterRefs;
      bool dead;
      K key;
      V value;
      template< class VV >
      Node( std::size_t h, const K & k, VV && v )
            : hnext( nullptr ), prev( nullptr ), next( nullptr ), hash( h ), iterRefs( 0 ),
              dead( false ), key( k ), value( std::forward< VV >( v ) ) {}
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
      if( Node * n = lookup( k, h ) ) {
         if( n->value == v ) {
            return false;
         }
         n->value = std::forward< VV >( v );
         return true;
      }
      insertNew( h, k, std::forward< VV >( v ) );
      return true;
   }
   // Inserts or replaces without comparing values (for values without ==).
   template< class VV >
   void insertOrAssignFn( const K & k, VV && v ) {
      const std::size_t h = hasher_( k );
      if( Node * n = lookup( k, h ) ) {
         n->value = std::forward< VV >( v );
         return;
      }
      insertNew( h, k, std::forward< VV >( v ) );
   }
   // Inserts when absent; returns the value slot and whether it was inserted.
   template< class VV >
   std::pair< V *, bool > tryInsert( const K & k, VV && v ) {
      const std::size_t h = hasher_( k );
      if( Node * n = lookup( k, h ) ) {
         return { &n->value, false };
      }
      return { &insertNew( h, k, std::forward< VV >( v ) )->value, true };
   }

   bool erase( const K & k ) {
      const std::size_t h = hasher_( k );
      if( buckets_.empty() ) {
         return false;
      }
      Node ** link = &buckets_[ h & ( buckets_.size() - 1 ) ];
      for( ; *link; link = &( *link )->hnext ) {
         Node * n = *link;
         if( n->hash == h && n->key == k ) {
            *link = n->hnext;
            --size_;
            if( n->iterRefs ) {
               n->dead = true;   // an iterator stands here: free later
            } else {
               unlinkOrder( n );
               delete n;
            }
            return true;
         }
      }
      return false;
   }

   // Key of the first live element (insertion order); null when empty.
   const K * firstKey() const {
      for( Node * n = head_; n; n = n->next ) {
         if( !n->dead ) return &n->key;
      }
      return nullptr;
   }

   void clear() {
      while( const K * k = firstKey() ) {
         K key = *k;
         erase( key );
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
   Node * lookup( const K & k, std::size_t h ) const {
      if( buckets_.empty() ) return nullptr;
      for( Node * n = buckets_[ h & ( buckets_.size() - 1 ) ]; n; n = n->hnext ) {
         if( n->hash == h && n->key == k ) return n;
      }
      return nullptr;
   }
   template< class VV >
   Node * insertNew( std::size_t h, const K & k, VV && v ) {
      // At most three entries per four buckets: a lookup then rarely walks
      // past a node that is not the one it wants, each of which is a cache
      // miss once the table is larger than the cache.
      if( 4 * ( size_ + 1 ) > 3 * buckets_.size() ) {
         rehash( buckets_.empty() ? 4 : buckets_.size() * 2 );
      }
      Node * n = new Node( h, k, std::forward< VV >( v ) );
      Node *& b = buckets_[ h & ( buckets_.size() - 1 ) ];
      n->hnext = b;
      b = n;
      n->prev = tail_;
      if( tail_ ) tail_->next = n; else head_ = n;
      tail_ = n;
      ++size_;
      return n;
   }
   void rehash( std::size_t count ) {
      std::vector< Node * > b( count, nullptr );
      for( Node * n = head_; n; n = n->next ) {
         if( n->dead ) continue;
         Node *& slot = b[ n->hash & ( count - 1 ) ];
         n->hnext = slot;
         slot = n;
      }
      buckets_.swap( b );
   }
   void unlinkOrder( Node * n ) {
      if( n->prev ) n->prev->next = n->next; else head_ = n->next;
      if( n->next ) n->next->prev = n->prev; else tail_ = n->prev;
   }

   std::vector< Node * > buckets_;
   Node * head_ = nullptr;
   Node * tail_ = nullptr;
   std::size_t size_ = 0;
   [[no_unique_address]] H hasher_;
};

} // namespace Kiv

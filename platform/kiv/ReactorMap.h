#pragma once
// Reactors kept per key, each following one entity: the usual shape of a
// machine that watches every element of a collection. bind() creates the
// key's reactor on first use and points it at the entity, so an entity
// replaced under the same key is followed; unbind() drops the reactor.
// emplace() is for reactors whose constructor binds them (and may run their
// handlers once): it builds the key's reactor only when there is none.
#include <cstddef>
#include <functional>
#include <memory>
#include <utility>

#include "kiv/HashMap.h"

namespace Kiv {

template< class K, class R, class H = std::hash< K > >
class ReactorMap {
 public:
   // args build the reactor when the key has none yet.
   template< class N, class... A >
   R & bind( const K & key, const N & notifier, A &&... args ) {
      auto [ slot, inserted ] = reactors_.tryInsert( key, nullptr );
      if( inserted ) *slot = std::make_unique< R >( std::forward< A >( args )... );
      ( *slot )->notifierIs( notifier );
      return **slot;
   }
   // The key's reactor, built from args when the key has none yet.
   template< class... A >
   R & emplace( const K & key, A &&... args ) {
      if( R * r = find( key ) ) return *r;
      return insert( key, std::make_unique< R >( std::forward< A >( args )... ) );
   }
   // Keeps r (of R or a type derived from it) as the key's reactor.
   R & insert( const K & key, std::unique_ptr< R > r ) {
      R & ref = *r;
      reactors_.insertOrAssignFn( key, std::move( r ) );
      return ref;
   }
   void unbind( const K & key ) { reactors_.erase( key ); }
   // Removes the key's reactor and hands it over (null when there is none),
   // so that it can still act after it left the map.
   std::unique_ptr< R > take( const K & key ) {
      std::unique_ptr< R > * slot = reactors_.find( key );
      if( !slot ) return nullptr;
      std::unique_ptr< R > r = std::move( *slot );
      reactors_.erase( key );
      return r;
   }
   void clear() { reactors_.clear(); }

   R * find( const K & key ) const {
      const std::unique_ptr< R > * slot = reactors_.find( key );
      return slot ? slot->get() : nullptr;
   }
   bool contains( const K & key ) const { return reactors_.contains( key ); }
   std::size_t size() const { return reactors_.size(); }
   // Key of the first reactor (insertion order); null when empty.
   const K * firstKey() const { return reactors_.firstKey(); }
   // f( key, reactor ) in insertion order; f may unbind.
   template< class F >
   void forEach( F && f ) const {
      for( auto it = reactors_.iter(); it; ++it ) f( it.key(), *it.value() );
   }

 private:
   HashMap< K, std::unique_ptr< R >, H > reactors_;
};

} // namespace Kiv

#pragma once
// Reactors kept per key, each following one entity: the usual shape of a
// machine that watches every element of a collection. bind() creates the
// key's reactor on first use and points it at the entity, so an entity
// replaced under the same key is followed; unbind() drops the reactor.
#include <memory>
#include <utility>

#include "kiv/HashMap.h"

namespace Kiv {

template< class K, class R >
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
   void unbind( const K & key ) { reactors_.erase( key ); }
   void clear() { reactors_.clear(); }

 private:
   HashMap< K, std::unique_ptr< R > > reactors_;
};

} // namespace Kiv

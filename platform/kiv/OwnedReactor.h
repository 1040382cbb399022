#pragma once
// The frame every reactor shares: it watches one notifier and forwards its
// callbacks to the machine that owns it. A reactor class then states only
// its base, its owner and its callbacks:
//
//   class KivIntf : public Kiv::OwnedReactor< Intf::NotifieeConst, IntfSm > {
//    public:
//      using OwnedReactor::OwnedReactor;
//      void onMode() override { owner_->handleMode(); }
//   };
//
// Arguments after the owner go to the base (a timer's wheel). KeyedReactor
// also carries the key it stands for in a per-key collection of reactors.
#include <utility>

#include "kiv/Ptr.h"

namespace Kiv {

template< class Base, class Owner >
class OwnedReactor : public Base {
 public:
   template< class... A >
   explicit OwnedReactor( Owner * owner, A &&... baseArgs )
         : Base( std::forward< A >( baseArgs )... ), owner_( owner ) {}
   Owner * owner() const { return owner_; }

 protected:
   // A plain pointer: the owner outlives the reactors it holds.
   Owner * const owner_;
};

template< class Base, class Owner, class K >
class KeyedReactor : public OwnedReactor< Base, Owner > {
 public:
   KeyedReactor( Owner * owner, const K & key ) : OwnedReactor< Base, Owner >( owner ), key_( key ) {}
   // Also binds: the owner (a machine) learns of the reactor for
   // kivDoZombieReactors, then the reactor watches notifier.
   template< class N >
   KeyedReactor( Owner * owner, const K & key, const Ptr< N > & notifier ) : KeyedReactor( owner, key ) {
      this->kivOwnerIs( owner );
      this->notifierIs( notifier );
   }
   const K & key() const { return key_; }

 protected:
   const K key_;
};

} // namespace Kiv

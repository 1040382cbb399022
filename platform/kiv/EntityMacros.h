#pragma once
// Attribute lists: one X-macro list declares each entity type; these macros
// expand it into storage, the accessor family, the reactor base
// (T::NotifieeConst) and reflection. All logic lives in the templates of
// HashMap.h and Notifiee.h; the macros only name things.
//
// A list looks like (one attribute per line, each line ending in a
// backslash continuation):
//   #define FOO_ATTRS( X )
//      X( SCALAR, holdTime, HoldTime, std::uint16_t, 105 )
//      X( COUNTER, count, Count, std::uint32_t )
//      X( PTR, peer, Peer, Peer )
//      X( COLL, nbAddr, NbAddr, Lumo::IpGenAddr, Lumo::IpGenAddr )
//      X( SET, secondaryAddress, SecondaryAddress, Lumo::IpGenAddr )
//      X( ENTITIES, neighbor, Neighbor, Lumo::IpGenAddr, Neighbor )
//      X( REFS, activeNeighbor, ActiveNeighbor, Lumo::IpGenAddr, Neighbor, address )
// and a class uses it with KIV_ENTITY( Foo, "Ns::Foo", FOO_ATTRS ) inside its
// body and KIV_NOTIFIEE( Foo, FOO_ATTRS ) after it.
//
// Kinds and what they generate for attribute x:
//   SCALAR   x(), xIs(v), xInitial()         (equal writes are silent;
//                                             xInitial() is the list's value)
//   COUNTER  x(), xIs(v), xInc(n), xDec(n)
//   PTR      x(), xIs(p), xDel()             (counted pointer, may be null)
//   COLL     x(k) (default value if absent), xIs(k, v), xDel(k), xDelAll(),
//            xSize(), xHas(k), xIter(), xForEach(f)
//   SET      x(k) -> bool, xIs(k, bool), xDel(k), xDelAll(), xSize(), xIter()
//   ENTITIES x(k) -> Ptr (null if absent), xIs(k, args...) constructs
//            T(k, args...), inserts or replaces and returns it; xDel, xDelAll...
//   REFS     x(k) -> Ptr<T const>, xIs(ptr) keyed by ptr->keyFn(); a null
//            pointer throws the framework's null-parameter range error
// The xIs of SCALAR, COUNTER, PTR and COLL return whether the write changed
// anything (and so notified), for callers that trace only real changes.
// Reactors get on<X>() / on<X>(key) (deferred) and on<X>kivImmediate().
// Types containing a top-level comma need an alias first.
#include <cstdint>
#include <utility>

#include "kiv/HashMap.h"
#include "kiv/Notifiee.h"
#include "kiv/Ptr.h"

#define KIV_ATTR_ID( kind, name, ... ) kivAttr_##name,
#define KIV_ATTR_NAME( kind, name, ... ) #name,
#define KIV_ENTITY_DECL( kind, ... ) KIV_##kind##_DECL( __VA_ARGS__ )
#define KIV_ENTITY_VISIT( kind, name, ... ) v( kivAttr_##name, #name, name##_ );

// ---- entity side ------------------------------------------------------------
#define KIV_SCALAR_DECL( name, Name, T, def )                                     \
 public:                                                                         \
   const T & name() const { return name##_; }                                    \
   bool name##Is( const T & v ) {                                                \
      if( name##_ == v ) return false;                                           \
      name##_ = v;                                                               \
      kivNotify( kivAttr_##name );                                               \
      return true;                                                               \
   }                                                                             \
   static T name##Initial() {                                                    \
      T v = def;                                                                 \
      return v;                                                                  \
   }                                                                             \
 private:                                                                        \
   T name##_ = def;

#define KIV_COUNTER_DECL( name, Name, T )                                         \
 public:                                                                         \
   T name() const { return name##_; }                                            \
   bool name##Is( T v ) {                                                        \
      if( name##_ == v ) return false;                                           \
      name##_ = v;                                                               \
      kivNotify( kivAttr_##name );                                               \
      return true;                                                               \
   }                                                                             \
   void name##Inc( T n = 1 ) { name##Is( T( name##_ + n ) ); }                   \
   void name##Dec( T n = 1 ) { name##Is( T( name##_ - n ) ); }                   \
 private:                                                                        \
   T name##_{};

#define KIV_PTR_DECL( name, Name, T )                                             \
 public:                                                                         \
   const ::Kiv::Ptr< T > & name() const { return name##_; }                      \
   bool name##Is( const ::Kiv::Ptr< T > & p ) {                                  \
      if( name##_ == p ) return false;                                           \
      name##_ = p;                                                               \
      kivNotify( kivAttr_##name );                                               \
      return true;                                                               \
   }                                                                             \
   void name##Del() { name##Is( nullptr ); }                                     \
 private:                                                                        \
   ::Kiv::Ptr< T > name##_;

#define KIV_COLL_COMMON( name, K, V )                                             \
 public:                                                                         \
   bool name##Del( const K & k ) {                                               \
      if( !name##_.erase( k ) ) return false;                                    \
      kivNotifyKey( kivAttr_##name, k );                                         \
      return true;                                                               \
   }                                                                             \
   void name##DelAll() {                                                         \
      while( const K * kp = name##_.firstKey() ) {                               \
         K k = *kp;                                                              \
         name##Del( k );                                                         \
      }                                                                          \
   }                                                                             \
   std::size_t name##Size() const { return name##_.size(); }                     \
   bool name##Has( const K & k ) const { return name##_.contains( k ); }         \
   typename ::Kiv::HashMap< K, V >::Iterator name##Iter() const {                \
      return name##_.iter();                                                     \
   }                                                                             \
   const ::Kiv::HashMap< K, V > & name##Coll() const { return name##_; }         \
   template< class F >                                                           \
   void name##ForEach( F && f ) const { name##_.forEach( std::forward< F >( f ) ); } \
 private:                                                                        \
   ::Kiv::HashMap< K, V > name##_;

#define KIV_COLL_DECL( name, Name, K, V )                                         \
 public:                                                                         \
   V name( const K & k ) const {                                                 \
      const V * p = name##_.find( k );                                           \
      return p ? *p : V{};                                                       \
   }                                                                             \
   bool name##Is( const K & k, const V & v ) {                                   \
      if( !name##_.insertOrAssign( k, v ) ) return false;                        \
      kivNotifyKey( kivAttr_##name, k );                                         \
      return true;                                                               \
   }                                                                             \
   KIV_COLL_COMMON( name, K, V )

#define KIV_SET_DECL( name, Name, K )                                             \
 public:                                                                         \
   bool name( const K & k ) const { return name##_.contains( k ); }              \
   void name##Is( const K & k, bool v = true ) {                                 \
      if( !v ) {                                                                 \
         name##Del( k );                                                         \
         return;                                                                 \
      }                                                                          \
      if( name##_.tryInsert( k, true ).second ) kivNotifyKey( kivAttr_##name, k ); \
   }                                                                             \
   KIV_COLL_COMMON( name, K, bool )

#define KIV_ENTITIES_DECL( name, Name, K, T )                                     \
 public:                                                                         \
   ::Kiv::Ptr< T > name( const K & k ) const {                                   \
      const ::Kiv::Ptr< T > * p = name##_.find( k );                             \
      return p ? *p : ::Kiv::Ptr< T >();                                         \
   }                                                                             \
   template< class... A >                                                        \
   ::Kiv::Ptr< T > name##Is( const K & k, A &&... a ) {                          \
      ::Kiv::Ptr< T > e( new T( k, std::forward< A >( a )... ) );                 \
      name##_.insertOrAssign( k, e );                                            \
      kivNotifyKey( kivAttr_##name, k );                                         \
      return e;                                                                  \
   }                                                                             \
   KIV_COLL_COMMON( name, K, ::Kiv::Ptr< T > )

#define KIV_REFS_DECL( name, Name, K, T, keyFn )                                  \
 public:                                                                         \
   ::Kiv::Ptr< const T > name( const K & k ) const {                             \
      const ::Kiv::Ptr< const T > * p = name##_.find( k );                       \
      return p ? *p : ::Kiv::Ptr< const T >();                                   \
   }                                                                             \
   ::Kiv::Ptr< const T > name##Is( const ::Kiv::Ptr< const T > & p ) {           \
      if( !p ) ::Kiv::throwNullParameter( #name, kivClassName, #name );          \
      const K k = p->keyFn();                                                    \
      if( name##_.insertOrAssign( k, p ) ) kivNotifyKey( kivAttr_##name, k );    \
      return p;                                                                  \
   }                                                                             \
   KIV_COLL_COMMON( name, K, ::Kiv::Ptr< const T > )

// Declares attribute ids, storage, accessors and reflection inside a class body.
#define KIV_ENTITY( Class, ClassName, LIST )                                      \
 public:                                                                         \
   enum KivAttrId : ::Kiv::AttrId { LIST( KIV_ATTR_ID ) kivAttrCount };          \
   static_assert( kivAttrCount <= 64, "an entity type has at most 64 attributes" ); \
   [[maybe_unused]] static constexpr const char * kivClassName = ClassName;                       \
   static const char * kivAttrName( ::Kiv::AttrId id ) {                         \
      static const char * const names[] = { LIST( KIV_ATTR_NAME ) "" };          \
      return id < kivAttrCount ? names[ id ] : "";                               \
   }                                                                             \
   /* Visits every attribute in declaration order: v(id, name, storage). */      \
   template< class V >                                                           \
   void kivVisitAttrs( V && v ) const { LIST( KIV_ENTITY_VISIT ) }               \
   class NotifieeConst;                                                          \
   LIST( KIV_ENTITY_DECL )                                                       \
 public:

// ---- reactor side -----------------------------------------------------------
#define KIV_NOTIFIEE_ON( kind, ... ) KIV_##kind##_ON( __VA_ARGS__ )
#define KIV_NOTIFIEE_DELIVER( kind, ... ) KIV_##kind##_DELIVER( __VA_ARGS__ )
#define KIV_NOTIFIEE_KEYDIRTY( kind, ... ) KIV_##kind##_KEYDIRTY( __VA_ARGS__ )
#define KIV_NOTIFIEE_IMMEDIATE( kind, ... ) KIV_##kind##_IMMEDIATE( __VA_ARGS__ )
#define KIV_NOTIFIEE_PENDING( kind, ... ) KIV_##kind##_PENDING( __VA_ARGS__ )
#define KIV_NOTIFIEE_DROP( kind, ... ) KIV_##kind##_DROP( __VA_ARGS__ )

#define KIV_SCALAR_ON( name, Name, ... )                                          \
   virtual void on##Name() {}                                                    \
   virtual void on##Name##kivImmediate() {}
#define KIV_SCALAR_DELIVER( name, Name, ... )                                     \
   if( mask & ( 1ull << N::kivAttr_##name ) ) {                                  \
      kivCall( [ this ] { on##Name(); } );                                       \
      if( !g.alive() ) return;                                                   \
   }
#define KIV_SCALAR_KEYDIRTY( name, Name, ... )
#define KIV_SCALAR_IMMEDIATE( name, Name, ... )                                   \
   case N::kivAttr_##name: kivCall( [ this ] { on##Name##kivImmediate(); } ); break;
#define KIV_SCALAR_PENDING( name, Name, ... )
#define KIV_SCALAR_DROP( name, Name, ... )

#define KIV_COLLX_ON( name, Name, K )                                             \
   virtual void on##Name( const K & ) {}                                         \
   virtual void on##Name##kivImmediate( const K & ) {}
#define KIV_COLLX_DELIVER( name, Name, K )                                        \
   if( mask & ( 1ull << N::kivAttr_##name ) ) {                                  \
      kivDeliverKeys( kivPending_##name, g, [ this ]( const K & k ) { on##Name( k ); } ); \
      if( !g.alive() ) return;                                                   \
   }
#define KIV_COLLX_KEYDIRTY( name, Name, K )                                       \
   case N::kivAttr_##name:                                                       \
      kivPendingAdd( kivPending_##name, *static_cast< const K * >( key ) );      \
      break;
#define KIV_COLLX_IMMEDIATE( name, Name, K )                                      \
   case N::kivAttr_##name:                                                       \
      kivCall( [ & ] { on##Name##kivImmediate( *static_cast< const K * >( key ) ); } ); \
      break;
#define KIV_COLLX_PENDING( name, Name, K )                                        \
   std::unique_ptr< ::Kiv::PendingKeys< K > > kivPending_##name;
#define KIV_COLLX_DROP( name, Name, K ) kivPending_##name.reset();

#define KIV_COUNTER_ON KIV_SCALAR_ON
#define KIV_COUNTER_DELIVER KIV_SCALAR_DELIVER
#define KIV_COUNTER_KEYDIRTY KIV_SCALAR_KEYDIRTY
#define KIV_COUNTER_IMMEDIATE KIV_SCALAR_IMMEDIATE
#define KIV_COUNTER_PENDING KIV_SCALAR_PENDING
#define KIV_COUNTER_DROP KIV_SCALAR_DROP
#define KIV_PTR_ON KIV_SCALAR_ON
#define KIV_PTR_DELIVER KIV_SCALAR_DELIVER
#define KIV_PTR_KEYDIRTY KIV_SCALAR_KEYDIRTY
#define KIV_PTR_IMMEDIATE KIV_SCALAR_IMMEDIATE
#define KIV_PTR_PENDING KIV_SCALAR_PENDING
#define KIV_PTR_DROP KIV_SCALAR_DROP

#define KIV_COLL_ON( name, Name, K, ... ) KIV_COLLX_ON( name, Name, K )
#define KIV_COLL_DELIVER( name, Name, K, ... ) KIV_COLLX_DELIVER( name, Name, K )
#define KIV_COLL_KEYDIRTY( name, Name, K, ... ) KIV_COLLX_KEYDIRTY( name, Name, K )
#define KIV_COLL_IMMEDIATE( name, Name, K, ... ) KIV_COLLX_IMMEDIATE( name, Name, K )
#define KIV_COLL_PENDING( name, Name, K, ... ) KIV_COLLX_PENDING( name, Name, K )
#define KIV_COLL_DROP( name, Name, K, ... ) KIV_COLLX_DROP( name, Name, K )
#define KIV_SET_ON KIV_COLL_ON
#define KIV_SET_DELIVER KIV_COLL_DELIVER
#define KIV_SET_KEYDIRTY KIV_COLL_KEYDIRTY
#define KIV_SET_IMMEDIATE KIV_COLL_IMMEDIATE
#define KIV_SET_PENDING KIV_COLL_PENDING
#define KIV_SET_DROP KIV_COLL_DROP
#define KIV_ENTITIES_ON KIV_COLL_ON
#define KIV_ENTITIES_DELIVER KIV_COLL_DELIVER
#define KIV_ENTITIES_KEYDIRTY KIV_COLL_KEYDIRTY
#define KIV_ENTITIES_IMMEDIATE KIV_COLL_IMMEDIATE
#define KIV_ENTITIES_PENDING KIV_COLL_PENDING
#define KIV_ENTITIES_DROP KIV_COLL_DROP
#define KIV_REFS_ON KIV_COLL_ON
#define KIV_REFS_DELIVER KIV_COLL_DELIVER
#define KIV_REFS_KEYDIRTY KIV_COLL_KEYDIRTY
#define KIV_REFS_IMMEDIATE KIV_COLL_IMMEDIATE
#define KIV_REFS_PENDING KIV_COLL_PENDING
#define KIV_REFS_DROP KIV_COLL_DROP

// Defines Class::NotifieeConst, the base of every reactor on Class.
#define KIV_NOTIFIEE( Class, LIST )                                               \
   class Class::NotifieeConst : public ::Kiv::NotifieeBase {                     \
      using N = Class;                                                           \
                                                                                 \
    public:                                                                      \
      using Notifier = Class;                                                    \
      NotifieeConst() = default;                                                 \
      ::Kiv::Ptr< const Class > notifier() const {                               \
         return ::Kiv::Ptr< const Class >(                                       \
            static_cast< const Class * >( kivNotifier() ) );                     \
      }                                                                          \
      void notifierIs( const ::Kiv::Ptr< const Class > & n ) {                   \
         kivNotifierIs( n.ptr() );                                               \
      }                                                                          \
      LIST( KIV_NOTIFIEE_ON )                                                    \
      void kivImmediate( ::Kiv::AttrId id, const void * key,                     \
                         ::Kiv::DeliveryGuard & g ) override {                   \
         (void)key;                                                              \
         switch( id ) {                                                          \
            LIST( KIV_NOTIFIEE_IMMEDIATE )                                       \
            default: break;                                                      \
         }                                                                       \
      }                                                                          \
                                                                                 \
    protected:                                                                   \
      void kivDeliver( std::uint64_t mask, ::Kiv::DeliveryGuard & g ) override { \
         LIST( KIV_NOTIFIEE_DELIVER )                                            \
      }                                                                          \
      void kivKeyDirty( ::Kiv::AttrId id, const void * key ) override {          \
         (void)key;                                                              \
         switch( id ) {                                                          \
            LIST( KIV_NOTIFIEE_KEYDIRTY )                                        \
            default: break;                                                      \
         }                                                                       \
      }                                                                          \
      void kivDropPending() override { LIST( KIV_NOTIFIEE_DROP ) }               \
                                                                                 \
    private:                                                                     \
      LIST( KIV_NOTIFIEE_PENDING )                                               \
   };

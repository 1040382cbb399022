#pragma once
// Intrusive reference counting. Every entity derives from PtrInterface and
// dies with its last counted pointer. Counting is plain by default and
// switches to atomic once enableThreadSafePointers() has been called (before
// any second thread touches a pointer).
#include <atomic>
#include <cstdint>
#include <functional>
#include <ostream>
#include <type_traits>
#include <utility>

#include "kiv/RangeException.h"

namespace Kiv {

class VFPtrInterface {
 public:
   static void enableThreadSafePointers() { threadSafe_ = true; }
   static bool threadSafePointers() { return threadSafe_; }
 private:
   static inline bool threadSafe_ = false;
};

class PtrInterface {
 public:
   PtrInterface() = default;
   PtrInterface( const PtrInterface & ) : refs_( 0 ) {}
   PtrInterface & operator=( const PtrInterface & ) { return *this; }

   void newRef() const {
      if( VFPtrInterface::threadSafePointers() ) {
         std::atomic_ref< std::uint32_t >( refs_ ).fetch_add( 1, std::memory_order_relaxed );
      } else {
         ++refs_;
      }
   }
   void deleteRef() const {
      std::uint32_t left;
      if( VFPtrInterface::threadSafePointers() ) {
         left = std::atomic_ref< std::uint32_t >( refs_ ).fetch_sub( 1, std::memory_order_acq_rel ) - 1;
      } else {
         left = --refs_;
      }
      if( left == 0 ) {
         const_cast< PtrInterface * >( this )->handleZeroRef();
      }
   }
   std::uint32_t references() const { return refs_; }

 protected:
   virtual ~PtrInterface() = default;
   // Called when the count reaches zero; the default runs onZeroReferences()
   // and deletes the object.
   virtual void handleZeroRef() {
      onZeroReferences();
      delete this;
   }
   virtual void onZeroReferences() {}

 private:
   mutable std::uint32_t refs_ = 0;
};

template< class T >
class Ptr {
 public:
   using element_type = T;
   Ptr() noexcept = default;
   Ptr( std::nullptr_t ) noexcept {}
   Ptr( T * p ) noexcept : p_( p ) { if( p_ ) p_->newRef(); }
   Ptr( const Ptr & o ) noexcept : p_( o.p_ ) { if( p_ ) p_->newRef(); }
   Ptr( Ptr && o ) noexcept : p_( std::exchange( o.p_, nullptr ) ) {}
   template< class U, class = std::enable_if_t< std::is_convertible_v< U *, T * > > >
   Ptr( const Ptr< U > & o ) noexcept : p_( o.ptr() ) { if( p_ ) p_->newRef(); }
   template< class U, class = std::enable_if_t< std::is_convertible_v< U *, T * > > >
   Ptr( Ptr< U > && o ) noexcept : p_( o.release() ) {}
   ~Ptr() { if( p_ ) p_->deleteRef(); }

   Ptr & operator=( const Ptr & o ) noexcept { Ptr( o ).swap( *this ); return *this; }
   Ptr & operator=( Ptr && o ) noexcept { Ptr( std::move( o ) ).swap( *this ); return *this; }
   Ptr & operator=( std::nullptr_t ) noexcept { Ptr().swap( *this ); return *this; }

   T * ptr() const noexcept { return p_; }
   T * get() const noexcept { return p_; }
   T * operator->() const noexcept { return p_; }
   T & operator*() const noexcept { return *p_; }
   explicit operator bool() const noexcept { return p_ != nullptr; }
   void swap( Ptr & o ) noexcept { std::swap( p_, o.p_ ); }
   // Gives up ownership without dropping the count; used by converting moves.
   T * release() noexcept { return std::exchange( p_, nullptr ); }

   template< class U > bool operator==( const Ptr< U > & o ) const { return p_ == o.ptr(); }
   bool operator==( std::nullptr_t ) const { return p_ == nullptr; }
   bool operator==( const T * o ) const { return p_ == o; }

 private:
   T * p_ = nullptr;
};

template< class T >
using PtrConst = Ptr< T const >;

// A pointer that is never null: building one from null throws.
template< class T >
class ValidPtr : public Ptr< T > {
 public:
   ValidPtr( T * p ) : Ptr< T >( p ) { check(); }
   ValidPtr( const Ptr< T > & p ) : Ptr< T >( p ) { check(); }
   template< class U, class = std::enable_if_t< std::is_convertible_v< U *, T * > > >
   ValidPtr( const Ptr< U > & p ) : Ptr< T >( p ) { check(); }
   ValidPtr( std::nullptr_t ) { check(); }
 private:
   void check() const {
      if( !this->ptr() ) {
         throw RangeException( "null ValidPtr" );
      }
   }
};

template< class T, class U >
Ptr< T > ptr_cast( const Ptr< U > & p ) {
   return Ptr< T >( dynamic_cast< T * >( p.ptr() ) );
}

template< class T, class... Args >
Ptr< T > make( Args &&... args ) {
   return Ptr< T >( new T( std::forward< Args >( args )... ) );
}

template< class T >
std::ostream & operator<<( std::ostream & os, const Ptr< T > & p ) {
   return os << static_cast< const void * >( p.ptr() );
}

} // namespace Kiv

template< class T >
struct std::hash< Kiv::Ptr< T > > {
   std::size_t operator()( const Kiv::Ptr< T > & p ) const noexcept {
      return std::hash< const void * >()( p.ptr() );
   }
};

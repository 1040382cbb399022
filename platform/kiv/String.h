#pragma once
// Immutable, shared, hashable strings. Copies share one reference-counted
// buffer, so entity keys and attribute values can be passed around by value
// without copying characters. The empty string holds no buffer at all.
//
// Kiv::Name is the same thing as a distinct type, for entity names, so a name
// and an arbitrary piece of text do not mix by accident.
#include <atomic>
#include <compare>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/core.h>

namespace Kiv {

class String {
 public:
   // Parsers walk [begin, end) of contiguous characters; a plain pointer keeps
   // them usable on std::string_view data as well.
   using IteratorConst = const char *;

   String() noexcept = default;
   String( std::string_view s );
   // A null pointer is taken as the empty string.
   String( const char * s ) : String( s ? std::string_view( s ) : std::string_view() ) {}
   String( const std::string & s ) : String( std::string_view( s ) ) {}
   String( const String & o ) noexcept : rep_( o.rep_ ) {
      if( rep_ ) rep_->refs.fetch_add( 1, std::memory_order_relaxed );
   }
   String( String && o ) noexcept : rep_( std::exchange( o.rep_, nullptr ) ) {}
   String & operator=( const String & o ) noexcept {
      String( o ).swap( *this );
      return *this;
   }
   String & operator=( String && o ) noexcept {
      String( std::move( o ) ).swap( *this );
      return *this;
   }
   ~String() {
      if( rep_ ) release( rep_ );
   }
   void swap( String & o ) noexcept { std::swap( rep_, o.rep_ ); }

   static String fromStrep( std::string_view s ) { return String( s ); }

   std::string_view stringValue() const noexcept {
      return rep_ ? std::string_view( rep_->chars(), rep_->size ) : std::string_view();
   }
   std::string str() const { return std::string( stringValue() ); }
   // Never null; always NUL-terminated.
   const char * data() const noexcept { return rep_ ? rep_->chars() : ""; }
   const char * c_str() const noexcept { return data(); }
   std::size_t size() const noexcept { return rep_ ? rep_->size : 0; }
   bool empty() const noexcept { return rep_ == nullptr; }
   IteratorConst begin() const noexcept { return data(); }
   IteratorConst end() const noexcept { return data() + size(); }
   // Equal to std::hash< std::string_view > of the characters; computed once
   // when the buffer is made.
   std::size_t hash() const noexcept {
      return rep_ ? rep_->hash : std::hash< std::string_view >()( std::string_view() );
   }

   friend bool operator==( const String & a, const String & b ) noexcept {
      if( a.rep_ == b.rep_ ) return true;
      if( !a.rep_ || !b.rep_ ) return false;
      return a.rep_->hash == b.rep_->hash && a.stringValue() == b.stringValue();
   }
   friend std::strong_ordering operator<=>( const String & a, const String & b ) noexcept {
      return a.stringValue().compare( b.stringValue() ) <=> 0;
   }
   friend std::ostream & operator<<( std::ostream & os, const String & s ) {
      return os << s.stringValue();
   }

 private:
   // Header of the shared buffer; the characters and a terminating NUL follow
   // it in the same allocation.
   struct Rep {
      std::atomic< std::size_t > refs;
      std::size_t size;
      std::size_t hash;
      char * chars() noexcept { return reinterpret_cast< char * >( this + 1 ); }
      const char * chars() const noexcept { return reinterpret_cast< const char * >( this + 1 ); }
   };
   static void release( Rep * rep ) noexcept;

   Rep * rep_ = nullptr;
};

// The text itself. The parser takes everything up to end: a string's form has
// no terminator of its own.
std::string valueToStrep( const String & s );
bool strepToValue( String::IteratorConst & begin, String::IteratorConst end, String & out );

class Name {
 public:
   using IteratorConst = String::IteratorConst;

   Name() noexcept = default;
   Name( std::string_view s ) : s_( s ) {}
   Name( const char * s ) : s_( s ) {}
   Name( const std::string & s ) : s_( s ) {}
   explicit Name( const String & s ) noexcept : s_( s ) {}

   static Name fromStrep( std::string_view s ) { return Name( s ); }

   const String & string() const noexcept { return s_; }
   std::string_view stringValue() const noexcept { return s_.stringValue(); }
   std::string str() const { return s_.str(); }
   const char * c_str() const noexcept { return s_.c_str(); }
   std::size_t size() const noexcept { return s_.size(); }
   bool empty() const noexcept { return s_.empty(); }
   IteratorConst begin() const noexcept { return s_.begin(); }
   IteratorConst end() const noexcept { return s_.end(); }
   std::size_t hash() const noexcept { return s_.hash(); }

   friend bool operator==( const Name & a, const Name & b ) noexcept { return a.s_ == b.s_; }
   friend std::strong_ordering operator<=>( const Name & a, const Name & b ) noexcept {
      return a.s_ <=> b.s_;
   }
   friend std::ostream & operator<<( std::ostream & os, const Name & n ) { return os << n.s_; }

 private:
   String s_;
};

std::string valueToStrep( const Name & n );
bool strepToValue( Name::IteratorConst & begin, Name::IteratorConst end, Name & out );

} // namespace Kiv

template<>
struct std::hash< Kiv::String > {
   std::size_t operator()( const Kiv::String & s ) const noexcept { return s.hash(); }
};
template<>
struct std::hash< Kiv::Name > {
   std::size_t operator()( const Kiv::Name & n ) const noexcept { return n.hash(); }
};

template<>
struct fmt::formatter< Kiv::String > : fmt::formatter< std::string_view > {
   auto format( const Kiv::String & s, fmt::format_context & ctx ) const {
      return fmt::formatter< std::string_view >::format( s.stringValue(), ctx );
   }
};
template<>
struct fmt::formatter< Kiv::Name > : fmt::formatter< std::string_view > {
   auto format( const Kiv::Name & n, fmt::format_context & ctx ) const {
      return fmt::formatter< std::string_view >::format( n.stringValue(), ctx );
   }
};

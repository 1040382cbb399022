#pragma once
// A network namespace name, at most 150 bytes. The empty name is the default
// namespace.
#include <compare>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "kiv/String.h"
#include "lumo/Strep.h"

namespace Lumo {

class NamespaceName {
 public:
   static constexpr std::size_t maxLength = 150;

   NamespaceName() noexcept = default;
   // Throws Kiv::RangeException "NamespaceName::bytes > 150 not allowed".
   NamespaceName( std::string_view name );
   NamespaceName( const char * name ) : NamespaceName( std::string_view( name ) ) {}
   NamespaceName( const std::string & name ) : NamespaceName( std::string_view( name ) ) {}
   explicit NamespaceName( const Kiv::String & name );
   static NamespaceName defaultNamespace() noexcept { return NamespaceName(); }
   static NamespaceName fromStrep( std::string_view s ) { return NamespaceName( s ); }

   const Kiv::String & name() const noexcept { return name_; }
   std::string_view stringValue() const noexcept { return name_.stringValue(); }
   bool isDefault() const noexcept { return name_.empty(); }

   std::size_t hash() const noexcept { return name_.hash(); }

   friend bool operator==( const NamespaceName & a, const NamespaceName & b ) noexcept {
      return a.name_ == b.name_;
   }
   friend std::strong_ordering operator<=>( const NamespaceName & a,
                                            const NamespaceName & b ) noexcept {
      return a.name_ <=> b.name_;
   }

 private:
   Kiv::String name_;
};

// The name itself; the parser takes everything up to end and refuses an
// over-long name.
std::string valueToStrep( const NamespaceName & n );
std::ostream & operator<<( std::ostream & os, const NamespaceName & n );
bool strepToValue( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                   NamespaceName & out );

} // namespace Lumo

template<>
struct std::hash< Lumo::NamespaceName > {
   std::size_t operator()( const Lumo::NamespaceName & n ) const noexcept { return n.hash(); }
};

LUMO_FMT_VIA_STREP( Lumo::NamespaceName )

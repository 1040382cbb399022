#pragma once
// A VRF name, at most 100 bytes. The default VRF is called "default"; a
// default-constructed VrfName is the empty name, not the default VRF.
#include <compare>
#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "kiv/String.h"
#include "lumo/Strep.h"

namespace L3 {

class VrfName {
 public:
   static constexpr std::size_t maxLength = 100;

   VrfName() noexcept = default;
   // Throws Kiv::RangeException "VrfName::bytes > VrfName::maxLength not
   // allowed".
   VrfName( std::string_view name );
   VrfName( const char * name ) : VrfName( std::string_view( name ) ) {}
   VrfName( const std::string & name ) : VrfName( std::string_view( name ) ) {}
   explicit VrfName( const Kiv::String & name );
   static VrfName defaultVrf();
   static VrfName fromStrep( std::string_view s ) { return VrfName( s ); }

   const Kiv::String & name() const noexcept { return name_; }
   std::string_view stringValue() const noexcept { return name_.stringValue(); }
   bool isDefault() const noexcept { return name_.stringValue() == "default"; }
   bool isEmpty() const noexcept { return name_.empty(); }

   std::size_t hash() const noexcept { return name_.hash(); }

   friend bool operator==( const VrfName & a, const VrfName & b ) noexcept {
      return a.name_ == b.name_;
   }
   friend std::strong_ordering operator<=>( const VrfName & a, const VrfName & b ) noexcept {
      return a.name_ <=> b.name_;
   }

 private:
   Kiv::String name_;
};

// The name itself; the parser takes everything up to end and refuses an
// over-long name.
std::string valueToStrep( const VrfName & v );
std::ostream & operator<<( std::ostream & os, const VrfName & v );
bool strepToValue( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                   VrfName & out );

} // namespace L3

template<>
struct std::hash< L3::VrfName > {
   std::size_t operator()( const L3::VrfName & v ) const noexcept { return v.hash(); }
};

LUMO_FMT_VIA_STREP( L3::VrfName )

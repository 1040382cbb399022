#pragma once
// An interface, by name ("Ethernet1", "Vlan100", "veth-r1"); empty means no
// interface. Order and hash are the name's. A name of the form "Vlan<n>"
// (only decimal digits after "Vlan", n in 1..4094) is a VLAN interface; the
// VLAN id is worked out once, at construction.
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "kiv/String.h"
#include "lumo/Strep.h"

namespace Lumo {

class IntfId {
 public:
   static constexpr std::uint16_t vlanIdMin = 1;
   static constexpr std::uint16_t vlanIdMax = 4094;

   IntfId() noexcept = default;
   IntfId( std::string_view name ) : name_( name ), vlanId_( vlanIdOf( name ) ) {}
   IntfId( const char * name ) : IntfId( std::string_view( name ) ) {}
   IntfId( const std::string & name ) : IntfId( std::string_view( name ) ) {}
   explicit IntfId( const Kiv::String & name ) noexcept
         : name_( name ), vlanId_( vlanIdOf( name.stringValue() ) ) {}
   // "Vlan<vlanId>"; throws Kiv::RangeException
   // "IntfId::vlanId outside 1..4094 not allowed".
   static IntfId fromVlan( std::uint16_t vlanId );
   static IntfId fromStrep( std::string_view s ) { return IntfId( s ); }

   const Kiv::String & name() const noexcept { return name_; }
   std::string_view stringValue() const noexcept { return name_.stringValue(); }
   bool isEmpty() const noexcept { return name_.empty(); }
   bool isVlan() const noexcept { return vlanId_ != 0; }
   // 0 unless isVlan().
   std::uint16_t vlanId() const noexcept { return vlanId_; }

   std::size_t hash() const noexcept { return name_.hash(); }

   friend bool operator==( const IntfId & a, const IntfId & b ) noexcept {
      return a.name_ == b.name_;
   }
   friend std::strong_ordering operator<=>( const IntfId & a, const IntfId & b ) noexcept {
      return a.name_ <=> b.name_;
   }

 private:
   static std::uint16_t vlanIdOf( std::string_view name ) noexcept;

   Kiv::String name_;
   std::uint16_t vlanId_ = 0;
};

// The name itself; the parser takes everything up to end.
std::string valueToStrep( const IntfId & i );
std::ostream & operator<<( std::ostream & os, const IntfId & i );
bool strepToValue( Kiv::String::IteratorConst & begin, Kiv::String::IteratorConst end,
                   IntfId & out );

} // namespace Lumo

template<>
struct std::hash< Lumo::IntfId > {
   std::size_t operator()( const Lumo::IntfId & i ) const noexcept { return i.hash(); }
};

LUMO_FMT_VIA_STREP( Lumo::IntfId )

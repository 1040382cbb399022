// Lumo::IntfId, Lumo::NamespaceName and L3::VrfName: VLAN recognition, length
// limits with their fixed texts, order, hash and string forms.
#include <algorithm>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "TextForms.h"
#include "kiv/RangeException.h"
#include "lumo/IntfId.h"
#include "lumo/NamespaceName.h"
#include "lumo/VrfName.h"

namespace {

using Lumo::IntfId;
using Lumo::NamespaceName;
using L3::VrfName;

std::string rangeErrorText( const auto & f ) {
   try {
      f();
   } catch( const Kiv::RangeException & e ) {
      return e.what();
   }
   return "no exception";
}

template< class T >
bool parsesWhole( std::string_view text, T & out ) {
   Kiv::String::IteratorConst begin = text.data();
   const Kiv::String::IteratorConst end = text.data() + text.size();
   return strepToValue( begin, end, out ) && begin == end;
}

TEST( IntfIdTest, RecognisesVlanInterfaces ) {
   const std::vector< std::pair< std::string_view, std::uint16_t > > cases = {
      { "Vlan100", 100 },  { "Vlan1", 1 },       { "Vlan4094", 4094 },
      { "Vlan0100", 100 }, // only digits after "Vlan", value in range
      { "Vlan", 0 },       { "Vlan0", 0 },       { "Vlan4095", 0 },  { "Vlan65636", 0 },
      { "Vlan0x1", 0 },    { "vlan100", 0 },     { "VLAN100", 0 },   { "Vlan-1", 0 },
      { "Vlan 1", 0 },     { "Vlan1a", 0 },      { "Vlan100.1", 0 }, { "Ethernet1", 0 },
      { "xVlan100", 0 },   { "", 0 },            { "Vlan99999999999999999999", 0 },
   };
   for( const auto & [ name, vlan ] : cases ) {
      SCOPED_TRACE( name );
      const IntfId i( name );
      EXPECT_EQ( i.isVlan(), vlan != 0 );
      EXPECT_EQ( i.vlanId(), vlan );
      // Sharing the buffer of an existing string works out the VLAN the same way.
      EXPECT_EQ( IntfId( Kiv::String( name ) ).vlanId(), vlan );
   }
}

// Names up to `limit` bytes are taken; longer ones are refused with the fixed
// text by every way in, and the parser leaves its output alone.
template< class T >
void expectLengthLimit( std::size_t limit, const std::string & text ) {
   const std::string max( limit, 'n' ), over( limit + 1, 'n' );
   EXPECT_EQ( T( max ).stringValue(), max );
   EXPECT_EQ( rangeErrorText( [ & ] { T{ over }; } ), text );
   EXPECT_EQ( rangeErrorText( [ & ] { T{ Kiv::String( over ) }; } ), text );
   EXPECT_EQ( rangeErrorText( [ & ] { T::fromStrep( over ); } ), text );
   T out( "kept" );
   EXPECT_FALSE( parsesWhole( over, out ) );
   EXPECT_EQ( out, T( "kept" ) );
   EXPECT_TRUE( parsesWhole( max, out ) );
   EXPECT_EQ( out, T( max ) );
}

TEST( NameTypesTest, TextFormsAndLengthLimits ) {
   // A name's text is the name; the parser takes all of it.
   LumoTest::expectTextForms< IntfId >( IntfId( "junk" ), { { "Ethernet1", "Ethernet1" }, { "Vlan100", "Vlan100" },
                                                          { "Ethernet1/1", "Ethernet1/1" }, { "", "" } } );
   LumoTest::expectTextForms< NamespaceName >( NamespaceName( "junk" ),
                                               { { "ns-r1", "ns-r1" }, { "with space", "with space" }, { "", "" } } );
   LumoTest::expectTextForms< VrfName >( VrfName( "junk" ), { { "default", "default" }, { "red", "red" }, { "", "" } } );
   EXPECT_TRUE( IntfId::fromStrep( "Vlan100" ).isVlan() );
   static_assert( VrfName::maxLength == 100 );
   expectLengthLimit< NamespaceName >( 150, "NamespaceName::bytes > 150 not allowed" );
   expectLengthLimit< VrfName >( 100, "VrfName::bytes > VrfName::maxLength not allowed" );
}

TEST( NameTypesTest, DefaultsOrderAndHash ) {
   EXPECT_TRUE( NamespaceName::defaultNamespace().isDefault() );
   EXPECT_EQ( NamespaceName::defaultNamespace(), NamespaceName( "" ) );
   EXPECT_FALSE( NamespaceName( "default" ).isDefault() );

   EXPECT_EQ( VrfName::defaultVrf().stringValue(), "default" );
   EXPECT_TRUE( VrfName( "default" ).isDefault() );
   EXPECT_FALSE( VrfName( "Default" ).isDefault() );
   // Default-constructed is the empty name, which is not the default VRF.
   EXPECT_TRUE( VrfName().isEmpty() );
   EXPECT_FALSE( VrfName().isDefault() );
   EXPECT_EQ( std::hash< VrfName >()( VrfName::defaultVrf() ), std::hash< VrfName >()( "default" ) );
}

} // namespace

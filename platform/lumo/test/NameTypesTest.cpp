// Lumo::IntfId, Lumo::NamespaceName and L3::VrfName: VLAN recognition, length
// limits with their fixed texts, order, hash and string forms.
#include <algorithm>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

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

// ---- IntfId ------------------------------------------------------------------

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

TEST( IntfIdTest, FromVlan ) {
   EXPECT_EQ( IntfId::fromVlan( 100 ), IntfId( "Vlan100" ) );
   EXPECT_EQ( IntfId::fromVlan( 4094 ).vlanId(), 4094 );
   EXPECT_EQ( IntfId::fromVlan( 1 ).stringValue(), "Vlan1" );
   EXPECT_EQ( rangeErrorText( [] { IntfId::fromVlan( 0 ); } ), "IntfId::vlanId outside 1..4094 not allowed" );
   EXPECT_EQ( rangeErrorText( [] { IntfId::fromVlan( 4095 ); } ), "IntfId::vlanId outside 1..4094 not allowed" );
}

TEST( IntfIdTest, EmptyMeansNone ) {
   EXPECT_TRUE( IntfId().isEmpty() );
   EXPECT_EQ( IntfId(), IntfId( "" ) );
   EXPECT_FALSE( IntfId( "Ethernet1" ).isEmpty() );
   EXPECT_LT( IntfId(), IntfId( "Ethernet1" ) );
}

TEST( IntfIdTest, OrderAndHashByName ) {
   std::vector< IntfId > v = { "Vlan100", "Ethernet2", "Ethernet10", "veth-r1", "Ethernet1" };
   std::sort( v.begin(), v.end() );
   std::vector< std::string > names;
   for( const auto & i : v ) names.push_back( valueToStrep( i ) );
   EXPECT_EQ( names, ( std::vector< std::string >{ "Ethernet1", "Ethernet10", "Ethernet2", "Vlan100",
                                                   "veth-r1" } ) );
   EXPECT_EQ( std::hash< IntfId >()( IntfId( "Vlan100" ) ), std::hash< IntfId >()( IntfId::fromVlan( 100 ) ) );
   std::unordered_set< IntfId > set( v.begin(), v.end() );
   set.insert( IntfId( std::string( "Ethernet1" ) ) );
   EXPECT_EQ( set.size(), 5u );
   EXPECT_TRUE( set.count( "veth-r1" ) );
}

TEST( IntfIdTest, StrepRoundTrips ) {
   for( std::string_view s : { "Ethernet1", "Vlan100", "veth-r1", "Ethernet1/1", "" } ) {
      IntfId out( "junk" );
      ASSERT_TRUE( parsesWhole( s, out ) );
      EXPECT_EQ( out, IntfId( s ) );
      EXPECT_EQ( out.isVlan(), IntfId( s ).isVlan() );
      EXPECT_EQ( valueToStrep( out ), s );
      EXPECT_EQ( IntfId::fromStrep( s ), out );
   }
   std::ostringstream os;
   os << IntfId( "Vlan100" );
   EXPECT_EQ( os.str(), "Vlan100" );
   EXPECT_EQ( fmt::format( "[{}]", IntfId( "Ethernet1" ) ), "[Ethernet1]" );
}

// ---- NamespaceName -----------------------------------------------------------

TEST( NamespaceNameTest, LengthLimit ) {
   const std::string max( 150, 'n' );
   EXPECT_EQ( NamespaceName( max ).stringValue(), max );
   EXPECT_EQ( rangeErrorText( [] { NamespaceName( std::string( 151, 'n' ) ); } ),
              "NamespaceName::bytes > 150 not allowed" );
   EXPECT_EQ( rangeErrorText( [] { NamespaceName( Kiv::String( std::string( 151, 'n' ) ) ); } ),
              "NamespaceName::bytes > 150 not allowed" );
   EXPECT_EQ( rangeErrorText( [] { NamespaceName::fromStrep( std::string( 200, 'n' ) ); } ),
              "NamespaceName::bytes > 150 not allowed" );
   NamespaceName out( "kept" );
   EXPECT_FALSE( parsesWhole( std::string( 151, 'n' ), out ) );
   EXPECT_EQ( out, NamespaceName( "kept" ) );
   EXPECT_TRUE( parsesWhole( max, out ) );
   EXPECT_EQ( out, NamespaceName( max ) );
}

TEST( NamespaceNameTest, EmptyIsTheDefaultNamespace ) {
   EXPECT_TRUE( NamespaceName::defaultNamespace().isDefault() );
   EXPECT_EQ( NamespaceName::defaultNamespace(), NamespaceName() );
   EXPECT_EQ( NamespaceName::defaultNamespace(), NamespaceName( "" ) );
   EXPECT_FALSE( NamespaceName( "ns-r1" ).isDefault() );
   EXPECT_FALSE( NamespaceName( "default" ).isDefault() );
}

TEST( NamespaceNameTest, RoundTripAndOrder ) {
   for( std::string_view s : { "", "ns-r1", "with space" } ) {
      NamespaceName out( "junk" );
      ASSERT_TRUE( parsesWhole( valueToStrep( NamespaceName( s ) ), out ) );
      EXPECT_EQ( out, NamespaceName( s ) );
   }
   EXPECT_LT( NamespaceName(), NamespaceName( "a" ) );
   EXPECT_LT( NamespaceName( "ns-r1" ), NamespaceName( "ns-r2" ) );
   std::ostringstream os;
   os << NamespaceName( "ns-r1" ) << '|' << NamespaceName();
   EXPECT_EQ( os.str(), "ns-r1|" );
}

// ---- VrfName -----------------------------------------------------------------

TEST( VrfNameTest, LengthLimit ) {
   static_assert( VrfName::maxLength == 100 );
   const std::string max( 100, 'v' );
   EXPECT_EQ( VrfName( max ).stringValue(), max );
   EXPECT_EQ( rangeErrorText( [] { VrfName( std::string( 101, 'v' ) ); } ),
              "VrfName::bytes > VrfName::maxLength not allowed" );
   EXPECT_EQ( rangeErrorText( [] { VrfName( Kiv::String( std::string( 101, 'v' ) ) ); } ),
              "VrfName::bytes > VrfName::maxLength not allowed" );
   EXPECT_EQ( rangeErrorText( [] { VrfName::fromStrep( std::string( 101, 'v' ) ); } ),
              "VrfName::bytes > VrfName::maxLength not allowed" );
   VrfName out( "kept" );
   EXPECT_FALSE( parsesWhole( std::string( 101, 'v' ), out ) );
   EXPECT_EQ( out, VrfName( "kept" ) );
}

TEST( VrfNameTest, DefaultVrf ) {
   EXPECT_EQ( VrfName::defaultVrf().stringValue(), "default" );
   EXPECT_TRUE( VrfName::defaultVrf().isDefault() );
   EXPECT_TRUE( VrfName( "default" ).isDefault() );
   EXPECT_EQ( VrfName::defaultVrf(), VrfName( "default" ) );
   EXPECT_FALSE( VrfName( "red" ).isDefault() );
   EXPECT_FALSE( VrfName( "Default" ).isDefault() );
   // Default-constructed is the empty name, which is not the default VRF.
   EXPECT_TRUE( VrfName().isEmpty() );
   EXPECT_FALSE( VrfName().isDefault() );
   EXPECT_NE( VrfName(), VrfName::defaultVrf() );
}

TEST( VrfNameTest, RoundTripOrderAndHash ) {
   for( std::string_view s : { "default", "red", "" } ) {
      VrfName out( "junk" );
      ASSERT_TRUE( parsesWhole( valueToStrep( VrfName( s ) ), out ) );
      EXPECT_EQ( out, VrfName( s ) );
      EXPECT_EQ( VrfName::fromStrep( s ), out );
   }
   EXPECT_LT( VrfName( "blue" ), VrfName( "default" ) );
   EXPECT_EQ( std::hash< VrfName >()( VrfName::defaultVrf() ), std::hash< VrfName >()( "default" ) );
   EXPECT_EQ( fmt::format( "vrf {}", VrfName( "red" ) ), "vrf red" );
}

} // namespace

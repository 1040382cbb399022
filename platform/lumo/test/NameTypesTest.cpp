// Kiv::String and Kiv::Name (sharing, allocation, comparison, string forms);
// Lumo::IntfId, Lumo::NamespaceName and L3::VrfName (VLAN recognition, length
// limits with their fixed texts, defaults, string forms).
#include <array>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TextForms.h"
#include "kiv/String.h"
#include "lumo/IntfId.h"
#include "lumo/NamespaceName.h"
#include "lumo/VrfName.h"

namespace LumoTest {
// Calls of plain operator new so far in this process (AllocationCounter.cpp).
std::size_t allocationCount();
} // namespace LumoTest

namespace {

using Kiv::Name;
using Kiv::String;
using L3::VrfName;
using Lumo::IntfId;
using Lumo::NamespaceName;
using LumoTest::rangeErrorText;

TEST( StringTest, EmptyStringsAndCopiesNeverAllocateAndCopiesShareOneBuffer ) {
   const String full( "Ethernet1" );
   bool allEmpty = false;
   std::size_t hash = 0;
   std::array< const char *, 3 > buffers{};
   const std::size_t before = LumoTest::allocationCount();
   {
      String a, b( "" ), c{ std::string_view() }, d = a, e = std::move( b );
      Name n( "" );
      String f = full, g;
      g = f;
      String h = std::move( g );
      Name m( full );
      allEmpty = a.empty() && c.empty() && d.empty() && e.empty() && n.empty() && a.size() == 0 &&
                 *a.c_str() == '\0' && g.empty();
      hash = a.hash();
      buffers = { f.data(), h.data(), m.string().data() };
   }
   EXPECT_EQ( LumoTest::allocationCount(), before );
   EXPECT_TRUE( allEmpty );
   EXPECT_EQ( hash, std::hash< std::string_view >()( "" ) );
   EXPECT_EQ( buffers, ( std::array< const char *, 3 >{ full.data(), full.data(), full.data() } ) );
   // The buffer outlives the original.
   String survivor;
   {
      String original( std::string( 100, 'x' ) );
      survivor = original;
   }
   EXPECT_EQ( survivor.stringValue(), std::string( 100, 'x' ) );
   EXPECT_EQ( survivor.c_str()[ 100 ], '\0' );
}

TEST( StringTest, EqualityOrderAndHashFollowTheCharacters ) {
   const std::string withNul( "a\0b", 3 );
   const std::vector< std::string > texts = { "",  "a",  "A", "ab", "abc", "b", withNul,
                                              "a\xff", "\x80", " ", "Ethernet10", "Ethernet2" };
   for( const auto & x : texts ) {
      for( const auto & y : texts ) {
         const String sx( x ), sy( y );
         SCOPED_TRACE( x + " vs " + y );
         EXPECT_EQ( sx == sy, x == y );
         // Unsigned byte order, as std::string compares.
         EXPECT_EQ( sx < sy, x < y );
         EXPECT_EQ( Name( x ) < Name( y ), x < y );
         if( x == y ) {
            EXPECT_EQ( std::hash< String >()( sx ), std::hash< String >()( sy ) );
            EXPECT_EQ( std::hash< Name >()( Name( x ) ), std::hash< Name >()( Name( y ) ) );
         }
      }
   }
   EXPECT_EQ( String( withNul ).size(), 3u );
   EXPECT_EQ( String( static_cast< const char * >( nullptr ) ), String() );
}

TEST( StringTest, StrepIsTheTextAndTheParserTakesEverything ) {
   const std::initializer_list< LumoTest::TextCase > texts = {
      { "", "" }, { "Ethernet1", "Ethernet1" }, { "with space", "with space" }, { "tab\there", "tab\there" },
      { "x/y:z", "x/y:z" } };
   LumoTest::expectTextForms< String >( String( "junk" ), texts );
   LumoTest::expectTextForms< Name >( Name( "junk" ), texts );
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
   LumoTest::expectTextForms< T >( T( "kept" ), { { max, max.c_str() }, { over, nullptr } } );
   EXPECT_EQ( rangeErrorText( [ & ] { T{ over }; } ), text );
   EXPECT_EQ( rangeErrorText( [ & ] { T{ Kiv::String( over ) }; } ), text );
   EXPECT_EQ( rangeErrorText( [ & ] { T::fromStrep( over ); } ), text );
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

TEST( NameTypesTest, Defaults ) {
   EXPECT_EQ( NamespaceName::defaultNamespace(), NamespaceName( "" ) );
   EXPECT_EQ( VrfName::defaultVrf().stringValue(), "default" );
   // Default-constructed is the empty name, which is not the default VRF.
   const std::vector< bool > isDefault = { NamespaceName::defaultNamespace().isDefault(),
                                           NamespaceName( "default" ).isDefault(), VrfName( "default" ).isDefault(),
                                           VrfName( "Default" ).isDefault(), VrfName().isDefault() };
   EXPECT_EQ( isDefault, ( std::vector< bool >{ true, false, true, false, false } ) );
   EXPECT_TRUE( VrfName().isEmpty() );
   EXPECT_EQ( std::hash< VrfName >()( VrfName::defaultVrf() ), std::hash< VrfName >()( "default" ) );
}

} // namespace

// Kiv::String / Kiv::Name: sharing, allocation, comparison and string forms.
#include <sstream>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "AllocationCounter.h"
#include "TextForms.h"
#include "kiv/String.h"

namespace {

using Kiv::Name;
using Kiv::String;

std::size_t allocationsDuring( const auto & f ) {
   const std::size_t before = LumoTest::allocationCount();
   f();
   return LumoTest::allocationCount() - before;
}

TEST( StringTest, EmptyStringsNeverAllocate ) {
   bool allEmpty = false;
   std::string_view text = "x";
   std::size_t hash = 0;
   EXPECT_EQ( allocationsDuring( [ & ] {
                 String a;
                 String b( "" );
                 String c{ std::string_view() };
                 String d = a;
                 String e = std::move( b );
                 Name n( "" );
                 allEmpty = a.empty() && c.empty() && d.empty() && e.empty() && n.empty() &&
                            a.size() == 0;
                 text = a.c_str();
                 hash = a.hash();
              } ),
              0u );
   EXPECT_TRUE( allEmpty );
   EXPECT_EQ( text, "" );
   EXPECT_EQ( hash, std::hash< std::string_view >()( "" ) );
}

TEST( StringTest, CopiesShareOneBuffer ) {
   const String a( "Ethernet1" );
   const char *b1 = nullptr, *d1 = nullptr, *n1 = nullptr;
   bool movedFromEmpty = false;
   EXPECT_EQ( allocationsDuring( [ & ] {
                 String b = a;
                 String c;
                 c = b;
                 String d = std::move( c );
                 movedFromEmpty = c.empty();
                 Name n( a );
                 b1 = b.data();
                 d1 = d.data();
                 n1 = n.string().data();
              } ),
              0u );
   EXPECT_EQ( b1, a.data() );
   EXPECT_EQ( d1, a.data() );
   EXPECT_EQ( n1, a.data() );
   EXPECT_TRUE( movedFromEmpty );
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

} // namespace

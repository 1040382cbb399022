#pragma once
// One table check for every value type's text forms. A text either parses
// whole to a value that prints (strep, stream, fmt) as its canonical text,
// which parses back to the same value; or the whole-string parser refuses it
// and the iterator parser takes only `head` characters of it (none: it fails
// and leaves its output alone).
#include <gtest/gtest.h>

#include <initializer_list>
#include <sstream>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "kiv/RangeException.h"
#include "kiv/String.h"

namespace LumoTest {

struct TextCase {
   std::string_view text;
   const char * canonical;   // nullptr: refused
   std::size_t head = 0;     // of a refused text, what the iterator parser takes
};

template< class T >
void expectTextForms( const T & sentinel, std::initializer_list< TextCase > cases ) {
   for( const TextCase & c : cases ) {
      SCOPED_TRACE( "\"" + std::string( c.text ) + "\"" );
      T value = sentinel;
      Kiv::String::IteratorConst begin = c.text.data();
      const bool ok = strepToValue( begin, c.text.data() + c.text.size(), value );
      const auto used = std::size_t( begin - c.text.data() );
      if( c.canonical ) {
         ASSERT_TRUE( ok );
         EXPECT_EQ( used, c.text.size() );
         EXPECT_EQ( T::fromStrep( c.text ), value );
         EXPECT_EQ( valueToStrep( value ), c.canonical );
         EXPECT_EQ( T::fromStrep( c.canonical ), value );
         std::ostringstream os;
         os << value;
         EXPECT_EQ( os.str(), c.canonical );
         if constexpr( fmt::is_formattable< T >::value ) {
            EXPECT_EQ( fmt::format( "{}", value ), c.canonical );
         }
      } else {
         EXPECT_THROW( T::fromStrep( c.text ), Kiv::RangeException );
         EXPECT_EQ( ok, c.head != 0 );
         EXPECT_EQ( used, c.head );
         if( c.head ) {
            EXPECT_EQ( value, T::fromStrep( c.text.substr( 0, c.head ) ) );
         } else {
            EXPECT_EQ( value, sentinel );
         }
      }
   }
}

// The text of the RangeException f throws, or "no exception".
inline std::string rangeErrorText( const auto & f ) {
   try {
      f();
   } catch( const Kiv::RangeException & e ) {
      return e.what();
   }
   return "no exception";
}

} // namespace LumoTest

// The ring-buffer trace, grouped by promise.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <ostream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "kiv/testing/TestLoop.h"
#include "rundle/Rundle.h"
#include "rundle/RundleFormat.h"

namespace {

class RundleTest : public ::testing::Test {
 protected:
   void SetUp() override {
      ::unsetenv( "RUNDLE_DISABLE" );
      ::unsetenv( "RUNDLEDIR" );
      std::string tmpl = ::testing::TempDir() + "rundleXXXXXX";
      ASSERT_NE( ::mkdtemp( tmpl.data() ), nullptr );
      dir_ = tmpl;
   }
   void TearDown() override {
      Rundle::shutdown();
      ::unsetenv( "RUNDLE_DISABLE" );
      ::unsetenv( "RUNDLEDIR" );
      std::filesystem::remove_all( dir_ );
   }
   std::vector< std::string > texts( const Rundle::ReadResult & r ) {
      std::vector< std::string > out;
      for( const auto & rec : r.records ) out.push_back( rec.text );
      return out;
   }
   Kiv::Testing::TestLoop loop_{ 10.0 };
   std::string dir_;
};

int evaluated = 0;
int touch() { return ++evaluated; }

// A record whose own formatting makes another record.
struct Chatty {};
std::ostream & operator<<( std::ostream & os, const Chatty & ) {
   RUNDLE_RECORD( 0, "inner " << std::hex << 255 << std::setw( 5 ) );
   return os << "chatty";
}

TEST_F( RundleTest, FormattingNeverLeaksFromOneRecordToTheNext ) {
   ASSERT_TRUE( Rundle::initialize( "", { 4 }, nullptr, 0, 24, false, true, 512 ) );
   RUNDLE_RECORD( 0, std::hex << std::showbase << std::uppercase << std::fixed << std::setprecision( 2 )
                              << std::setfill( '*' ) << std::left << std::boolalpha << std::showpos
                              << 255 << " " << 2.5 << " " << true << std::setw( 6 ) );
   RUNDLE_RECORD( 0, 255 << " " << 3.14159265 << " " << true << " " << std::setw( 3 ) << 7 << "|" << 8 );
   RUNDLE_RECORD( 0, "outer " << 16 << " " << Chatty{} << " " << 16 << " " << 1e-7 );
   const auto r = Rundle::records();
   ASSERT_TRUE( r.ok ) << r.error;
   EXPECT_EQ( texts( r ), ( std::vector< std::string >{ "0XFF +2.50 true", "255 3.14159 1   7|8", "inner ff",
                                                         "outer 16 chatty 16 1e-07" } ) );
}

// Records of varied sizes: what survives is still one unbroken run, never
// an older record stranded past a newer lap's end. Halfway a reader scribbles
// over the ring's descriptor in the mapping: that cannot steer the writer.
TEST_F( RundleTest, WrapAroundNeverLeavesGapsNorFollowsScribbledDescriptors ) {
   ASSERT_TRUE( Rundle::initialize( "", { 2 }, nullptr, 0, 24, false, true, 512 ) );
   std::mt19937 gen( 11 );
   for( int i = 0; i < 1000; ++i ) {
      loop_.clock().nowIs( 10.0 + i );
      if( i == 500 ) {
         std::memset( Rundle::imageData() + sizeof( Rundle::Format::FileHeader ), 0xff,
                      sizeof( Rundle::Format::RingDesc ) );
      }
      RUNDLE_RECORD( 0, i << " " << std::string( gen() % 200, '.' ) );
      const auto r = Rundle::records();
      ASSERT_TRUE( r.ok ) << r.error;
      ASSERT_FALSE( r.records.empty() );
      ASSERT_EQ( r.damaged, 0u );
      const int first = i + 1 - static_cast< int >( r.records.size() );
      for( std::size_t k = 0; k < r.records.size(); ++k ) {
         ASSERT_EQ( std::stoi( r.records[ k ].text ), first + static_cast< int >( k ) ) << i;
         ASSERT_DOUBLE_EQ( r.records[ k ].time, 10.0 + first + static_cast< double >( k ) );
      }
   }
   EXPECT_LT( Rundle::records().records.size(), 1000u );
   EXPECT_EQ( Rundle::stats().written, 1000u );
}

TEST_F( RundleTest, EachLevelHasItsOwnRing ) {
   ASSERT_TRUE( Rundle::initialize( "", { 1, 1 }, nullptr, 0, 24, false, true, 512 ) );
   RUNDLE_RECORD( 0, "rare event" );
   for( int i = 0; i < 500; ++i ) RUNDLE_RECORD( 1, "chatter " << i );
   RUNDLE_RECORD( 7, "beyond the last ring" );  // goes to the last ring
   const auto r = Rundle::records();
   ASSERT_FALSE( r.records.empty() );
   const auto & first = r.records.front(), & last = r.records.back();
   EXPECT_EQ( std::tuple( first.text, first.ring, last.text, last.ring, last.level ),
              std::tuple( "rare event", 0, "beyond the last ring", 1, 7 ) );
}

TEST_F( RundleTest, LongRecordsAreTruncatedOrDropped ) {
   ASSERT_TRUE( Rundle::initialize( "", { 4 }, nullptr, 0, 24, false, true, 32 ) );
   RUNDLE_RECORD( 0, std::string( 32, 'a' ) );
   RUNDLE_RECORD( 0, std::string( 100, 'b' ) << " and more " << 42 );
   auto r = Rundle::records();
   ASSERT_EQ( r.records.size(), 2u );
   EXPECT_EQ( std::tuple( texts( r ), r.records[ 0 ].truncated, r.records[ 1 ].truncated, Rundle::stats().truncated ),
              std::tuple( std::vector< std::string >{ std::string( 32, 'a' ), std::string( 32, 'b' ) }, false, true, 1u ) );
   // Source locations are cut to 24 bytes: the tail of the file name.
   EXPECT_EQ( r.records[ 0 ].file, std::string( __FILE__ ).substr( std::strlen( __FILE__ ) - 24 ) );
   EXPECT_EQ( r.records[ 0 ].function, "TestBody" );

   ASSERT_TRUE( Rundle::initialize( "", { 4 }, nullptr, 0, 0, false, false, 32 ) );
   RUNDLE_RECORD( 0, std::string( 33, 'c' ) );
   RUNDLE_RECORD( 0, "fits" );
   r = Rundle::records();
   ASSERT_EQ( r.records.size(), 1u );
   EXPECT_EQ( std::tuple( r.records[ 0 ].text, r.records[ 0 ].file ), std::tuple( "fits", "" ) );
   EXPECT_EQ( Rundle::stats().dropped, 1u );
}

TEST_F( RundleTest, DisableLeavesNoFileAndEvaluatesNothing ) {
   ::setenv( "RUNDLE_DISABLE", "1", 1 );
   EXPECT_FALSE( Rundle::initialize( "off.rdl", { 1 }, dir_.c_str(), 0, 24, false, true, 512 ) );
   EXPECT_FALSE( Rundle::active() );
   EXPECT_NE( ::access( ( dir_ + "/off.rdl" ).c_str(), F_OK ), 0 );
   evaluated = 0;
   RUNDLE_RECORD( 0, "never " << touch() );
   EXPECT_EQ( evaluated, 0 );
   EXPECT_FALSE( Rundle::records().ok );
}

TEST_F( RundleTest, FileReadsBackInTimeOrderAcrossRings ) {
   ::setenv( "RUNDLEDIR", dir_.c_str(), 1 );
   // The agent's own call.
   ASSERT_TRUE( Rundle::initialize( "agent.rdl", std::vector< int >( 10, 10 ), nullptr, 0, 24, false, true, 512 ) );
   const std::string path = dir_ + "/agent.rdl";
   RUNDLE_RECORD( 0, "first" );
   loop_.clock().nowIs( 11.0 );
   RUNDLE_RECORD( 5, "second" );
   loop_.clock().nowIs( 12.0 );
   RUNDLE_RECORD( 0, "third" );
   RUNDLE_RECORD( 9, "fourth, same time" );
   const int line = __LINE__ - 1;
   Rundle::shutdown();

   const auto r = Rundle::readFile( path );
   ASSERT_TRUE( r.ok ) << r.error;
   EXPECT_EQ( texts( r ), ( std::vector< std::string >{ "first", "second", "third", "fourth, same time" } ) );
   EXPECT_EQ( std::tuple( r.records[ 3 ].ring, r.records[ 3 ].line ), std::tuple( 9, line ) );
   EXPECT_DOUBLE_EQ( r.records[ 1 ].time, 11.0 );

   // A second start keeps the previous file when asked to.
   ASSERT_TRUE( Rundle::initialize( "agent.rdl", { 1 }, dir_.c_str(), 1, 24, true, true, 512 ) );
   RUNDLE_RECORD( 0, "next run" );
   EXPECT_EQ( texts( Rundle::records() ), ( std::vector< std::string >{ "next run" } ) );
   EXPECT_EQ( texts( Rundle::readFile( path + ".1" ) ).size(), 4u );
}

TEST_F( RundleTest, DamagedRecordsAreSkippedAndDamagedHeadersRejected ) {
   ASSERT_TRUE( Rundle::initialize( "", { 1, 1 }, nullptr, 0, 24, false, true, 512 ) );
   RUNDLE_RECORD( 0, "zero" );
   RUNDLE_RECORD( 1, "one" );
   RUNDLE_RECORD( 1, "bravo" );
   RUNDLE_RECORD( 1, "charlie" );
   std::vector< std::uint8_t > image( Rundle::imageData(), Rundle::imageData() + Rundle::imageSize() );
   // The image with n bytes at offset at overwritten.
   auto damaged = [ & ]( std::size_t at, const void * bytes, std::size_t n ) {
      auto copy = image;
      std::memcpy( copy.data() + at, bytes, n );
      return Rundle::parseImage( copy.data(), copy.size() );
   };
   const std::string bravo = "bravo";
   const auto at = std::search( image.begin(), image.end(), bravo.begin(), bravo.end() );
   ASSERT_NE( at, image.end() );
   const auto skipped = damaged( std::size_t( at - image.begin() ) + 2, "A", 1 );
   ASSERT_TRUE( skipped.ok );
   EXPECT_EQ( texts( skipped ), ( std::vector< std::string >{ "zero", "one", "charlie" } ) );
   EXPECT_EQ( skipped.damaged, 1u );

   EXPECT_FALSE( Rundle::parseImage( image.data(), 10 ).ok );
   EXPECT_FALSE( damaged( 0, "X", 1 ).ok ) << "magic";
   const std::uint32_t huge = 1000000;
   EXPECT_FALSE( damaged( offsetof( Rundle::Format::FileHeader, ringCount ), &huge, sizeof huge ).ok );

   // One ring pointing outside the image: the other is still read.
   const std::uint64_t far = ~std::uint64_t{ 0 } - 4;
   const auto r = damaged( sizeof( Rundle::Format::FileHeader ), &far, sizeof far );
   EXPECT_TRUE( r.ok && !r.error.empty() );
   EXPECT_EQ( texts( r ), ( std::vector< std::string >{ "one", "bravo", "charlie" } ) );
}

// Files written before and read after must agree: the CRC is the standard
// CRC-32 whatever the way it is computed, at any length, alignment and split.
std::uint32_t bitwiseCrc32( std::uint32_t crc, const std::uint8_t * p, std::size_t len ) {
   crc = ~crc;
   for( std::size_t i = 0; i < len; ++i ) {
      crc ^= p[ i ];
      for( int k = 0; k < 8; ++k ) crc = ( crc & 1 ) ? 0xEDB88320u ^ ( crc >> 1 ) : crc >> 1;
   }
   return ~crc;
}

TEST( RundleCrcTest, IsTheStandardCrc32AtEveryLengthAlignmentAndSplit ) {
   EXPECT_EQ( Rundle::Format::crc32( 0, "123456789", 9 ), 0xCBF43926u );

   std::mt19937 gen( 11 );
   std::vector< std::uint8_t > bytes( 300 );
   for( auto & b : bytes ) b = static_cast< std::uint8_t >( gen() );
   for( std::size_t offset = 0; offset < 8; ++offset ) {
      for( std::size_t len = 0; len + offset <= 200; ++len ) {
         const std::uint8_t * p = bytes.data() + offset;
         const std::uint32_t want = bitwiseCrc32( 0, p, len );
         ASSERT_EQ( Rundle::Format::crc32( 0, p, len ), want ) << "offset " << offset << " len " << len;
         const std::size_t cut = len / 3;
         ASSERT_EQ( Rundle::Format::crc32( Rundle::Format::crc32( 0, p, cut ), p + cut, len - cut ), want )
               << "offset " << offset << " len " << len << " cut " << cut;
      }
   }
}

} // namespace

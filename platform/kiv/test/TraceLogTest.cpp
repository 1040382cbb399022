// Tracing and structured logs, grouped by promise.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "kiv/Log.h"
#include "kiv/Trace.h"
#include "kiv/testing/TestLoop.h"

namespace {

class TraceTest : public ::testing::Test {
 protected:
   void SetUp() override { Kiv::TraceHandle::disableAll(); }
   void TearDown() override { Kiv::TraceHandle::disableAll(); }
   Kiv::Testing::TestLoop loop_{ 1.5 };
};

int sideEffects = 0;
int bump() { return ++sideEffects; }

TEST_F( TraceTest, DisabledLevelEvaluatesNothingAndAnEnabledOneWritesItsLine ) {
   Kiv::TraceHandle h( "Test::Off" );
   sideEffects = 0;
   KIV_TRACE( h, 3, "value " << bump() );
   EXPECT_EQ( sideEffects, 0 );
   h.levelEnabledIs( 3, true );
   testing::internal::CaptureStderr();
   KIV_TRACE( h, 3, "value " << bump() );
   KIV_TRACE( h, 4, "value " << bump() );
   const std::string err = testing::internal::GetCapturedStderr();
   EXPECT_EQ( sideEffects, 1 );
   EXPECT_NE( err.find( "Test::Off/3: value 1" ), std::string::npos ) << err;
}

TEST_F( TraceTest, SpecPicksTheMostSpecificItem ) {
   // Exact beats wildcard wherever it stands; "/0" switches off; no levels =
   // all; a longer prefix beats a shorter one; equals: the later wins.
   const std::tuple< const char *, const char *, std::uint32_t > cases[] = {
      { "Pim::Hello/1-9,Pim::Intf/1-4,Pim::*/1", "Pim::Hello", 0x3fe },
      { "Pim::Hello/1-9,Pim::Intf/1-4,Pim::*/1", "Pim::Intf", 0x1e },
      { "Pim::Hello/1-9,Pim::Intf/1-4,Pim::*/1", "Pim::Neighbor", 0x2 },
      { "Pim::Hello/1-9,Pim::Intf/1-4,Pim::*/1", "Tolm::Timer", 0 },
      { " Pim::Hello/0 , Pim::* ", "Pim::Hello", 0 },
      { " Pim::Hello/0 , Pim::* ", "Pim::Config", 0x3fe },
      { "*/9,Pim::Nbr*/2,Pim::*/3,*/4", "Pim::NbrState", 1u << 2 },
      { "*/9,Pim::Nbr*/2,Pim::*/3,*/4", "Pim::Hello", 1u << 3 },
      { "*/9,Pim::Nbr*/2,Pim::*/3,*/4", "Kiv::Loop", 1u << 4 },
   };
   for( const auto & [ spec, name, mask ] : cases ) {
      const auto selection = Kiv::TraceSelection::parse( spec );
      EXPECT_TRUE( selection.errors.empty() ) << spec;
      EXPECT_EQ( selection.maskFor( name ), mask ) << spec << " " << name;
   }
}

TEST_F( TraceTest, MalformedItemsAreReportedAndSkipped ) {
   const auto selection = Kiv::TraceSelection::parse(
         "Pim::Hello/10,Pim::A/5-2,/3,Pim::*Hello/2,Pim::B/x,Pim::C/1-,Pim::D/0-3,Pim::Ok/2,,Pim::E/1/2" );
   EXPECT_EQ( selection.errors.size(), 8u );
   ASSERT_EQ( selection.rules.size(), 1u );
   EXPECT_EQ( selection.maskFor( "Pim::Ok" ), 1u << 2 );
   EXPECT_EQ( selection.maskFor( "Pim::Hello" ), 0 );
   EXPECT_TRUE( Kiv::TraceSelection::parse( "" ).rules.empty() && Kiv::TraceSelection::parse( "" ).errors.empty() );
}

TEST_F( TraceTest, EnvironmentSelectsLevelsOfExistingAndLaterHandles ) {
   Kiv::TraceHandle hello( "Pim::Hello" );
   ::setenv( "KIV_TRACE", "Pim::Hello/2-3,Pim::*/1,bad/", 1 );
   testing::internal::CaptureStderr();
   const auto errors = Kiv::TraceHandle::configFromEnvironment();
   const std::string err = testing::internal::GetCapturedStderr();
   ::unsetenv( "KIV_TRACE" );
   EXPECT_EQ( errors.size(), 1u );
   EXPECT_NE( err.find( "bad/" ), std::string::npos );
   Kiv::TraceHandle intf( "Pim::Intf" );
   EXPECT_EQ( std::vector< bool >( { hello.enabled( 1 ), hello.enabled( 2 ), hello.enabled( 3 ), intf.enabled( 1 ),
                                     intf.enabled( 2 ) } ),
              std::vector< bool >( { false, true, true, true, false } ) );

   // configIs replaces the selection, including per-handle changes.
   hello.levelEnabledIs( 9, true );
   EXPECT_TRUE( Kiv::TraceHandle::configIs( "Pim::Intf/4" ).empty() );
   EXPECT_EQ( std::vector< bool >( { hello.enabled( 9 ), hello.enabled( 2 ), intf.enabled( 4 ) } ),
              std::vector< bool >( { false, false, true } ) );
}

TEST_F( TraceTest, CaptureCanEnableLevelsForItselfOnly ) {
   Kiv::TraceHandle nbr( "Pim::Neighbor" );
   Kiv::TraceHandle intf( "Pim::Intf" );
   {
      Kiv::TraceCapture outer;
      Kiv::TraceCapture inner;
      EXPECT_EQ( inner.enable( "Pim::Nei*/3,junk/z" ).size(), 1u );
      EXPECT_TRUE( nbr.enabled( 3 ) && !nbr.levelEnabled( 3 ) );
      testing::internal::CaptureStderr();
      KIV_TRACE( nbr, 3, "Creating neighbor " << "198.18.0.2" << " on interface " << "et1" );
      KIV_TRACE( intf, 3, "not enabled anywhere" );
      EXPECT_EQ( testing::internal::GetCapturedStderr(), "" );
      EXPECT_TRUE( inner.contains( "Pim::Neighbor", 3, "Creating neighbor 198.18.0.2 on interface et1" ) );
      EXPECT_EQ( outer.count( "Pim::Neighbor", 3 ), 1u );  // every live capture sees every line
      EXPECT_EQ( inner.count( "Pim::Intf" ), 0u );
   }
   // The capture's levels leave with it.
   EXPECT_FALSE( nbr.enabled( 3 ) );
   // A handle made while a capture lives gets the capture's levels.
   Kiv::TraceCapture c;
   c.enable( "Pim::Config/5" );
   Kiv::TraceHandle config( "Pim::Config" );
   EXPECT_TRUE( config.enabled( 5 ) );
}

Kiv::LogArg a( const auto & v ) { return Kiv::logArg( v ); }

// The variadic log call and its output line are checked in LogSink below.
TEST( LogFormat, SubstitutesPrintfConversions ) {
   const Kiv::LogArg nums[] = { a( -42 ), a( 255u ), a( 3.14159 ), a( 'x' ), a( std::uint64_t{ 1 } << 40 ) };
   EXPECT_EQ( Kiv::logFormat( "%5d|%-4x|%.2f|%c|%lu|100%%", nums, 5 ),
              "  -42|ff  |3.14|x|1099511627776|100%" );
   // Type mismatches and missing arguments never reach printf.
   const Kiv::LogArg mixed[] = { a( 7 ), a( "str" ) };
   EXPECT_EQ( Kiv::logFormat( "%s %d %s", mixed, 2 ), "<?> <?> <?>" );
   EXPECT_EQ( Kiv::logFormat( "trailing %", nullptr, 0 ), "trailing <?>" );
   const char * nullText = nullptr;
   const std::string abc = "abc";
   const Kiv::LogArg odd[] = { a( nullText ), a( 2 ), a( abc ) };
   EXPECT_EQ( Kiv::logFormat( "%s %.1f [%5.2s]", odd, 3 ), "(null) 2.0 [   ab]" );
}

TEST( LogRate, MinIntervalSuppressesRepeatsAndCountsThem ) {
   // Starting before the first interval has passed: the first message still goes.
   Kiv::Testing::TestLoop loop( 5.0 );
   Kiv::LogCapture capture;
   Kiv::LogHandle h( "TEST_INTERVAL", Kiv::LogWarning, "tick %d", "", Kiv::NoActionRequired, 10.0, 0.0, 0 );
   EXPECT_TRUE( h.okToLog() );
   h.log( 1 );
   loop.clock().nowIs( 10.0 );
   EXPECT_FALSE( h.okToLog() );
   h.log( 2 );
   h.log( 3 );
   loop.clock().nowIs( 15.0 );
   EXPECT_TRUE( h.okToLog() );
   EXPECT_TRUE( h.okToLog() );  // asking consumes nothing
   h.log( 4 );
   loop.clock().nowIs( 26.0 );
   h.log( 5 );
   std::vector< std::string > texts;
   for( const auto & m : capture.messages() ) texts.push_back( m.text );
   EXPECT_EQ( texts, ( std::vector< std::string >{ "tick 1", "tick 4 (2 similar messages suppressed)", "tick 5" } ) );
}

TEST( LogRate, RateIsATokenBucket ) {
   Kiv::Testing::TestLoop loop;
   Kiv::LogCapture capture;
   Kiv::LogHandle h( "TEST_RATE", Kiv::LogInfo, "m", "", Kiv::NoActionRequired, 0.0, 2.0, 0 );
   for( int i = 0; i < 5; ++i ) h.log();
   EXPECT_EQ( capture.count( "TEST_RATE" ), 2u );  // a full bucket of two
   loop.clock().nowIs( 0.25 );
   EXPECT_FALSE( h.okToLog() );  // half a token
   loop.clock().nowIs( 0.5 );
   h.log();
   h.log();
   EXPECT_EQ( capture.count( "TEST_RATE" ), 3u );
   loop.clock().nowIs( 100.0 );  // the bucket never holds more than its size
   for( int i = 0; i < 5; ++i ) h.log();
   EXPECT_EQ( capture.count( "TEST_RATE" ), 5u );
}

TEST( LogSink, CaptureTakesMessagesAwayFromStderr ) {
   Kiv::Testing::TestLoop loop( 2.0 );
   Kiv::LogHandle h( "TEST_SINK", Kiv::LogError, "bad packet from %s", "", "Check the sender.", 0.0, 0.0, 0 );
   testing::internal::CaptureStderr();
   {
      Kiv::LogCapture capture;
      h.log( "198.18.0.9" );
      EXPECT_TRUE( capture.contains( "TEST_SINK", "from 198.18.0.9" ) );
   }
   EXPECT_EQ( testing::internal::GetCapturedStderr(), "" );

   testing::internal::CaptureStderr();
   h.log( "198.18.0.10" );
   EXPECT_EQ( testing::internal::GetCapturedStderr(),
              "2.000000 error %TEST_SINK: bad packet from 198.18.0.10\n" );

   Kiv::LogHandle::outputIs( Kiv::LogOutput::None );
   testing::internal::CaptureStderr();
   h.log( "198.18.0.11" );
   EXPECT_EQ( testing::internal::GetCapturedStderr(), "" );
   Kiv::LogHandle::outputIs( Kiv::LogOutput::Stderr );
}

} // namespace

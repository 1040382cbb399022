#include <gtest/gtest.h>

#include "bench/realpath/Measure.h"

namespace RealPath {
namespace {

TEST( ProcParse, StatCpuTicksCountsFromTheLastParenthesis ) {
   // utime 120, stime 30; the name holds spaces and a ')'.
   EXPECT_EQ( parseStatCpuTicks( "4242 (we ird) x) S 1 4242 4242 0 -1 4194560 100 0 0 0 "
                                 "120 30 0 0 20 0 1 0 5 100000 200" ),
              150u );
   EXPECT_EQ( parseStatCpuTicks( "4242 (pimd S 1" ), std::nullopt );
   EXPECT_EQ( parseStatCpuTicks( "4242 (pimd) S 1 2 3" ), std::nullopt );
   EXPECT_EQ( parseStatmRssPages( "2500 812 300 10 0 400 0\n" ), 812u );
   EXPECT_EQ( parseSchedstatNs( "123456789 2000 17\n" ), 123456789u );
   EXPECT_EQ( parseSchedstatNs( "" ), std::nullopt );
}

TEST( ProcParse, RawDropsOfOneProtocolOnly ) {
   const char * raw =
       "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  "
       "timeout inode ref pointer drops\n"
       "  103: 00000000:0067 00000000:0000 07 00000000:00000000 00:00000000 00000000     0   "
       "     0 1234 2 0000000000000000 17\n"
       "  103: 00000000:0067 00000000:0000 07 00000000:00000000 00:00000000 00000000     0   "
       "     0 1235 2 0000000000000000 3\n"
       "    1: 00000000:0001 00000000:0000 07 00000000:00000000 00:00000000 00000000     0   "
       "     0 1236 2 0000000000000000 99\n";
   EXPECT_EQ( parseRawDrops( raw, 103 ), 20u );
   EXPECT_EQ( parseRawDrops( raw, 2 ), 0u );
}

TEST( ProcParse, NeighbourCountFromProbeOutput ) {
   const char * peer = R"({"eth0":{"198.18.1.0":{"neighbor":"198.18.1.0"},
                          "198.18.1.1":{"neighbor":"198.18.1.1"}},"eth1":{}})";
   const char * vrfs = R"({"default":{"eth0":{"198.18.1.0":{"neighbor":"198.18.1.0"}}},
                          "list":[{"neighbor":"a"},{"neighbor":"b"}]})";
   EXPECT_EQ( parseNeighbourCount( peer, "neighbor" ), 2u );
   EXPECT_EQ( parseNeighbourCount( vrfs, "neighbor" ), 3u );
   EXPECT_EQ( parseNeighbourCount( "{}", "neighbor" ), 0u );
   EXPECT_EQ( parseNeighbourCount( "30000\n", "neighbor" ), 30000u );
   EXPECT_EQ( parseNeighbourCount( "% Unknown command", "neighbor" ), std::nullopt );
   EXPECT_EQ( parseNeighbourCount( "\"text\"", "neighbor" ), std::nullopt );
}

// Runs a search against a device that holds every rate up to `limit`.
std::vector< double > trialsUpTo( RateSearch & s, double limit ) {
   std::vector< double > tried;
   while( auto r = s.next() ) {
      tried.push_back( *r );
      s.record( *r, *r <= limit );
   }
   return tried;
}

TEST( RateSearch, BracketsTheLimitWithinPrecision ) {
   // start 1000, cap 64000, 15 % precision.
   for( double limit : { 1000.0, 5000.0, 33333.0, 63999.0 } ) {
      RateSearch s( 1000, 64000, 0.15, 20 );
      trialsUpTo( s, limit );
      EXPECT_LT( s.trials(), 20 ) << limit;
      EXPECT_LE( s.best(), limit ) << limit;
      EXPECT_GT( s.failed(), limit ) << limit;
      EXPECT_LE( s.failed(), s.best() * 1.15 ) << limit;
   }
}

TEST( RateSearch, CapNothingHoldingAndTheTrialBudget ) {
   RateSearch capped( 1000, 64000, 0.15, 20 );
   EXPECT_EQ( trialsUpTo( capped, 1e9 ),
              ( std::vector< double >{ 1000, 4000, 16000, 64000 } ) );
   EXPECT_EQ( capped.best(), 64000 );
   EXPECT_EQ( capped.failed(), 0 ); // best() is only a lower bound

   RateSearch none( 1000, 64000, 0.15, 4 );
   EXPECT_EQ( trialsUpTo( none, 0 ), ( std::vector< double >{ 1000, 500, 250, 125 } ) );
   EXPECT_EQ( none.best(), 0 );

   RateSearch budget( 1000, 1e9, 0.01, 4 );
   trialsUpTo( budget, 1e12 );
   EXPECT_EQ( budget.trials(), 4 );
   EXPECT_EQ( budget.best(), 64000 );
}

} // namespace
} // namespace RealPath

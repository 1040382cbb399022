// rundle_dump: prints the records of rundle files in time order.
//    rundle_dump [-l level] FILE...
// One line per record: "<time> <level> <file>:<line> <function>: <text>".
// Damaged records are skipped and counted on stderr.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "rundle/Rundle.h"

namespace {

int usage() {
   std::fprintf( stderr, "usage: rundle_dump [-l level] FILE...\n" );
   return 2;
}

} // namespace

int main( int argc, char ** argv ) {
   bool onlyLevel = false;
   int level = 0;
   int first = 1;
   if( argc > 2 && std::strcmp( argv[ 1 ], "-l" ) == 0 ) {
      char * end = nullptr;
      level = static_cast< int >( std::strtol( argv[ 2 ], &end, 10 ) );
      if( !end || *end ) return usage();
      onlyLevel = true;
      first = 3;
   }
   if( first >= argc ) return usage();
   int status = 0;
   for( int i = first; i < argc; ++i ) {
      const auto result = Rundle::readFile( argv[ i ] );
      if( !result.ok ) {
         std::fprintf( stderr, "%s: %s\n", argv[ i ], result.error.c_str() );
         status = 1;
         continue;
      }
      if( !result.error.empty() ) std::fprintf( stderr, "%s: %s\n", argv[ i ], result.error.c_str() );
      if( argc - first > 1 ) std::printf( "== %s\n", argv[ i ] );
      for( const auto & r : result.records ) {
         if( onlyLevel && r.level != level ) continue;
         std::printf( "%.6f %d %s:%d %s: %s%s\n", r.time, r.level, r.file.c_str(), r.line,
                      r.function.c_str(), r.text.c_str(), r.truncated ? " [truncated]" : "" );
      }
      if( result.damaged ) {
         std::fprintf( stderr, "%s: %zu damaged record(s) skipped\n", argv[ i ], result.damaged );
      }
   }
   return status;
}

#pragma once
// Checks of internal invariants that stay in every build, NDEBUG included.
// A broken invariant means the process's own state can no longer be
// trusted, so it stops at once, naming the place and the condition. Input
// from outside (the network, the configuration) never reaches one of these:
// it is counted and traced where it arrives.
#include <cstdio>
#include <cstdlib>

namespace Kiv::detail {

[[noreturn]] inline void invariantFailed( const char * what, const char * file, int line,
                                          const char * func ) {
   std::fprintf( stderr, "%s:%d: %s: invariant failed: %s\n", file, line, func, what );
   std::fflush( stderr );
   std::abort();
}

} // namespace Kiv::detail

#define KIV_INVARIANT( cond, what )                                                        \
   ( ( cond ) ? static_cast< void >( 0 )                                                  \
              : ::Kiv::detail::invariantFailed( what, __FILE__, __LINE__, __func__ ) )

// Replaces plain operator new for the whole test binary and counts the calls,
// so tests can see whether an operation allocated. Kept in its own file: the
// replacement must not be inlined next to the standard allocators.
#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic< std::size_t > count{ 0 };
}

namespace LumoTest {
std::size_t allocationCount() { return count.load( std::memory_order_relaxed ); }
}

void * operator new( std::size_t n ) {
   count.fetch_add( 1, std::memory_order_relaxed );
   if( void * p = std::malloc( n ? n : 1 ) ) return p;
   throw std::bad_alloc();
}
void operator delete( void * p ) noexcept { std::free( p ); }
void operator delete( void * p, std::size_t ) noexcept { std::free( p ); }

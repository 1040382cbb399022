#include "kiv/Random.h"

#include "kiv/ActivityManager.h"

namespace Kiv {

std::uint32_t SeededRandom::rand() {
   std::uint64_t z = ( state_ += 0x9e3779b97f4a7c15ull );
   z = ( z ^ ( z >> 30 ) ) * 0xbf58476d1ce4e5b9ull;
   z = ( z ^ ( z >> 27 ) ) * 0x94d049bb133111ebull;
   z ^= z >> 31;
   return static_cast< std::uint32_t >( z >> 33 );
}

std::uint32_t rand() {
   return activityManager().random().rand();
}

} // namespace Kiv

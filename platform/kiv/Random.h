#pragma once
// The agent's random source, injectable so that scenario tests can pin the
// random delays. rand() behaves like the C library's: 0 .. kRandMax.
#include <cstdint>

namespace Kiv {

class Random {
 public:
   static constexpr std::uint32_t kRandMax = 0x7fffffff;
   virtual ~Random() = default;
   virtual std::uint32_t rand() = 0;
};

// A small, fast, seedable generator (splitmix64 stepping, top 31 bits).
class SeededRandom final : public Random {
 public:
   explicit SeededRandom( std::uint64_t seed = 1 ) : state_( seed ) {}
   std::uint32_t rand() override;
   void seedIs( std::uint64_t seed ) { state_ = seed; }
 private:
   std::uint64_t state_;
};

// The activity manager's random source.
std::uint32_t rand();

} // namespace Kiv

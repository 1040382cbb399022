#pragma once
// Time for the whole agent: seconds as a double on an injectable clock.
// Production uses the monotonic clock; tests and the simulated LAN use a
// VirtualClock that only moves when a driver moves it.
#include <cassert>
#include <cmath>
#include <limits>

namespace Kiv {

using Seconds = double;
inline constexpr Seconds kNever = std::numeric_limits< double >::infinity();

class Clock {
 public:
   virtual ~Clock() = default;
   virtual Seconds now() const = 0;
};

class MonotonicClock final : public Clock {
 public:
   Seconds now() const override;
};

class VirtualClock final : public Clock {
 public:
   explicit VirtualClock( Seconds start = 0.0 ) : now_( start ) {}
   Seconds now() const override { return now_; }
   // Time never runs backwards, and NaN is never a time.
   void nowIs( Seconds t ) {
      assert( !std::isnan( t ) && t >= now_ );
      now_ = t;
   }
 private:
   Seconds now_;
};

namespace System {
// The current time of the activity manager's clock.
Seconds currentTime();
} // namespace System

} // namespace Kiv

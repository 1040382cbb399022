#include "kiv/Clock.h"

#include <ctime>

#include "kiv/ActivityManager.h"

namespace Kiv {

Seconds MonotonicClock::now() const {
   timespec ts;
   clock_gettime( CLOCK_MONOTONIC, &ts );
   return static_cast< double >( ts.tv_sec ) + static_cast< double >( ts.tv_nsec ) * 1e-9;
}

Seconds System::currentTime() {
   return activityManager().clock().now();
}

} // namespace Kiv

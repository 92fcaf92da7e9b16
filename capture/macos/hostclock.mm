#include "hostclock.h"

#include "cmtime.h"

#include <time.h>

#include <limits>

namespace macos {

namespace {

/// What std::chrono::steady_clock reads on the Mac.
std::int64_t steadyNs()
{
    return std::int64_t(clock_gettime_nsec_np(CLOCK_MONOTONIC_RAW));
}

constexpr int attempts = 3; // the thread may be interrupted between the clocks

}

ClockReading readClocks()
{
    ClockReading best;
    std::int64_t least = std::numeric_limits<std::int64_t>::max();
    for (int i = 0; i < attempts; ++i) {
        const std::int64_t before = steadyNs();
        const std::int64_t host = nanoseconds(CMClockGetTime(CMClockGetHostTimeClock())).value_or(before);
        const std::int64_t took = steadyNs() - before;
        if (took >= least)
            continue;
        least = took;
        best = {before + took / 2, host};
    }
    return best;
}

}

// The clock by which the system stamps audio, beside the one by which the program waits. Any thread.
#pragma once

#include <cstdint>

namespace macos {

/// The same instant on both, in nanoseconds.
struct ClockReading {
    std::int64_t steadyNs = 0; ///< std::chrono::steady_clock, which counts while the machine sleeps
    std::int64_t hostNs = 0; ///< CoreMedia's host clock, which does not
};

ClockReading readClocks();

}

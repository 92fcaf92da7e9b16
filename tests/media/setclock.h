// The clock under the test's control: the executable links setclock.cpp's functions in place of
// QElapsedTimer::elapsed() and msecsSinceReference(), which every timer then answers alike.
#pragma once

#include <QtGlobal>

#include <optional>

namespace setclock {

/// What every timer says has elapsed, milliseconds. Nothing: the truth.
std::optional<qint64>& elapsedMs();

/// Where every timer says it was started, on the monotonic clock, while elapsedMs() is set.
inline constexpr qint64 referenceMs = 5000000;

}

// The clock under the test's control: the executable links setclock.cpp's functions in place of
// QElapsedTimer::elapsed() and msecsSinceReference(), which every timer then answers alike.
#pragma once

#include <QtGlobal>

#include <optional>

namespace setclock {

/// What every timer answers as elapsed, milliseconds. Nothing: the real time.
std::optional<qint64>& elapsedMs();

/// When every timer was started, on the monotonic clock in milliseconds, while elapsedMs() is set.
inline constexpr qint64 referenceMs = 5000000;

}

// The clock under the test's control: the executable links setclock.cpp's functions in place of
// QElapsedTimer::elapsed() and msecsSinceReference(), which every timer then answers alike.
#pragma once

#include <QtGlobal>

#include <optional>

namespace setclock {

/// What every timer answers as elapsed, milliseconds. Nothing: the real time.
std::optional<qint64>& elapsedMs();

/// When every timer says that it was started, while elapsedMs() is set: on a clock of Qt's that is not the monotonic
/// one, as on a Mac that has slept.
inline constexpr qint64 referenceMs = 5000000;

}

// The recording's time plan: pure, values in, values out. All values are milliseconds.
#pragma once

#include <QtGlobal>

#include <algorithm>

namespace pacing {

inline constexpr qint64 frameIntervalMs = 41; ///< about 24 captures a second, as the encoder's 24/1 says
inline constexpr qint64 longestIdleSleepMs = 10;
inline constexpr qint64 sleepAfterNoImageMs = 50;
inline constexpr int warmupCaptures = 3; ///< the first images after a redirect may be half painted
inline constexpr qint64 settleMs = 0; ///< never holds back a capture; logged
inline constexpr qint64 readyDelayMs = 500; ///< from the readiness byte to the first recorded frame
inline constexpr qint64 holdMs = 3000; ///< clicks reported this late still reach their frames
inline constexpr int queueReserve = 81; ///< holdMs in frames, and some
inline constexpr int mostFramesAPass = 2; ///< prepared for the encoder beside one capture
inline constexpr quint32 blackFrameDurationMs = 41;

/// The next due time after a capture at nowMs: one interval on, unless that is more than one interval in the
/// past; then the missed slots are skipped instead of caught up in a burst.
inline qint64 nextDue(qint64 dueMs, qint64 nowMs)
{
    const qint64 next = dueMs + frameIntervalMs;
    return next < nowMs - frameIntervalMs ? nowMs + frameIntervalMs : next;
}

/// How long to sleep when the next capture is due at dueMs; 0 when it is due now.
inline qint64 idleSleep(qint64 dueMs, qint64 nowMs)
{
    return std::clamp<qint64>(dueMs - nowMs, 0, longestIdleSleepMs);
}

}

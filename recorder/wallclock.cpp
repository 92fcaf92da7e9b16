#include "wallclock.h"

#include <cstdlib>

void WallClock::start(qint64 startedAtMs)
{
    startedAtMs_ = startedAtMs;
    jump_.reset();
}

qint64 WallClock::follow(const QElapsedTimer& recordingClock)
{
    constexpr qint64 longestReadingMs = 20; // between the two clocks this thread may have been stopped
    if (!startedAtMs_)
        return 0;
    const qint64 beforeMs = recordingClock.elapsed();
    const qint64 nowAtMs = now();
    const qint64 elapsedMs = recordingClock.elapsed();
    if (elapsedMs - beforeMs > longestReadingMs)
        return 0;
    const qint64 byMs = nowAtMs - elapsedMs - *startedAtMs_;
    if (std::abs(byMs) <= toleranceMs)
        return 0;
    *startedAtMs_ += byMs;
    jump_ = Jump{nowAtMs, byMs};
    return byMs;
}

qint64 WallClock::correctionFor(qint64 timestampMs, qint64 elapsedMs) const
{
    if (!jump_)
        return 0;
    const auto canBeOf = [&](qint64 startedAtMs) {
        const qint64 ageMs = elapsedMs - (timestampMs - startedAtMs);
        return ageMs >= -toleranceMs && ageMs <= latestClickMs;
    };
    if (!canBeOf(*startedAtMs_ - jump_->byMs))
        return 0;
    // A late click of a clock that was set forward by little may fit the old time, too, for ever. None of the new
    // time is older than the jump. One that was set back cannot be mistaken: in the old time it would be later still.
    const bool wasSetForward = jump_->byMs > 0;
    const bool isBeforeJump = timestampMs <= jump_->noticedAtMs - jump_->byMs;
    if (wasSetForward && !isBeforeJump && jump_->byMs <= latestClickMs)
        return 0;
    return (wasSetForward && isBeforeJump) || !canBeOf(*startedAtMs_) ? -jump_->byMs : 0;
}

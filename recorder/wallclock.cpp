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
    // Both times may fit a small jump. No click of the new time is older than the jump, none of the old one is
    // younger.
    const qint64 oldTimeOfJumpMs = jump_->noticedAtMs - jump_->byMs;
    if (std::abs(jump_->byMs) <= latestClickMs && timestampMs > oldTimeOfJumpMs)
        return 0;
    const bool isBeforeJump = jump_->byMs > 0 && timestampMs <= oldTimeOfJumpMs;
    return isBeforeJump || !canBeOf(*startedAtMs_) ? -jump_->byMs : 0;
}

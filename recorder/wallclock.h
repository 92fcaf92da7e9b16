// WallClock: where recording time 0 lies on the clock in which clicks are stamped, while somebody sets that clock.
#pragma once

#include <QDateTime>
#include <QElapsedTimer>

#include <functional>
#include <optional>

/// The wall clock jumps when it is set, and when a machine wakes up that slept, since the recording clock stands
/// still meanwhile. Each click is taken in the time that it was stamped in, also one that was under way. Not thread
/// safe.
class WallClock {
public:
    static constexpr qint64 toleranceMs = 100; ///< two to three frames; less is not corrected
    static constexpr qint64 latestClickMs = 5000; ///< the delay queue's three seconds, and a launcher that is busy

    std::function<qint64()> now = &QDateTime::currentMSecsSinceEpoch; ///< milliseconds since the epoch

    /// From the start of the recording on.
    void start(qint64 startedAtMs);
    /// By how many milliseconds it was set since the last look; 0 when it was not, and before start().
    qint64 follow(const QElapsedTimer& recordingClock);
    /// What has to be added to the present start of the recording for a click of this time, that arrives when so much
    /// is recorded: not 0 only when it was stamped before the last jump, or by a launcher that goes on in the time
    /// before it. After a small jump forward such a launcher cannot be told from one whose clicks are late.
    qint64 correctionFor(qint64 timestampMs, qint64 elapsedMs) const;

private:
    struct Jump {
        qint64 noticedAtMs; // of the clock as it is now
        qint64 byMs;
    };

    std::optional<qint64> startedAtMs_;
    std::optional<Jump> jump_; // the last one
};

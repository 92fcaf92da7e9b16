// Numbered frames for an AudioTimeline, and the comparison of what it hands out.
#pragma once

#include "audiotimeline.h"

#include <QString>

#include <algorithm>
#include <optional>
#include <vector>

namespace timelinetest {

constexpr qint64 nsPerMs = 1000000;
constexpr qint64 startMs = 5000000; // any instant
constexpr qint64 quantum = 1024;
constexpr qint64 seamFrames = 240; ///< 5 ms on either side of silence, or from one audio to the next

using Samples = std::vector<float>;

/// Frames whose samples are their number, from 1 on: left as it is, right as its negative.
inline Samples numbered(qint64 first, qint64 frames)
{
    Samples samples;
    for (qint64 i = 0; i < frames; ++i) {
        samples.push_back(float(first + i));
        samples.push_back(-float(first + i));
    }
    return samples;
}

inline qint64 atFrame(qint64 frame)
{
    return startMs * nsPerMs + frame * nsPerMs / 48;
}

/// A source of numbered frames: frame n + 1 plays n / 48 ms after the start.
inline void appendAt(AudioTimeline& timeline, qint64 startNs, qint64 first, qint64 frames)
{
    timeline.append({startNs, startNs}, numbered(first, frames));
}

inline void append(AudioTimeline& timeline, qint64 frame, qint64 frames)
{
    appendAt(timeline, atFrame(frame), frame + 1, frames);
}

/// Left samples as whole numbers.
inline std::vector<qint64> left(const std::optional<Samples>& delivered)
{
    std::vector<qint64> numbers;
    for (size_t i = 0; delivered && i < delivered->size(); i += 2)
        numbers.push_back(qint64((*delivered)[i]));
    return numbers;
}

inline std::vector<qint64> range(qint64 first, qint64 count)
{
    std::vector<qint64> numbers(static_cast<size_t>(count));
    for (qint64& number : numbers)
        number = first++;
    return numbers;
}

inline std::vector<qint64> joined(std::vector<qint64> first, const std::vector<qint64>& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

/// Empty when they are the same but for the seams that begin at these frames; else what is wrong.
inline QString differenceButSeams(
    const std::vector<qint64>& actual, const std::vector<qint64>& expected, const std::vector<qint64>& seams)
{
    if (actual.size() != expected.size())
        return QStringLiteral("%1 frames, not %2").arg(actual.size()).arg(expected.size());
    for (qint64 i = 0; i < qint64(actual.size()); ++i) {
        const bool inSeam = std::any_of(
            seams.begin(), seams.end(), [i](qint64 seam) { return i >= seam && i < seam + seamFrames; });
        if (!inSeam && actual[size_t(i)] != expected[size_t(i)])
            return QStringLiteral("frame %1: %2, not %3").arg(i).arg(actual[size_t(i)]).arg(expected[size_t(i)]);
    }
    return QString();
}

inline AudioTimeline started(int holdBackMs = 0)
{
    AudioTimeline timeline(holdBackMs);
    timeline.start(startMs);
    return timeline;
}

}

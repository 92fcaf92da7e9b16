// How much memory the frames of the delay queue may hold: pure, values in, values out.
#pragma once

#include <QtGlobal>

#include <algorithm>
#include <optional>
#include <span>

namespace queuelimit {

inline constexpr qint64 checkIntervalMs = 1000; ///< between two questions for the memory that is there
inline constexpr qint64 assumedBytes = qint64(2) << 30; ///< where the system does not tell

/// The most bytes that the queue may hold, when it holds queuedBytes and the system has availableBytes left beside
/// them: half of both together. The other half is for the images that are made on the way into the file, and for
/// everybody else.
inline qint64 largest(std::optional<qint64> availableBytes, qint64 queuedBytes)
{
    return (std::max<qint64>(0, availableBytes.value_or(assumedBytes)) + queuedBytes) / 2;
}

/// The bytes of pixels that the frames of a queue hold: the first one's image, and what each one has more than the
/// one before. (What an unknown version shares, nobody knows; it counts whole.)
template <typename Queue>
qint64 bytesOf(const Queue& queue)
{
    qint64 bytes = 0;
    qint64 lastVersion = 0;
    for (const auto& queued : queue) {
        const auto& frame = queued.frame;
        const bool isNext = lastVersion != 0 && frame.imageVersion == lastVersion + 1;
        if (isNext)
            bytes += frame.ownBytes;
        else if (frame.imageVersion == 0 || frame.imageVersion != lastVersion)
            bytes += frame.image.sizeInBytes();
        lastVersion = frame.imageVersion;
    }
    return bytes;
}

/// Frames that are due and wait for the encoder hold no more than this; then captures wait for it, too.
inline constexpr qint64 mostBytesLate = qint64(64) << 20;
inline constexpr int mostFramesLate = 48; ///< two seconds

/// Whether the frames at the front that are due at limitMs are so many that captures have to wait for the encoder.
template <typename Queue>
bool isTooLate(const Queue& queue, qint64 limitMs)
{
    const auto isDue = [limitMs](const auto& queued) { return queued.elapsedMs <= limitMs; };
    const auto firstEarly = std::find_if_not(queue.begin(), queue.end(), isDue);
    const auto count = firstEarly - queue.begin();
    return count > mostFramesLate
        || (count > 1 && bytesOf(std::span(queue.constData(), std::size_t(count))) > mostBytesLate);
}

}

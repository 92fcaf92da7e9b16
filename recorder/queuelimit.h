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

/// The bytes of pixels that a frame holds more than the one before it, which has that version. (What an unknown
/// version shares, 0, nobody knows; it counts whole.)
template <typename Frame>
qint64 bytesBeside(qint64 versionBefore, const Frame& frame)
{
    if (frame.imageVersion == 0 || versionBefore == 0)
        return frame.image.sizeInBytes();
    if (frame.imageVersion == versionBefore + 1)
        return frame.ownBytes;
    return frame.imageVersion == versionBefore ? 0 : frame.image.sizeInBytes();
}

/// The bytes of pixels that the frames of a queue hold: the first one's image, and what each one has more than the
/// one before. versionBefore: of a frame whose image is not counted.
template <typename Queue>
qint64 bytesOf(const Queue& queue, qint64 versionBefore = 0)
{
    qint64 bytes = 0;
    for (const auto& queued : queue) {
        bytes += bytesBeside(versionBefore, queued.frame);
        versionBefore = queued.frame.imageVersion;
    }
    return bytes;
}

/// Frames that are due and wait for the encoder hold no more than this, or than so many images where that is more;
/// then captures wait for it, too. A key frame that does not fit its buffer makes five late.
inline constexpr qint64 mostBytesLate = qint64(64) << 20;
inline constexpr qint64 mostImagesLate = 8;
inline constexpr int mostFramesLate = 48; ///< two seconds

/// Whether the frames at the front that are due at limitMs are so many that captures have to wait for the encoder.
template <typename Queue>
bool isTooLate(const Queue& queue, qint64 limitMs)
{
    const auto isDue = [limitMs](const auto& queued) { return queued.elapsedMs <= limitMs; };
    const auto firstEarly = std::find_if_not(queue.begin(), queue.end(), isDue);
    const auto count = firstEarly - queue.begin();
    if (count <= 1 || count > mostFramesLate)
        return count > 1;
    // What the first one shares with those that are not late yet is held in any case.
    const auto& first = queue.begin()->frame;
    const qint64 bytes = bytesOf(std::span(queue.constData(), std::size_t(count)), first.imageVersion - 1);
    return bytes > std::max(mostBytesLate, mostImagesLate * first.image.sizeInBytes());
}

}

// How much memory the frames of the delay queue may hold: pure, values in, values out.
#pragma once

#include <QtGlobal>

#include <algorithm>
#include <optional>

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

/// The bytes of pixels that the frames of a queue hold. Successive frames of a window that did not change share
/// theirs, which count once.
template <typename Queue>
qint64 bytesOf(const Queue& queue)
{
    qint64 bytes = 0;
    qint64 lastKey = 0; // no image has it
    for (const auto& queued : queue) {
        const auto& image = queued.frame.image;
        if (image.cacheKey() != lastKey)
            bytes += image.sizeInBytes();
        lastKey = image.cacheKey();
    }
    return bytes;
}

}

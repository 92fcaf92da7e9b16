// Where captured audio belongs on the recording clock: the arithmetic, apart from FFmpeg's buffers. Times are
// milliseconds of that clock; samples are counted per channel, at the encoder's rate (hertz).
#pragma once

#include <QByteArrayView>
#include <QtGlobal>

#include <optional>

namespace audioalignment {

/// Audio may lie this far ahead of the end of its chunk on the clock. What lies further is cut.
inline constexpr qint64 lookaheadMs = 250;

// Conversions round to the nearest.
qint64 msFromSamples(qint64 samples, int rate);
qint64 samplesFromMs(qint64 ms, int rate);

/// Where a batch of chunks begins: it is taken to end now. Not below 0.
qint64 batchStartMs(qint64 elapsedMs, qint64 batchMs);

/// How many samples are missing at this time when `present` have been queued or encoded; below 1 when none are.
qint64 missingSamples(qint64 elapsedMs, qint64 present, int rate);

/// The count in FFmpeg's 32 bits, or nothing when it does not fit.
std::optional<int> asSampleCount(qint64 samples);

/// The size of a queue that is to take more; the largest there is when that is too small.
int grownSize(int size, int added);

/// Which part of a converted chunk is used.
struct Part {
    int drop = 0; ///< samples left out at its front: audio for that time is already there
    int keep = 0; ///< samples used after them; what is left behind those would run ahead of the clock
};

/// chunkStartMs is where the chunk of `converted` samples (above 0) begins, and may be below 0; `present` samples
/// have been queued or encoded.
Part usedPart(qint64 chunkStartMs, int converted, qint64 present, int rate);

/// The largest absolute value of the signed 16-bit samples, at most 32767.
int peak(QByteArrayView pcm);

}

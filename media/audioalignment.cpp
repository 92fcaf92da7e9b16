#include "audioalignment.h"

extern "C" {
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace audioalignment {

namespace {

constexpr AVRational milliseconds{1, 1000};
constexpr int largest = std::numeric_limits<int>::max();

}

qint64 msFromSamples(qint64 samples, int rate)
{
    return av_rescale_q(samples, AVRational{1, rate}, milliseconds);
}

qint64 samplesFromMs(qint64 ms, int rate)
{
    return av_rescale_q(ms, milliseconds, AVRational{1, rate});
}

qint64 batchStartMs(qint64 elapsedMs, qint64 batchMs)
{
    return std::max<qint64>(std::max<qint64>(elapsedMs, 0) - batchMs, 0);
}

qint64 missingSamples(qint64 elapsedMs, qint64 present, int rate)
{
    return elapsedMs < 1 ? 0 : samplesFromMs(elapsedMs, rate) - present;
}

std::optional<int> asSampleCount(qint64 samples)
{
    return samples > largest ? std::nullopt : std::optional(int(samples));
}

int grownSize(int size, int added)
{
    return added > largest - size ? largest : size + added;
}

Part usedPart(qint64 chunkStartMs, int converted, qint64 present, int rate)
{
    const qint64 start = chunkStartMs < 1 ? 0 : samplesFromMs(chunkStartMs, rate);
    Part part;
    if (present > start)
        part.drop = int(std::min<qint64>(present - start, converted));
    part.keep = converted - part.drop;

    const qint64 limitMs = chunkStartMs + msFromSamples(converted, rate) + lookaheadMs;
    const qint64 limit = limitMs < 1 ? 0 : samplesFromMs(limitMs, rate);
    if (present + part.keep > limit)
        part.keep = int(std::max<qint64>(limit - present, 0));
    return part;
}

int peak(QByteArrayView pcm)
{
    int highest = 0;
    for (qsizetype at = 0; at + qsizetype(sizeof(qint16)) <= pcm.size(); at += qsizetype(sizeof(qint16))) {
        qint16 sample = 0;
        std::memcpy(&sample, pcm.data() + at, sizeof sample);
        highest = std::max(highest, std::abs(int(sample)));
    }
    return std::min(highest, int(std::numeric_limits<qint16>::max()));
}

}

// When the truth window flashes and beeps.
#include "truthbeeps.h"

#include <cmath>

namespace truthbeeps {

namespace {

constexpr quint32 secondMs = 1000;
constexpr quint32 latestMs = 400; // within its second

/// Every bit of the result depends on every bit of the value.
quint32 scattered(quint32 value)
{
    value ^= value >> 16;
    value *= 0x7feb352du;
    value ^= value >> 15;
    value *= 0x846ca68bu;
    return value ^ (value >> 16);
}

}

quint32 startMs(quint32 second)
{
    return second * secondMs + scattered(second) % (latestMs + 1);
}

bool flashes(quint32 clockMs)
{
    const quint32 start = startMs(clockMs / secondMs);
    return clockMs >= start && clockMs < start + flashMs;
}

float sample(double clockMs)
{
    const double sinceStartMs = clockMs - double(startMs(quint32(quint64(clockMs)) / secondMs));
    return amplitude * float(audioanalysis::beepSample(beep, sinceStartMs));
}

}

// How a click marker ages: pure, values in, values out.
#pragma once

#include <QtGlobal>

#include <algorithm>
#include <cmath>

namespace clickmarker {

inline constexpr long long lifetimeMs = 2000; ///< shown up to and including this age, recording milliseconds

/// Whether a click keyed keyMs is over when a frame of time frameMs is composed, and every later one.
inline bool expired(long long frameMs, long long keyMs)
{
    return frameMs - keyMs > lifetimeMs;
}

/// 1.0 when fresh, 0.0 at the end of the life.
inline double fade(long long age)
{
    return 1.0 - std::min(double(age) / double(lifetimeMs), 1.0);
}

/// Alpha of the disc, 180 falling to a floor of 60.
inline int alpha(double fadeValue)
{
    return std::max(int(std::lround(fadeValue * 180.0)), 60);
}

/// Radius in canvas pixels, 16 falling to a floor of 2.
inline double radius(double fadeValue)
{
    return std::max(16.0 * fadeValue, 2.0);
}

}

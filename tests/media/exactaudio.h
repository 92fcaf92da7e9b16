// Audio that is compared sample by sample: what a lossless file holds, and what it should.
#pragma once

#include "mediafile.h"
#include "recorderwithaudio.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <vector>

/// Left and right of a lossless 16-bit file; both are empty when that fails.
inline std::array<std::vector<qint16>, 2> exactSides(const QString& path)
{
    MediaFile file(path);
    const std::optional<MediaAudio> audio = file.audio();
    std::array<std::vector<qint16>, 2> sides;
    if (!audio || audio->channels.size() != 2)
        return sides;
    for (int side = 0; side < 2; ++side) {
        for (const float value : audio->channels[side])
            sides[std::size_t(side)].push_back(qint16(std::lround(value * 32768.0F)));
    }
    return sides;
}

/// The left channel; the right one is the same or the list is empty.
inline std::vector<qint16> exactSamples(const QString& path)
{
    const auto [left, right] = exactSides(path);
    return left == right ? left : std::vector<qint16>();
}

/// What the test expects of the whole audio: these samples, then silence.
inline bool holdsThenSilence(const std::vector<qint16>& seen, const std::vector<qint16>& expected)
{
    return seen.size() >= expected.size() && std::equal(expected.begin(), expected.end(), seen.begin())
        && std::all_of(seen.begin() + std::ptrdiff_t(expected.size()), seen.end(), [](qint16 v) { return v == 0; });
}

inline std::vector<qint16> silence(qint64 count)
{
    return std::vector<qint16>(std::size_t(count), 0);
}

inline void appendNoise(std::vector<qint16>& samples, qint64 first, qint64 count)
{
    for (qint64 i = first; i < first + count; ++i)
        samples.push_back(testaudio::noiseAt(i));
}

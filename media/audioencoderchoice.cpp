// The rules of audio encoder selection.
#include "audioencoderchoice.h"

#include <algorithm>
#include <array>

namespace audioencoderchoice {

namespace {

/// Opus comes last, and not into MP4, where few players look for it.
constexpr std::array allCandidates{"aac", "libmp3lame", "mp3", "libopus"};
constexpr std::size_t mp4Candidates = 3; // the first ones

constexpr int usualRate = 48000;

constexpr std::array preferredFormats{AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_FLT, AV_SAMPLE_FMT_S16P};

bool isOpus(const QString& encoderName)
{
    return encoderName == QLatin1String("libopus");
}

template <typename Item>
bool holds(std::span<const Item> list, Item item)
{
    return std::find(list.begin(), list.end(), item) != list.end();
}

}

std::span<const char* const> candidates(const QString& containerName)
{
    const std::span<const char* const> all(allCandidates);
    return containerName.contains(QLatin1String("mp4"), Qt::CaseInsensitive) ? all.first(mp4Candidates) : all;
}

int sampleRate(const QString& encoderName, int captureRate, const std::optional<std::span<const int>>& rates)
{
    const int wanted = isOpus(encoderName) ? usualRate : captureRate;
    if (!rates || rates->empty() || holds(*rates, wanted))
        return wanted;
    return holds(*rates, usualRate) ? usualRate : rates->front();
}

int channelCount(int captureChannels)
{
    return captureChannels < 2 ? 1 : 2;
}

AVSampleFormat sampleFormat(const std::optional<std::span<const AVSampleFormat>>& formats)
{
    if (!formats || formats->empty())
        return preferredFormats.front();
    for (const AVSampleFormat candidate : preferredFormats) {
        if (holds(*formats, candidate))
            return candidate;
    }
    return formats->front();
}

qint64 bitRate(const QString& encoderName)
{
    return isOpus(encoderName) ? 96000 : 128000;
}

std::span<const Option> options(const QString& encoderName)
{
    static constexpr std::array opusOptions{Option{"application", "audio"}};
    return isOpus(encoderName) ? std::span<const Option>(opusOptions) : std::span<const Option>();
}

int frameSize(const AVCodecContext& encoder)
{
    constexpr int usualSize = 1024;
    return encoder.frame_size < 1 ? usualSize : encoder.frame_size;
}

}

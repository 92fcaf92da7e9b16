// Which audio encoder, and what it is asked for: pure decisions about what FFmpeg offers.
#pragma once

#include "avhandles.h"

#include <QString>

#include <optional>
#include <span>

namespace audioencoderchoice {

/// Names of encoders to look for, the best first. containerName is FFmpeg's short name of the muxer.
std::span<const char* const> candidates(const QString& containerName);

/// Hertz. captureRate is what the capture delivers; rates is the encoder's own list, or nothing when it has none.
int sampleRate(const QString& encoderName, int captureRate, const std::optional<std::span<const int>>& rates);

/// Mono or stereo.
int channelCount(int captureChannels);

/// formats is the encoder's own list, or nothing when it has none.
AVSampleFormat sampleFormat(const std::optional<std::span<const AVSampleFormat>>& formats);

qint64 bitRate(const QString& encoderName); ///< bit/s

/// An encoder's private option.
struct Option {
    const char* key;
    const char* value;
};
std::span<const Option> options(const QString& encoderName);

/// Samples a channel that the encoder takes at once; for an encoder that takes any number, a usual one.
int frameSize(const AVCodecContext& encoder);

}

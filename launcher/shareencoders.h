// The encoders of the copy that browsers play, and their settings.
#pragma once

#include "avhandles.h"

#include <QSize>
#include <QString>

#include <functional>

/// Which encoder FFmpeg has under a name; null: none. Tests have their own.
using EncoderLookup = std::function<const AVCodec*(const char* name)>;

struct ShareEncoders {
    const AVCodec* video = nullptr; ///< VP9, else VP8
    const AVCodec* audio = nullptr; ///< Opus; null when none was asked for
    QString error; ///< not empty: this FFmpeg cannot make the copy, in one sentence

    static ShareEncoders find(bool withAudio, const EncoderLookup& lookup = &avcodec_find_encoder_by_name);
};

inline constexpr AVRational shareVideoTimeBase{1, 1000}; // a WebM file counts milliseconds
inline constexpr int shareAudioRate = 48'000; ///< Hz; the rate of Opus

/// Encoders that are open; null, with FFmpeg's status, when they refuse.
AvCodecContextHandle openShareVideo(const AVCodec& codec, const AVCodecParameters& source, int* status);
AvCodecContextHandle openShareAudio(const AVCodec& codec, int channels, int* status);

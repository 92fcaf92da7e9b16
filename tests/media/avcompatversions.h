// media/avcompat.h as it is compiled for FFmpeg on either side of the change, whatever is installed here: each
// function is the one of that version, for an invented codec.
#pragma once

#include "avhandles.h"

#include <optional>
#include <span>

/// Replaces AVCodec. It answers in both ways, so that it shows which one was used.
struct InventedCodec {
    // The older way: lists with an end mark.
    const AVPixelFormat* pix_fmts = nullptr;
    const AVSampleFormat* sample_fmts = nullptr;
    const int* supported_samplerates = nullptr; ///< hertz

    // The newer way: what the query gives, whatever it asks for.
    const void* queried = nullptr;
    int queriedCount = 0;
    int queryStatus = 0;
};

template <typename Item>
using Invented = std::optional<std::span<const Item>>;

/// libavcodec 61.12.100, the last one with the lists alone.
Invented<AVPixelFormat> pixelFormatsBeforeTheChange(const InventedCodec* codec);
Invented<AVSampleFormat> sampleFormatsBeforeTheChange(const InventedCodec* codec);
Invented<int> sampleRatesBeforeTheChange(const InventedCodec* codec);

/// libavcodec 61.13.100, the first one with the query.
Invented<AVPixelFormat> pixelFormatsSinceTheChange(const InventedCodec* codec);
Invented<AVSampleFormat> sampleFormatsSinceTheChange(const InventedCodec* codec);
Invented<int> sampleRatesSinceTheChange(const InventedCodec* codec);

/// The arguments that the last query came with.
struct InventedQuery {
    const AVCodecContext* context = nullptr;
    int config = 0;
    unsigned flags = 0;
};
InventedQuery lastQuery();
constexpr int inventedPixelFormatConfig = 77;
constexpr int inventedSampleRateConfig = 78;
constexpr int inventedSampleFormatConfig = 79;

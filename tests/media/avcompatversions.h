// media/avcompat.h as it is compiled for FFmpeg on either side of the change, whatever is installed here: each
// function is the one of that version, for an invented codec.
#pragma once

#include "avhandles.h"

#include <optional>
#include <span>

/// Stands in AVCodec's place. It answers in both ways, so that it shows which one was used.
struct InventedCodec {
    const AVPixelFormat* pix_fmts = nullptr; ///< the older way: ends with AV_PIX_FMT_NONE
    const AVPixelFormat* queried = nullptr; ///< what the newer way gives
    int queriedCount = 0;
    int queryStatus = 0;
};

using InventedFormats = std::optional<std::span<const AVPixelFormat>>;

/// libavcodec 61.12.100, the last one with the list alone.
InventedFormats formatsBeforeTheChange(const InventedCodec* codec);

/// libavcodec 61.13.100, the first one with the query.
InventedFormats formatsSinceTheChange(const InventedCodec* codec);

/// The arguments that the last query came with.
struct InventedQuery {
    const AVCodecContext* context = nullptr;
    int config = 0;
    unsigned flags = 0;
};
InventedQuery lastQuery();
constexpr int inventedPixelFormatConfig = 77;

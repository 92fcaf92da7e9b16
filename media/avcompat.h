// What differs between the FFmpeg versions that this program builds with (5.1 to 8), and nothing else.
#pragma once

#include "avhandles.h"

#include <optional>
#include <span>

namespace avcompat {

/// The candidate that sits third in the order of encoder input formats. Its numeric value moves between versions of
/// libavutil (158 in major 59 and 60), so it is named.
inline constexpr AVPixelFormat thirdInputFormat = AV_PIX_FMT_P010LE;

// The supported formats of an encoder are a list in AVCodec that ends with AV_PIX_FMT_NONE up to libavcodec 61.12,
// and the answer of avcodec_get_supported_config() from 61.13 on. Both functions are templates so that each of the
// two is compiled against whatever declares the members it needs (tests build both on every FFmpeg).

/// From the list in the codec; nothing when the encoder states no list.
template <typename Codec>
std::optional<std::span<const AVPixelFormat>> pixelFormatsFromList(const Codec* codec)
{
    if (!codec->pix_fmts)
        return std::nullopt;
    const AVPixelFormat* end = codec->pix_fmts;
    while (*end != AV_PIX_FMT_NONE)
        ++end;
    return std::span<const AVPixelFormat>(codec->pix_fmts, end);
}

/// From the query function: called as query(codec, &formats, &count), it returns a status code. Nothing when the
/// encoder accepts any format, or does not answer.
template <typename Codec, typename Query>
std::optional<std::span<const AVPixelFormat>> pixelFormatsFromQuery(const Codec* codec, Query query)
{
    const void* formats = nullptr;
    int count = 0;
    if (query(codec, &formats, &count) < 0 || !formats || count < 0)
        return std::nullopt;
    return std::span<const AVPixelFormat>(static_cast<const AVPixelFormat*>(formats), std::size_t(count));
}

/// The input pixel formats that an encoder lists, or nothing when it has no list.
inline std::optional<std::span<const AVPixelFormat>> pixelFormats(const AVCodec* codec)
{
#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(61, 13, 100)
    return pixelFormatsFromQuery(codec, [](const AVCodec* asked, const void** formats, int* count) {
        return avcodec_get_supported_config(nullptr, asked, AV_CODEC_CONFIG_PIX_FORMAT, 0, formats, count);
    });
#else
    return pixelFormatsFromList(codec);
#endif
}

}

// What differs between the FFmpeg versions that this program builds with (5.1 to 8), and nothing else.
#pragma once

#include "avhandles.h"

#include <optional>
#include <span>

namespace avcompat {

/// The candidate that sits third in the order of encoder input formats. Its numeric value moves between versions of
/// libavutil (158 in major 59 and 60), so it is named.
inline constexpr AVPixelFormat thirdInputFormat = AV_PIX_FMT_P010LE;

/// What an encoder supports, or nothing when it does not say, which means any.
template <typename Item>
using Supported = std::optional<std::span<const Item>>;

// What an encoder supports stands in lists in AVCodec up to libavcodec 61.12, and is the answer of
// avcodec_get_supported_config() from 61.13 on. Each version sees its own half only (tests build both on every
// FFmpeg).

#if LIBAVCODEC_VERSION_INT >= AV_VERSION_INT(61, 13, 100)

/// `config` says what is asked for; the answer's type follows from it.
template <typename Item, typename Config>
Supported<Item> askedFor(const AVCodec* codec, Config config)
{
    const void* items = nullptr;
    int count = 0;
    if (avcodec_get_supported_config(nullptr, codec, config, 0, &items, &count) < 0 || !items || count < 0)
        return std::nullopt;
    return std::span<const Item>(static_cast<const Item*>(items), std::size_t(count));
}

inline Supported<AVPixelFormat> pixelFormats(const AVCodec* codec)
{
    return askedFor<AVPixelFormat>(codec, AV_CODEC_CONFIG_PIX_FORMAT);
}

inline Supported<AVSampleFormat> sampleFormats(const AVCodec* codec)
{
    return askedFor<AVSampleFormat>(codec, AV_CODEC_CONFIG_SAMPLE_FORMAT);
}

inline Supported<int> sampleRates(const AVCodec* codec)
{
    return askedFor<int>(codec, AV_CODEC_CONFIG_SAMPLE_RATE);
}

#else

/// The list up to its end mark; nothing when there is no list.
template <typename Item>
Supported<Item> listed(const Item* list, Item endMark)
{
    if (!list)
        return std::nullopt;
    const Item* end = list;
    while (*end != endMark)
        ++end;
    return std::span<const Item>(list, end);
}

inline Supported<AVPixelFormat> pixelFormats(const AVCodec* codec)
{
    return listed(codec->pix_fmts, AV_PIX_FMT_NONE);
}

inline Supported<AVSampleFormat> sampleFormats(const AVCodec* codec)
{
    return listed(codec->sample_fmts, AV_SAMPLE_FMT_NONE);
}

/// Hertz.
inline Supported<int> sampleRates(const AVCodec* codec)
{
    return listed(codec->supported_samplerates, 0);
}

#endif

}

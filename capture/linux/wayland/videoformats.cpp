// Parameters of video streams.
#include "videoformats.h"

#include <spa/buffer/buffer.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>

#include <algorithm>

namespace wayland {

namespace {

struct KnownFormat {
    uint32_t id;
    PixelOrder order;
};

/// The first ones are what compositors have, and what needs no conversion.
constexpr auto knownFormats = std::to_array<KnownFormat>({
    {SPA_VIDEO_FORMAT_BGRA, {2, 1, 0, 3, true}},
    {SPA_VIDEO_FORMAT_BGRx, {2, 1, 0, 3, false}},
    {SPA_VIDEO_FORMAT_RGBA, {0, 1, 2, 3, true}},
    {SPA_VIDEO_FORMAT_RGBx, {0, 1, 2, 3, false}},
    {SPA_VIDEO_FORMAT_ARGB, {1, 2, 3, 0, true}},
    {SPA_VIDEO_FORMAT_xRGB, {1, 2, 3, 0, false}},
    {SPA_VIDEO_FORMAT_ABGR, {3, 2, 1, 0, true}},
    {SPA_VIDEO_FORMAT_xBGR, {3, 2, 1, 0, false}},
});

constexpr uint32_t longestSide = 16384;
constexpr uint32_t framesPerSecond = 60; // at most: a frame is then hardly older than the moment it is recorded for

// Held are the newest one and, for a moment, the one before it; the node needs others to draw in.
constexpr int bufferCount = 4;
constexpr int fewestBuffers = 3;
constexpr int mostBuffers = 16;

constexpr int mostDamage = 16; // rectangles a frame

constexpr int cursorBytes(int side)
{
    return int(sizeof(spa_meta_cursor) + sizeof(spa_meta_bitmap)) + side * side * 4;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wpedantic" // PipeWire's macros are statements in an expression

const spa_pod* metadata(spa_pod_builder& builder, uint32_t type, int size)
{
    return static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
        SPA_PARAM_META_type, SPA_POD_Id(type), SPA_PARAM_META_size, SPA_POD_Int(size)));
}

const spa_pod* metadata(spa_pod_builder& builder, uint32_t type, int size, int least, int most)
{
    return static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
        SPA_PARAM_META_type, SPA_POD_Id(type), SPA_PARAM_META_size, SPA_POD_CHOICE_RANGE_Int(size, least, most)));
}

#pragma GCC diagnostic pop

}

const spa_pod* wantedFormats(spa_pod_builder& builder)
{
    spa_pod_frame object;
    spa_pod_frame choice;
    spa_pod_builder_push_object(&builder, &object, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    spa_pod_builder_prop(&builder, SPA_FORMAT_mediaType, 0);
    spa_pod_builder_id(&builder, SPA_MEDIA_TYPE_video);
    spa_pod_builder_prop(&builder, SPA_FORMAT_mediaSubtype, 0);
    spa_pod_builder_id(&builder, SPA_MEDIA_SUBTYPE_raw);
    spa_pod_builder_prop(&builder, SPA_FORMAT_VIDEO_format, 0);
    spa_pod_builder_push_choice(&builder, &choice, SPA_CHOICE_Enum, 0);
    spa_pod_builder_id(&builder, knownFormats.front().id); // the first value of a choice is its default
    for (const KnownFormat& known : knownFormats)
        spa_pod_builder_id(&builder, known.id);
    spa_pod_builder_pop(&builder, &choice);
    spa_pod_builder_prop(&builder, SPA_FORMAT_VIDEO_size, 0);
    spa_pod_builder_push_choice(&builder, &choice, SPA_CHOICE_Range, 0);
    spa_pod_builder_rectangle(&builder, 1280, 720);
    spa_pod_builder_rectangle(&builder, 1, 1);
    spa_pod_builder_rectangle(&builder, longestSide, longestSide);
    spa_pod_builder_pop(&builder, &choice);
    spa_pod_builder_prop(&builder, SPA_FORMAT_VIDEO_framerate, 0); // 0: whenever something changes
    spa_pod_builder_push_choice(&builder, &choice, SPA_CHOICE_Range, 0);
    spa_pod_builder_fraction(&builder, 0, 1);
    spa_pod_builder_fraction(&builder, 0, 1);
    spa_pod_builder_fraction(&builder, 1000, 1);
    spa_pod_builder_pop(&builder, &choice);
    spa_pod_builder_prop(&builder, SPA_FORMAT_VIDEO_maxFramerate, 0);
    spa_pod_builder_push_choice(&builder, &choice, SPA_CHOICE_Range, 0);
    spa_pod_builder_fraction(&builder, framesPerSecond, 1);
    spa_pod_builder_fraction(&builder, 1, 1);
    spa_pod_builder_fraction(&builder, framesPerSecond, 1);
    spa_pod_builder_pop(&builder, &choice);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &object));
}

std::optional<VideoFormat> agreedFormat(const spa_pod* format)
{
    spa_video_info_raw info{};
    if (spa_format_video_raw_parse(format, &info) < 0 || info.size.width > longestSide
        || info.size.height > longestSide) {
        return std::nullopt;
    }
    const auto* known = std::find_if(knownFormats.begin(), knownFormats.end(),
        [&](const KnownFormat& candidate) { return candidate.id == info.format; });
    if (known == knownFormats.end())
        return std::nullopt;
    return VideoFormat{QSize(int(info.size.width), int(info.size.height)), known->order};
}

BufferParameters wantedBuffers(spa_pod_builder& builder)
{
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wpedantic" // PipeWire's macros are statements in an expression
    const auto* buffers = static_cast<const spa_pod*>(
        spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers,
            SPA_PARAM_BUFFERS_buffers, SPA_POD_CHOICE_RANGE_Int(bufferCount, fewestBuffers, mostBuffers),
            SPA_PARAM_BUFFERS_dataType, SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr))));
#pragma GCC diagnostic pop
    constexpr int region = sizeof(spa_meta_region);
    return {buffers, metadata(builder, SPA_META_Header, sizeof(spa_meta_header)),
        metadata(builder, SPA_META_VideoCrop, region),
        metadata(builder, SPA_META_VideoDamage, mostDamage * region, region, mostDamage * region),
        metadata(builder, SPA_META_Cursor, cursorBytes(64), cursorBytes(1), cursorBytes(384))};
}

}

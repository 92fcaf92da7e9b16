// Reading a buffer, which is the node's: nothing in it is believed unseen.
#include "videobuffer.h"

#include <spa/buffer/buffer.h>
#include <spa/buffer/meta.h>

#include <algorithm>
#include <limits>

namespace wayland {

namespace {

constexpr qint64 pixelBytes = 4;

template <typename Content>
const Content* metaOf(const spa_buffer& buffer, uint32_t type)
{
    return static_cast<const Content*>(spa_buffer_find_meta_data(&buffer, type, sizeof(Content)));
}

/// Sides that no int holds become the largest one.
QRect rectOf(const spa_region& region)
{
    constexpr auto most = uint32_t(std::numeric_limits<int>::max() / 4);
    const auto place = [](int32_t value) { return std::clamp(value, -int32_t(most), int32_t(most)); };
    return QRect(place(region.position.x), place(region.position.y), int(std::min(region.size.width, most)),
        int(std::min(region.size.height, most)));
}

}

std::optional<QPointF> pointerOf(const spa_buffer& buffer)
{
    const auto* cursor = metaOf<spa_meta_cursor>(buffer, SPA_META_Cursor);
    if (!cursor || cursor->id == 0)
        return std::nullopt;
    return QPointF(cursor->position.x, cursor->position.y);
}

bool hasFrame(const spa_buffer& buffer)
{
    if (buffer.n_datas == 0 || !buffer.datas[0].chunk || buffer.datas[0].chunk->size == 0
        || (buffer.datas[0].chunk->flags & SPA_CHUNK_FLAG_CORRUPTED) != 0) {
        return false;
    }
    const auto* header = metaOf<spa_meta_header>(buffer, SPA_META_Header);
    return !header || (header->flags & SPA_META_HEADER_FLAG_CORRUPTED) == 0;
}

std::optional<PixelView> frameOf(const spa_buffer& buffer, const VideoFormat& format)
{
    const spa_data& data = buffer.datas[0];
    const bool isMemory = data.type == SPA_DATA_MemFd || data.type == SPA_DATA_MemPtr;
    if (!isMemory || !data.data || format.size.isEmpty())
        return std::nullopt;
    const qint64 rowBytes = format.size.width() * pixelBytes;
    const qint64 stride = data.chunk->stride == 0 ? rowBytes : data.chunk->stride;
    const qint64 offset = data.chunk->offset;
    const qint64 size = std::min<qint64>(data.chunk->size, data.maxsize - offset);
    if (stride < rowBytes || stride * (format.size.height() - 1) + rowBytes > size)
        return std::nullopt;
    return PixelView{static_cast<const uint8_t*>(data.data) + offset, qsizetype(stride), format.size, format.order};
}

QRect cropOf(const spa_buffer& buffer, const QSize& frame)
{
    const QRect whole(QPoint(0, 0), frame);
    const auto* crop = metaOf<spa_meta_region>(buffer, SPA_META_VideoCrop);
    if (!crop || !spa_meta_region_is_valid(crop))
        return whole;
    const QRect part = rectOf(crop->region) & whole;
    return part.isEmpty() ? whole : part;
}

std::optional<std::vector<QRect>> damageOf(const spa_buffer& buffer)
{
    const spa_meta* meta = spa_buffer_find_meta(&buffer, SPA_META_VideoDamage);
    if (!meta)
        return std::nullopt;
    std::vector<QRect> damage;
    const auto* regions = static_cast<const spa_meta_region*>(meta->data);
    const std::size_t room = meta->size / sizeof(spa_meta_region);
    for (std::size_t i = 0; i < room && spa_meta_region_is_valid(&regions[i]); ++i)
        damage.push_back(rectOf(regions[i].region));
    // A full list may have been too short; an empty one says nothing.
    return damage.empty() || damage.size() == room ? std::nullopt : std::optional(damage);
}

}

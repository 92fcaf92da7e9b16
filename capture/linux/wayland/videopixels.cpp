// Conversion of pixels, and the search for a shadow.
#include "videopixels.h"

#include "clientshadow.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <optional>

namespace wayland {

namespace {

constexpr int largestShadow = 128; // pixels on a side, as for windows of X11
constexpr int faintest = 0x20; // a shadow's alpha at the edge is less
constexpr int leastRises = 3; // lines that are stronger than all before them; a smoothed edge has one or two
constexpr int pixelBytes = 4;
static_assert(std::endian::native == std::endian::little, "PixelOrder::isNative() and pixelFrom() count on it");

const uint8_t* pixelAt(const PixelView& view, int x, int y)
{
    return view.bytes + view.stride * y + qsizetype(x) * pixelBytes;
}

quint32 pixelFrom(const uint8_t* bytes, const PixelOrder& order)
{
    return quint32(bytes[order.fourth]) << 24U | quint32(bytes[order.red]) << 16U | quint32(bytes[order.green]) << 8U
        | quint32(bytes[order.blue]);
}

enum class Side { Left, Top, Right, Bottom };

/// A line of pixels along one side of an area, by its distance from that side.
QRect lineAlong(Side side, const QRect& area, int distance)
{
    switch (side) {
    case Side::Left:
        return QRect(area.left() + distance, area.top(), 1, area.height());
    case Side::Top:
        return QRect(area.left(), area.top() + distance, area.width(), 1);
    case Side::Right:
        return QRect(area.right() - distance, area.top(), 1, area.height());
    case Side::Bottom:
        break;
    }
    return QRect(area.left(), area.bottom() - distance, area.width(), 1);
}

/// The strongest alpha of a line that can be one of a shadow; nothing for one of a window.
std::optional<int> shadowAlpha(const PixelView& view, const QRect& line)
{
    int strongest = 0;
    for (int y = line.top(); y <= line.bottom(); ++y) {
        for (int x = line.left(); x <= line.right(); ++x) {
            const uint8_t* pixel = pixelAt(view, x, y);
            const int alpha = pixel[view.order.fourth];
            if (alpha == 0xff || pixel[view.order.red] || pixel[view.order.green] || pixel[view.order.blue])
                return std::nullopt;
            strongest = std::max(strongest, alpha);
        }
    }
    return strongest;
}

bool isMostlyOpaque(const PixelView& view, const QRect& line)
{
    int opaque = 0;
    for (int y = line.top(); y <= line.bottom(); ++y) {
        for (int x = line.left(); x <= line.right(); ++x)
            opaque += pixelAt(view, x, y)[view.order.fourth] == 0xff ? 1 : 0;
    }
    return opaque * 2 > line.width() * line.height();
}

/// How many lines at one side look like a shadow.
int shadowDepth(const PixelView& view, const QRect& part, Side side)
{
    const bool isColumn = side == Side::Left || side == Side::Right;
    const int most = std::min(largestShadow, ((isColumn ? part.width() : part.height()) - 1) / 2);
    int strongest = 0;
    int rises = 0;
    for (int depth = 0; depth <= most; ++depth) {
        const std::optional<int> alpha = shadowAlpha(view, lineAlong(side, part, depth));
        if (!alpha)
            return rises >= leastRises ? depth : 0;
        if (*alpha < strongest - 1 || (depth == 0 && *alpha >= faintest)) // 1 for rounding
            return 0;
        rises += *alpha > strongest ? 1 : 0;
        strongest = std::max(strongest, *alpha);
    }
    return 0;
}

}

void copyRows(const PixelView& view, const QRect& part, int firstRow, int rowCount, std::vector<quint32>& pixels)
{
    const auto width = std::size_t(part.width());
    pixels.resize(width * std::size_t(rowCount));
    for (int row = 0; row < rowCount; ++row) {
        const uint8_t* from = pixelAt(view, part.left(), part.top() + firstRow + row);
        quint32* to = pixels.data() + std::size_t(row) * width;
        if (view.order.isNative()) {
            std::memcpy(to, from, width * pixelBytes);
            continue;
        }
        for (std::size_t x = 0; x < width; ++x)
            to[x] = pixelFrom(from + x * pixelBytes, view.order);
    }
}

QMargins shadowIn(const PixelView& view, const QRect& part)
{
    const QMargins found(shadowDepth(view, part, Side::Left), shadowDepth(view, part, Side::Top),
        shadowDepth(view, part, Side::Right), shadowDepth(view, part, Side::Bottom));
    const QRect window = part.marginsRemoved(found);
    const auto bounded = [&](Side side, int depth) {
        return depth > 0 && isMostlyOpaque(view, lineAlong(side, window, 0)) ? quint32(depth) : 0U;
    };
    return x11::boundedShadow(bounded(Side::Left, found.left()), bounded(Side::Right, found.right()),
        bounded(Side::Top, found.top()), bounded(Side::Bottom, found.bottom()), part.size());
}

}

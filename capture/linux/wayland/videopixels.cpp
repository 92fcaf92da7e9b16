// Conversion of pixels, and the search for a shadow.
#include "videopixels.h"

#include <QMargins>

#include <algorithm>
#include <bit>
#include <cstring>

namespace wayland {

namespace {

constexpr int largestShadow = 128; // pixels on a side, as for windows of X11
constexpr int faintest = 0x80; // a shadow's alpha at the edge is less
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

/// What a line of pixels is, at the edge of a part.
enum class Line { Window, Shadow, FaintShadow };

Line lineKind(const PixelView& view, const QRect& line)
{
    int most = 0;
    for (int y = line.top(); y <= line.bottom(); ++y) {
        for (int x = line.left(); x <= line.right(); ++x) {
            const uint8_t* pixel = pixelAt(view, x, y);
            const int alpha = pixel[view.order.fourth];
            if (alpha == 0xff || pixel[view.order.red] || pixel[view.order.green] || pixel[view.order.blue])
                return Line::Window;
            most = std::max(most, alpha);
        }
    }
    return most < faintest ? Line::FaintShadow : Line::Shadow;
}

bool hasOpaquePixel(const PixelView& view, const QRect& line)
{
    for (int y = line.top(); y <= line.bottom(); ++y) {
        for (int x = line.left(); x <= line.right(); ++x) {
            if (pixelAt(view, x, y)[view.order.fourth] == 0xff)
                return true;
        }
    }
    return false;
}

/// How many lines at one side are shadow. lineAt: a line by its distance from that side.
template <typename LineAt>
int shadowDepth(const PixelView& view, int lines, const LineAt& lineAt)
{
    const int most = std::min(largestShadow, (lines - 1) / 2);
    int depth = 0;
    for (; depth <= most; ++depth) {
        const Line kind = lineKind(view, lineAt(depth));
        if (kind == Line::Window)
            break;
        if (depth == 0 && kind == Line::Shadow)
            return 0;
    }
    return depth <= most && hasOpaquePixel(view, lineAt(depth)) ? depth : 0;
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

QRect withoutShadow(const PixelView& view, const QRect& part)
{
    const int right = part.right();
    const int bottom = part.bottom();
    QMargins shadow;
    shadow.setTop(shadowDepth(
        view, part.height(), [&](int depth) { return QRect(part.left(), part.top() + depth, part.width(), 1); }));
    shadow.setBottom(shadowDepth(
        view, part.height(), [&](int depth) { return QRect(part.left(), bottom - depth, part.width(), 1); }));
    shadow.setLeft(shadowDepth(
        view, part.width(), [&](int depth) { return QRect(part.left() + depth, part.top(), 1, part.height()); }));
    shadow.setRight(shadowDepth(
        view, part.width(), [&](int depth) { return QRect(right - depth, part.top(), 1, part.height()); }));
    return part.marginsRemoved(shadow);
}

}

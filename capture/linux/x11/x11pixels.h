// From the pixels of an X server to the images of the seam. Values in, values out.
#pragma once

#include <QImage>
#include <QSize>
#include <QtGlobal>

#include <xcb/xcb.h>

#include <optional>

namespace x11 {

/// How the pixels of a window lie in memory: rows from the top, each padded to whole 32-bit words.
struct PixelLayout {
    /// ARGB32_Premultiplied, RGB32 (with anything in the top byte), RGB30 or RGB16.
    QImage::Format format = QImage::Format_Invalid;
    int bytesPerPixel = 0;

    qsizetype bytesPerLine(int width) const { return (qsizetype(width) * bytesPerPixel + 3) / 4 * 4; }
    qsizetype byteCount(QSize size) const { return bytesPerLine(size.width()) * size.height(); }

    bool operator==(const PixelLayout&) const = default;
};

/// The layout of windows of that visual, or nothing when it is none of those above (palettes, other channel orders,
/// the other byte order).
std::optional<PixelLayout> pixelLayout(const xcb_setup_t* setup, xcb_visualid_t visual);
std::optional<PixelLayout> pixelLayout(int depth, int bitsPerPixel, const xcb_visualtype_t& visual);

/// The format of the images of a window of that layout: ARGB32_Premultiplied or RGB32.
QImage::Format imageFormat(const PixelLayout& layout);

/// Whether the pixels are those of such an image, apart from opaqueBits().
bool isTakenAsItIs(const PixelLayout& layout);

/// What has to be set in every pixel: the top byte of opaque windows is whatever the application left there.
quint32 opaqueBits(const PixelLayout& layout);

/// An image with its own pixels, in ARGB32_Premultiplied, or in RGB32 with 0xff in every top byte. Null when there
/// is no memory for it.
QImage imageFromPixels(const uchar* pixels, QSize size, const PixelLayout& layout);

}

// Pixel layouts, and the one pass over the pixels of a captured window.
#include "x11pixels.h"

#include <QSysInfo>

#include <cstring>

namespace x11 {

namespace {

struct KnownLayout {
    int depth;
    int bitsPerPixel;
    quint32 redMask;
    quint32 greenMask;
    quint32 blueMask;
    QImage::Format format;
};

constexpr KnownLayout knownLayouts[] = {
    {32, 32, 0xff0000, 0x00ff00, 0x0000ff, QImage::Format_ARGB32_Premultiplied},
    {24, 32, 0xff0000, 0x00ff00, 0x0000ff, QImage::Format_RGB32},
    {30, 32, 0x3ff00000, 0x000ffc00, 0x000003ff, QImage::Format_RGB30},
    {16, 16, 0xf800, 0x07e0, 0x001f, QImage::Format_RGB16},
};

int bitsPerPixelOf(const xcb_setup_t* setup, int depth)
{
    for (auto formats = xcb_setup_pixmap_formats_iterator(setup); formats.rem; xcb_format_next(&formats)) {
        if (formats.data->depth == depth)
            return formats.data->scanline_pad == 32 ? formats.data->bits_per_pixel : 0;
    }
    return 0;
}

/// The top byte of opaque windows is whatever the application left there. Rows of 32-bit pixels have no padding, so
/// that this is one loop, which the compiler vectorises. Source and target may be the same.
void copyOpaque(quint32* to, const quint32* from, qsizetype count)
{
    for (qsizetype i = 0; i < count; ++i)
        to[i] = from[i] | 0xff000000u;
}

}

std::optional<PixelLayout> pixelLayout(const xcb_setup_t* setup, xcb_visualid_t visual)
{
    const auto ownOrder
        = QSysInfo::ByteOrder == QSysInfo::LittleEndian ? XCB_IMAGE_ORDER_LSB_FIRST : XCB_IMAGE_ORDER_MSB_FIRST;
    if (setup->image_byte_order != ownOrder)
        return std::nullopt;
    for (auto screens = xcb_setup_roots_iterator(setup); screens.rem; xcb_screen_next(&screens)) {
        for (auto depths = xcb_screen_allowed_depths_iterator(screens.data); depths.rem; xcb_depth_next(&depths)) {
            for (auto visuals = xcb_depth_visuals_iterator(depths.data); visuals.rem; xcb_visualtype_next(&visuals)) {
                if (visuals.data->visual_id == visual) {
                    const int depth = depths.data->depth;
                    return pixelLayout(depth, bitsPerPixelOf(setup, depth), *visuals.data);
                }
            }
        }
    }
    return std::nullopt;
}

std::optional<PixelLayout> pixelLayout(int depth, int bitsPerPixel, const xcb_visualtype_t& visual)
{
    for (const KnownLayout& known : knownLayouts) {
        if (known.depth == depth && known.bitsPerPixel == bitsPerPixel && known.redMask == visual.red_mask
            && known.greenMask == visual.green_mask && known.blueMask == visual.blue_mask)
            return PixelLayout{known.format, bitsPerPixel / 8};
    }
    return std::nullopt;
}

QImage::Format imageFormat(const PixelLayout& layout)
{
    return layout.format == QImage::Format_ARGB32_Premultiplied ? layout.format : QImage::Format_RGB32;
}

bool isTakenAsItIs(const PixelLayout& layout)
{
    return layout.format == imageFormat(layout);
}

quint32 opaqueBits(const PixelLayout& layout)
{
    return layout.format == QImage::Format_RGB32 ? 0xff000000u : 0;
}

QImage imageFromPixels(const uchar* pixels, QSize size, const PixelLayout& layout)
{
    const qsizetype count = qsizetype(size.width()) * size.height();
    if (layout.format == QImage::Format_RGB30 || layout.format == QImage::Format_RGB16) {
        const QImage wrapped(pixels, size.width(), size.height(), layout.bytesPerLine(size.width()), layout.format);
        QImage image = wrapped.convertToFormat(QImage::Format_RGB32);
        if (image.isNull())
            return image;
        auto* converted = reinterpret_cast<quint32*>(image.bits());
        copyOpaque(converted, converted, count); // the conversion takes unused bits for alpha
        return image;
    }

    QImage image(size, layout.format);
    if (image.isNull())
        return image;
    if (layout.format == QImage::Format_RGB32) {
        copyOpaque(reinterpret_cast<quint32*>(image.bits()), reinterpret_cast<const quint32*>(pixels), count);
    } else {
        std::memcpy(image.bits(), pixels, size_t(layout.byteCount(size)));
    }
    return image;
}

}

// Pixels as video streams of compositors carry them: pure, values in, values out.
#pragma once

#include <QImage>
#include <QMargins>
#include <QRect>

#include <cstdint>
#include <vector>

namespace wayland {

/// Where the bytes of a pixel are. Four bytes a pixel.
struct PixelOrder {
    int red;
    int green;
    int blue;
    int fourth; ///< alpha, or padding
    bool hasAlpha;

    /// Already as QImage has them on this machine, but for the padding.
    bool isNative() const { return blue == 0 && green == 1 && red == 2 && fourth == 3; }
    /// What padding must be made in every pixel.
    quint32 setBits() const { return hasAlpha ? 0 : 0xff000000U; }
    QImage::Format imageFormat() const
    {
        return hasAlpha ? QImage::Format_ARGB32_Premultiplied : QImage::Format_RGB32;
    }
};

/// Pixels in somebody else's memory.
struct PixelView {
    const uint8_t* bytes = nullptr; ///< of the top left pixel; of any alignment
    qsizetype stride = 0; ///< bytes from one row to the next
    QSize size;
    PixelOrder order{};
};

/// Some rows of a part of the view, one behind the other, as QImage's 32-bit formats have them.
void copyRows(const PixelView& view, const QRect& part, int firstRow, int rowCount, std::vector<quint32>& pixels);

/// The shadow that a client has drawn around its window in the part. The fourth byte tells it, also where that is
/// padding. On each side by itself: lines that are black and translucent, hardly to be seen at the edge, stronger
/// from line to line, and behind them one that is opaque in most pixels, as windows are but for their corners.
/// Neither the background of a translucent window nor the smoothed edge of a letter on it is like that. All of them
/// together are no shadow when they are more than x11::boundedShadow() allows.
QMargins shadowIn(const PixelView& view, const QRect& part);

}

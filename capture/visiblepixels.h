// Whether an image shows anything.
#pragma once

#include <QImage>

#include <algorithm>

namespace visiblepixels {

/// Whether a pixel is not fully transparent; nearly every window has one among its first ones. The image has 32 bits
/// a pixel, the alpha value in the top byte.
inline bool hasAny(const QImage& image)
{
    for (int y = 0; y < image.height(); ++y) {
        const auto* line = reinterpret_cast<const quint32*>(image.constScanLine(y));
        if (std::any_of(line, line + image.width(), [](quint32 pixel) { return pixel >> 24U != 0; }))
            return true;
    }
    return false;
}

}

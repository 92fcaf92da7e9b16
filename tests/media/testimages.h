// Frames for the media tests, and the comparison of colours.
#pragma once

#include <QColor>
#include <QImage>
#include <QPainter>
#include <QSize>

#include <algorithm>
#include <cstdlib>

namespace testimages {

/// As composition makes them: QImage::Format_ARGB32, opaque.
inline QImage solid(const QSize& size, const QColor& colour)
{
    QImage image(size, QImage::Format_ARGB32);
    image.fill(colour);
    return image;
}

/// A light square that walks over a dark ground, one step a frame: every frame differs from the one before, and
/// never so much that an encoder takes it for a new scene.
inline QImage walking(const QSize& size, int index)
{
    QImage image = solid(size, QColor(40, 44, 60));
    QPainter painter(&image);
    const int side = std::max(size.height() / 8, 2);
    const int way = std::max(size.width() - side, 1);
    painter.fillRect((index * 2) % way, size.height() / 2 - side / 2, side, side, QColor(200, 190, 120));
    return image;
}

/// Every pixel another colour: nothing compresses it, nothing but lossless coding keeps it.
inline QImage noise(const QSize& size, quint32 seed)
{
    QImage image(size, QImage::Format_ARGB32);
    quint32 state = seed * 2654435761u + 12345u;
    for (int y = 0; y < size.height(); ++y) {
        for (int x = 0; x < size.width(); ++x) {
            state = state * 1664525u + 1013904223u;
            image.setPixel(x, y, 0xff000000u | (state >> 8));
        }
    }
    return image;
}

/// The largest difference of a channel, 0 to 255.
inline int channelError(QRgb seen, QRgb expected)
{
    return std::max({std::abs(qRed(seen) - qRed(expected)), std::abs(qGreen(seen) - qGreen(expected)),
        std::abs(qBlue(seen) - qBlue(expected))});
}

}

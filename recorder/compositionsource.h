// What a composed image without click markers depends on, besides the size of the canvas.
#pragma once

#include <QRect>
#include <QtGlobal>

/// Two equal ones give the same image, pixel by pixel.
struct CompositionSource {
    qint64 imageKey = 0; ///< QImage::cacheKey() of the window's image
    QRect windowBounds; ///< global screen points
    double cursorX = 0.0; ///< global screen points
    double cursorY = 0.0;
    bool hasCursor = false;

    bool operator==(const CompositionSource&) const = default;
};

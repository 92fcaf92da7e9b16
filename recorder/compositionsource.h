// What a composed image shows, besides click markers.
#pragma once

#include <QRect>
#include <QSize>
#include <QtGlobal>

/// Two equal ones of a known version give the same image, pixel by pixel.
struct CompositionSource {
    qint64 imageVersion = 0; ///< of the window's image; 0 is unknown, and never the same
    QSize imageSize; ///< of the window's image, pixels
    bool opaque = false; ///< the image is
    bool letterboxed = false; ///< the image is the canvas already
    QRect windowBounds; ///< global screen points
    double cursorX = 0.0; ///< global screen points
    double cursorY = 0.0;
    bool hasCursor = false;

    /// The pointer lies at the same place, or there is none.
    bool hasPointerOf(const CompositionSource& other) const
    {
        return windowBounds == other.windowBounds && cursorX == other.cursorX && cursorY == other.cursorY
            && hasCursor == other.hasCursor;
    }

    /// Of this image only the changed rows differ from the other's, and they lie at the same place on the canvas.
    bool follows(const CompositionSource& other) const
    {
        return imageVersion > 0 && (imageVersion == other.imageVersion || imageVersion == other.imageVersion + 1)
            && imageSize == other.imageSize && opaque == other.opaque && letterboxed == other.letterboxed;
    }
};

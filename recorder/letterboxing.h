// Letterboxing: windows that are larger than the canvas, made as small before they wait in the delay queue.
#pragma once

#include "framegeometry.h"
#include "rowset.h"
#include "sharedimages.h"

#include <QImage>
#include <QSize>

class QPainter;

/// Draws a window's image on rows of the canvas, whole, with black around it. opaqueOnly: nothing else of these rows
/// shows, neither beside the image nor through it.
void drawWindow(QPainter& painter, const FrameGeometry& geometry, const QImage& image, const RowSet::Range& rows,
    bool opaqueOnly);

/**
 * What the composition would paint for a window without pointer and markers. Painted at the time of the capture it
 * gives the same pixels, and the image that waits takes the canvas's memory in place of the window's: a quarter for a
 * window with two pixels a point. Images of successive calls share what did not change. Worker thread.
 */
class Letterboxing {
public:
    /// Which image of the window it is.
    struct Source {
        QImage image; ///< QImage::Format_ARGB32, pixels
        qint64 version = 0; ///< grows by one with each image that differs from the one before; 0 is unknown
        RowSet changedRows; ///< of the image; all others are as in the version before
    };

    static bool saves(const QSize& imageSize, const QSize& canvasSize);

    /// The canvas with the window, opaque. The image is null when there is no memory for it. Throws std::bad_alloc.
    /// An equal version gives the same again, with the rows and bytes in which it differs from the version before:
    /// any frame of a version may be the first that is composed.
    SharedImages::Image take(const Source& source, const QSize& canvasSize);

private:
    SharedImages::Image paint(const QImage& image, const FrameGeometry& geometry, const RowSet& rows);

    SharedImages images_;
    SharedImages::Image taken_; ///< the last one
    QImage canvas_; ///< the last one, painted
    QSize paintedSize_; ///< of the window's image on it
    qint64 paintedVersion_ = 0; ///< of that image; 0: what is on it is unknown
};

// Where things go on the canvas: pure, values in, values out.
#pragma once

#include "rowset.h"

#include <QPointF>
#include <QRect>
#include <QRectF>
#include <QSize>

#include <optional>

/// A requested canvas size (pixels, any double) as the encoder gets it: rounded with halves away from zero,
/// at least 16, even (upwards), and within int.
int normalizedCanvasSize(double requested);

/// How one window image lies on the canvas, and how screen points reach it. Bounds are in global screen
/// points, everything else is in pixels of the image or of the canvas.
class FrameGeometry {
public:
    FrameGeometry(const QSize& imageSize, const QRect& windowBounds, const QSize& canvasSize);

    /// Where the whole image is drawn: centred, as large as fits, undistorted; spare pixels go right and
    /// below.
    QRectF target() const { return QRectF(offsetX_, offsetY_, scaledSize_.width(), scaledSize_.height()); }

    /// Canvas pixels per image pixel.
    double scaleX() const { return scaleX_; }
    double scaleY() const { return scaleY_; }

    /// A screen point in image pixels, or nothing when it lies outside the window (edges count as inside) or
    /// the bounds are unknown.
    std::optional<QPointF> insideImage(double screenX, double screenY) const;

    /// A position given as fractions of the window, in image pixels.
    QPointF normalizedToImage(double x, double y) const;

    /// Image pixels to canvas pixels.
    QPointF toCanvas(const QPointF& imagePoint) const;

    /// Rows of the canvas, at most its height, that show rows of the image. A smoothly scaled row also shows in its
    /// neighbours.
    RowSet toCanvas(const RowSet& imageRows) const;

    /// Those rows of the canvas that something touches which is painted between two heights, with smoothed edges.
    RowSet canvasRows(double top, double bottom) const;

    /// Whether every pixel of the image becomes one of the canvas.
    bool isUnscaled() const { return scaledSize_ == imageSize_; }

private:
    QSize imageSize_;
    QRect bounds_;
    QSize canvasSize_;
    QSize scaledSize_;
    int offsetX_;
    int offsetY_;
    double scaleX_;
    double scaleY_;
};

// A window image on the canvas: letterbox, pointer arrow, click markers on top. Worker thread.
#include "gstrecorder.h"

#include <QPainter>
#include <QPainterPath>
#include <QPen>

#include <algorithm>
#include <optional>
#include <utility>

namespace {

/// The arrow's outline in its own units (canvas pixels at scale 1), the tip at the origin: 19 wide, 27 high.
QPainterPath arrowOutline()
{
    QPainterPath path(QPointF(0, 0));
    for (const QPointF point :
        {QPointF(0, 23), QPointF(6, 17), QPointF(10, 27), QPointF(15, 25), QPointF(11, 15), QPointF(19, 15)})
        path.lineTo(point);
    path.closeSubpath();
    return path;
}

QPen roundPen(Qt::GlobalColor colour, double width)
{
    return QPen(QBrush(colour), width, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
}

/// A white arrow with a black rim, its tip at a canvas point. It grows with an enlarged image and never
/// shrinks.
void drawPointer(QPainter& painter, const FrameGeometry& geometry, const QPointF& tip)
{
    static const QPainterPath outline = arrowOutline();
    painter.save();
    painter.translate(tip);
    painter.scale(std::max(geometry.scaleX(), 1.0), std::max(geometry.scaleY(), 1.0));
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(Qt::white);
    painter.setPen(roundPen(Qt::black, 3.0));
    painter.drawPath(outline);
    painter.setPen(roundPen(Qt::white, 1.0));
    painter.drawPath(outline);
    painter.restore();
}

/// Whether every pixel of the frame's image becomes one of the canvas as it is.
bool isCopied(const GstRecorder::CapturedFrame& frame, const FrameGeometry& geometry)
{
    return frame.letterboxedFrom || (frame.opaque && geometry.isUnscaled());
}

/// The same pixels; those of an image without an alpha channel are copied where others are blended.
QImage withoutAlphaChannel(const QImage& opaque)
{
    return QImage(opaque.constBits(), opaque.width(), opaque.height(), opaque.bytesPerLine(), QImage::Format_RGB32);
}

/// The same pixels as a canvas has them, in the same memory, which the canvas keeps. Null when there is none for
/// that.
QImage asCanvas(const QImage& opaque)
{
    auto kept = std::make_unique<QImage>(opaque);
    QImage canvas(
        opaque.constBits(), opaque.width(), opaque.height(), opaque.bytesPerLine(), QImage::Format_ARGB32,
        [](void* image) { delete static_cast<QImage*>(image); }, kept.get());
    if (!canvas.isNull())
        static_cast<void>(kept.release());
    return canvas;
}

/// Where the tip of the arrow is; nothing when none is drawn.
std::optional<QPointF> pointerTip(const GstRecorder::CapturedFrame& frame, const FrameGeometry& geometry)
{
    if (!frame.hasCursor)
        return std::nullopt;
    const auto inside = geometry.insideImage(frame.cursorX, frame.cursorY);
    return inside ? std::optional(geometry.toCanvas(*inside)) : std::nullopt;
}

/// The rows that the arrow covers, its rim and smoothed edge included.
RowSet pointerRows(const FrameGeometry& geometry, const QPointF& tip)
{
    constexpr double height = 27.0;
    constexpr double rim = 3.0;
    const double scale = std::max(geometry.scaleY(), 1.0);
    return geometry.canvasRows(tip.y() - rim * scale, tip.y() + (height + rim) * scale);
}

}

/// A window that is larger than the canvas waits as the canvas. For want of memory it stays as it is.
void GstRecorder::letterbox(CapturedFrame& frame)
{
    const QSize canvasSize(canvasWidth, canvasHeight);
    if (!Letterboxing::saves(frame.image.size(), canvasSize))
        return;
    const SharedImages::Image taken
        = letterboxing.take({frame.image, frame.imageVersion, frame.changedRows}, canvasSize);
    if (taken.image.isNull())
        return;
    frame.letterboxedFrom = frame.image.size();
    frame.image = taken.image;
    frame.changedRows = taken.changedRows;
    frame.ownBytes = taken.ownBytes;
    frame.opaque = true;
}

/// The same image again when nothing has changed that can be seen, and the window's own where it is the whole canvas.
/// Otherwise only the rows that differ are painted.
QImage GstRecorder::composeFrame(const CapturedFrame& frame, long long timestampMs)
{
    const std::vector<LiveClick> live = liveClicks(timestampMs);
    const QSize canvasSize(canvasWidth, canvasHeight);
    const FrameGeometry geometry(frame.windowImageSize(), frame.windowBounds, canvasSize);
    const CompositionSource source{frame.imageVersion, frame.windowImageSize(), frame.opaque,
        frame.letterboxedFrom.has_value(), frame.windowBounds, frame.cursorX, frame.cursorY, frame.hasCursor};
    RowSet overlay = markerRows(geometry, live, timestampMs);
    if (const auto tip = pointerTip(frame, geometry))
        overlay.add(pointerRows(geometry, *tip));

    const RowSet all(0, canvasHeight);
    const bool partly = composedFrom && source.follows(*composedFrom) && composedImage.size() == canvasSize;
    RowSet rows = partly ? rowsToPaint(source, geometry, frame.changedRows, overlay, !live.empty()) : all;
    if (rows.isEmpty()) {
        composedFrom = source;
        return composedImage;
    }
    composedFrom.reset(); // until it is there
    const bool isImage = overlay.isEmpty() && isCopied(frame, geometry) && frame.image.size() == canvasSize;
    QImage canvas = isImage ? asCanvas(frame.image) : takeCanvas(partly);
    if (canvas.isNull()) // a canvas that no memory holds
        return canvas;
    if (!isImage)
        paintRows(canvas, rows, frame, live, timestampMs);
    // None of this needs memory: all of it is known of the image, or nothing.
    composedImage = canvas;
    composedFrom = source;
    composedOverlay = std::move(overlay);
    composedMarkers = !live.empty();
    composedChanges = std::move(rows);
    ++composedVersion;
    return canvas;
}

/// The rows of the canvas in which the next image differs from the last one.
RowSet GstRecorder::rowsToPaint(const CompositionSource& source, const FrameGeometry& geometry,
    const RowSet& changedRows, const RowSet& overlay, bool hasMarkers) const
{
    RowSet rows;
    if (source.imageVersion != composedFrom->imageVersion)
        rows = source.letterboxed ? changedRows : geometry.toCanvas(changedRows);
    if (hasMarkers || composedMarkers || !source.hasPointerOf(*composedFrom)) {
        rows.add(composedOverlay);
        rows.add(overlay);
    }
    return rows;
}

/// Memory for the next image: that of the last one, unless somebody still looks at it, or it is the window's.
/// keepsPixels: with its pixels.
QImage GstRecorder::takeCanvas(bool keepsPixels)
{
    QImage canvas = std::exchange(composedImage, QImage());
    if (keepsPixels) {
        canvas.detach();
        return canvas;
    }
    if (canvas.isDetached() && canvas.size() == QSize(canvasWidth, canvasHeight))
        return canvas;
    return QImage(canvasWidth, canvasHeight, QImage::Format_ARGB32);
}

/// Where nothing is scaled or translucent, a canvas without an alpha channel gives the same pixels and is several
/// times quicker. (What is scaled would come out a shade different.) Rows are painted whole: a smoothly scaled row
/// that begins elsewhere is rounded differently.
void GstRecorder::paintRows(QImage& canvas, const RowSet& rows, const CapturedFrame& frame,
    const std::vector<LiveClick>& live, long long timestampMs)
{
    const FrameGeometry geometry(frame.windowImageSize(), frame.windowBounds, canvas.size());
    const FrameGeometry placement(frame.image.size(), QRect(), canvas.size()); // of the image that is there
    const bool copied = isCopied(frame, geometry);
    const bool opaqueOnly = copied && placement.target() == QRectF(canvas.rect());
    const QImage image = copied ? withoutAlphaChannel(frame.image) : frame.image;
    const auto tip = pointerTip(frame, geometry);
    // An image keeps what painted on it, with its format: of one that had another format before, the next is a shade
    // different.
    QImage withoutAlpha;
    if (copied)
        withoutAlpha
            = QImage(canvas.bits(), canvas.width(), canvas.height(), canvas.bytesPerLine(), QImage::Format_RGB32);
    QPainter painter(copied ? &withoutAlpha : &canvas);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
    for (const RowSet::Range& range : rows.ranges()) {
        drawWindow(painter, placement, image, range, opaqueOnly);
        if (tip)
            drawPointer(painter, geometry, *tip);
        drawClicks(painter, geometry, live, timestampMs);
    }
}

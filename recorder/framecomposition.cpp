// A window image on the canvas: letterbox, pointer arrow, click markers on top. Worker thread.
#include "gstrecorder.h"

#include <QPainter>
#include <QPainterPath>
#include <QPen>

#include <algorithm>
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

/// Whether every pixel of the window's image becomes one of the canvas as it is.
bool isCopied(const GstRecorder::CapturedFrame& frame, const FrameGeometry& geometry)
{
    return frame.opaque && geometry.target().size() == QSizeF(frame.image.size());
}

/// The same pixels; those of an image without an alpha channel are copied where others are blended.
QImage withoutAlphaChannel(const QImage& opaque)
{
    return QImage(opaque.constBits(), opaque.width(), opaque.height(), opaque.bytesPerLine(), QImage::Format_RGB32);
}

}

/// The same image again (the same memory, the same QImage::cacheKey()) when nothing has changed that can be seen.
QImage GstRecorder::composeFrame(const CapturedFrame& frame, long long timestampMs)
{
    const std::vector<LiveClick> live = liveClicks(timestampMs);
    const CompositionSource source{
        frame.image.cacheKey(), frame.windowBounds, frame.cursorX, frame.cursorY, frame.hasCursor};
    if (live.empty() && source == composedFrom && composedImage.size() == QSize(canvasWidth, canvasHeight))
        return composedImage;

    composedFrom.reset();
    QImage canvas = takeCanvas();
    if (canvas.isNull()) // a canvas that no memory holds
        return canvas;
    paintFrame(canvas, frame, live, timestampMs);
    composedImage = canvas;
    if (live.empty())
        composedFrom = source;
    return canvas;
}

/// Memory for the next image: that of the last one, unless somebody still looks at it.
QImage GstRecorder::takeCanvas()
{
    QImage canvas = std::exchange(composedImage, QImage());
    if (canvas.isDetached() && canvas.size() == QSize(canvasWidth, canvasHeight))
        return canvas;
    return QImage(canvasWidth, canvasHeight, QImage::Format_ARGB32);
}

/// Where nothing is scaled or translucent, a canvas without an alpha channel gives the same pixels and is several
/// times quicker. (What is scaled would come out a shade different.)
void GstRecorder::paintFrame(
    QImage& canvas, const CapturedFrame& frame, const std::vector<LiveClick>& live, long long timestampMs)
{
    const FrameGeometry geometry(frame.image.size(), frame.windowBounds, canvas.size());
    const bool copied = isCopied(frame, geometry);
    if (copied)
        canvas.reinterpretAsFormat(QImage::Format_RGB32);
    canvas.fill(Qt::black);
    QPainter painter(&canvas);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
    painter.drawImage(
        geometry.target(), copied ? withoutAlphaChannel(frame.image) : frame.image, QRectF(frame.image.rect()));
    if (frame.hasCursor) {
        if (const auto inside = geometry.insideImage(frame.cursorX, frame.cursorY))
            drawPointer(painter, geometry, geometry.toCanvas(*inside));
    }
    drawClicks(painter, geometry, live, timestampMs);
    painter.end();
    canvas.reinterpretAsFormat(QImage::Format_ARGB32);
}

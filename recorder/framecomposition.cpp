// A window image on the canvas: letterbox, pointer arrow, click markers on top. Worker thread.
#include "gstrecorder.h"

#include <QPainter>
#include <QPainterPath>
#include <QPen>

#include <algorithm>

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

}

QImage GstRecorder::composeFrame(const CapturedFrame& frame, long long timestampMs)
{
    QImage canvas(canvasWidth, canvasHeight, QImage::Format_ARGB32);
    if (canvas.isNull()) // a canvas that no memory holds
        return canvas;
    canvas.fill(Qt::black);

    QPainter painter(&canvas);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
    const FrameGeometry geometry(frame.image.size(), frame.windowBounds, canvas.size());
    painter.drawImage(geometry.target(), frame.image, QRectF(frame.image.rect()));
    if (frame.hasCursor) {
        if (const auto inside = geometry.insideImage(frame.cursorX, frame.cursorY))
            drawPointer(painter, geometry, geometry.toCanvas(*inside));
    }
    drawClicks(painter, geometry, timestampMs);
    painter.end();
    return canvas;
}

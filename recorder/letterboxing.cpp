// Painting the window alone, in the rows that changed.
#include "letterboxing.h"

#include <QPainter>

void drawWindow(
    QPainter& painter, const FrameGeometry& geometry, const QImage& image, const RowSet::Range& rows, bool opaqueOnly)
{
    const QRect area(0, rows.top, painter.device()->width(), rows.count());
    painter.setClipRect(area);
    if (!opaqueOnly)
        painter.fillRect(area, Qt::black);
    painter.drawImage(geometry.target(), image, QRectF(image.rect()));
}

bool Letterboxing::saves(const QSize& imageSize, const QSize& canvasSize)
{
    return qint64(imageSize.width()) * imageSize.height() > qint64(canvasSize.width()) * canvasSize.height();
}

SharedImages::Image Letterboxing::take(const Source& source, const QSize& canvasSize)
{
    if (canvas_.size() != canvasSize) {
        canvas_ = QImage(canvasSize, QImage::Format_ARGB32);
        paintedVersion_ = 0;
    }
    if (canvas_.isNull())
        return {};
    const FrameGeometry geometry(source.image.size(), QRect(), canvasSize);
    const RowSet rows = rowsToPaint(source, geometry);
    paintedVersion_ = 0; // until it is painted, and taken
    images_.update(canvasSize, canvas_.format());
    {
        QPainter painter(&canvas_);
        painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
        for (const RowSet::Range& range : rows.ranges())
            drawWindow(painter, geometry, source.image, range, false);
    }
    for (const RowSet::Range& range : rows.ranges())
        images_.put(range.top, range.count(), reinterpret_cast<const quint32*>(canvas_.constScanLine(range.top)));
    SharedImages::Image taken = images_.finish();
    if (taken.image.isNull())
        return taken;
    paintedSize_ = source.image.size();
    paintedVersion_ = source.version;
    return taken;
}

/// The rows of the canvas that differ from those of the last image.
RowSet Letterboxing::rowsToPaint(const Source& source, const FrameGeometry& geometry) const
{
    const bool isKnown = paintedVersion_ > 0 && paintedSize_ == source.image.size();
    if (isKnown && source.version == paintedVersion_)
        return {};
    if (isKnown && source.version == paintedVersion_ + 1)
        return geometry.toCanvas(source.changedRows);
    return RowSet(0, canvas_.height());
}

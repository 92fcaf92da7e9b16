// Painting the window alone, in the rows that changed.
#include "letterboxing.h"

#include <QPainter>
#include <QScopeGuard>

#include <utility>

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
    const bool isKnown = paintedVersion_ > 0 && paintedSize_ == source.image.size();
    if (isKnown && source.version == paintedVersion_)
        return taken_;
    const FrameGeometry geometry(source.image.size(), QRect(), canvasSize);
    const bool follows = isKnown && source.version == paintedVersion_ + 1;
    const RowSet rows = follows ? geometry.toCanvas(source.changedRows) : RowSet(0, canvas_.height());
    paintedVersion_ = 0; // until it is painted, and taken
    auto failure = qScopeGuard([this] { images_.forget(); }); // an exception: what it holds, nobody was given
    SharedImages::Image taken = paint(source.image, geometry, rows);
    failure.dismiss();
    if (taken.image.isNull())
        return taken;
    taken_ = std::move(taken);
    paintedSize_ = source.image.size();
    paintedVersion_ = source.version;
    return taken_;
}

SharedImages::Image Letterboxing::paint(const QImage& image, const FrameGeometry& geometry, const RowSet& rows)
{
    images_.update(canvas_.size(), canvas_.format());
    {
        QPainter painter(&canvas_);
        painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
        for (const RowSet::Range& range : rows.ranges())
            drawWindow(painter, geometry, image, range, false);
    }
    for (const RowSet::Range& range : rows.ranges())
        images_.put(range.top, range.count(), reinterpret_cast<const quint32*>(canvas_.constScanLine(range.top)));
    return images_.finish();
}

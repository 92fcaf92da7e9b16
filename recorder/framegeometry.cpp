// Canvas sizes, letterboxing and the mapping of screen points: arithmetic only.
#include "framegeometry.h"

#include "windowbounds.h"

#include <algorithm>
#include <cmath>

int normalizedCanvasSize(double requested)
{
    constexpr int smallest = 16;
    constexpr int largest = 2147483646; // the largest even int
    const int rounded = std::clamp(windowbounds::roundHalfAwayFromZero(requested), smallest, largest);
    return rounded % 2 == 0 ? rounded : rounded + 1;
}

FrameGeometry::FrameGeometry(const QSize& imageSize, const QRect& windowBounds, const QSize& canvasSize)
    : imageSize_(imageSize), bounds_(windowBounds), canvasSize_(canvasSize),
      scaledSize_(imageSize.scaled(canvasSize, Qt::KeepAspectRatio)),
      offsetX_((canvasSize.width() - scaledSize_.width()) / 2),
      offsetY_((canvasSize.height() - scaledSize_.height()) / 2),
      scaleX_(imageSize.width() > 0 ? double(scaledSize_.width()) / imageSize.width() : 0.0),
      scaleY_(imageSize.height() > 0 ? double(scaledSize_.height()) / imageSize.height() : 0.0)
{
}

std::optional<QPointF> FrameGeometry::insideImage(double screenX, double screenY) const
{
    if (!bounds_.isValid() || imageSize_.width() < 1 || imageSize_.height() < 1)
        return std::nullopt;
    const double boundsWidth = double(bounds_.right()) - bounds_.left() + 1.0;
    const double boundsHeight = double(bounds_.bottom()) - bounds_.top() + 1.0;
    // Multiplied before divided: the far edges then come out exact, and count as inside, for every size.
    const double x = imageSize_.width() * (screenX - bounds_.left()) / boundsWidth;
    const double y = imageSize_.height() * (screenY - bounds_.top()) / boundsHeight;
    const bool inside = x >= 0.0 && x <= imageSize_.width() && y >= 0.0 && y <= imageSize_.height();
    return inside ? std::optional(QPointF(x, y)) : std::nullopt;
}

QPointF FrameGeometry::normalizedToImage(double x, double y) const
{
    return QPointF(x * imageSize_.width(), y * imageSize_.height());
}

QPointF FrameGeometry::toCanvas(const QPointF& imagePoint) const
{
    return QPointF(imagePoint.x() * scaleX_ + offsetX_, imagePoint.y() * scaleY_ + offsetY_);
}

RowSet FrameGeometry::toCanvas(const RowSet& imageRows) const
{
    constexpr double reach = 2.0; // rows on either side, of the image and of the canvas
    RowSet rows;
    for (const RowSet::Range& range : imageRows.ranges()) {
        if (isUnscaled()) {
            rows.add(range.top + offsetY_, range.end + offsetY_);
            continue;
        }
        const double top = (range.top - reach) * scaleY_ + offsetY_ - reach;
        rows.add(canvasRows(top, (range.end + reach) * scaleY_ + offsetY_ + reach));
    }
    return rows;
}

RowSet FrameGeometry::canvasRows(double top, double bottom) const
{
    constexpr double edge = 1.0;
    const double first = std::max(std::floor(top - edge), 0.0);
    const double end = std::min(std::ceil(bottom + edge), double(canvasSize_.height()));
    return first < end ? RowSet(int(first), int(end)) : RowSet();
}

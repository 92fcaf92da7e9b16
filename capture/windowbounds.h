// The rounding of window rectangles: pure, values in, values out.
#pragma once

#include <QRect>
#include <QRectF>

#include <cmath>
#include <limits>

namespace windowbounds {

/// To the nearest integer, halves away from zero. Values that no int holds give the nearest int; NaN gives 0.
inline int roundHalfAwayFromZero(double value)
{
    if (std::isnan(value))
        return 0;
    const double rounded = value >= 0.0 ? value + 0.5 : value - 0.5;
    if (rounded >= double(std::numeric_limits<int>::max()))
        return std::numeric_limits<int>::max();
    if (rounded <= double(std::numeric_limits<int>::min()))
        return std::numeric_limits<int>::min();
    return int(rounded);
}

/// Origin and size rounded each for itself. Invalid (QRect()) when a side comes out empty or does not fit.
inline QRect roundedRect(const QRectF& rect)
{
    const int left = roundHalfAwayFromZero(rect.x());
    const int top = roundHalfAwayFromZero(rect.y());
    const qint64 right = qint64(left) + roundHalfAwayFromZero(rect.width()) - 1;
    const qint64 bottom = qint64(top) + roundHalfAwayFromZero(rect.height()) - 1;
    constexpr qint64 most = std::numeric_limits<int>::max();
    if (right < left || bottom < top || right > most || bottom > most)
        return QRect();
    return QRect(QPoint(left, top), QPoint(int(right), int(bottom)));
}

/// The rectangle of an image in its own pixels: what stands in when a window's bounds cannot be told.
inline QRect boundsOrImageRect(const QRect& bounds, const QSize& imageSize)
{
    return bounds.isValid() ? bounds : QRect(QPoint(0, 0), imageSize);
}

}

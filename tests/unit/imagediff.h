// Where two frames differ.
#pragma once

#include <QImage>
#include <QRect>

namespace imagediff {

/// The largest difference of any one colour channel or alpha.
inline int distance(QRgb a, QRgb b)
{
    return std::max({qAbs(qRed(a) - qRed(b)), qAbs(qGreen(a) - qGreen(b)), qAbs(qBlue(a) - qBlue(b)),
        qAbs(qAlpha(a) - qAlpha(b))});
}

/// The smallest rectangle that holds every pixel in which two frames of one size differ by more than tolerance;
/// QRect() when there is none.
inline QRect changedArea(const QImage& before, const QImage& after, int tolerance = 0)
{
    QRect area;
    for (int y = 0; y < before.height(); ++y) {
        for (int x = 0; x < before.width(); ++x) {
            if (distance(before.pixel(x, y), after.pixel(x, y)) > tolerance)
                area |= QRect(x, y, 1, 1);
        }
    }
    return area;
}

}

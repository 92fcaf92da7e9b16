// What the truth window shows: layout, colours and painting. The window paints it and the report measures it.
#pragma once

#include "truthcode.h"

#include <QImage>
#include <QList>
#include <QPointF>
#include <QRect>
#include <QRectF>
#include <QRgb>
#include <QSize>
#include <QStringView>

#include <array>
#include <optional>

namespace truthscene {

/// Where everything is, in window pixels. From the top: the barcode with the moving area beside it, the row
/// of colour patches, and the plain field down to the bottom, which leaves room for a pointer and click
/// markers.
struct Layout {
    QRect animated; ///< the top band: barcode and moving area, all that a repaint changes
    QRect moving;
    QList<QRect> patches; ///< in the order of patchColours
    QRect field;
};

/// The layout wants 640 pixels of width and a third of the width as height at least: then a barcode cell has
/// 16 pixels, a patch 48 x 48 and the field 40 % of the window.
bool fits(QSize window);
Layout layout(QSize window);

/// The primaries at full saturation and their mixtures, skin, and three greys.
inline constexpr std::array<QRgb, 10> patchColours{
    0xffff0000,
    0xff00ff00,
    0xff0000ff,
    0xff00ffff,
    0xffff00ff,
    0xffffff00,
    0xffe0ac8a,
    0xff303030,
    0xff808080,
    0xffd0d0d0,
};
inline constexpr QRgb fieldColour = 0xff808080;

/// The parts that never change, in QImage::Format_RGB32.
QImage paintStill(QSize window, QRgb field = fieldColour);

/// Barcode and moving area, over the image of paintStill() or of an earlier painting. In a flash the moving area is
/// white.
void paintAnimated(QImage& window, const TruthStamp& stamp, bool flash = false);

/// A window that shows the whole of its image again and again, as programs do that paint into a buffer of their own.
enum class Presented {
    Unchanged, ///< no pixel is another one than before
    Quarter, ///< every pixel of the upper quarter is
    All, ///< every pixel is
};
/// "unchanged", "quarter" or "all".
std::optional<Presented> presented(QStringView name);

/// The paintings of what changes: then they begin anew.
inline constexpr int phaseCount = 8;
/// What changes; empty when nothing does.
QRect changingArea(QSize window, Presented presented);
/// Grey of the two squares in a phase; all levels are equally far from each other.
constexpr int phaseLevel(int phase)
{
    return 16 + phase * 32;
}
/// The side of the squares, pixels: one in the area's top left corner, one in its bottom right corner.
int phaseSquare(const QRect& area);
/// Paints the area, and nothing else: a slanting gradient that moves on by the same distance with each phase, and the
/// two squares, which tell the phase. No pixel is the same in any two phases.
void paintPhase(QImage& window, const QRect& area, int phase);

/// The rectangle of a canvas that shows the whole window as large as possible in the middle, with bars on two
/// sides: whole pixels, an odd bar being smaller on the left or top.
QRectF letterboxed(QSize window, QSize canvas);

/// From window pixels to the pixels of a frame that shows the window in the given rectangle.
QRectF toImage(const QRectF& inWindow, QSize window, const QRectF& whereTheWindowIs);
QPointF toImage(const QPointF& inWindow, QSize window, const QRectF& whereTheWindowIs);

}

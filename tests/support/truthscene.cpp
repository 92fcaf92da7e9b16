// What the truth window shows.
#include "truthscene.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

namespace truthscene {

namespace {

constexpr int patchesTop = 5; // all in cells of the barcode
constexpr int patchesBottom = 8;
constexpr int patchWidth = 4;
constexpr int patchCount = int(patchColours.size());
static_assert(patchesTop == int(truthcode::blockInCells.height()));
static_assert(patchCount * patchWidth == int(truthcode::cellsAcrossWindow));

QRect cellsToPixels(double cell, int left, int top, int right, int bottom)
{
    const QPoint topLeft(int(std::lround(left * cell)), int(std::lround(top * cell)));
    const QPoint past(int(std::lround(right * cell)), int(std::lround(bottom * cell)));
    return {topLeft, QSize(past.x() - topLeft.x(), past.y() - topLeft.y())};
}

void fill(QImage& image, const QRect& area, QRgb colour)
{
    for (int y = area.top(); y <= area.bottom(); ++y) {
        auto* const line = reinterpret_cast<QRgb*>(image.scanLine(y));
        std::fill(line + area.left(), line + area.right() + 1, colour);
    }
}

}

bool fits(QSize window)
{
    return window.width() >= 640 && window.height() * 3 >= window.width();
}

Layout layout(QSize window)
{
    const double cell = window.width() / truthcode::cellsAcrossWindow;
    const int across = int(truthcode::cellsAcrossWindow);
    const int block = int(truthcode::blockInCells.width());
    const QRect whole({}, window); // a window that is too small shows what it can
    Layout result;
    result.animated = cellsToPixels(cell, 0, 0, across, patchesTop);
    result.moving = cellsToPixels(cell, block, 0, across, patchesTop);
    for (int i = 0; i < patchCount; ++i)
        result.patches.append(cellsToPixels(cell, i * patchWidth, patchesTop, (i + 1) * patchWidth, patchesBottom));
    const int fieldTop = cellsToPixels(cell, 0, 0, 0, patchesBottom).height();
    for (QRect* place : {&result.animated, &result.moving})
        *place &= whole;
    for (QRect& place : result.patches)
        place &= whole;
    result.field = QRect(0, fieldTop, window.width(), window.height() - fieldTop);
    return result;
}

QImage paintStill(QSize window, QRgb field)
{
    QImage image(window, QImage::Format_RGB32);
    image.fill(field);
    const Layout places = layout(window);
    for (int i = 0; i < patchCount; ++i)
        fill(image, places.patches[i], patchColours[std::size_t(i)]);
    return image;
}

void paintAnimated(QImage& window, const TruthStamp& stamp, bool flash)
{
    truthcode::paint(window, stamp);
    // Slanting stripes that move with every painting: each line is the one above it, a pixel further.
    constexpr int stripe = 16;
    constexpr int period = 2 * stripe;
    constexpr quint32 step = 3;
    const QRect area = layout(window.size()).moving;
    if (flash) {
        fill(window, area, qRgb(255, 255, 255));
        return;
    }
    std::vector<QRgb> stripes(std::size_t(std::max(area.width(), 0)) + period);
    for (std::size_t i = 0; i < stripes.size(); ++i)
        stripes[i] = i % period < stripe ? qRgb(230, 200, 120) : qRgb(40, 60, 90);
    for (int y = area.top(); y <= area.bottom(); ++y) {
        auto* const line = reinterpret_cast<QRgb*>(window.scanLine(y));
        const auto shift = std::ptrdiff_t((quint32(y) + stamp.counter * step) % period);
        std::copy_n(stripes.cbegin() + shift, area.width(), line + area.left());
    }
}

std::optional<Presented> presented(QStringView name)
{
    if (name == QLatin1String("unchanged"))
        return Presented::Unchanged;
    if (name == QLatin1String("quarter"))
        return Presented::Quarter;
    return name == QLatin1String("all") ? std::optional(Presented::All) : std::nullopt;
}

QRect changingArea(QSize window, Presented presented)
{
    switch (presented) {
    case Presented::Unchanged:
        break;
    case Presented::Quarter:
        return {0, 0, window.width(), window.height() / 4};
    case Presented::All:
        return {{}, window};
    }
    return {};
}

int phaseSquare(const QRect& area)
{
    return area.height() / 4;
}

void paintPhase(QImage& window, const QRect& area, int phase)
{
    // The red alone tells the phases apart. All colours repeat themselves after as many pixels as they have values.
    constexpr int period = 256;
    constexpr int step = period / phaseCount;
    std::vector<QRgb> gradient(std::size_t(std::max(area.width(), 0)) + period);
    for (std::size_t i = 0; i < gradient.size(); ++i) {
        const int place = int(i % period);
        gradient[i] = qRgb(place, std::abs(2 * place - (period - 1)), 128);
    }
    for (int y = area.top(); y <= area.bottom(); ++y) {
        auto* const line = reinterpret_cast<QRgb*>(window.scanLine(y));
        std::copy_n(gradient.cbegin() + (y + phase * step) % period, area.width(), line + area.left());
    }
    const int side = phaseSquare(area);
    const int level = phaseLevel(phase);
    for (const QPoint& corner : {area.topLeft(), area.bottomRight() - QPoint(side - 1, side - 1)})
        fill(window, QRect(corner, QSize(side, side)), qRgb(level, level, level));
}

QRectF letterboxed(QSize window, QSize canvas)
{
    const QSize shown = window.scaled(canvas, Qt::KeepAspectRatio);
    return QRectF(QPointF((canvas.width() - shown.width()) / 2, (canvas.height() - shown.height()) / 2), shown);
}

QPointF toImage(const QPointF& inWindow, QSize window, const QRectF& whereTheWindowIs)
{
    return whereTheWindowIs.topLeft()
        + QPointF(inWindow.x() * whereTheWindowIs.width() / window.width(),
            inWindow.y() * whereTheWindowIs.height() / window.height());
}

QRectF toImage(const QRectF& inWindow, QSize window, const QRectF& whereTheWindowIs)
{
    return {toImage(inWindow.topLeft(), window, whereTheWindowIs),
        toImage(inWindow.bottomRight(), window, whereTheWindowIs)};
}

}

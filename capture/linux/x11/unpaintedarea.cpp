// Telling what a window's program has painted from what the server reports besides.
#include "unpaintedarea.h"

namespace x11 {

namespace {

/// A program that paints more pieces than this has painted.
constexpr int mostRectangles = 1000;

}

void UnpaintedArea::begin(TimePoint now)
{
    missing_ = QRect(QPoint(0, 0), size());
    added_ = QRegion();
    copied_ = false;
    beginPatience(now);
}

void UnpaintedArea::configure(const QRect& geometry, bool keepsPixels, TimePoint now)
{
    const bool resized = geometry.size() != size();
    const bool moved = geometry.topLeft() != geometry_.topLeft();
    const QRect whole(QPoint(0, 0), geometry.size());
    if (resized) {
        added_ = QRegion(whole) - QRect(QPoint(0, 0), size());
        missing_ &= whole;
        copied_ = keepsPixels && !missing_.isEmpty();
        missing_ = keepsPixels ? missing_ + added_ : QRegion(whole);
    } else if (moved) {
        copied_ = !missing_.isEmpty();
    }
    geometry_ = geometry;
    beginPatience(now);
}

void UnpaintedArea::addDamage(const QRect& area, bool more)
{
    if (missing_.isEmpty())
        return;
    if (!added_.isEmpty()) {
        const bool ofAdded = (QRegion(area) - added_).isEmpty();
        if (!ofAdded || !more)
            added_ = QRegion();
        if (ofAdded)
            return;
    }
    if (copied_) {
        copied_ = more;
        return;
    }
    missing_ -= area;
    if (missing_.rectCount() > mostRectangles)
        missing_ = QRegion();
}

QRegion UnpaintedArea::at(TimePoint now)
{
    if (since_ && now - *since_ >= patience)
        missing_ = QRegion();
    if (missing_.isEmpty())
        since_.reset();
    return missing_;
}

/// Not begun anew while it runs: a window that is resized again and again is to be seen, too.
void UnpaintedArea::beginPatience(TimePoint now)
{
    if (!since_ && !missing_.isEmpty())
        since_ = now;
}

}

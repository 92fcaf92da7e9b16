// What a recording shows over the truth window's field: the pointer and the click markers. How they look by
// contract, written down a second time on purpose, and where they are in a frame.
#pragma once

#include <QImage>
#include <QList>
#include <QPointF>
#include <QRect>

#include <optional>

class QPainter;

namespace truthoverlay {

/// The pointer: a white arrow with a black rim, its tip at the given point, 19 x 27 pixels at a scale of 1.
void drawPointer(QPainter& painter, const QPointF& tip, double scale);

/// The marker of a click that is ageMs old (0 to 2000): a red disc that shrinks from 16 to 2 pixels of
/// radius.
void drawMarker(QPainter& painter, const QPointF& centre, double ageMs);

/// The pointer's tip in pixels of the frame (the first pixel spans 0 to 1), found on a mid-grey field by
/// the centroid of what is brighter or darker than the field, less where the centroid of the arrow itself
/// lies from its tip. Blur and compression hardly move a centroid. Nothing when the field shows no such
/// arrow, or only a part of one: at the field's edge, or with a marker over it.
std::optional<QPointF> findPointer(const QImage& frame, const QRect& field, double arrowScale);

struct Spot {
    QPointF centre; ///< pixels of the frame, weighted by the strength of the red
    double radius
        = 0.0; ///< pixels; of the even disc with the same spread. Halved chroma makes 2 pixels look like 2.8
};

/// All red spots of the field that are at least as strong as the faintest marker. Touching markers are one
/// spot.
QList<Spot> findMarkers(const QImage& frame, const QRect& field);

}

// The barcode of the truth window: which painting is this, and when was it made.
#pragma once

#include <QImage>
#include <QRectF>
#include <QSizeF>

#include <optional>

/// What a painting says about itself.
struct TruthStamp {
    quint32 counter = 0; ///< paintings since the window appeared, the low 24 bits
    quint32 clockMs = 0; ///< wall clock at the painting, the low 32 bits of the milliseconds since the epoch

    bool operator==(const TruthStamp&) const = default;
};

/// The barcode sits in the window's top left corner: a quiet white rim of one cell around three rows of 24
/// cells, black for 1 and white for 0: counter, clock and a checksum of both, most significant bits first. A
/// cell is 1/40 of the window's width, so from 640 pixels on it has 16 at least, and survives being shrunk to
/// half of that.
namespace truthcode {

inline constexpr int columns = 24;
inline constexpr int rows = 3;
inline constexpr double cellsAcrossWindow = 40.0;

/// The barcode with its rim, in cells.
inline constexpr QSizeF blockInCells(columns + 2, rows + 2);

/// Paints into the image of a whole window.
void paint(QImage& window, const TruthStamp& stamp);

/// Reads it from a frame that shows the window, scaled, in the given rectangle (pixels of the frame).
/// Nothing when a cell is neither black nor white or the checksum does not match: the barcode is not there,
/// covered or torn.
std::optional<TruthStamp> decode(const QImage& canvas, const QRectF& whereTheWindowIs);

}

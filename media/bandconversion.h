// BandConversion: the pixels of some rows of an image into an encoder's frame, as a conversion of the whole image would
// bring them there.
#pragma once

#include "avhandles.h"
#include "rowset.h"

#include <QImage>

#include <map>

class BandConversion {
public:
    /// Converts the bands that hold any of the rows. image: as large as the frame, bytes in BGRA order; frame: in
    /// planes of 8 bits a sample, the colours at half the height or all of it, and an even height. False, with nothing
    /// done, where that would be no cheaper than a conversion of the whole image, and where there is no memory.
    bool convert(const QImage& image, const RowSet& rows, AVFrame& frame);

    /// Gives back all memory; it is taken again when it is needed.
    void release();

private:
    /// A conversion of so many rows, and where it puts them.
    struct Band {
        SwsContextHandle context;
        AvFrameHandle frame;
    };

    const Band* bandOf(int rowCount, const AVFrame& like);

    std::map<int, Band> bands_; // by their rows
};

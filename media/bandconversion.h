// BandConversion: the pixels of some rows of an image into an encoder's frame, as a conversion of the whole image
// would bring them there.
#pragma once

#include "avhandles.h"
#include "rowset.h"
#include "taskthread.h"

#include <QImage>

#include <memory>

class BandConversion {
public:
    BandConversion();
    ~BandConversion();
    BandConversion(const BandConversion&) = delete;
    BandConversion& operator=(const BandConversion&) = delete;

    /// What matters.
    enum class Haste {
        None, ///< the less processor time, the better
        Hurry, ///< the sooner, the better: on two threads
    };

    /// Converts the bands that hold any of the rows. image: as large as the frame, bytes in BGRA order; frame: in
    /// planes of 8 bits a sample, the colours at half the height or all of it, and an even height. False where the
    /// whole image is to be converted in its stead: it would be no worse, there is no memory, or FFmpeg has refused
    /// a band.
    bool convert(const QImage& image, const RowSet& rows, AVFrame& frame, Haste haste);

    /// Gives back all memory; it is taken again when it is needed.
    void release();

private:
    class Converter;

    std::unique_ptr<Converter> own_; // of the thread that calls
    std::unique_ptr<Converter> other_; // of the other one
    TaskThread thread_;
};

// The copy of a recording that browsers play: WebM with VP9 (or VP8) and Opus.
#pragma once

#include "shareencoders.h"

#include <QString>

#include <functional>

struct ShareCopy {
    enum class End { Made, BadInput, NotWritten, Cancelled };

    End end = End::BadInput;
    QString error; ///< why there is no copy, in one sentence; empty when it was made
    QString remark; ///< the copy is there, but lacks what could not be read: a sentence; mostly empty
};

/// Called again and again with how much is done, from 0 to 1. False ends the work.
using GoOn = std::function<bool(double done)>;

/// Writes into a file that is there already. Frames and audio keep their times. Blocks.
ShareCopy makeShareCopy(const QString& recording, const QString& copy, const EncoderLookup& lookup, const GoOn& goOn);

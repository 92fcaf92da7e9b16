// The file that FFmpeg writes to. It is opened here and not by FFmpeg, which takes some names for addresses, follows
// links and lets everybody read.
#pragma once

#include "avhandles.h"

#include <QString>

namespace outputfile {

/// Opens the file, empty and private, and gives FFmpeg the way to it. Returns 0 or FFmpeg's status; when the file
/// that is there is not used, the log says why. Worker thread.
int open(AVFormatContext& container, const QString& path);

/// Where the last fragment of an MP4 begins that the file was given, in bytes; 0 when it had none. Before it all is
/// whole.
int64_t lastFragmentStart(const AVFormatContext& container);

/// Goes back to a place, in bytes from the beginning, and cuts off what is behind it. An error of earlier writes is
/// forgotten.
void returnTo(AVFormatContext& container, int64_t place);

/// Writes what is left, and closes the file; when the system did not take all of it, the log says so, unless the
/// reader is told already. Harmless without a file.
void close(AVFormatContext& container, bool isTold = false);

}

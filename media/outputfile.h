// The file that FFmpeg writes to. It is opened here and not by FFmpeg, which takes some names for addresses, follows
// links and lets everybody read.
#pragma once

#include "avhandles.h"

#include <QString>

namespace outputfile {

/// Opens the file, empty and private, and gives FFmpeg the way to it. Returns 0 or FFmpeg's status; when the file
/// that is there is not used, the log says why. Worker thread.
int open(AVFormatContext& container, const QString& path);

/// Writes what is left, and closes the file. Harmless without one.
void close(AVFormatContext& container);

}

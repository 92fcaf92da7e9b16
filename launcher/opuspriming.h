// What FFmpeg's WebM muxer does with the samples that an Opus encoder puts before the first one.
#pragma once

#include "avhandles.h"

#include <QString>

/// A file says how long the priming is, and readers take it off every time. So a muxer has to add it to every time;
/// FFmpeg's does so or not, depending on its version. Found out by writing and reading a small file, which is left
/// empty or as it is. encoder: open. Blocks.
bool muxerAddsPriming(const AVCodecContext& encoder, const QString& scratchFile);

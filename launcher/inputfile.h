// A finished video file, opened with FFmpeg to be read.
#pragma once

#include "avhandles.h"

#include <QString>

struct InputDeleter {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
using InputHandle = std::unique_ptr<AVFormatContext, InputDeleter>;

/// Opens an MP4 or Matroska file, and nothing that such a file names. Null, with the reason in FFmpeg's words, when
/// it is none.
InputHandle openInput(const QString& path, QString* error);

/// A decoder for the stream, open; null when there is none, or its parameters are nonsense.
AvCodecContextHandle openDecoder(const AVStream& stream);

/// FFmpeg's words for a status.
QString avStatusText(int status);

// Which video encoder, which pixel format, which bit rate: pure decisions about what FFmpeg offers.
#pragma once

#include "avhandles.h"

#include <QSize>
#include <QString>

#include <optional>
#include <span>

namespace encoderchoice {

inline constexpr AVRational codecTimeBase{1, 1000}; ///< time stamps are milliseconds of the recording clock
inline constexpr AVRational frameRate{24, 1};
inline constexpr int gopSize = 24; ///< one second: a fragment a second, and a file that seeks well

/// H.264 and HEVC are never used, by codec id or by name, whatever this FFmpeg offers.
bool isForbidden(AVCodecID id, const QString& requestedName);

/// The pixel format that images are handed over in. formats is the encoder's own list, or nothing when it has
/// none. Nothing when the encoder takes no software format.
std::optional<AVPixelFormat> inputPixelFormat(const std::optional<std::span<const AVPixelFormat>>& formats);

/// Bits per second for a canvas in pixels: 6 Mbit/s below a megapixel, then 6 bits a pixel, 18 Mbit/s at
/// most.
qint64 bitRate(const QSize& canvas);

/// Encoder threads: all processors but one, at least 1.
int threadCount(int idealThreadCount);

}

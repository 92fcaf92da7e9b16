// FrameConverter: decoded frames as QImage, in the colours that their tags say.
#pragma once

#include <QImage>

extern "C" {
#include <libavutil/frame.h>
}

#include <memory>

/// Converts any software pixel format to QImage::Format_RGB32. Made for one recording: it keeps its scaler as
/// long as size, format and tags stay what they were.
class FrameConverter {
public:
    FrameConverter();
    ~FrameConverter();
    FrameConverter(const FrameConverter&) = delete;
    FrameConverter& operator=(const FrameConverter&) = delete;

    /// Matrix and range are the frame's, or the given ones of the stream where the frame states none. The
    /// image's buffer is reused when it fits and is not shared. The status is negative on a failure.
    int convert(const AVFrame& frame, AVColorSpace streamMatrix, AVColorRange streamRange, QImage& image);

    /// Whether the last frame's matrix and range were stated, rather than guessed (BT.601, limited range).
    bool coloursTagged() const { return coloursTagged_; }

private:
    struct Scaler;

    std::unique_ptr<Scaler> scaler_;
    bool coloursTagged_ = false;
};

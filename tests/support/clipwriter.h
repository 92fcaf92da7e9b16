// ClipWriter: short recordings from generated pictures, for the tests of what reads recordings. It is written
// apart from the recorder's own output on purpose.
#pragma once

#include <QImage>
#include <QSize>
#include <QString>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include <memory>

struct ClipOptions {
    int bitRate = 6'000'000; ///< bit/s
    /// The matrix that the file claims, AVCOL_SPC_UNSPECIFIED for no colour tags at all. What is in the
    /// pictures is always BT.601 with limited range.
    AVColorSpace taggedMatrix = AVCOL_SPC_SMPTE170M;
};

/// A fragmented MP4 with MPEG-4 Part 2 video in YUV 4:2:0. Every failure makes the methods false and has a
/// text.
class ClipWriter {
public:
    ClipWriter(const QString& path, QSize size, const ClipOptions& options = ClipOptions());
    ~ClipWriter();
    ClipWriter(const ClipWriter&) = delete;
    ClipWriter& operator=(const ClipWriter&) = delete;

    QString errorString() const;
    /// A picture of the clip's size, shown from ptsMs on; times rise.
    bool add(const QImage& picture, qint64 ptsMs);
    /// Ends the file. Without it the file is cut off.
    bool finish();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

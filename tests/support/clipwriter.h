// ClipWriter: short recordings from generated frames and audio, for the tests of what reads recordings. It is
// written apart from the recorder's own output on purpose.
#pragma once

#include <QImage>
#include <QSize>
#include <QString>

extern "C" {
#include <libavutil/pixfmt.h>
}

#include <memory>
#include <span>

struct ClipOptions {
    int bitRate = 6'000'000; ///< bit/s
    /// The matrix that the file claims, AVCOL_SPC_UNSPECIFIED for no colour tags at all. What is in the
    /// frames is always BT.601 with limited range.
    AVColorSpace taggedMatrix = AVCOL_SPC_SMPTE170M;
    bool withAudio = false; ///< AAC, 48000 Hz, stereo, 128 kbit/s
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
    /// A frame of the clip's size, shown from ptsMs on; times rise.
    bool add(const QImage& frame, qint64 ptsMs);
    /// The whole audio, from time 0 on: one channel at 48000 Hz with full scale 1, heard from both sides. Once.
    bool addAudio(std::span<const float> samples);
    /// Ends the file. Without it the file is cut off.
    bool finish();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

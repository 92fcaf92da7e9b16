// MediaFile: a finished (or cut-off) recording, read back with FFmpeg: streams, packets, frames and audio.
#pragma once

#include <QImage>
#include <QList>
#include <QSize>
#include <QString>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/avutil.h>
#include <libavutil/pixfmt.h>
#include <libavutil/rational.h>
}

#include <functional>
#include <optional>
#include <vector>

struct AVFrame;
struct AVStream;

/// One stream as the demuxer describes it. The fields of the other kind hold their defaults.
struct MediaStream {
    int index = 0;
    AVMediaType type = AVMEDIA_TYPE_UNKNOWN;
    AVCodecID codecId = AV_CODEC_ID_NONE;
    quint32 codecTag = 0; ///< four characters, the first in the lowest byte
    AVRational timeBase{0, 1};
    qint64 bitRate = 0; ///< bit/s, 0 when unknown

    QSize size; ///< pixels
    AVPixelFormat pixelFormat = AV_PIX_FMT_NONE;
    AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
    AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
    AVColorSpace matrix = AVCOL_SPC_UNSPECIFIED;
    AVColorRange range = AVCOL_RANGE_UNSPECIFIED;

    int sampleRate = 0; ///< Hz
    int channels = 0;
};

/// One packet. Times come in units of its stream's time base, and in milliseconds; a missing time is
/// AV_NOPTS_VALUE and not-a-number.
struct MediaPacket {
    int stream = 0;
    qint64 pts = AV_NOPTS_VALUE;
    qint64 dts = AV_NOPTS_VALUE;
    qint64 duration = 0; ///< as a fragmented MP4 states it, else the demuxer's; 0 when unknown
    double ptsMs = 0.0;
    double dtsMs = 0.0;
    double durationMs = 0.0;
    int size = 0; ///< bytes
    bool key = false;
    bool corrupt = false; ///< the demuxer found it damaged, as the last one of a cut-off file is
};

/// One decoded frame of the video stream.
struct MediaFrame {
    QImage image; ///< QImage::Format_RGB32
    double ptsMs = 0.0; ///< not-a-number when the file gives none
    bool key = false;
    /// Frame or stream state both matrix and range, or the pixels are RGB. When false, the frame was
    /// converted as BT.601 with limited range, which is a guess: other players guess otherwise.
    bool coloursTagged = false;
};

/// The decoded audio of the first audio stream.
struct MediaAudio {
    int sampleRate = 0; ///< Hz
    double startMs = 0.0; ///< presentation time of the first sample, on the same time line as the frames' times
    QList<std::vector<float>> channels; ///< of equal length; full scale is 1
    /// How far a block's own presentation time ever was from where the samples before it end: a player would
    /// leave a hole there, or drop audio.
    double worstJoinMs = 0.0;

    double durationMs() const
    {
        return channels.isEmpty() ? 0.0 : double(channels.first().size()) * 1000.0 / sampleRate;
    }
};

/// Every reading method goes through the file from its start, on its own handles. A failure makes isValid()
/// false and sets errorString(); what was read before it is delivered all the same, so that a cut-off file can
/// be measured. One thread at a time.
class MediaFile {
public:
    explicit MediaFile(const QString& path);

    bool isValid() const { return error_.isEmpty(); }
    QString errorString() const { return error_; }

    QString containerName() const { return containerName_; } ///< the demuxer's short names
    double durationMs() const { return durationMs_; } ///< as the container states it; 0 when it does not
    const QList<MediaStream>& streams() const { return streams_; }
    const MediaStream* videoStream() const { return firstStream(AVMEDIA_TYPE_VIDEO); } ///< null when there is none
    const MediaStream* audioStream() const { return firstStream(AVMEDIA_TYPE_AUDIO); }

    /// All packets in the order of the file.
    QList<MediaPacket> packets();

    /// Where a player gets to that seeks to a time, in milliseconds: the presentation time of the first packet of the
    /// video from there on. Not-a-number on a failure.
    double seek(double ms);

    /// Decodes the first video stream and hands out one frame after the other until the visitor returns
    /// false. The frame is the visitor's to keep (the buffer is reused only when it was not kept). False on
    /// a failure.
    bool forEachFrame(const std::function<bool(const MediaFrame&)>& visit);

    /// All frames at once: for short recordings.
    QList<MediaFrame> frames();

    /// The whole audio, at its own rate. Nothing on a failure, and when there is no audio stream or no sample in
    /// it (the error text is empty then).
    std::optional<MediaAudio> audio();

private:
    /// Decodes one stream and hands out its frames until the visitor returns something negative, which becomes the
    /// error unless it is AVERROR_EXIT.
    bool decodeStream(int index, const std::function<int(const AVFrame&, const AVStream&)>& visit);
    const MediaStream* firstStream(AVMediaType type) const;
    bool fail(const QString& what, int status);

    QString path_;
    QString error_;
    QString containerName_;
    double durationMs_ = 0.0;
    QList<MediaStream> streams_;
};

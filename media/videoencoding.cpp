// Composed images to packets in the file. Worker thread. A failure is logged and costs one frame, not the
// recording.
#include "gstrecorder.h"

#include "averror.h"
#include "pacing.h"
#include "packetwriting.h"

#include <QDebug>

#include <cstring>
#include <optional>
#include <utility>

namespace {

/// MPEG-4 cannot state a longer distance between two frames, unless the second one is a key frame.
constexpr qint64 longestGapMs = 3'600'000;

/// Makes the frame's pixels its own, where the encoder still reads them. keepsPixels: with their content. FFmpeg's
/// status; the frame stays as it is when that is an error.
int makeWritable(AVFrame& frame, bool keepsPixels)
{
    if (keepsPixels || av_frame_is_writable(&frame))
        return av_frame_make_writable(&frame);
    const AvFrameHandle fresh(av_frame_alloc());
    if (!fresh)
        return AVERROR(ENOMEM);
    fresh->format = frame.format;
    fresh->width = frame.width;
    fresh->height = frame.height;
    int status = av_frame_get_buffer(fresh.get(), videoBufferAlignment);
    if (status >= 0)
        status = av_frame_copy_props(fresh.get(), &frame);
    if (status < 0)
        return status;
    av_frame_unref(&frame);
    av_frame_move_ref(&frame, fresh.get());
    return 0;
}

}

bool GstRecorder::encodeImage(const QImage& image, long long ptsMs)
{
    if (!prepareFrame(image, ptsMs))
        return false;
    sendPrepared();
    return finishEncoding();
}

/// Makes the encoder's frame of it, while the encoder may still work on the one before. One that was prepared earlier
/// is sent first. False when there is none now.
bool GstRecorder::prepareFrame(const QImage& image, long long ptsMs)
{
    sendPrepared();
    if (!videoCodecContext || !formatContext || !videoFrame)
        return false;
    const QImage bgra = image.convertToFormat(QImage::Format_ARGB32); // bytes in BGRA order
    if (bgra.width() != canvasWidth || bgra.height() != canvasHeight) {
        qWarning() << "Skipping frame with unexpected size" << bgra.size();
        return false;
    }
    if (!fillVideoFrame(bgra))
        return false;
    preparedMs = ptsMs;
    return true;
}

/// Gives the prepared frame, if there is one, to the encoder; waits for the one before. finishEncoding() tells what
/// became of it.
void GstRecorder::sendPrepared()
{
    if (!preparedMs)
        return;
    collectEncoded();
    const qint64 ptsMs = *std::exchange(preparedMs, std::nullopt);
    ptsBeforeMs = videoFrame->pts;
    const bool longGap = ptsBeforeMs != AV_NOPTS_VALUE && ptsMs - ptsBeforeMs > longestGapMs;
    videoFrame->pict_type = longGap || keyFrameIsDue ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    keyFrameIsDue = false;
    videoFrame->pts = ptsMs;
    frameSending.start(*videoCodecContext, *videoFrame);
}

/// The same, but without a wait. False when a frame is still prepared.
bool GstRecorder::sendPreparedIfFree()
{
    if (preparedMs && !frameSending.isDone())
        return false;
    sendPrepared();
    return true;
}

/// Waits for the encoder and writes what it has ready. True when the frame is in the file. When the encoder
/// refused it, half done maybe, the next one must not build upon it.
bool GstRecorder::finishEncoding()
{
    const int status = frameSending.finish();
    if (status < 0) {
        qCritical() << "Unable to send FFmpeg video frame:" << avErrorString(status);
        videoFrame->pts = ptsBeforeMs; // the gap is still there
        keyFrameIsDue = true;
        return false;
    }
    return writeVideoPackets("Unable to receive FFmpeg packet:", "Unable to write FFmpeg packet:");
}

/// Finishes the queued frame that is under way, if there is one.
void GstRecorder::collectEncoded()
{
    if (frameSending.isUnderWay() && finishEncoding())
        ++encodedFrameCount;
}

/// Whether it is the image that composeFrame() made last, and not a copy that somebody painted on.
bool GstRecorder::isComposed(const QImage& image) const
{
    return !composedImage.isNull() && image.constBits() == composedImage.constBits();
}

/// Only what the frame does not hold yet is converted; the encoder may still read it.
bool GstRecorder::fillVideoFrame(const QImage& image)
{
    const qint64 version = isComposed(image) ? composedVersion : 0;
    if (version != 0 && videoFrameVersion == version)
        return true;
    const bool partly = videoFrameVersion != 0 && videoFrameVersion == version - 1;
    videoFrameVersion = 0;
    const int status = makeWritable(*videoFrame, partly);
    if (status < 0) {
        qCritical() << "FFmpeg frame is not writable:" << avErrorString(status);
        return false;
    }
    if (!transferPixels(image, partly ? composedChanges : RowSet(0, canvasHeight)))
        return false;
    videoFrameVersion = version;
    return true;
}

bool GstRecorder::transferPixels(const QImage& image, const RowSet& rows)
{
    if (videoFrame->format == AV_PIX_FMT_BGRA) {
        for (const RowSet::Range& range : rows.ranges()) {
            for (int y = range.top; y < range.end; ++y) {
                std::memcpy(videoFrame->data[0] + std::ptrdiff_t(y) * videoFrame->linesize[0], image.constScanLine(y),
                    std::size_t(canvasWidth) * 4);
            }
        }
        return true;
    }
    if (!swsContext) {
        qCritical() << "FFmpeg pixel conversion context is unavailable.";
        return false;
    }
    const auto haste = isBehind ? BandConversion::Haste::Hurry : BandConversion::Haste::None;
    if (bandConversion.convert(image, rows, *videoFrame, haste))
        return true;
    const uint8_t* const planes[] = {image.constBits()};
    const int strides[] = {int(image.bytesPerLine())};
    const int status
        = sws_scale(swsContext, planes, strides, 0, canvasHeight, videoFrame->data, videoFrame->linesize);
    if (status < 0)
        qCritical() << "Unable to convert FFmpeg video frame:" << avErrorString(status);
    return status >= 0;
}

bool GstRecorder::drainEncoder()
{
    if (!videoCodecContext || !formatContext)
        return true;
    const int status = avcodec_send_frame(videoCodecContext, nullptr);
    if (status < 0 && status != AVERROR_EOF) {
        qCritical() << "Unable to flush FFmpeg encoder:" << avErrorString(status);
        return false;
    }
    return writeVideoPackets("Unable to receive flushed FFmpeg packet:", "Unable to write flushed FFmpeg packet:");
}

/// Writes every packet that the encoder has ready. The two texts open the log line of a failure.
bool GstRecorder::writeVideoPackets(const char* receiveError, const char* writeError)
{
    const AvPacketHandle packet(av_packet_alloc());
    if (!packet)
        return false;
    for (;;) {
        int status = avcodec_receive_packet(videoCodecContext, packet.get());
        if (status == AVERROR(EAGAIN) || status == AVERROR_EOF)
            return true;
        if (status < 0) {
            qCritical() << receiveError << avErrorString(status);
            return false;
        }
        status = writePacket(
            *packet, *videoCodecContext, *formatContext, *videoStream, pacing::frameIntervalMs, writtenBytes);
        if (status < 0) {
            qCritical() << writeError << avErrorString(status);
            return false;
        }
    }
}

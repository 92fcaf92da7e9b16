// The one teardown of the media output. Idempotent and driven by the pointers: whatever openOutput() left,
// whole or half made, is finished and released, also when a line of the log finds no memory; a second call finds
// nothing.
#include "gstrecorder.h"

#include "averror.h"
#include "outputfile.h"
#include "recorderaudiocapture.h"

#include <QDebug>

#include <utility>

namespace {

/// After writes that failed an MP4's table of fragments, or the cues of Matroska, would name lost ones, too, at
/// places where others are now. The file plays, and is sought in, without them. True when av_write_trailer() will
/// call that an error: Matroska's muxer writes no cues for which too little space was reserved, but all else.
bool leaveOutIndex(AVFormatContext& container)
{
    // Neither muxer has the other one's option.
    av_opt_set(container.priv_data, "movflags", "+skip_trailer", 0);
    return av_opt_set_int(container.priv_data, "reserve_index_space", 1, 0) >= 0;
}

}

/// False after a line in the log.
bool GstRecorder::writeTrailer()
{
    const int gathered = writeGathered(*formatContext, writtenBytes);
    const bool errorIsExpected = writtenBytes.someLost && leaveOutIndex(*formatContext);
    int status = finishContainer(*formatContext, writtenBytes);
    if (status == AVERROR(EINVAL) && errorIsExpected)
        status = 0;
    status = gathered < 0 ? gathered : status;
    if (status < 0) {
        qWarning() << "Unable to write FFmpeg output trailer:" << avErrorString(status);
        return false;
    }
    // The mp4 muxer gathers a fragment in memory, and keeps to itself when it was refused some.
    const qint64 size = formatContext->pb ? avio_tell(formatContext->pb) : writtenBytes.inPackets;
    if (writtenBytes.someLost || size >= writtenBytes.inPackets)
        return true;
    qCritical() << "FFmpeg output is smaller than its packets; bytes:" << size << "instead of at least"
                << writtenBytes.inPackets;
    return false;
}

void GstRecorder::closeOutput()
{
    // 1. No more audio, no more conversions.
    stopAudioCapture();
    if (frameSending.isUnderWay())
        frameSending.finish();
    sws_freeContext(swsContext);
    swsContext = nullptr;
    bandConversion.release();
    swr_free(&audioResampler);

    // 2. Trailer, exactly when there is a header; then the file.
    if (formatContext) {
        bool isTold = false;
        if (std::exchange(headerWritten, false)) { // first: a muxer whose trailer failed must not be asked again
            isTold = true; // also of what throws
            attempt([&] { isTold = !writeTrailer(); });
        }
        if (!(formatContext->oformat->flags & AVFMT_NOFILE))
            attempt([&] { outputfile::close(*formatContext, isTold); });
    }

    // 3. Frame, encoders, sample queue, container with its streams. The calls null what they are given by address.
    av_frame_free(&videoFrame);
    videoFrameVersion = 0;
    preparedMs.reset();
    avcodec_free_context(&videoCodecContext);
    avcodec_free_context(&audioCodecContext);
    av_audio_fifo_free(audioFifo);
    audioFifo = nullptr;
    avformat_free_context(formatContext);
    formatContext = nullptr;
    videoStream = nullptr;
    audioStream = nullptr;
    audioCapture.reset();

    // 4. Book-keeping. encodedFrameCount, durationMs, outputPath and videoEncoderName are still asked for.
    writtenBytes = {};
    ptsBeforeMs = AV_NOPTS_VALUE;
    keyFrameIsDue = false;
    audioSamplesWritten = 0;
    audioPcmLogged = false;
}

// Captured audio to packets in the file, in step with the recording clock: gaps become silence, what runs ahead is
// cut. Worker thread. A failure is logged and costs audio, never video; the hole that it leaves is filled with
// silence by the next call.
#include "gstrecorder.h"

#include "audioalignment.h"
#include "audioencoderchoice.h"
#include "averror.h"
#include "pacing.h"
#include "packetwriting.h"
#include "recorderaudiocapture.h"

#include <QDebug>

#include <algorithm>
#include <array>
#include <limits>

namespace {

constexpr std::size_t mostPlanes = 8;

/// Samples of silence that are queued before they are encoded: about 11 s, 4 MB. A gap may be hours long.
constexpr int largestPadding = 1 << 19;

/// Microseconds that audio waits in memory for frames, which come holdMs after it. While a window is hidden none
/// come, and the audio has to reach the file all the same.
constexpr qint64 longestInterleaveWait = (pacing::holdMs + 2000) * 1000;

qint64 batchMs(const QList<RecorderAudioCapture::Chunk>& chunks, int rate)
{
    qint64 sum = 0;
    for (const RecorderAudioCapture::Chunk& chunk : chunks) {
        if (chunk.frames > 0)
            sum += audioalignment::msFromSamples(chunk.frames, rate);
    }
    return sum;
}

/// The planes, or the one plane, from this sample on.
std::array<void*, mostPlanes> planesFrom(uint8_t** planes, int sample, const AVCodecContext& encoder)
{
    const bool planar = av_sample_fmt_is_planar(encoder.sample_fmt);
    const int channels = encoder.ch_layout.nb_channels;
    const std::size_t count = planar ? std::min(std::size_t(channels), mostPlanes) : 1;
    const std::ptrdiff_t step = std::ptrdiff_t(av_get_bytes_per_sample(encoder.sample_fmt)) * (planar ? 1 : channels);
    std::array<void*, mostPlanes> moved{};
    for (std::size_t i = 0; i < count; ++i)
        moved[i] = planes[i] + sample * step;
    return moved;
}

}

bool GstRecorder::encodePendingAudio(bool last)
{
    if (!audioStarted || !audioCapture || !audioCodecContext || !audioResampler || !audioFifo)
        return true;
    const bool clockRuns = recordingClock.isValid();
    const qint64 elapsedMs = clockRuns ? recordingClock.elapsed() : 0; // the present, for this whole call
    for (;;) {
        // A platform that meters its audio out by our clock hands over exactly what belongs before this instant. If
        // it ran by a clock of its own, every call would pad or cut a few samples out of continuous audio: clicks.
        // After a long stall it comes to the present in several turns.
        const qint64 untilMs = clockRuns ? audioCapture->deliverUntil(recordingClock, elapsedMs, last) : elapsedMs;

        const QList<RecorderAudioCapture::Chunk> chunks = audioCapture->readAvailable();
        const bool aligned = clockRuns && !chunks.isEmpty();
        qint64 cursorMs
            = aligned ? audioalignment::batchStartMs(untilMs, batchMs(chunks, audioCapture->sampleRate())) : 0;
        for (const RecorderAudioCapture::Chunk& chunk : chunks) {
            if (!queueAudioChunk(chunk.pcm, chunk.frames, cursorMs))
                return false;
        }
        if ((aligned && !padAudioToElapsedClock(untilMs)) || !encodeFullAudioFrames())
            return false;
        if (untilMs >= elapsedMs)
            return true;
    }
}

bool GstRecorder::encodeFullAudioFrames()
{
    const int frameSize = audioencoderchoice::frameSize(*audioCodecContext);
    bool result = true;
    while (result && av_audio_fifo_size(audioFifo) >= frameSize)
        result = encodeAudioSamples(frameSize);
    return result;
}

/// Converts one chunk and queues what belongs at cursorMs (recording time), which moves to the chunk's end.
bool GstRecorder::queueAudioChunk(const QByteArray& pcm, int frames, qint64& cursorMs)
{
    if (frames < 1 || pcm.isEmpty())
        return true;
    if (!audioPcmLogged) {
        qDebug() << "Unix audio capture received PCM" << pcm.size() << "bytes" << frames << "frames"
                 << "peak" << audioalignment::peak(pcm);
        audioPcmLogged = true;
    }
    const int captureRate = audioCapture->sampleRate();
    const int rate = audioCodecContext->sample_rate;
    const qint64 capacity
        = av_rescale_rnd(swr_get_delay(audioResampler, captureRate) + frames, rate, captureRate, AV_ROUND_UP);
    if (capacity < 1)
        return true;
    const int samples = int(std::min<qint64>(capacity, std::numeric_limits<int>::max()));
    AvSampleBuffer buffer;
    const int status
        = buffer.allocate(audioCodecContext->ch_layout.nb_channels, samples, audioCodecContext->sample_fmt);
    if (status < 0) {
        qWarning() << "Unable to allocate converted audio samples:" << avErrorString(status);
        return false;
    }
    const auto* input = reinterpret_cast<const uint8_t*>(pcm.constData());
    const int converted = swr_convert(audioResampler, buffer.planes(), samples, &input, frames);
    if (converted < 0) {
        qWarning() << "Unable to resample captured audio:" << avErrorString(converted);
        return false;
    }
    if (converted == 0)
        return true; // the resampler keeps it until more arrives

    audioalignment::Part part{0, converted};
    if (recordingClock.isValid()) {
        if (!padAudioToElapsedClock(cursorMs))
            return false;
        part = audioalignment::usedPart(cursorMs, converted, audioSamplesPresent(), rate);
        cursorMs += audioalignment::msFromSamples(converted, rate);
    }
    return part.keep < 1 || queueAudioSamples(buffer.planes(), part.drop, part.keep);
}

/// Queues `count` converted samples, from sample `first` on.
bool GstRecorder::queueAudioSamples(uint8_t** planes, int first, int count)
{
    const int status
        = av_audio_fifo_realloc(audioFifo, audioalignment::grownSize(av_audio_fifo_size(audioFifo), count));
    if (status < 0) {
        qWarning() << "Unable to grow FFmpeg audio FIFO:" << avErrorString(status);
        return false;
    }
    std::array<void*, mostPlanes> from = planesFrom(planes, first, *audioCodecContext);
    if (av_audio_fifo_write(audioFifo, from.data(), count) < count) {
        qWarning() << "Unable to write all converted audio samples to FIFO.";
        return false;
    }
    return true;
}

/// Samples that the encoder has, and those that wait for it: the end of the audio so far.
qint64 GstRecorder::audioSamplesPresent() const
{
    return audioSamplesWritten + av_audio_fifo_size(audioFifo);
}

bool GstRecorder::padAudioToElapsedClock(qint64 elapsedMs)
{
    if (!audioCodecContext || elapsedMs < 1 || !audioFifo)
        return true;
    const qint64 missing
        = audioalignment::missingSamples(elapsedMs, audioSamplesPresent(), audioCodecContext->sample_rate);
    if (missing < 1)
        return true;
    const std::optional<int> samples = audioalignment::asSampleCount(missing);
    if (!samples) {
        qWarning() << "Audio clock gap is too large to pad:" << missing;
        return false;
    }
    int left = *samples;
    for (; left > largestPadding; left -= largestPadding) {
        if (!padAudioFifoWithSilence(largestPadding) || !encodeFullAudioFrames())
            return false;
    }
    return padAudioFifoWithSilence(left);
}

bool GstRecorder::padAudioFifoWithSilence(int samples)
{
    if (!audioCodecContext || samples < 1 || !audioFifo)
        return true;
    const int channels = audioCodecContext->ch_layout.nb_channels;
    const AVSampleFormat format = audioCodecContext->sample_fmt;
    AvSampleBuffer silence;
    int status = silence.allocate(channels, samples, format);
    if (status < 0) {
        qWarning() << "Unable to allocate silence audio samples:" << avErrorString(status);
        return false;
    }
    status = av_samples_set_silence(silence.planes(), 0, samples, channels, format);
    if (status >= 0) {
        const int size = audioalignment::grownSize(av_audio_fifo_size(audioFifo), samples);
        status = av_audio_fifo_realloc(audioFifo, size);
    }
    if (status >= 0) {
        std::array<void*, mostPlanes> from = planesFrom(silence.planes(), 0, *audioCodecContext);
        status = av_audio_fifo_write(audioFifo, from.data(), samples);
        if (status >= 0 && status < samples)
            status = AVERROR_EXTERNAL;
    }
    if (status < 0)
        qWarning() << "Unable to pad audio FIFO with silence:" << avErrorString(status);
    return status >= 0;
}

bool GstRecorder::encodeAudioSamples(int samples)
{
    if (!audioCodecContext || !audioStream || samples < 1 || !audioFifo)
        return true;
    AvFrameHandle frame = takeAudioFrame(samples);
    if (!frame)
        return false;
    frame->pts = audioSamplesWritten;
    audioSamplesWritten += samples;
    formatContext->max_interleave_delta = longestInterleaveWait; // not before: frames wait longer for audio to begin
    const int status = avcodec_send_frame(audioCodecContext, frame.get());
    frame.reset();
    if (status < 0) {
        qWarning() << "Unable to send FFmpeg audio frame:" << avErrorString(status);
        return false;
    }
    return writeAudioPackets(
        "Unable to receive FFmpeg audio packet:", "Unable to write FFmpeg audio packet:", samples);
}

/// A frame with the next samples of the queue. Null when that fails; the log says why, except when not even the
/// frame itself could be allocated.
AvFrameHandle GstRecorder::takeAudioFrame(int samples)
{
    AvFrameHandle frame(av_frame_alloc());
    if (!frame)
        return nullptr;
    frame->nb_samples = samples;
    frame->format = audioCodecContext->sample_fmt;
    frame->sample_rate = audioCodecContext->sample_rate;
    int status = av_channel_layout_copy(&frame->ch_layout, &audioCodecContext->ch_layout);
    if (status < 0) {
        qWarning() << "Unable to copy audio channel layout:" << avErrorString(status);
        return nullptr;
    }
    status = av_frame_get_buffer(frame.get(), 0);
    if (status < 0) {
        qWarning() << "Unable to allocate FFmpeg audio frame buffer:" << avErrorString(status);
        return nullptr;
    }
    std::array<void*, mostPlanes> to = planesFrom(frame->extended_data, 0, *audioCodecContext);
    if (av_audio_fifo_read(audioFifo, to.data(), samples) < samples) {
        qWarning() << "Unable to read all requested audio samples from FIFO.";
        return nullptr;
    }
    return frame;
}

bool GstRecorder::drainAudioEncoder()
{
    if (!audioCodecContext || !audioStream)
        return true;
    const int frameSize = audioencoderchoice::frameSize(*audioCodecContext);
    const bool takesShortFrame = audioCodecContext->codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE;
    bool result = true;
    while (result && audioFifo && av_audio_fifo_size(audioFifo) > 0) {
        int samples = std::min(frameSize, av_audio_fifo_size(audioFifo));
        if (samples < frameSize && !takesShortFrame) {
            result = padAudioFifoWithSilence(frameSize - samples);
            samples = frameSize;
        }
        result = result && encodeAudioSamples(samples);
    }
    const int status = avcodec_send_frame(audioCodecContext, nullptr);
    if (status < 0 && status != AVERROR_EOF) {
        qWarning() << "Unable to flush FFmpeg audio encoder:" << avErrorString(status);
        return false;
    }
    constexpr int flushedSamples = 1024; // of a packet without a duration, whatever the frame size is
    return writeAudioPackets(
               "Unable to receive flushed audio packet:", "Unable to write flushed audio packet:", flushedSamples)
        && result;
}

/// Writes every packet that the encoder has ready; one without a duration lasts that many samples. The two texts
/// open the log line of a failure.
bool GstRecorder::writeAudioPackets(const char* receiveError, const char* writeError, int missingDuration)
{
    const AvPacketHandle packet(av_packet_alloc());
    if (!packet)
        return false;
    for (;;) {
        int status = avcodec_receive_packet(audioCodecContext, packet.get());
        if (status == AVERROR(EAGAIN) || status == AVERROR_EOF)
            return true;
        if (status < 0) {
            qWarning() << receiveError << avErrorString(status);
            return false;
        }
        status
            = writePacket(*packet, *audioCodecContext, *formatContext, *audioStream, missingDuration, writtenBytes);
        if (status < 0) {
            qWarning() << writeError << avErrorString(status);
            return false;
        }
    }
}

/// A capture whose stop throws is given up: what its own end tries is the last.
void GstRecorder::stopAudioCapture()
{
    audioStarted = false;
    if (audioCapture && !attempt([this] { audioCapture->stop(); }))
        audioCapture.reset();
}

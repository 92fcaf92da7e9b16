// The audio of a copy: counted in samples from the first one on, so that it stays in step.
#include "sharetracks.h"

#include <algorithm>
#include <array>

namespace {

constexpr int tolerance = 480; // samples of the copy, 10 ms: a file that counts milliseconds is that exact
constexpr qint64 longestHole = qint64(48'000) * 24 * 3600; // samples; times that are further away are nonsense
constexpr int silenceAtOnce = 48'000; // samples

}

int ShareAudioTrack::start(AVFrame& frame)
{
    AVCodecContext& encoder = ends().encoder;
    SwrContext* resampler = nullptr;
    const int status = swr_alloc_set_opts2(&resampler, &encoder.ch_layout, encoder.sample_fmt, encoder.sample_rate,
        &frame.ch_layout, AVSampleFormat(frame.format), frame.sample_rate, 0, nullptr);
    resampler_.reset(resampler);
    if (status < 0)
        return status;
    queue_.reset(av_audio_fifo_alloc(encoder.sample_fmt, encoder.ch_layout.nb_channels, encoder.sample_rate));
    // What lies before the first frame is left out.
    begin_ = frame.pts == AV_NOPTS_VALUE ? 0 : std::max<qint64>(placeOf(frame.pts), 0);
    return queue_ ? swr_init(resampler_.get()) : AVERROR(ENOMEM);
}

int ShareAudioTrack::take(AVFrame& frame)
{
    if (!resampler_) {
        const int status = start(frame);
        if (status < 0)
            return status;
    }
    const AVCodecContext& decoder = ends().decoder;
    if (frame.sample_rate != decoder.sample_rate || frame.format != decoder.sample_fmt
        || frame.ch_layout.nb_channels != decoder.ch_layout.nb_channels)
        return AVERROR_INVALIDDATA;
    const AVRational sourceBase{1, frame.sample_rate};
    const qint64 due = begin_ + av_rescale_q(taken_, sourceBase, ends().encoder.time_base);
    const qint64 hole = frame.pts == AV_NOPTS_VALUE ? 0 : placeOf(frame.pts) - due;
    if (hole > longestHole)
        return AVERROR_INVALIDDATA;
    int skipped = 0;
    if (hole > tolerance) {
        const int status = addSilence(av_rescale_q(hole, ends().encoder.time_base, sourceBase));
        if (status < 0)
            return status;
    } else if (hole < (taken_ > 0 ? -tolerance : 0)) {
        skipped = int(
            std::min<qint64>(av_rescale_q(-hole, ends().encoder.time_base, sourceBase), qint64(frame.nb_samples)));
    }
    const auto format = AVSampleFormat(frame.format);
    const bool isPlanar = av_sample_fmt_is_planar(format) != 0;
    const int channels = frame.ch_layout.nb_channels;
    std::array<const uint8_t*, AV_NUM_DATA_POINTERS> planes{};
    const int planeCount = std::min(isPlanar ? channels : 1, AV_NUM_DATA_POINTERS);
    const std::ptrdiff_t offset
        = std::ptrdiff_t(skipped) * av_get_bytes_per_sample(format) * (isPlanar ? 1 : channels);
    for (int i = 0; i < planeCount; ++i)
        planes[std::size_t(i)] = frame.extended_data[i] + offset;
    return resample(planes.data(), frame.nb_samples - skipped);
}

/// Of the source's form, so that the resampler sees one stream.
int ShareAudioTrack::addSilence(qint64 samples)
{
    const AVCodecContext& decoder = ends().decoder;
    AvSampleBuffer silence;
    const int channels = decoder.ch_layout.nb_channels;
    int status = silence.allocate(channels, silenceAtOnce, decoder.sample_fmt);
    if (status >= 0)
        status = av_samples_set_silence(silence.planes(), 0, silenceAtOnce, channels, decoder.sample_fmt);
    for (; samples > 0 && status >= 0; samples -= silenceAtOnce)
        status = resample(silence.planes(), int(std::min<qint64>(samples, silenceAtOnce)));
    return status;
}

/// null: the end, which gives what the resampler keeps back.
int ShareAudioTrack::resample(const uint8_t* const* planes, int samples)
{
    const AVCodecContext& encoder = ends().encoder;
    const int room = swr_get_out_samples(resampler_.get(), samples);
    if (room < 1)
        return room;
    AvSampleBuffer buffer;
    int status = buffer.allocate(encoder.ch_layout.nb_channels, room, encoder.sample_fmt);
    if (status < 0)
        return status;
    // The parameter is not constant before FFmpeg 7.
    const int count
        = swr_convert(resampler_.get(), buffer.planes(), room, const_cast<const uint8_t**>(planes), samples);
    if (count < 0)
        return count;
    taken_ += samples;
    std::array<void*, AV_NUM_DATA_POINTERS> queued{};
    for (int i = 0; i < (av_sample_fmt_is_planar(encoder.sample_fmt) ? encoder.ch_layout.nb_channels : 1); ++i)
        queued[std::size_t(i)] = buffer.planes()[i];
    status = av_audio_fifo_write(queue_.get(), queued.data(), count);
    return status < 0 ? status : encodeQueued(false);
}

int ShareAudioTrack::encodeQueued(bool withRest)
{
    AVCodecContext& encoder = ends().encoder;
    const int block = std::max(encoder.frame_size, 1);
    while (av_audio_fifo_size(queue_.get()) >= (withRest ? 1 : block)) {
        const AvFrameHandle frame(av_frame_alloc());
        if (!frame || av_channel_layout_copy(&frame->ch_layout, &encoder.ch_layout) < 0)
            return AVERROR(ENOMEM);
        frame->format = encoder.sample_fmt;
        frame->sample_rate = encoder.sample_rate;
        frame->nb_samples = std::min(block, av_audio_fifo_size(queue_.get()));
        frame->pts = begin_ + encodedSamples_;
        int status = av_frame_get_buffer(frame.get(), 0);
        if (status < 0)
            return status;
        std::array<void*, AV_NUM_DATA_POINTERS> planes{};
        std::copy_n(frame->data, AV_NUM_DATA_POINTERS, planes.begin());
        status = av_audio_fifo_read(queue_.get(), planes.data(), frame->nb_samples);
        if (status < 0)
            return status;
        encodedSamples_ += frame->nb_samples;
        status = encode(frame.get());
        if (status < 0)
            return status;
    }
    return 0;
}

int ShareAudioTrack::finish()
{
    if (!resampler_)
        return 0;
    const int status = resample(nullptr, 0);
    return status < 0 ? status : encodeQueued(true);
}

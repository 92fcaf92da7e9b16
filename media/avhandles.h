// FFmpeg's types in C++: the headers, and owning handles for locals. Members of GstRecorder stay raw pointers that
// closeOutput() releases; everything that lives shorter than a function uses these.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <memory>

/// Bytes, of the buffers of video frames: with one for all, no frame has rows of another length than the one before.
inline constexpr int videoBufferAlignment = 32;

struct AvPacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using AvPacketHandle = std::unique_ptr<AVPacket, AvPacketDeleter>;

struct AvCodecContextDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
using AvCodecContextHandle = std::unique_ptr<AVCodecContext, AvCodecContextDeleter>;

struct AvFrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using AvFrameHandle = std::unique_ptr<AVFrame, AvFrameDeleter>;

struct SwsContextDeleter {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};
using SwsContextHandle = std::unique_ptr<SwsContext, SwsContextDeleter>;

struct AvResamplerDeleter {
    void operator()(SwrContext* context) const { swr_free(&context); }
};
using AvResamplerHandle = std::unique_ptr<SwrContext, AvResamplerDeleter>;

struct AvAudioFifoDeleter {
    void operator()(AVAudioFifo* fifo) const { av_audio_fifo_free(fifo); }
};
using AvAudioFifoHandle = std::unique_ptr<AVAudioFifo, AvAudioFifoDeleter>;

/// FFmpeg's usual layout of so many channels.
class AvChannelLayout {
public:
    explicit AvChannelLayout(int channels) { av_channel_layout_default(&layout_, channels); }
    ~AvChannelLayout() { av_channel_layout_uninit(&layout_); }
    AvChannelLayout(const AvChannelLayout&) = delete;
    AvChannelLayout& operator=(const AvChannelLayout&) = delete;

    AVChannelLayout* get() { return &layout_; }

private:
    AVChannelLayout layout_{};
};

/// Audio in memory: one plane a channel for a planar format, else one plane.
class AvSampleBuffer {
public:
    AvSampleBuffer() = default;
    ~AvSampleBuffer()
    {
        if (planes_)
            av_freep(&planes_[0]); // all planes are one block
        av_freep(&planes_);
    }
    AvSampleBuffer(const AvSampleBuffer&) = delete;
    AvSampleBuffer& operator=(const AvSampleBuffer&) = delete;

    /// Once, with room for so many samples a channel, which are silence at first. FFmpeg's status.
    int allocate(int channels, int samples, AVSampleFormat format)
    {
        return av_samples_alloc_array_and_samples(&planes_, nullptr, channels, samples, format, 0);
    }
    uint8_t** planes() { return planes_; }

private:
    uint8_t** planes_ = nullptr;
};

/// An options dictionary for the calls that take and replace one; what they leave is freed.
class AvOptions {
public:
    AvOptions() = default;
    ~AvOptions() { av_dict_free(&dictionary_); }
    AvOptions(const AvOptions&) = delete;
    AvOptions& operator=(const AvOptions&) = delete;

    void set(const char* key, const char* value) { av_dict_set(&dictionary_, key, value, 0); }
    AVDictionary** out() { return &dictionary_; }

private:
    AVDictionary* dictionary_ = nullptr;
};

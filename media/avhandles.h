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
#include <libavutil/pixdesc.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <memory>

struct AvPacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using AvPacketHandle = std::unique_ptr<AVPacket, AvPacketDeleter>;

struct AvCodecContextDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
using AvCodecContextHandle = std::unique_ptr<AVCodecContext, AvCodecContextDeleter>;

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

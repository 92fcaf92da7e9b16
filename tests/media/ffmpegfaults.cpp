// The functions that replace FFmpeg's at link time, and how they are made to fail.
#include "ffmpegfaults.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <mutex>
#include <new>
#include <optional>
#include <utility>

namespace ffmpegfaults {

namespace {

constexpr int never = std::numeric_limits<int>::max();

struct Plan {
    int calls = 0;
    int firstFailure = never; ///< counted as calls are
    int lastFailure = never;
    int status = 0;
};

std::mutex mutex; // of the plans
std::array<Plan, std::size_t(Call::Last) + 1> plans;

Plan& planOf(Call call)
{
    return plans[std::size_t(call)];
}

/// Counts a call. The status to fail with, or nothing when the call goes on to FFmpeg.
std::optional<int> failing(Call call)
{
    const std::lock_guard lock(mutex);
    Plan& plan = planOf(call);
    ++plan.calls;
    const bool fails = plan.calls >= plan.firstFailure && plan.calls <= plan.lastFailure;
    return fails ? std::optional(plan.status) : std::nullopt;
}

void failThrough(Call call, int status, int nth, bool fromThenOn)
{
    const std::lock_guard lock(mutex);
    Plan& plan = planOf(call);
    plan.firstFailure = plan.calls + nth;
    plan.lastFailure = fromThenOn ? never : plan.firstFailure;
    plan.status = status;
}

}

void reset()
{
    const std::lock_guard lock(mutex);
    plans.fill(Plan());
    surroundings() = Surroundings();
}

void failOnce(Call call, int status, int nth)
{
    failThrough(call, status, nth, false);
}

void failFrom(Call call, int status, int nth)
{
    failThrough(call, status, nth, true);
}

void heal(Call call)
{
    const std::lock_guard lock(mutex);
    planOf(call).firstFailure = never;
}

int calls(Call call)
{
    const std::lock_guard lock(mutex);
    return planOf(call).calls;
}

Surroundings& surroundings()
{
    static Surroundings instance;
    return instance;
}

}

using ffmpegfaults::Call;
using ffmpegfaults::failing;
using ffmpegfaults::surroundings;

// The linker calls FFmpeg's own function __real_NAME and this file's __wrap_NAME.
// Each macro defines one of a kind; PARAMETERS and ARGUMENTS come in parentheses.
#define ORVANTIS_STATUS_CALL(CALL, NAME, PARAMETERS, ARGUMENTS)                                                      \
    int __real_##NAME PARAMETERS;                                                                                    \
    int __wrap_##NAME PARAMETERS                                                                                     \
    {                                                                                                                \
        if (const auto status = failing(Call::CALL))                                                                 \
            return *status;                                                                                          \
        return __real_##NAME ARGUMENTS;                                                                              \
    }
#define ORVANTIS_POINTER_CALL(CALL, TYPE, NAME, PARAMETERS, ARGUMENTS)                                               \
    TYPE* __real_##NAME PARAMETERS;                                                                                  \
    TYPE* __wrap_##NAME PARAMETERS                                                                                   \
    {                                                                                                                \
        return failing(Call::CALL) ? nullptr : __real_##NAME ARGUMENTS;                                              \
    }

using ReadBytes = int (*)(void*, uint8_t*, int);
using Seek = int64_t (*)(void*, int64_t, int);
#if LIBAVFORMAT_VERSION_MAJOR >= 61
using WriteBytes = int (*)(void*, const uint8_t*, int);
#else
using WriteBytes = int (*)(void*, uint8_t*, int);
#endif

extern "C" {

int __real_avcodec_send_frame(AVCodecContext* context, const AVFrame* frame);
int __wrap_avcodec_send_frame(AVCodecContext* context, const AVFrame* frame)
{
    if (surroundings().atSendFrame)
        surroundings().atSendFrame();
    const auto status = failing(Call::SendFrame);
    return status ? *status : __real_avcodec_send_frame(context, frame);
}

ORVANTIS_STATUS_CALL(CopyParameters, avcodec_parameters_from_context,
    (AVCodecParameters * parameters, const AVCodecContext* context), (parameters, context))
ORVANTIS_STATUS_CALL(GetFrameBuffer, av_frame_get_buffer, (AVFrame * frame, int alignment), (frame, alignment))
ORVANTIS_STATUS_CALL(MakeWritable, av_frame_make_writable, (AVFrame * frame), (frame))
ORVANTIS_STATUS_CALL(CopyProperties, av_frame_copy_props, (AVFrame * to, const AVFrame* from), (to, from))
ORVANTIS_STATUS_CALL(Convert, sws_scale,
    (SwsContext * context, const uint8_t* const* from, const int* fromStrides, int firstRow, int rows,
        uint8_t* const* to, const int* toStrides),
    (context, from, fromStrides, firstRow, rows, to, toStrides))
ORVANTIS_STATUS_CALL(SetDictionary, av_dict_set,
    (AVDictionary * *dictionary, const char* key, const char* value, int flags), (dictionary, key, value, flags))
ORVANTIS_STATUS_CALL(SetOption, av_opt_set, (void* object, const char* name, const char* value, int flags),
    (object, name, value, flags))
ORVANTIS_STATUS_CALL(SetOption, av_opt_set_int, (void* object, const char* name, int64_t value, int flags),
    (object, name, value, flags))
ORVANTIS_STATUS_CALL(WriteGathered, av_write_frame, (AVFormatContext * context, AVPacket* packet), (context, packet))
ORVANTIS_STATUS_CALL(WriteTrailer, av_write_trailer, (AVFormatContext * context), (context))

ORVANTIS_POINTER_CALL(FindEncoderById, const AVCodec, avcodec_find_encoder, (AVCodecID id), (id))
ORVANTIS_POINTER_CALL(AllocCodecContext, AVCodecContext, avcodec_alloc_context3, (const AVCodec* codec), (codec))
ORVANTIS_POINTER_CALL(
    NewStream, AVStream, avformat_new_stream, (AVFormatContext * context, const AVCodec* codec), (context, codec))
ORVANTIS_POINTER_CALL(AllocFileContext, AVIOContext, avio_alloc_context,
    (unsigned char* buffer, int bytes, int forWriting, void* opaque, ReadBytes read, WriteBytes write, Seek seek),
    (buffer, bytes, forWriting, opaque, read, write, seek))
ORVANTIS_POINTER_CALL(AllocMemory, void, av_malloc, (std::size_t size), (size))
ORVANTIS_POINTER_CALL(CloneFrame, AVFrame, av_frame_clone, (const AVFrame* frame), (frame))
ORVANTIS_POINTER_CALL(AllocFrame, AVFrame, av_frame_alloc, (), ())
ORVANTIS_POINTER_CALL(AllocPacket, AVPacket, av_packet_alloc, (), ())
ORVANTIS_POINTER_CALL(GetConverter, SwsContext, sws_getContext,
    (int fromWidth, int fromHeight, AVPixelFormat from, int toWidth, int toHeight, AVPixelFormat to, int flags,
        SwsFilter* fromFilter, SwsFilter* toFilter, const double* parameters),
    (fromWidth, fromHeight, from, toWidth, toHeight, to, flags, fromFilter, toFilter, parameters))

ORVANTIS_STATUS_CALL(InitResampler, swr_init, (SwrContext * context), (context))
ORVANTIS_STATUS_CALL(Resample, swr_convert,
    (SwrContext * context, uint8_t** to, int toCount, const uint8_t** from, int fromCount),
    (context, to, toCount, from, fromCount))
ORVANTIS_STATUS_CALL(GrowFifo, av_audio_fifo_realloc, (AVAudioFifo * fifo, int samples), (fifo, samples))
ORVANTIS_STATUS_CALL(
    WriteFifo, av_audio_fifo_write, (AVAudioFifo * fifo, void** planes, int samples), (fifo, planes, samples))
ORVANTIS_STATUS_CALL(
    ReadFifo, av_audio_fifo_read, (AVAudioFifo * fifo, void** planes, int samples), (fifo, planes, samples))
ORVANTIS_STATUS_CALL(SetSilence, av_samples_set_silence,
    (uint8_t* const* planes, int offset, int samples, int channels, AVSampleFormat format),
    (planes, offset, samples, channels, format))
ORVANTIS_STATUS_CALL(
    CopyLayout, av_channel_layout_copy, (AVChannelLayout * to, const AVChannelLayout* from), (to, from))

ORVANTIS_POINTER_CALL(AllocFifo, AVAudioFifo, av_audio_fifo_alloc, (AVSampleFormat format, int channels, int samples),
    (format, channels, samples))

// The C library's. What makes no file is none of the recorder's output.
int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...)
{
    if (!(flags & O_CREAT))
        return __real_open(path, flags);
    if (const auto status = failing(Call::OpenFile)) {
        errno = AVUNERROR(*status);
        return -1;
    }
    std::va_list rest;
    va_start(rest, flags);
    const mode_t mode = va_arg(rest, mode_t);
    va_end(rest);
    return __real_open(path, flags, mode);
}

int __real_close(int descriptor);
int __wrap_close(int descriptor);
int __wrap_close(int descriptor)
{
    const auto status = failing(Call::CloseFile);
    const int result = __real_close(descriptor);
    if (!status)
        return result;
    errno = AVUNERROR(*status);
    return -1;
}

int __real_av_samples_alloc_array_and_samples(
    uint8_t*** planes, int* lineSize, int channels, int samples, AVSampleFormat format, int alignment);
int __wrap_av_samples_alloc_array_and_samples(
    uint8_t*** planes, int* lineSize, int channels, int samples, AVSampleFormat format, int alignment)
{
    if (surroundings().atAllocSamples)
        surroundings().atAllocSamples(samples);
    if (const auto status = failing(Call::AllocSamples))
        return *status;
    return __real_av_samples_alloc_array_and_samples(planes, lineSize, channels, samples, format, alignment);
}

int __real_swr_alloc_set_opts2(SwrContext** context, const AVChannelLayout* toLayout, AVSampleFormat toFormat,
    int toRate, const AVChannelLayout* fromLayout, AVSampleFormat fromFormat, int fromRate, int logOffset,
    void* logContext);
int __wrap_swr_alloc_set_opts2(SwrContext** context, const AVChannelLayout* toLayout, AVSampleFormat toFormat,
    int toRate, const AVChannelLayout* fromLayout, AVSampleFormat fromFormat, int fromRate, int logOffset,
    void* logContext)
{
    if (const auto status = failing(Call::AllocResampler)) {
        *context = nullptr;
        return *status;
    }
    return __real_swr_alloc_set_opts2(
        context, toLayout, toFormat, toRate, fromLayout, fromFormat, fromRate, logOffset, logContext);
}

int __real_avformat_alloc_output_context2(
    AVFormatContext** context, const AVOutputFormat* format, const char* formatName, const char* fileName);
int __wrap_avformat_alloc_output_context2(
    AVFormatContext** context, const AVOutputFormat* format, const char* formatName, const char* fileName)
{
    if (const auto status = failing(Call::AllocOutputContext)) {
        *context = nullptr;
        return *status;
    }
    const char* const muxer = surroundings().muxer;
    return __real_avformat_alloc_output_context2(context, format, muxer ? muxer : formatName, fileName);
}

const AVCodec* __real_avcodec_find_encoder_by_name(const char* name);
const AVCodec* __wrap_avcodec_find_encoder_by_name(const char* name)
{
    if (failing(Call::FindEncoderByName) || surroundings().hiddenEncoders.contains(name))
        return nullptr;
    return surroundings().replacedEncoder == name ? surroundings().replacement
                                                  : __real_avcodec_find_encoder_by_name(name);
}

int __real_avcodec_open2(AVCodecContext* context, const AVCodec* codec, AVDictionary** options);
int __wrap_avcodec_open2(AVCodecContext* context, const AVCodec* codec, AVDictionary** options)
{
    if (surroundings().atOpenCodec)
        surroundings().atOpenCodec(*context, options ? *options : nullptr);
    if (const auto status = failing(Call::OpenCodec))
        return *status;
    return __real_avcodec_open2(context, codec, options);
}

int __real_avformat_write_header(AVFormatContext* context, AVDictionary** options);
int __wrap_avformat_write_header(AVFormatContext* context, AVDictionary** options)
{
    if (surroundings().atWriteHeader)
        surroundings().atWriteHeader(*context, options ? *options : nullptr);
    if (const auto status = failing(Call::WriteHeader))
        return *status;
    if (options && !surroundings().lostMuxerOption.isEmpty())
        __real_av_dict_set(options, surroundings().lostMuxerOption.constData(), nullptr, 0);
    return __real_avformat_write_header(context, options);
}

int __real_avcodec_receive_packet(AVCodecContext* context, AVPacket* packet);
int __wrap_avcodec_receive_packet(AVCodecContext* context, AVPacket* packet)
{
    if (const auto status = failing(Call::ReceivePacket))
        return *status;
    const int received = __real_avcodec_receive_packet(context, packet);
    if (received >= 0 && surroundings().afterReceivePacket)
        surroundings().afterReceivePacket(*packet);
    return received;
}

int __real_av_interleaved_write_frame(AVFormatContext* context, AVPacket* packet);
int __wrap_av_interleaved_write_frame(AVFormatContext* context, AVPacket* packet)
{
    if (packet && surroundings().atWritePacket)
        surroundings().atWritePacket(*packet);
    if (const auto status = failing(Call::WritePacket))
        return *status;
    return __real_av_interleaved_write_frame(context, packet);
}

void __real_avio_flush(AVIOContext* context);
void __wrap_avio_flush(AVIOContext* context)
{
    if (const auto status = failing(Call::FlushFile))
        context->error = *status; // FFmpeg drops what it has
    __real_avio_flush(context);
}

const AVPixFmtDescriptor* __real_av_pix_fmt_desc_get(AVPixelFormat format);
const AVPixFmtDescriptor* __wrap_av_pix_fmt_desc_get(AVPixelFormat format)
{
    const AVPixFmtDescriptor* const description = __real_av_pix_fmt_desc_get(format);
    if (!description || !surroundings().hardwareFormatsOnly)
        return description;
    static AVPixFmtDescriptor hardware;
    hardware = *description;
    hardware.flags |= AV_PIX_FMT_FLAG_HWACCEL;
    return &hardware;
}

int __real_av_strerror(int status, char* text, std::size_t size);
int __wrap_av_strerror(int status, char* text, std::size_t size)
{
    if (std::exchange(surroundings().noMemoryForErrorText, false))
        throw std::bad_alloc();
    const QByteArray& instead = surroundings().errorText;
    if (instead.isEmpty())
        return __real_av_strerror(status, text, size);
    std::memcpy(text, instead.constData(), std::min(size, std::size_t(instead.size()) + 1));
    return 0;
}

// QThread::idealThreadCount(), a static member function without parameters, under its name for the linker.
int __real__ZN7QThread16idealThreadCountEv();
int __wrap__ZN7QThread16idealThreadCountEv();
int __wrap__ZN7QThread16idealThreadCountEv()
{
    const int processors = surroundings().processors;
    return processors ? processors : __real__ZN7QThread16idealThreadCountEv();
}
}

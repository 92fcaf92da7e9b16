// The settings are those of a live transmission: a copy is to be ready soon after the recording.
#include "shareencoders.h"

#include "avcompat.h"

#include <QThread>

#include <algorithm>

namespace {

constexpr int keyFrameInterval = 120; // frames, five seconds: how far a player reaches back when it seeks
constexpr int mostThreads = 8;
constexpr int audioBitRate = 128'000;
constexpr int vp8BitRate = 6'000'000; // at most; VP8 does not go without a bound

/// Constant quality. Text stays readable; a window that does not change costs nearly nothing.
void setVp9(AvOptions& options)
{
    options.set("crf", "28");
    options.set("b", "0");
    options.set("cpu-used", "7");
    options.set("row-mt", "1");
    options.set("tile-columns", "2");
    options.set("tune-content", "screen");
}

void setVp8(AVCodecContext& encoder, AvOptions& options)
{
    encoder.bit_rate = vp8BitRate;
    options.set("crf", "10");
    options.set("cpu-used", "8");
}

/// As the recording says; what it does not say, as its recorder writes it.
void setColours(AVCodecContext& encoder, const AVCodecParameters& source)
{
    encoder.color_primaries = source.color_primaries;
    encoder.color_trc = source.color_trc;
    encoder.colorspace = source.color_space;
    encoder.color_range = AVCOL_RANGE_MPEG;
    if (source.color_space == AVCOL_SPC_RGB || source.color_space == AVCOL_SPC_UNSPECIFIED)
        encoder.colorspace = AVCOL_SPC_SMPTE170M;
}

AVSampleFormat sampleFormat(const AVCodec& codec)
{
    const avcompat::Supported<AVSampleFormat> formats = avcompat::sampleFormats(&codec);
    const bool anyWillDo = !formats || formats->empty()
        || std::find(formats->begin(), formats->end(), AV_SAMPLE_FMT_FLT) != formats->end();
    return anyWillDo ? AV_SAMPLE_FMT_FLT : formats->front();
}

}

ShareEncoders ShareEncoders::find(bool withAudio, const EncoderLookup& lookup)
{
    ShareEncoders found;
    found.video = lookup("libvpx-vp9");
    if (!found.video)
        found.video = lookup("libvpx");
    found.audio = withAudio ? lookup("libopus") : nullptr;
    if (!found.video)
        found.error = QStringLiteral("no WebM copy can be made: FFmpeg has no encoder for VP9 or VP8 here; install "
                                     "FFmpeg with libvpx");
    else if (withAudio && !found.audio)
        found.error = QStringLiteral("no WebM copy can be made: FFmpeg has no encoder for Opus here; install FFmpeg "
                                     "with libopus");
    return found;
}

AvCodecContextHandle openShareVideo(const AVCodec& codec, const AVCodecParameters& source, int* status)
{
    AvCodecContextHandle encoder(avcodec_alloc_context3(&codec));
    if (!encoder) {
        *status = AVERROR(ENOMEM);
        return nullptr;
    }
    encoder->width = source.width;
    encoder->height = source.height;
    encoder->sample_aspect_ratio = source.sample_aspect_ratio;
    encoder->pix_fmt = AV_PIX_FMT_YUV420P;
    encoder->time_base = shareVideoTimeBase;
    encoder->gop_size = keyFrameInterval;
    encoder->thread_count = std::clamp(QThread::idealThreadCount(), 1, mostThreads);
    encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    setColours(*encoder, source);
    AvOptions options;
    options.set("deadline", "realtime");
    options.set("lag-in-frames", "0");
    if (codec.id == AV_CODEC_ID_VP9)
        setVp9(options);
    else
        setVp8(*encoder, options);
    *status = avcodec_open2(encoder.get(), &codec, options.out());
    return *status < 0 ? nullptr : std::move(encoder);
}

AvCodecContextHandle openShareAudio(const AVCodec& codec, int channels, int* status)
{
    AvCodecContextHandle encoder(avcodec_alloc_context3(&codec));
    AvChannelLayout layout(channels);
    if (!encoder || av_channel_layout_copy(&encoder->ch_layout, layout.get()) < 0) {
        *status = AVERROR(ENOMEM);
        return nullptr;
    }
    encoder->sample_rate = shareAudioRate;
    encoder->sample_fmt = sampleFormat(codec);
    encoder->time_base = {1, shareAudioRate};
    encoder->bit_rate = audioBitRate;
    encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    *status = avcodec_open2(encoder.get(), &codec, nullptr);
    return *status < 0 ? nullptr : std::move(encoder);
}

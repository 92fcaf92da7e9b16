// ClipWriter: short recordings from generated frames and audio.
#include "clipwriter.h"

#include "avhandles.h"

#include <QFile>

#include <algorithm>
#include <array>

namespace {

struct OutputDeleter {
    void operator()(AVFormatContext* context) const
    {
        avio_closep(&context->pb);
        avformat_free_context(context);
    }
};

struct ConverterDeleter {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};

constexpr AVRational milliseconds{1, 1000};
constexpr qint64 frameMs = 41;
constexpr int sampleRate = 48000;
constexpr AVRational sampleTime{1, sampleRate};
constexpr int videoIndex = 0; // places of the streams in the file
constexpr int audioIndex = 1;

}

struct ClipWriter::Impl {
    QString error;
    std::unique_ptr<AVFormatContext, OutputDeleter> output;
    AvCodecContextHandle encoder;
    AvCodecContextHandle audioEncoder; // null without audio
    AvFrameHandle frame;
    std::unique_ptr<SwsContext, ConverterDeleter> converter;

    bool succeeded(int status, const char* what);
    void open(const QByteArray& path, QSize size, const ClipOptions& options);
    bool openEncoder(QSize size, const ClipOptions& options);
    bool openFile(const QByteArray& path);
    bool openAudioEncoder();
    bool addStream(const AVCodecContext& source);
    bool encodeFrame(const AVFrame* input);
    bool encodeAudio(const AVFrame* block);
    bool encode(AVCodecContext& with, const AVFrame* input, int streamIndex, qint64 duration);
};

bool ClipWriter::Impl::succeeded(int status, const char* what)
{
    if (status >= 0)
        return true;
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(status, text.data(), text.size());
    error = QStringLiteral("%1: %2").arg(QString::fromLatin1(what), QString::fromLocal8Bit(text.data()));
    return false;
}

void ClipWriter::Impl::open(const QByteArray& path, QSize size, const ClipOptions& options)
{
    AVFormatContext* context = nullptr;
    if (!succeeded(avformat_alloc_output_context2(&context, nullptr, "mp4", path.constData()), "container"))
        return;
    output.reset(context);
    if (!openEncoder(size, options) || (options.withAudio && !openAudioEncoder()) || !openFile(path))
        return;
    frame.reset(av_frame_alloc());
    converter.reset(sws_getContext(size.width(), size.height(), AV_PIX_FMT_BGRA, size.width(), size.height(),
        AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr));
    if (!frame || !converter) {
        succeeded(AVERROR(ENOMEM), "frame");
        return;
    }
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = size.width();
    frame->height = size.height();
    succeeded(av_frame_get_buffer(frame.get(), 0), "frame");
}

bool ClipWriter::Impl::openEncoder(QSize size, const ClipOptions& options)
{
    const AVCodec* const codec = avcodec_find_encoder(AV_CODEC_ID_MPEG4);
    encoder.reset(codec ? avcodec_alloc_context3(codec) : nullptr);
    if (!encoder)
        return succeeded(AVERROR_ENCODER_NOT_FOUND, "encoder");
    encoder->width = size.width();
    encoder->height = size.height();
    encoder->pix_fmt = AV_PIX_FMT_YUV420P;
    encoder->time_base = milliseconds;
    encoder->framerate = {24, 1};
    encoder->gop_size = 12;
    encoder->bit_rate = options.bitRate;
    encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (options.taggedMatrix != AVCOL_SPC_UNSPECIFIED) {
        encoder->color_primaries = AVCOL_PRI_BT709;
        encoder->color_trc = AVCOL_TRC_IEC61966_2_1;
        encoder->colorspace = options.taggedMatrix;
        encoder->color_range = AVCOL_RANGE_MPEG;
    }
    return succeeded(avcodec_open2(encoder.get(), codec, nullptr), "encoder");
}

bool ClipWriter::Impl::openAudioEncoder()
{
    const AVCodec* const codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    audioEncoder.reset(codec ? avcodec_alloc_context3(codec) : nullptr);
    if (!audioEncoder)
        return succeeded(AVERROR_ENCODER_NOT_FOUND, "audio encoder");
    audioEncoder->sample_rate = sampleRate;
    audioEncoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
    audioEncoder->time_base = sampleTime;
    audioEncoder->bit_rate = 128'000;
    audioEncoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    av_channel_layout_default(&audioEncoder->ch_layout, 2);
    return succeeded(avcodec_open2(audioEncoder.get(), codec, nullptr), "audio encoder");
}

bool ClipWriter::Impl::addStream(const AVCodecContext& source)
{
    AVStream* const stream = avformat_new_stream(output.get(), nullptr);
    if (!stream)
        return succeeded(AVERROR(ENOMEM), "stream");
    stream->time_base = source.time_base;
    return succeeded(avcodec_parameters_from_context(stream->codecpar, &source), "stream");
}

bool ClipWriter::Impl::openFile(const QByteArray& path)
{
    // An AAC encoder starts with a block before time 0, which only an edit list keeps there: it takes the delayed
    // index.
    AvOptions muxing;
    muxing.set("movflags",
        audioEncoder ? "+empty_moov+delay_moov+default_base_moof+frag_keyframe"
                     : "+empty_moov+default_base_moof+frag_keyframe");
    return addStream(*encoder) && (!audioEncoder || addStream(*audioEncoder))
        && succeeded(avio_open(&output->pb, path.constData(), AVIO_FLAG_WRITE), "file")
        && succeeded(avformat_write_header(output.get(), muxing.out()), "header");
}

bool ClipWriter::Impl::encodeFrame(const AVFrame* input)
{
    return encode(*encoder, input, videoIndex, frameMs);
}

bool ClipWriter::Impl::encodeAudio(const AVFrame* block)
{
    return encode(*audioEncoder, block, audioIndex, audioEncoder->frame_size);
}

/// A null frame ends the stream. The duration of each packet is in units of the encoder's time base.
bool ClipWriter::Impl::encode(AVCodecContext& with, const AVFrame* input, int streamIndex, qint64 duration)
{
    const AvPacketHandle packet(av_packet_alloc());
    if (!packet)
        return succeeded(AVERROR(ENOMEM), "packet");
    if (!succeeded(avcodec_send_frame(&with, input), "encoding"))
        return false;
    for (;;) {
        const int status = avcodec_receive_packet(&with, packet.get());
        if (status == AVERROR(EAGAIN) || status == AVERROR_EOF)
            return true;
        if (!succeeded(status, "encoding"))
            return false;
        packet->stream_index = streamIndex;
        packet->duration = duration;
        av_packet_rescale_ts(packet.get(), with.time_base, output->streams[streamIndex]->time_base);
        if (!succeeded(av_interleaved_write_frame(output.get(), packet.get()), "writing"))
            return false;
    }
}

ClipWriter::ClipWriter(const QString& path, QSize size, const ClipOptions& options) : impl_(std::make_unique<Impl>())
{
    impl_->open(QFile::encodeName(path), size, options);
}

ClipWriter::~ClipWriter() = default;

QString ClipWriter::errorString() const
{
    return impl_->error;
}

bool ClipWriter::add(const QImage& image, qint64 ptsMs)
{
    if (!impl_->error.isEmpty() || !impl_->succeeded(av_frame_make_writable(impl_->frame.get()), "frame"))
        return false;
    if (image.size() != QSize(impl_->encoder->width, impl_->encoder->height))
        return impl_->succeeded(AVERROR(EINVAL), "size of the image");
    const QImage bgra = image.convertToFormat(QImage::Format_ARGB32);
    const quint8* const planes[] = {bgra.constBits(), nullptr, nullptr, nullptr};
    const int strides[] = {int(bgra.bytesPerLine()), 0, 0, 0};
    sws_scale(impl_->converter.get(), planes, strides, 0, bgra.height(), impl_->frame->data, impl_->frame->linesize);
    impl_->frame->pts = ptsMs;
    return impl_->encodeFrame(impl_->frame.get());
}

bool ClipWriter::addAudio(std::span<const float> samples)
{
    if (!impl_->error.isEmpty() || !impl_->audioEncoder)
        return false;
    const std::size_t blockSize = std::size_t(impl_->audioEncoder->frame_size);
    for (std::size_t first = 0; first < samples.size(); first += blockSize) {
        const std::span<const float> part = samples.subspan(first, std::min(blockSize, samples.size() - first));
        const AvFrameHandle block(av_frame_alloc());
        if (!block)
            return impl_->succeeded(AVERROR(ENOMEM), "audio");
        block->format = AV_SAMPLE_FMT_FLTP;
        block->nb_samples = int(part.size());
        block->sample_rate = sampleRate;
        block->pts = qint64(first);
        av_channel_layout_default(&block->ch_layout, 2);
        if (!impl_->succeeded(av_frame_get_buffer(block.get(), 0), "audio"))
            return false;
        for (int channel = 0; channel < 2; ++channel)
            std::copy(part.begin(), part.end(), reinterpret_cast<float*>(block->data[channel]));
        if (!impl_->encodeAudio(block.get()))
            return false;
    }
    return impl_->encodeAudio(nullptr);
}

bool ClipWriter::finish()
{
    return impl_->error.isEmpty() && impl_->encodeFrame(nullptr)
        && impl_->succeeded(av_write_trailer(impl_->output.get()), "trailer");
}

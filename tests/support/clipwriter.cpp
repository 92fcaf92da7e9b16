// ClipWriter: short recordings from generated pictures.
#include "clipwriter.h"

#include "avhandles.h"

#include <QFile>

#include <array>

namespace {

struct OutputDeleter {
    void operator()(AVFormatContext* context) const
    {
        avio_closep(&context->pb);
        avformat_free_context(context);
    }
};

struct PictureDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};

struct ConverterDeleter {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};

constexpr AVRational milliseconds{1, 1000};
constexpr qint64 frameMs = 41;

}

struct ClipWriter::Impl {
    QString error;
    std::unique_ptr<AVFormatContext, OutputDeleter> output;
    AvCodecContextHandle encoder;
    std::unique_ptr<AVFrame, PictureDeleter> frame;
    std::unique_ptr<SwsContext, ConverterDeleter> converter;

    bool succeeded(int status, const char* what);
    void open(const QByteArray& path, QSize size, const ClipOptions& options);
    bool openEncoder(QSize size, const ClipOptions& options);
    bool openFile(const QByteArray& path);
    bool encode(const AVFrame* picture);
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
    if (!openEncoder(size, options) || !openFile(path))
        return;
    frame.reset(av_frame_alloc());
    converter.reset(sws_getContext(size.width(), size.height(), AV_PIX_FMT_BGRA, size.width(), size.height(),
        AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr));
    if (!frame || !converter) {
        succeeded(AVERROR(ENOMEM), "picture");
        return;
    }
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = size.width();
    frame->height = size.height();
    succeeded(av_frame_get_buffer(frame.get(), 0), "picture");
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

bool ClipWriter::Impl::openFile(const QByteArray& path)
{
    AVStream* const stream = avformat_new_stream(output.get(), nullptr);
    if (!stream)
        return succeeded(AVERROR(ENOMEM), "stream");
    stream->time_base = milliseconds;
    AvOptions muxing;
    muxing.set("movflags", "+empty_moov+default_base_moof+frag_keyframe");
    return succeeded(avcodec_parameters_from_context(stream->codecpar, encoder.get()), "stream")
        && succeeded(avio_open(&output->pb, path.constData(), AVIO_FLAG_WRITE), "file")
        && succeeded(avformat_write_header(output.get(), muxing.out()), "header");
}

bool ClipWriter::Impl::encode(const AVFrame* picture)
{
    const AvPacketHandle packet(av_packet_alloc());
    if (!packet)
        return succeeded(AVERROR(ENOMEM), "packet");
    if (!succeeded(avcodec_send_frame(encoder.get(), picture), "encoding"))
        return false;
    for (;;) {
        const int status = avcodec_receive_packet(encoder.get(), packet.get());
        if (status == AVERROR(EAGAIN) || status == AVERROR_EOF)
            return true;
        if (!succeeded(status, "encoding"))
            return false;
        packet->duration = frameMs;
        av_packet_rescale_ts(packet.get(), milliseconds, output->streams[0]->time_base);
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

bool ClipWriter::add(const QImage& picture, qint64 ptsMs)
{
    if (!impl_->error.isEmpty() || !impl_->succeeded(av_frame_make_writable(impl_->frame.get()), "picture"))
        return false;
    if (picture.size() != QSize(impl_->encoder->width, impl_->encoder->height))
        return impl_->succeeded(AVERROR(EINVAL), "size of the picture");
    const QImage bgra = picture.convertToFormat(QImage::Format_ARGB32);
    const quint8* const planes[] = {bgra.constBits(), nullptr, nullptr, nullptr};
    const int strides[] = {int(bgra.bytesPerLine()), 0, 0, 0};
    sws_scale(impl_->converter.get(), planes, strides, 0, bgra.height(), impl_->frame->data, impl_->frame->linesize);
    impl_->frame->pts = ptsMs;
    return impl_->encode(impl_->frame.get());
}

bool ClipWriter::finish()
{
    return impl_->error.isEmpty() && impl_->encode(nullptr)
        && impl_->succeeded(av_write_trailer(impl_->output.get()), "trailer");
}

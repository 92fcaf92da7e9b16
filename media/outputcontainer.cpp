// Opening the output: directory, container, video encoder with its fallback, streams, file, header, video frame
// buffer. Worker thread. What a failure leaves half made stays in the members until closeOutput().
#include "gstrecorder.h"

#include "avcompat.h"
#include "averror.h"
#include "encoderchoice.h"
#include "ffmpeglog.h"
#include "outputfile.h"
#include "packetwriting.h"
#include "privatefile.h"
#include "recorderaudiocapture.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <algorithm>
#include <array>
#include <cstdint>

namespace {

const auto preferredEncoder = QStringLiteral("mpeg4");

/// States in the stream what the colours are, so that players need not guess: window pixels are sRGB;
/// libswscale turns them into limited-range YUV with the BT.601 matrix, and hands RGB formats over as they
/// are.
void tagColours(AVCodecContext* context)
{
    const bool rgb = av_pix_fmt_desc_get(context->pix_fmt)->flags & AV_PIX_FMT_FLAG_RGB;
    context->color_primaries = AVCOL_PRI_BT709;
    context->color_trc = AVCOL_TRC_IEC61966_2_1;
    context->colorspace = rgb ? AVCOL_SPC_RGB : AVCOL_SPC_SMPTE170M;
    context->color_range = rgb ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
}

/// A fragment at every key frame and every second (microseconds): playable up to the last one whatever happens.
constexpr std::array<const char*, 3> fragmentFlags{"empty_moov", "default_base_moof", "frag_keyframe"};
constexpr int64_t fragmentDuration = 1'000'000;

void setFragments(AvOptions& options)
{
    QByteArray flags;
    for (const char* flag : fragmentFlags)
        flags.append('+').append(flag);
    options.set("movflags", flags.constData());
    options.set("frag_duration", QByteArray::number(qint64(fragmentDuration)).constData());
}

bool hasFragments(const AVFormatContext& container)
{
    int64_t flags = 0;
    int64_t duration = 0;
    return av_opt_get_int(container.priv_data, "movflags", 0, &flags) >= 0
        && av_opt_get_int(container.priv_data, "frag_duration", 0, &duration) >= 0 && duration == fragmentDuration
        && std::all_of(fragmentFlags.begin(), fragmentFlags.end(), [&](const char* name) {
               const AVOption* const flag = av_opt_find(container.priv_data, name, "movflags", 0, 0);
               return flag && (flags & flag->default_val.i64) != 0;
           });
}

/// FFmpeg's status.
int writeHeader(AVFormatContext& container, WrittenBytes& written)
{
    AvOptions options;
    const bool isMp4
        = QString::fromLatin1(container.oformat->name).contains(QLatin1String("mp4"), Qt::CaseInsensitive);
    if (isMp4)
        setFragments(options);
    const int status = beginContainer(container, options.out(), written);
    if (status < 0 || !isMp4 || hasFragments(container))
        return status;
    // FFmpeg passes options on without looking whether there was memory for each. Nobody could play what is there.
    if (container.pb)
        outputfile::returnTo(container, 0);
    return AVERROR(ENOMEM);
}

}

QString GstRecorder::normalizedOutputPath(const QString& path) const
{
    QString result = path;
    result.replace(QLatin1String("%03d"), QLatin1String("001"));
    result.replace(QLatin1String("%d"), QLatin1String("1"));
    const QFileInfo info(result);
    if (info.suffix().compare(QLatin1String("mp4"), Qt::CaseInsensitive) != 0) {
        const QString base = info.completeBaseName();
        result = base.isEmpty() ? result + QLatin1String(".mp4") : info.dir().filePath(base + QLatin1String(".mp4"));
    }
    return QDir::cleanPath(result);
}

QByteArray GstRecorder::outputFileName() const
{
    return QDir::toNativeSeparators(outputPath).toUtf8();
}

bool GstRecorder::openOutput()
{
    ffmpeglog::tellErrors();
    privatefile::makeDirectories(QFile::encodeName(QFileInfo(outputPath).absolutePath()));
    if (!allocateContainer())
        return false;
    if (!videoCodecContext)
        openPreferredVideoEncoder();
    if (!videoCodecContext && !openFallbackVideoEncoder())
        return false;
    if (!createVideoStream())
        return false;
    // Without audio the recording goes on.
    if (!attempt([this] { openAudioOutput(); }) && !audioCodecContext)
        audioCapture.reset(); // nobody will read it
    if (!openFileAndWriteHeader() || !allocateVideoFrame())
        return false;

    qDebug() << "FFmpeg recorder using video encoder" << videoEncoderName << "output" << outputPath << "container"
             << formatContext->oformat->name << "pixel format" << av_get_pix_fmt_name(videoCodecContext->pix_fmt)
             << "bitrate" << videoCodecContext->bit_rate;
    return true;
}

bool GstRecorder::allocateContainer()
{
    const int status = avformat_alloc_output_context2(&formatContext, nullptr, "mp4", outputFileName().constData());
    if (status >= 0 && formatContext)
        return true;
    qCritical() << "Unable to allocate FFmpeg output context:" << avErrorString(status);
    return false;
}

void GstRecorder::openPreferredVideoEncoder()
{
    for (const QString& name : {preferredEncoder}) {
        if (tryVideoEncoder(name))
            return;
    }
}

bool GstRecorder::tryVideoEncoder(const QString& name)
{
    const AVCodec* codec = avcodec_find_encoder_by_name(name.toLatin1().constData());
    if (!codec)
        return false;
    if (encoderchoice::isForbidden(codec->id, name)) {
        qWarning() << "Skipping forbidden video encoder" << name;
        return false;
    }
    const auto pixelFormat = encoderchoice::inputPixelFormat(avcompat::pixelFormats(codec));
    if (!pixelFormat) {
        qWarning() << "Skipping video encoder with no software input format:" << name;
        return false;
    }
    AvCodecContextHandle context(avcodec_alloc_context3(codec));
    if (!context) {
        qWarning() << "Unable to allocate codec context for" << name;
        return false;
    }
    applyVideoSettings(context.get(), codec, *pixelFormat);
    context->thread_count = encoderchoice::threadCount(QThread::idealThreadCount());
    context->bit_rate = encoderchoice::bitRate(QSize(canvasWidth, canvasHeight));
    context->rc_max_rate = 2 * context->bit_rate;
    context->rc_buffer_size = int(4 * context->bit_rate);

    AvOptions options;
    const int status = avcodec_open2(context.get(), codec, options.out());
    if (status < 0) {
        qWarning() << "Unable to open video encoder" << name << ":" << avErrorString(status);
        return false;
    }
    videoCodecContext = context.release();
    videoEncoderName = QString::fromLatin1(codec->name);
    return true;
}

void GstRecorder::applyVideoSettings(AVCodecContext* context, const AVCodec* codec, AVPixelFormat pixelFormat) const
{
    context->codec_id = codec->id;
    context->codec_type = AVMEDIA_TYPE_VIDEO;
    context->width = canvasWidth;
    context->height = canvasHeight;
    context->time_base = encoderchoice::codecTimeBase;
    context->framerate = encoderchoice::frameRate;
    context->gop_size = encoderchoice::gopSize;
    context->pix_fmt = pixelFormat;
    tagColours(context);
    if (formatContext->oformat->flags & AVFMT_GLOBALHEADER)
        context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
}

bool GstRecorder::openFallbackVideoEncoder()
{
    avformat_free_context(formatContext);
    formatContext = nullptr;
    const QFileInfo info(outputPath);
    outputPath = info.dir().filePath(info.completeBaseName() + QLatin1String(".mkv"));
    int status = avformat_alloc_output_context2(&formatContext, nullptr, "matroska", outputFileName().constData());
    if (status < 0 || !formatContext) {
        qCritical() << "Unable to allocate FFmpeg fallback output context:" << avErrorString(status);
        return false;
    }
    const AVCodec* codec = avcodec_find_encoder_by_name("ffv1");
    if (!codec)
        codec = avcodec_find_encoder(AV_CODEC_ID_FFV1);
    if (!codec) {
        qCritical() << "No preferred video encoder opened, and FFmpeg FFV1 fallback is unavailable.";
        return false;
    }
    videoCodecContext = avcodec_alloc_context3(codec);
    if (!videoCodecContext) {
        qCritical() << "Unable to allocate FFmpeg fallback codec context.";
        return false;
    }
    applyVideoSettings(videoCodecContext, codec, AV_PIX_FMT_BGRA);
    videoCodecContext->thread_count = 0; // FFmpeg chooses

    AvOptions options;
    options.set("slicecrc", "1");
    status = avcodec_open2(videoCodecContext, codec, options.out());
    if (status < 0) {
        qCritical() << "Unable to open FFmpeg FFV1 fallback encoder:" << avErrorString(status);
        return false;
    }
    videoEncoderName = QString::fromLatin1(codec->name);
    qWarning() << "Recording with FFV1 fallback because no preferred video encoder was opened.";
    return true;
}

bool GstRecorder::createVideoStream()
{
    videoStream = avformat_new_stream(formatContext, nullptr);
    if (!videoStream) {
        qCritical() << "Unable to create FFmpeg video stream.";
        return false;
    }
    videoStream->time_base = videoCodecContext->time_base;
    const int status = avcodec_parameters_from_context(videoStream->codecpar, videoCodecContext);
    if (status < 0)
        qCritical() << "Unable to copy FFmpeg codec parameters:" << avErrorString(status);
    return status >= 0;
}

bool GstRecorder::openFileAndWriteHeader()
{
    if (!(formatContext->oformat->flags & AVFMT_NOFILE)) {
        const int status = outputfile::open(*formatContext, outputPath);
        if (status < 0) {
            qCritical() << "Unable to open video output file" << outputPath << ":" << avErrorString(status);
            return false;
        }
    }
    const int status = writeHeader(*formatContext, writtenBytes);
    if (status < 0) {
        qCritical() << "Unable to write FFmpeg output header:" << avErrorString(status);
        return false;
    }
    headerWritten = true;
    return true;
}

bool GstRecorder::allocateVideoFrame()
{
    videoFrame = av_frame_alloc();
    if (!videoFrame) {
        qCritical() << "Unable to allocate FFmpeg video frame.";
        return false;
    }
    videoFrame->format = videoCodecContext->pix_fmt;
    videoFrame->width = videoCodecContext->width;
    videoFrame->height = videoCodecContext->height;
    const int status = av_frame_get_buffer(videoFrame, videoBufferAlignment);
    if (status < 0) {
        qCritical() << "Unable to allocate FFmpeg video frame buffer:" << avErrorString(status);
        return false;
    }
    if (videoCodecContext->pix_fmt == AV_PIX_FMT_BGRA)
        return true;
    swsContext = sws_getContext(canvasWidth, canvasHeight, AV_PIX_FMT_BGRA, canvasWidth, canvasHeight,
        videoCodecContext->pix_fmt, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (!swsContext)
        qCritical() << "Unable to create FFmpeg pixel conversion context.";
    return swsContext;
}

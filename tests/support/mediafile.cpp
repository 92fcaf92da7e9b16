// MediaFile: a recording read back with FFmpeg.
#include "mediafile.h"

#include "avhandles.h"
#include "fragmentdurations.h"
#include "frameconverter.h"

#include <QFile>

#include <array>
#include <cmath>
#include <limits>
#include <memory>

namespace {

struct InputDeleter {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
using InputHandle = std::unique_ptr<AVFormatContext, InputDeleter>;

/// Opens the file and looks into its streams. Null with a negative status when that fails.
InputHandle openInput(const QString& path, int& status)
{
    AVFormatContext* context = nullptr;
    status = avformat_open_input(&context, QFile::encodeName(path).constData(), nullptr, nullptr);
    InputHandle input(context);
    if (status >= 0)
        status = avformat_find_stream_info(input.get(), nullptr);
    if (status < 0)
        input.reset();
    return input;
}

double toMs(qint64 time, AVRational timeBase)
{
    if (time == AV_NOPTS_VALUE)
        return std::numeric_limits<double>::quiet_NaN();
    return double(time) * 1000.0 * timeBase.num / timeBase.den;
}

MediaStream describe(const AVStream& stream)
{
    const AVCodecParameters& parameters = *stream.codecpar;
    MediaStream description;
    description.index = stream.index;
    description.type = parameters.codec_type;
    description.codecId = parameters.codec_id;
    description.codecTag = parameters.codec_tag;
    description.timeBase = stream.time_base;
    description.bitRate = parameters.bit_rate;
    if (parameters.codec_type == AVMEDIA_TYPE_VIDEO) {
        description.size = QSize(parameters.width, parameters.height);
        description.pixelFormat = AVPixelFormat(parameters.format);
        description.primaries = parameters.color_primaries;
        description.transfer = parameters.color_trc;
        description.matrix = parameters.color_space;
        description.range = parameters.color_range;
    } else if (parameters.codec_type == AVMEDIA_TYPE_AUDIO) {
        description.sampleRate = parameters.sample_rate;
        description.channels = parameters.ch_layout.nb_channels;
    }
    return description;
}

/// A decoder for the stream, on one thread. Null with a negative status when there is none.
AvCodecContextHandle openDecoder(const AVStream& stream, int& status)
{
    const AVCodec* codec = avcodec_find_decoder(stream.codecpar->codec_id);
    AvCodecContextHandle decoder(codec ? avcodec_alloc_context3(codec) : nullptr);
    if (!decoder) {
        status = codec ? AVERROR(ENOMEM) : AVERROR_DECODER_NOT_FOUND;
        return nullptr;
    }
    status = avcodec_parameters_to_context(decoder.get(), stream.codecpar);
    decoder->thread_count = 1; // results do not depend on the machine
    decoder->pkt_timebase = stream.time_base;
    if (status >= 0)
        status = avcodec_open2(decoder.get(), codec, nullptr);
    if (status < 0)
        decoder.reset();
    return decoder;
}

/// Hands decoded frames of one packet (null: the end) on until the visitor refuses one.
/// The status is 0, AVERROR_EXIT when the visitor refused, or an error.
int decodePacket(
    AVCodecContext& decoder, const AVPacket* packet, AVFrame& frame, const std::function<int(const AVFrame&)>& visit)
{
    int status = avcodec_send_packet(&decoder, packet);
    while (status >= 0) {
        status = avcodec_receive_frame(&decoder, &frame);
        if (status == AVERROR(EAGAIN) || status == AVERROR_EOF)
            return 0;
        if (status >= 0)
            status = visit(frame);
        av_frame_unref(&frame);
    }
    return status;
}

/// Notes the rate and makes the channels and their converter, which changes the sample format only.
int startAudio(const AVFrame& first, MediaAudio& audio, AvResamplerHandle& converter)
{
    SwrContext* context = nullptr;
    AvChannelLayout layout(first.ch_layout.nb_channels);
    const int status = swr_alloc_set_opts2(&context, layout.get(), AV_SAMPLE_FMT_FLTP, first.sample_rate,
        layout.get(), AVSampleFormat(first.format), first.sample_rate, 0, nullptr);
    converter.reset(context);
    if (status < 0)
        return status;
    audio.sampleRate = first.sample_rate;
    audio.channels.resize(first.ch_layout.nb_channels);
    return swr_init(converter.get());
}

int appendAudio(const AVFrame& frame, MediaAudio& audio, SwrContext& converter)
{
    if (frame.sample_rate != audio.sampleRate || frame.ch_layout.nb_channels != int(audio.channels.size()))
        return AVERROR_INPUT_CHANGED;
    std::vector<quint8*> places;
    for (std::vector<float>& channel : audio.channels) {
        channel.resize(channel.size() + std::size_t(frame.nb_samples));
        places.push_back(reinterpret_cast<quint8*>(channel.data() + channel.size() - frame.nb_samples));
    }
    std::vector<const quint8*> planes(frame.extended_data,
        frame.extended_data
            + (av_sample_fmt_is_planar(AVSampleFormat(frame.format)) ? frame.ch_layout.nb_channels : 1));
    const int converted = swr_convert(&converter, places.data(), frame.nb_samples, planes.data(), frame.nb_samples);
    return converted == frame.nb_samples || converted < 0 ? converted : AVERROR_BUG;
}

}

MediaFile::MediaFile(const QString& path) : path_(path)
{
    int status = 0;
    const InputHandle input = openInput(path_, status);
    if (!input) {
        fail(QStringLiteral("cannot open"), status);
        return;
    }
    containerName_ = QString::fromLatin1(input->iformat->name);
    if (input->duration != AV_NOPTS_VALUE)
        durationMs_ = double(input->duration) * 1000.0 / AV_TIME_BASE;
    for (unsigned i = 0; i < input->nb_streams; ++i)
        streams_.append(describe(*input->streams[i]));
}

const MediaStream* MediaFile::firstStream(AVMediaType type) const
{
    for (const MediaStream& stream : streams_) {
        if (stream.type == type)
            return &stream;
    }
    return nullptr;
}

bool MediaFile::fail(const QString& what, int status)
{
    if (!error_.isEmpty())
        return false; // the first failure is the cause of those after it
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(status, text.data(), text.size());
    error_ = QStringLiteral("%1: %2: %3").arg(path_, what, QString::fromLocal8Bit(text.data()));
    return false;
}

QList<MediaPacket> MediaFile::packets()
{
    QList<MediaPacket> list;
    int status = 0;
    const InputHandle input = openInput(path_, status);
    const AvPacketHandle packet(av_packet_alloc());
    if (!input || !packet) {
        fail(QStringLiteral("cannot open"), packet ? status : AVERROR(ENOMEM));
        return list;
    }
    QHash<quint32, QList<qint64>> statedDurations = fragmentSampleDurations(path_);
    while ((status = av_read_frame(input.get(), packet.get())) >= 0) {
        const AVStream& stream = *input->streams[packet->stream_index];
        const AVRational timeBase = stream.time_base;
        QList<qint64>& stated = statedDurations[quint32(stream.id)]; // one for each packet, in the same order
        MediaPacket entry;
        entry.stream = packet->stream_index;
        entry.pts = packet->pts;
        entry.dts = packet->dts;
        entry.duration = stated.isEmpty() ? packet->duration : stated.takeFirst();
        entry.ptsMs = toMs(packet->pts, timeBase);
        entry.dtsMs = toMs(packet->dts, timeBase);
        entry.durationMs = toMs(entry.duration, timeBase);
        entry.size = packet->size;
        entry.key = packet->flags & AV_PKT_FLAG_KEY;
        entry.corrupt = packet->flags & AV_PKT_FLAG_CORRUPT;
        list.append(entry);
        av_packet_unref(packet.get());
    }
    if (status != AVERROR_EOF)
        fail(QStringLiteral("cannot read packet %1").arg(list.size()), status);
    return list;
}

double MediaFile::seek(double ms)
{
    int status = 0;
    const InputHandle input = openInput(path_, status);
    const AvPacketHandle packet(av_packet_alloc());
    const MediaStream* const video = videoStream();
    double foundMs = std::numeric_limits<double>::quiet_NaN();
    if (input && packet && video) {
        const AVRational timeBase = input->streams[video->index]->time_base;
        const auto wanted = qint64(std::llround(ms / 1000.0 / av_q2d(timeBase)));
        status = av_seek_frame(input.get(), video->index, wanted, AVSEEK_FLAG_BACKWARD);
        while (status >= 0 && std::isnan(foundMs) && (status = av_read_frame(input.get(), packet.get())) >= 0) {
            if (packet->stream_index == video->index)
                foundMs = toMs(packet->pts, timeBase);
            av_packet_unref(packet.get());
        }
    }
    if (std::isnan(foundMs))
        fail(QStringLiteral("cannot seek"), status);
    return foundMs;
}

bool MediaFile::decodeStream(int index, const std::function<int(const AVFrame&, const AVStream&)>& visit)
{
    int status = 0;
    const InputHandle input = openInput(path_, status);
    if (!input)
        return fail(QStringLiteral("cannot open"), status);
    const AVStream& stream = *input->streams[index];
    const AvCodecContextHandle decoder = openDecoder(stream, status);
    if (!decoder)
        return fail(QStringLiteral("cannot decode"), status);
    const AvPacketHandle packet(av_packet_alloc());
    const AvFrameHandle decoded(av_frame_alloc());
    if (!packet || !decoded)
        return fail(QStringLiteral("cannot decode"), AVERROR(ENOMEM));
    const auto visitFrame = [&](const AVFrame& frame) { return visit(frame, stream); };

    while (status >= 0 && (status = av_read_frame(input.get(), packet.get())) >= 0) {
        if (packet->stream_index == index)
            status = decodePacket(*decoder, packet.get(), *decoded, visitFrame);
        av_packet_unref(packet.get());
    }
    if (status == AVERROR_EOF)
        status = decodePacket(*decoder, nullptr, *decoded, visitFrame);
    if (status < 0 && status != AVERROR_EXIT)
        return fail(QStringLiteral("cannot decode"), status);
    return true;
}

bool MediaFile::forEachFrame(const std::function<bool(const MediaFrame&)>& visit)
{
    const MediaStream* const video = videoStream();
    if (!video)
        return fail(QStringLiteral("no video stream"), AVERROR_STREAM_NOT_FOUND);
    FrameConverter converter;
    MediaFrame frame;
    return decodeStream(video->index, [&](const AVFrame& decoded, const AVStream& stream) {
        const int converted = converter.convert(decoded, video->matrix, video->range, frame.image);
        if (converted < 0)
            return converted;
        frame.coloursTagged = converter.coloursTagged();
        frame.ptsMs = toMs(decoded.pts, stream.time_base);
        frame.key = decoded.pict_type == AV_PICTURE_TYPE_I;
        return visit(frame) ? 0 : AVERROR_EXIT;
    });
}

std::optional<MediaAudio> MediaFile::audio()
{
    const MediaStream* const stream = audioStream();
    if (!stream)
        return std::nullopt;
    MediaAudio audio;
    AvResamplerHandle converter;
    const bool whole = decodeStream(stream->index, [&](const AVFrame& frame, const AVStream& source) {
        const double ptsMs = toMs(frame.pts, source.time_base);
        if (!converter) {
            const int status = startAudio(frame, audio, converter);
            if (status < 0)
                return status;
            audio.startMs = ptsMs;
        }
        const double joinMs = std::abs(ptsMs - (audio.startMs + audio.durationMs()));
        audio.worstJoinMs = joinMs <= audio.worstJoinMs ? audio.worstJoinMs : joinMs; // a missing time stays
        return appendAudio(frame, audio, *converter);
    });
    return whole && audio.durationMs() > 0.0 ? std::optional(std::move(audio)) : std::nullopt;
}

QList<MediaFrame> MediaFile::frames()
{
    QList<MediaFrame> list;
    forEachFrame([&](const MediaFrame& frame) {
        list.append(frame);
        return true;
    });
    return list;
}

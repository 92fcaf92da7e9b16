// One pass through the recording. What can be read of a damaged one is copied.
#include "sharecopy.h"

#include "inputfile.h"
#include "opuspriming.h"
#include "outputfile.h"
#include "plaintext.h"
#include "sharetracks.h"

#include <algorithm>

namespace {

constexpr int mostChannels = 2; // more are mixed down, as every browser would do it
constexpr qint64 longestFrameMs = 1000; // the last one is shown that long at most

/// What moves the recording to 0, microseconds. Audio before the first frame that is no more than its decoder's
/// priming moves nothing.
qint64 shiftOf(const AVStream& video, const AVStream* audio)
{
    const auto startUs = [](const AVStream& stream) -> qint64 {
        return stream.start_time == AV_NOPTS_VALUE
            ? 0
            : av_rescale_q(stream.start_time, stream.time_base, {1, AV_TIME_BASE});
    };
    const qint64 videoUs = startUs(video);
    const qint64 firstUs = audio ? std::min(videoUs, startUs(*audio)) : videoUs;
    return videoUs < 0 ? -videoUs : -std::max<qint64>(firstUs, 0);
}

class Copier {
public:
    Copier(AVFormatContext& input, const QString& path) : input_(input), path_(path) { }
    ~Copier();
    Copier(const Copier&) = delete;
    Copier& operator=(const Copier&) = delete;

    /// Empty, or what is wrong, in one sentence.
    QString open(const QString& copy, const EncoderLookup& lookup);
    ShareCopy run(const GoOn& goOn);

private:
    struct Side {
        AvCodecContextHandle decoder;
        AvCodecContextHandle encoder;
        std::unique_ptr<ShareTrack> track; // null: the recording has no such stream
        int source = -1;
    };

    QString openSide(Side& side, int source, const AVCodec& codec);
    PacketSink sinkFor(const Side& side, int index);
    /// Below 0: what stopped it; AVERROR_EXIT: goOn.
    int copyAll(const GoOn& goOn);
    double progress(const AVPacket& packet) const;
    QString notMade(const QString& why) const
    {
        return QStringLiteral("cannot copy %1: %2").arg(plainText(path_), why);
    }

    AVFormatContext& input_;
    const QString path_;
    AVFormatContext* output_ = nullptr; // owned
    Side video_;
    Side audio_;
    qint64 lastFrameUnits_ = 0; // of the video's time base; what the recording says of the last frame
    qint64 priming_ = 0; // samples of the copy's audio that are added to its times here, as the muxer does not
    bool isCutOff_ = false;
};

Copier::~Copier()
{
    if (!output_)
        return;
    outputfile::close(*output_);
    avformat_free_context(output_);
}

QString Copier::openSide(Side& side, int source, const AVCodec& codec)
{
    const AVStream& stream = *input_.streams[source];
    const bool isVideo = stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
    side.source = source;
    if (isVideo && (stream.codecpar->width < 1 || stream.codecpar->height < 1))
        return notMade(QStringLiteral("no frame of it can be decoded"));
    side.decoder = openDecoder(stream);
    if (!side.decoder)
        return notMade(
            isVideo ? QStringLiteral("its video cannot be decoded") : QStringLiteral("its audio cannot be decoded"));
    int status = 0;
    side.encoder = isVideo
        ? openShareVideo(codec, *stream.codecpar, &status)
        : openShareAudio(codec, std::clamp(stream.codecpar->ch_layout.nb_channels, 1, mostChannels), &status);
    AVStream* const target = side.encoder ? avformat_new_stream(output_, nullptr) : nullptr;
    if (target)
        status = avcodec_parameters_from_context(target->codecpar, side.encoder.get());
    if (!target || status < 0)
        return notMade(QStringLiteral("%1 does not take it: %2")
                           .arg(QLatin1String(codec.name), avStatusText(status < 0 ? status : AVERROR(ENOMEM))));
    target->time_base = side.encoder->time_base;
    return QString();
}

PacketSink Copier::sinkFor(const Side& side, int index)
{
    return [this, &side, index](AVPacket& packet) {
        packet.stream_index = index;
        if (packet.duration < 1 && &side == &video_)
            packet.duration
                = av_rescale_q(lastFrameUnits_, input_.streams[side.source]->time_base, side.encoder->time_base);
        if (&side == &audio_) {
            packet.pts += priming_;
            packet.dts += priming_;
        }
        av_packet_rescale_ts(&packet, side.encoder->time_base, output_->streams[index]->time_base);
        return av_interleaved_write_frame(output_, &packet);
    };
}

QString Copier::open(const QString& copy, const EncoderLookup& lookup)
{
    const int video = av_find_best_stream(&input_, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    const int audio = av_find_best_stream(&input_, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (video < 0)
        return notMade(QStringLiteral("it holds no video"));
    const ShareEncoders encoders = ShareEncoders::find(audio >= 0, lookup);
    if (!encoders.error.isEmpty())
        return encoders.error;
    int status = avformat_alloc_output_context2(&output_, nullptr, "webm", nullptr);
    if (status < 0)
        return notMade(QStringLiteral("FFmpeg writes no WebM here"));
    QString error = openSide(video_, video, *encoders.video);
    if (error.isEmpty() && audio >= 0)
        error = openSide(audio_, audio, *encoders.audio);
    if (!error.isEmpty())
        return error;
    if (audio_.encoder && !muxerAddsPriming(*audio_.encoder, copy))
        priming_ = audio_.encoder->initial_padding;
    // The encoder's priming lies before the first sample; the container says so, and nothing is to be moved.
    output_->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;
    status = outputfile::open(*output_, copy);
    if (status >= 0)
        status = avformat_write_header(output_, nullptr);
    if (status < 0)
        return notMade(QStringLiteral("the copy cannot be written: %1").arg(avStatusText(status)));
    const qint64 shiftUs = shiftOf(*input_.streams[video], audio < 0 ? nullptr : input_.streams[audio]);
    video_.track = std::make_unique<ShareVideoTrack>(
        TrackEnds{*input_.streams[video], *video_.decoder, *video_.encoder, shiftUs, sinkFor(video_, 0)});
    if (audio >= 0)
        audio_.track = std::make_unique<ShareAudioTrack>(
            TrackEnds{*input_.streams[audio], *audio_.decoder, *audio_.encoder, shiftUs, sinkFor(audio_, 1)});
    return QString();
}

double Copier::progress(const AVPacket& packet) const
{
    if (input_.duration <= 0 || packet.pts == AV_NOPTS_VALUE)
        return 0;
    constexpr double perSecond = AV_TIME_BASE;
    const double seconds = double(packet.pts) * av_q2d(input_.streams[packet.stream_index]->time_base);
    return std::clamp(seconds * perSecond / double(input_.duration), 0.0, 1.0);
}

int Copier::copyAll(const GoOn& goOn)
{
    const AvPacketHandle packet(av_packet_alloc());
    double done = 0;
    for (;;) {
        const int read = av_read_frame(&input_, packet.get());
        if (read < 0) {
            isCutOff_ = read != AVERROR_EOF || (input_.pb && input_.pb->error != 0);
            break;
        }
        done = std::max(done, progress(*packet));
        if (!goOn(done))
            return AVERROR_EXIT;
        int status = 0;
        for (Side* side : {&video_, &audio_}) {
            if (!side->track || side->source != packet->stream_index)
                continue;
            if (side == &video_)
                lastFrameUnits_ = std::min<qint64>(packet->duration,
                    av_rescale_q(longestFrameMs, {1, 1000}, input_.streams[side->source]->time_base));
            status = side->track->add(packet.get());
        }
        av_packet_unref(packet.get());
        if (status < 0)
            return status;
    }
    for (Side* side : {&video_, &audio_}) {
        const int status = side->track ? side->track->add(nullptr) : 0;
        if (status < 0)
            return status;
    }
    return 0;
}

ShareCopy Copier::run(const GoOn& goOn)
{
    using End = ShareCopy::End;
    int status = copyAll(goOn);
    if (status == AVERROR_EXIT)
        return {End::Cancelled, QStringLiteral("interrupted; there is no copy"), QString()};
    if (status >= 0 && video_.track->encoded() == 0)
        return {End::BadInput, notMade(QStringLiteral("no frame of it can be decoded")), QString()};
    if (status >= 0)
        status = av_write_trailer(output_);
    avio_flush(output_->pb);
    if (status >= 0)
        status = output_->pb->error;
    if (status < 0)
        return {End::NotWritten, notMade(QStringLiteral("the copy cannot be written: %1").arg(avStatusText(status))),
            QString()};
    ShareCopy result{End::Made, QString(), QString()};
    const qint64 bad = video_.track->bad() + (audio_.track ? audio_.track->bad() : 0);
    if (isCutOff_)
        result.remark = QStringLiteral("%1 cannot be read to its end; the copy ends earlier").arg(plainText(path_));
    else if (bad > 0)
        result.remark = QStringLiteral("frames or blocks of audio of %1 cannot be decoded, and are missing in the "
                                       "copy: %2")
                            .arg(plainText(path_))
                            .arg(bad);
    return result;
}

}

ShareCopy makeShareCopy(const QString& recording, const QString& copy, const EncoderLookup& lookup, const GoOn& goOn)
{
    ShareCopy result;
    QString error;
    const InputHandle input = openInput(recording, &error);
    if (!input) {
        result.error = QStringLiteral("cannot read %1: %2").arg(plainText(recording), error);
        return result;
    }
    Copier copier(*input, recording);
    result.error = copier.open(copy, lookup);
    return result.error.isEmpty() ? copier.run(goOn) : result;
}

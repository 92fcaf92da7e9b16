// Reading a file with FFmpeg: every packet's time, and as much as possible decoded.
#include "inspection.h"

#include "inputfile.h"

#include <QElapsedTimer>

#include <algorithm>

namespace {

constexpr AVRational milliseconds{1, 1000};
constexpr qint64 shortestGapMs = 1000;
constexpr qsizetype mostGaps = 20; // more do not tell more

/// One stream's decoder, and the times of its packets.
class Reader {
public:
    explicit Reader(const AVStream& stream) : stream_(stream), decoder_(openDecoder(stream)) { }

    int index() const { return stream_.index; }
    QString codecName() const { return QString::fromLatin1(avcodec_get_name(stream_.codecpar->codec_id)); }
    const AVCodecParameters& parameters() const { return *stream_.codecpar; }

    void noteTime(const AVPacket& packet);
    /// null: what is still in the decoder.
    void decode(const AVPacket* packet);
    void stopDecoding() { decoder_.reset(); }

    qint64 packets = 0;
    qint64 decoded = 0;
    qint64 bad = 0;
    qint64 firstMs = 0;
    qint64 lastMs = 0;
    qint64 endMs = 0;
    qint64 longestGapMs = 0;
    QList<Inspection::Gap> gaps;

private:
    const AVStream& stream_;
    AvCodecContextHandle decoder_; // null: nothing is decoded
    const AvFrameHandle frame_{av_frame_alloc()};
};

void Reader::noteTime(const AVPacket& packet)
{
    const qint64 stamp = packet.pts != AV_NOPTS_VALUE ? packet.pts : packet.dts;
    if (stamp == AV_NOPTS_VALUE)
        return;
    const qint64 atMs = av_rescale_q(stamp, stream_.time_base, milliseconds);
    const qint64 lengthMs = av_rescale_q(packet.duration, stream_.time_base, milliseconds);
    if (packets == 0) {
        firstMs = atMs;
    } else {
        const qint64 gapMs = atMs - lastMs;
        longestGapMs = std::max(longestGapMs, gapMs);
        if (gapMs > shortestGapMs && gaps.size() < mostGaps)
            gaps.append({lastMs, gapMs});
    }
    ++packets;
    lastMs = atMs;
    // MP4 gives a frame the time until the next one, and the last one what its encoder said.
    endMs = atMs + std::min(lengthMs, shortestGapMs);
}

void Reader::decode(const AVPacket* packet)
{
    if (!decoder_)
        return;
    if (avcodec_send_packet(decoder_.get(), packet) < 0)
        ++bad;
    for (;;) {
        const int status = avcodec_receive_frame(decoder_.get(), frame_.get());
        if (status == AVERROR(EAGAIN) || status == AVERROR_EOF)
            return;
        if (status < 0) {
            ++bad;
            return;
        }
        ++decoded;
        if (frame_->decode_error_flags != 0 || (frame_->flags & AV_FRAME_FLAG_CORRUPT) != 0)
            ++bad;
    }
}

std::unique_ptr<Reader> readerOf(AVFormatContext& input, AVMediaType type)
{
    const int index = av_find_best_stream(&input, type, -1, -1, nullptr, 0);
    return index < 0 ? nullptr : std::make_unique<Reader>(*input.streams[index]);
}

/// Empty, or what stopped the reading before the end of the file.
QString readAll(AVFormatContext& input, const QList<Reader*>& readers, qint64 decodingLimitMs)
{
    QElapsedTimer clock;
    clock.start();
    const AvPacketHandle packet(av_packet_alloc());
    for (;;) {
        const int status = av_read_frame(&input, packet.get());
        if (status == AVERROR_EOF && (!input.pb || input.pb->error == 0))
            break;
        if (status < 0)
            return avStatusText(status);
        for (Reader* reader : readers) {
            if (clock.elapsed() > decodingLimitMs)
                reader->stopDecoding();
            if (reader->index() != packet->stream_index)
                continue;
            reader->noteTime(*packet);
            reader->decode(packet.get());
        }
        av_packet_unref(packet.get());
    }
    for (Reader* reader : readers)
        reader->decode(nullptr);
    return QString();
}

Inspection::Video videoOf(const Reader& reader)
{
    Inspection::Video video;
    video.codec = reader.codecName();
    video.size = QSize(reader.parameters().width, reader.parameters().height);
    video.frames = reader.packets;
    video.decodedFrames = reader.decoded;
    video.badFrames = reader.bad;
    video.endMs = reader.packets > 0 ? reader.endMs - reader.firstMs : 0;
    video.longestGapMs = reader.longestGapMs;
    video.gaps = reader.gaps;
    for (Inspection::Gap& gap : video.gaps)
        gap.fromMs -= reader.firstMs;
    return video;
}

Inspection::Audio audioOf(const Reader& reader)
{
    Inspection::Audio audio;
    audio.codec = reader.codecName();
    audio.rate = reader.parameters().sample_rate;
    audio.channels = reader.parameters().ch_layout.nb_channels;
    audio.lengthMs = reader.packets > 0 ? reader.endMs - reader.firstMs : 0;
    audio.badBlocks = reader.bad;
    return audio;
}

}

Inspection inspectRecording(const QString& path, qint64 decodingLimitMs)
{
    Inspection result;
    const InputHandle input = openInput(path, &result.error);
    if (!input)
        return result;
    const std::unique_ptr<Reader> video = readerOf(*input, AVMEDIA_TYPE_VIDEO);
    const std::unique_ptr<Reader> audio = readerOf(*input, AVMEDIA_TYPE_AUDIO);
    QList<Reader*> readers{video.get(), audio.get()};
    readers.removeAll(nullptr);
    result.error = readAll(*input, readers, decodingLimitMs);
    if (video)
        result.video = videoOf(*video);
    if (audio)
        result.audio = audioOf(*audio);
    return result;
}

QJsonObject Inspection::videoJson() const
{
    if (!video)
        return QJsonObject();
    return {{QStringLiteral("codec"), video->codec}, {QStringLiteral("width"), video->size.width()},
        {QStringLiteral("height"), video->size.height()}, {QStringLiteral("frames"), video->frames},
        {QStringLiteral("decodedFrames"), video->decodedFrames}, {QStringLiteral("badFrames"), video->badFrames},
        {QStringLiteral("lengthMs"), video->endMs}, {QStringLiteral("longestGapMs"), video->longestGapMs}};
}

QJsonObject Inspection::audioJson() const
{
    if (!audio)
        return QJsonObject();
    return {{QStringLiteral("codec"), audio->codec}, {QStringLiteral("rate"), audio->rate},
        {QStringLiteral("channels"), audio->channels}, {QStringLiteral("lengthMs"), audio->lengthMs},
        {QStringLiteral("badBlocks"), audio->badBlocks}};
}

// The WebM copy of a recording: frames, colours and audio where the recording has them.
#include "sharecopy.h"

#include "avhandles.h"
#include "clipwriter.h"
#include "inputfile.h"
#include "mediafile.h"
#include "privatetempdir.h"
#include "testregistry.h"

#include <QColor>
#include <QFile>
#include <QTest>

#include <algorithm>
#include <cmath>
#include <optional>
#include <vector>

namespace {

constexpr int samplesPerMs = 48;
constexpr qint64 flashEveryMs = 1000;
constexpr qint64 flashMs = 80;
const QSize size(128, 96);
const QColor still(40, 90, 160);

/// Of uneven distances, as a recording has them.
QList<qint64> unevenTimes(qint64 lengthMs)
{
    QList<qint64> times;
    for (qint64 at = 0, i = 0; at < lengthMs; at += 35 + i * 7 % 20, ++i)
        times.append(at);
    return times;
}

bool isLoud(qint64 ms)
{
    return ms % flashEveryMs >= flashEveryMs / 2 && ms % flashEveryMs < flashEveryMs / 2 + flashMs;
}

/// A frame begins each flash, and a burst of 1 kHz with it.
bool writeFlashes(const QString& path, qint64 lengthMs, bool withAudio = true)
{
    QList<qint64> times = unevenTimes(lengthMs);
    for (qint64 at = flashEveryMs / 2; at < lengthMs; at += flashEveryMs)
        times += {at, at + flashMs};
    std::sort(times.begin(), times.end());
    times.erase(std::unique(times.begin(), times.end()), times.end());
    ClipOptions options;
    options.withAudio = withAudio;
    ClipWriter writer(path, size, options);
    QImage frame(size, QImage::Format_RGB32);
    bool written = true;
    for (const qint64 at : times) {
        frame.fill(isLoud(at) ? QColor(Qt::white) : still);
        written = written && writer.add(frame, at);
    }
    std::vector<float> samples(std::size_t(lengthMs * samplesPerMs));
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = isLoud(qint64(i) / samplesPerMs) ? (i / 24 % 2 ? -0.5F : 0.5F) : 0.0F;
    written = written && (!withAudio || writer.addAudio(samples));
    return written && writer.finish();
}

QList<double> flashes(MediaFile& file)
{
    QList<double> times;
    bool white = false;
    file.forEachFrame([&](const MediaFrame& frame) {
        const bool now = qRed(frame.image.pixel(size.width() / 2, size.height() / 2)) > 150;
        if (now && !white)
            times.append(frame.ptsMs);
        white = now;
        return true;
    });
    return times;
}

QList<double> bursts(MediaFile& file)
{
    QList<double> times;
    const std::optional<MediaAudio> audio = file.audio();
    double lastLoudMs = -flashEveryMs;
    for (std::size_t i = 0; audio && i < audio->channels[0].size(); ++i) {
        if (std::abs(audio->channels[0][i]) < 0.25F)
            continue;
        const double atMs = audio->startMs + double(i) * 1000.0 / audio->sampleRate;
        if (atMs - lastLoudMs > double(flashEveryMs) / 4)
            times.append(atMs);
        lastLoudMs = atMs;
    }
    return times;
}

/// Where a packet of the second stream goes, milliseconds; nothing: it is left out.
using Shift = std::function<std::optional<qint64>(qint64 atMs)>;

/// The same streams in a Matroska file, with the audio at other places.
bool remux(const QString& from, const QString& to, const Shift& shift)
{
    QString error;
    const InputHandle input = openInput(from, &error);
    AVFormatContext* output = nullptr;
    const QByteArray name = "file:" + QFile::encodeName(to);
    if (!input || avformat_alloc_output_context2(&output, nullptr, "matroska", name.constData()) < 0)
        return false;
    bool good = true;
    for (unsigned i = 0; i < input->nb_streams; ++i) {
        AVStream* stream = avformat_new_stream(output, nullptr);
        good = good && stream && avcodec_parameters_copy(stream->codecpar, input->streams[i]->codecpar) >= 0;
        stream->codecpar->codec_tag = 0;
    }
    good = good && avio_open(&output->pb, name.constData(), AVIO_FLAG_WRITE) >= 0
        && avformat_write_header(output, nullptr) >= 0;
    const AvPacketHandle packet(av_packet_alloc());
    while (good && av_read_frame(input.get(), packet.get()) >= 0) {
        const AVRational base = input->streams[packet->stream_index]->time_base;
        const bool isAudio = packet->stream_index == 1;
        const auto moved = isAudio ? shift(av_rescale_q(packet->pts, base, {1, 1000})) : std::optional<qint64>(0);
        packet->pts += av_rescale_q(moved.value_or(0), {1, 1000}, base);
        packet->dts = packet->pts;
        av_packet_rescale_ts(packet.get(), base, output->streams[packet->stream_index]->time_base);
        good = !moved || av_interleaved_write_frame(output, packet.get()) >= 0;
        av_packet_unref(packet.get());
    }
    good = good && av_write_trailer(output) >= 0;
    avio_closep(&output->pb);
    avformat_free_context(output);
    return good;
}

bool always(double)
{
    return true;
}

}

class ShareCopyTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        directory_.emplace();
        QFile copy(path("copy.webm"));
        QVERIFY(copy.open(QIODevice::WriteOnly));
    }
    void cleanup() { directory_.reset(); }

    void streamsAreThoseOfBrowsers();
    void framesKeepTheirTimesAndColours();
    void audioKeepsItsStep();
    void audioKeepsItsPlace_data();
    void audioKeepsItsPlace();
    void recordingWithoutAudio();
    void losslessRecording();
    void cutRecordingIsCopiedAsFarAsItGoes();
    void badInput_data();
    void badInput();
    void cancelledCopyEnds();
    void missingEncoderIsSaid_data();
    void missingEncoderIsSaid();

private:
    QString path(const char* name) const { return directory_->filePath(QLatin1String(name)); }
    ShareCopy copy(const QString& from) const
    {
        return makeShareCopy(from, path("copy.webm"), &avcodec_find_encoder_by_name, &always);
    }
    /// The copy's, of which so many are heard, so much later than they are seen.
    void compareFlashes(qint64 lateMs, qsizetype heardOf, double toleranceMs) const;

    std::optional<PrivateTempDir> directory_;
};

void ShareCopyTest::streamsAreThoseOfBrowsers()
{
    QVERIFY(writeFlashes(path("clip.mp4"), 2000));
    const ShareCopy made = copy(path("clip.mp4"));
    QCOMPARE(made.error, QString());
    QCOMPARE(made.remark, QString());
    QVERIFY(made.end == ShareCopy::End::Made);
    const MediaFile file(path("copy.webm"));
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QCOMPARE(file.containerName(), QStringLiteral("matroska,webm"));
    QCOMPARE(file.streams().size(), 2);
    QCOMPARE(file.videoStream()->codecId, AV_CODEC_ID_VP9);
    QCOMPARE(file.videoStream()->size, size);
    QCOMPARE(file.videoStream()->matrix, AVCOL_SPC_SMPTE170M);
    QCOMPARE(file.videoStream()->range, AVCOL_RANGE_MPEG);
    QCOMPARE(file.audioStream()->codecId, AV_CODEC_ID_OPUS);
    QCOMPARE(file.audioStream()->channels, 2);
    QVERIFY(std::abs(file.durationMs() - 2000) < 60);
}

void ShareCopyTest::framesKeepTheirTimesAndColours()
{
    QVERIFY(writeFlashes(path("clip.mp4"), 3000));
    QCOMPARE(copy(path("clip.mp4")).error, QString());
    MediaFile recording(path("clip.mp4"));
    MediaFile shared(path("copy.webm"));
    const QList<MediaFrame> expected = recording.frames();
    const QList<MediaFrame> found = shared.frames();
    QVERIFY(expected.size() > 60);
    QCOMPARE(found.size(), expected.size());
    for (qsizetype i = 0; i < found.size(); ++i) {
        QVERIFY2(std::abs(found[i].ptsMs - expected[i].ptsMs) <= 1.0, qPrintable(QString::number(i)));
        const QColor here(found[i].image.pixel(60, 40));
        const QColor there(expected[i].image.pixel(60, 40));
        QVERIFY(std::abs(here.red() - there.red()) < 12 && std::abs(here.green() - there.green()) < 12
            && std::abs(here.blue() - there.blue()) < 12);
    }
}

void ShareCopyTest::compareFlashes(qint64 lateMs, qsizetype heardOf, double toleranceMs) const
{
    MediaFile shared(path("copy.webm"));
    const QList<double> seen = flashes(shared);
    const QList<double> heard = bursts(shared);
    QCOMPARE(heard.size(), heardOf);
    // A file has no time before 0: a muxer can have moved both streams by the priming of the audio.
    QVERIFY(std::abs(seen[0] - flashEveryMs / 2.0) < 25);
    for (qsizetype i = 0; i < seen.size(); ++i)
        QVERIFY2(std::abs(seen[i] - seen[0] - double(flashEveryMs * i)) <= 1.0, QByteArray::number(seen[i]));
    for (const double atMs : heard) {
        const double periods = (atMs - seen[0] - double(lateMs)) / flashEveryMs;
        QVERIFY2(std::abs(periods - std::round(periods)) * flashEveryMs <= toleranceMs, QByteArray::number(atMs));
    }
}

/// To a millisecond and a half: the priming of Opus is 6.5 ms, and is to be counted once.
void ShareCopyTest::audioKeepsItsStep()
{
    QVERIFY(writeFlashes(path("clip.mp4"), 8000));
    QCOMPARE(copy(path("clip.mp4")).error, QString());
    compareFlashes(0, 8, 1.5);
}

void ShareCopyTest::audioKeepsItsPlace_data()
{
    QTest::addColumn<qint64>("lateMs");
    QTest::addColumn<qint64>("holeFromMs");
    QTest::addColumn<qint64>("holeToMs");
    QTest::addColumn<qsizetype>("heardOf");
    QTest::newRow("late audio") << qint64(1500) << qint64(-1) << qint64(-1) << qsizetype(7);
    QTest::newRow("a hole in the audio") << qint64(0) << qint64(2100) << qint64(4300) << qsizetype(5);
}

void ShareCopyTest::audioKeepsItsPlace()
{
    QFETCH(const qint64, lateMs);
    QFETCH(const qint64, holeFromMs);
    QFETCH(const qint64, holeToMs);
    QFETCH(const qsizetype, heardOf);
    QVERIFY(writeFlashes(path("clip.mp4"), 7000));
    QVERIFY(remux(path("clip.mp4"), path("moved.mkv"),
        [=](qint64 atMs) { return atMs >= holeFromMs && atMs < holeToMs ? std::nullopt : std::optional(lateMs); }));
    QCOMPARE(copy(path("moved.mkv")).error, QString());
    compareFlashes(lateMs, heardOf, 2.0); // Matroska counts milliseconds
}

/// It needs no encoder of audio.
void ShareCopyTest::recordingWithoutAudio()
{
    QVERIFY(writeFlashes(path("clip.mp4"), 1000, false));
    const ShareCopy made = makeShareCopy(
        path("clip.mp4"), path("copy.webm"),
        [](const char* name) { return qstrcmp(name, "libopus") ? avcodec_find_encoder_by_name(name) : nullptr; },
        &always);
    QCOMPARE(made.error, QString());
    const MediaFile file(path("copy.webm"));
    QCOMPARE(file.streams().size(), 1);
}

/// As the recorder's fallback writes it: FFV1 with RGB pixels.
void ShareCopyTest::losslessRecording()
{
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_FFV1);
    AvCodecContextHandle encoder(avcodec_alloc_context3(codec));
    encoder->width = size.width();
    encoder->height = size.height();
    encoder->pix_fmt = AV_PIX_FMT_BGRA;
    encoder->time_base = {1, 1000};
    encoder->colorspace = AVCOL_SPC_RGB;
    encoder->color_range = AVCOL_RANGE_JPEG;
    QVERIFY(avcodec_open2(encoder.get(), codec, nullptr) >= 0);
    AVFormatContext* output = nullptr;
    const QByteArray name = "file:" + QFile::encodeName(path("clip.mkv"));
    QVERIFY(avformat_alloc_output_context2(&output, nullptr, "matroska", name.constData()) >= 0);
    AVStream* stream = avformat_new_stream(output, nullptr);
    QVERIFY(avcodec_parameters_from_context(stream->codecpar, encoder.get()) >= 0);
    QVERIFY(avio_open(&output->pb, name.constData(), AVIO_FLAG_WRITE) >= 0);
    QVERIFY(avformat_write_header(output, nullptr) >= 0);
    const QColor green(20, 200, 40); // which another matrix would make another colour
    QImage image(size, QImage::Format_ARGB32);
    image.fill(green);
    const AvFrameHandle frame(av_frame_alloc());
    frame->format = encoder->pix_fmt;
    frame->width = size.width();
    frame->height = size.height();
    const AvPacketHandle packet(av_packet_alloc());
    for (int i = 0; i < 5; ++i) {
        QVERIFY(av_frame_get_buffer(frame.get(), 0) >= 0);
        for (int y = 0; y < size.height(); ++y)
            memcpy(frame->data[0] + y * frame->linesize[0], image.constScanLine(y), std::size_t(size.width()) * 4);
        frame->pts = i * 41;
        QVERIFY(avcodec_send_frame(encoder.get(), frame.get()) >= 0);
        while (avcodec_receive_packet(encoder.get(), packet.get()) >= 0)
            QVERIFY(av_interleaved_write_frame(output, packet.get()) >= 0);
        av_buffer_unref(&frame->buf[0]);
    }
    QVERIFY(av_write_trailer(output) >= 0);
    avio_closep(&output->pb);
    avformat_free_context(output);

    QCOMPARE(copy(path("clip.mkv")).error, QString());
    MediaFile shared(path("copy.webm"));
    const QList<MediaFrame> frames = shared.frames();
    QCOMPARE(frames.size(), 5);
    QCOMPARE(shared.videoStream()->matrix, AVCOL_SPC_SMPTE170M);
    const QColor colour(frames[4].image.pixel(60, 40));
    QVERIFY2(std::abs(colour.red() - green.red()) < 6 && std::abs(colour.green() - green.green()) < 6
            && std::abs(colour.blue() - green.blue()) < 6,
        qPrintable(colour.name()));
}

/// What a killed recorder leaves can be shown to somebody, too.
void ShareCopyTest::cutRecordingIsCopiedAsFarAsItGoes()
{
    QVERIFY(writeFlashes(path("clip.mp4"), 6000));
    QFile file(path("clip.mp4"));
    QVERIFY(file.resize(file.size() * 2 / 3));
    const ShareCopy made = copy(path("clip.mp4"));
    QCOMPARE(made.error, QString());
    MediaFile shared(path("copy.webm"));
    const qsizetype frames = shared.frames().size();
    QVERIFY2(frames > 40 && frames < 140, qPrintable(QString::number(frames)));
}

void ShareCopyTest::badInput_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("words");
    QTest::newRow("nothing") << QByteArray() << QStringLiteral("cannot read ");
    QTest::newRow("text") << QByteArray(4096, 'x') << QStringLiteral("cannot read ");
    QTest::newRow("playlist") << QByteArray("#EXTM3U\n#EXT-X-TARGETDURATION:9\n#EXTINF:9,\nfile:///etc/passwd\n")
                              << QStringLiteral("it is no MP4 or Matroska file");
    QTest::newRow("cut before the first frame") << QByteArray("900 bytes") << QStringLiteral("cannot ");
    QTest::newRow("beginning of an MP4")
        << QByteArray::fromHex("00000014667479706d703432000000006d703432") << QStringLiteral("cannot ");
}

void ShareCopyTest::badInput()
{
    QFETCH(const QByteArray, content);
    QFETCH(const QString, words);
    QFile file(path("bad.mp4"));
    QByteArray bytes = content;
    if (content == "900 bytes") {
        QVERIFY(writeFlashes(path("clip.mp4"), 1000));
        QFile whole(path("clip.mp4"));
        QVERIFY(whole.open(QIODevice::ReadOnly));
        bytes = whole.read(900);
    }
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.flush());
    const ShareCopy made = copy(path("bad.mp4"));
    QVERIFY(made.end == ShareCopy::End::BadInput);
    QVERIFY2(made.error.contains(words), qPrintable(made.error));
}

void ShareCopyTest::cancelledCopyEnds()
{
    QVERIFY(writeFlashes(path("clip.mp4"), 3000));
    double last = 0;
    const ShareCopy made
        = makeShareCopy(path("clip.mp4"), path("copy.webm"), &avcodec_find_encoder_by_name, [&](double done) {
              last = done;
              return done < 0.5;
          });
    QVERIFY(made.end == ShareCopy::End::Cancelled);
    QVERIFY2(last >= 0.5 && last < 0.7, qPrintable(QString::number(last)));
}

void ShareCopyTest::missingEncoderIsSaid_data()
{
    QTest::addColumn<QByteArrayList>("missing");
    QTest::addColumn<QString>("words");
    QTest::newRow("VP9") << QByteArrayList{"libvpx-vp9"} << QString();
    QTest::newRow("VP9 and VP8") << QByteArrayList{"libvpx-vp9", "libvpx"} << QStringLiteral("VP9 or VP8");
    QTest::newRow("Opus") << QByteArrayList{"libopus"} << QStringLiteral("Opus");
}

void ShareCopyTest::missingEncoderIsSaid()
{
    QFETCH(const QByteArrayList, missing);
    QFETCH(const QString, words);
    QVERIFY(writeFlashes(path("clip.mp4"), 1000));
    const ShareCopy made = makeShareCopy(
        path("clip.mp4"), path("copy.webm"),
        [&](const char* name) { return missing.contains(name) ? nullptr : avcodec_find_encoder_by_name(name); },
        &always);
    QCOMPARE(made.error.isEmpty(), words.isEmpty());
    QVERIFY2(made.error.contains(words), qPrintable(made.error));
    if (words.isEmpty()) // VP8 does
        QCOMPARE(MediaFile(path("copy.webm")).videoStream()->codecId, AV_CODEC_ID_VP8);
}

ORVANTIS_TEST(ShareCopyTest)
#include "sharecopy_test.moc"

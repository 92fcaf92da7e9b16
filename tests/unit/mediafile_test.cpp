// The reader of recordings: it reports what was written into a file.
#include "clipwriter.h"
#include "mediafile.h"
#include "privatetempdir.h"
#include "testregistry.h"

#include <QFile>
#include <QPainter>
#include <QTest>

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

constexpr QSize size(320, 240);
constexpr int frameCount = 30;

/// Four quadrants: red, green, blue, and a grey that changes with the frame.
QImage frame(int index)
{
    QImage image(size, QImage::Format_RGB32);
    QPainter painter(&image);
    painter.fillRect(0, 0, 160, 120, QColor(255, 0, 0));
    painter.fillRect(160, 0, 160, 120, QColor(0, 255, 0));
    painter.fillRect(0, 120, 160, 120, QColor(0, 0, 255));
    painter.fillRect(160, 120, 160, 120, QColor(40 + 6 * index, 40 + 6 * index, 40 + 6 * index));
    return image;
}

bool near(QRgb seen, QRgb expected)
{
    constexpr int tolerance = 8;
    const bool good = std::abs(qRed(seen) - qRed(expected)) <= tolerance
        && std::abs(qGreen(seen) - qGreen(expected)) <= tolerance
        && std::abs(qBlue(seen) - qBlue(expected)) <= tolerance;
    if (!good)
        qWarning() << QColor(seen) << "instead of" << QColor(expected);
    return good;
}

/// Empty when the clip was written.
QString writeClip(const QString& path, const ClipOptions& options = ClipOptions())
{
    ClipWriter clip(path, size, options);
    for (int i = 0; i < frameCount; ++i) {
        if (!clip.add(frame(i), i * 41 + (i >= 20 ? 100 : 0)))
            return clip.errorString();
    }
    return clip.finish() ? QString() : clip.errorString();
}

}

class MediaFileTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void streamIsDescribed();
    void missingTagsAreUnspecified();
    void packetsKeepTheirTimes();
    void framesKeepTimesAndColours();
    void framesCanBeKeptAndStopped();
    void audioKeepsTimeAndSamples();
    void fileWithoutAudioHasNone();
    void cutOffFileIsReadToTheCut();
    void damagedPacketIsAFailure();
    void noRecordingIsAnError();

private:
    PrivateTempDir directory_;
    QString path_ = directory_.filePath(QStringLiteral("clip.mp4"));
};

void MediaFileTest::initTestCase()
{
    QCOMPARE(writeClip(path_), QString());
}

void MediaFileTest::streamIsDescribed()
{
    const MediaFile file(path_);
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QVERIFY(file.containerName().contains(QStringLiteral("mp4")));
    QCOMPARE(file.streams().size(), 1);
    QVERIFY(!file.audioStream());
    const MediaStream* const video = file.videoStream();
    QVERIFY(video);
    QCOMPARE(video->codecId, AV_CODEC_ID_MPEG4);
    QCOMPARE(video->codecTag, quint32(MKTAG('m', 'p', '4', 'v')));
    QCOMPARE(video->size, size);
    QCOMPARE(video->pixelFormat, AV_PIX_FMT_YUV420P);
    QCOMPARE(video->primaries, AVCOL_PRI_BT709);
    QCOMPARE(video->transfer, AVCOL_TRC_IEC61966_2_1);
    QCOMPARE(video->matrix, AVCOL_SPC_SMPTE170M);
    QCOMPARE(video->range, AVCOL_RANGE_MPEG);
    QCOMPARE(video->timeBase.num, 1);
    QCOMPARE(video->timeBase.den, 16000); // the muxer makes it finer than the thousandth that was asked for
}

void MediaFileTest::missingTagsAreUnspecified()
{
    const QString path = directory_.filePath(QStringLiteral("untagged.mp4"));
    ClipOptions options;
    options.taggedMatrix = AVCOL_SPC_UNSPECIFIED;
    QCOMPARE(writeClip(path, options), QString());
    MediaFile file(path);
    QVERIFY(file.videoStream());
    QCOMPARE(file.videoStream()->matrix, AVCOL_SPC_UNSPECIFIED);
    QCOMPARE(file.videoStream()->range, AVCOL_RANGE_UNSPECIFIED);
    const QList<MediaFrame> frames = file.frames();
    QCOMPARE(frames.size(), frameCount);
    QVERIFY(!frames[0].coloursTagged);
    QVERIFY(near(frames[0].image.pixel(80, 60), qRgb(255, 0, 0)));
}

void MediaFileTest::packetsKeepTheirTimes()
{
    MediaFile file(path_);
    const QList<MediaPacket> packets = file.packets();
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QCOMPARE(packets.size(), frameCount);
    for (int i = 0; i < frameCount; ++i) {
        const MediaPacket& packet = packets[i];
        const int ptsMs = i * 41 + (i >= 20 ? 100 : 0);
        QCOMPARE(packet.stream, 0);
        QCOMPARE(packet.pts, ptsMs * 16);
        QCOMPARE(packet.ptsMs, double(ptsMs));
        QCOMPARE(packet.dtsMs, double(ptsMs));
        QVERIFY(packet.size > 0);
        QVERIFY(!packet.corrupt);
        QCOMPARE(packet.key, i % 12 == 0);
        // The muxer makes each last as long as it is until the next one, and the last as long as it was told.
        const int durationMs = i == 19 ? 141 : 41;
        QCOMPARE(packet.duration, durationMs * 16);
        QCOMPARE(packet.durationMs, double(durationMs));
    }
}

void MediaFileTest::framesKeepTimesAndColours()
{
    MediaFile file(path_);
    int index = 0;
    const bool read = file.forEachFrame([&](const MediaFrame& frame) {
        const int grey = 40 + 6 * index;
        const bool good = frame.image.size() == size && frame.image.format() == QImage::Format_RGB32
            && frame.coloursTagged && frame.key == (index % 12 == 0)
            && frame.ptsMs == index * 41 + (index >= 20 ? 100 : 0) && near(frame.image.pixel(80, 60), qRgb(255, 0, 0))
            && near(frame.image.pixel(240, 60), qRgb(0, 255, 0)) && near(frame.image.pixel(80, 180), qRgb(0, 0, 255))
            && near(frame.image.pixel(240, 180), qRgb(grey, grey, grey));
        index += good ? 1 : 0;
        return good;
    });
    QVERIFY2(read, qPrintable(file.errorString()));
    QCOMPARE(index, frameCount);
}

void MediaFileTest::framesCanBeKeptAndStopped()
{
    MediaFile file(path_);
    const QList<MediaFrame> frames = file.frames();
    QCOMPARE(frames.size(), frameCount);
    QVERIFY(near(frames[0].image.pixel(240, 180), qRgb(40, 40, 40)));
    QVERIFY(near(frames[29].image.pixel(240, 180), qRgb(214, 214, 214)));

    int seen = 0;
    QVERIFY(file.forEachFrame([&](const MediaFrame&) { return ++seen < 5; }));
    QCOMPARE(seen, 5);
    QVERIFY(file.isValid());
}

/// A step in the audio and the frame of the same time come back at the same time.
void MediaFileTest::audioKeepsTimeAndSamples()
{
    constexpr int rate = 48000;
    const QString path = directory_.filePath(QStringLiteral("audio.mp4"));
    ClipOptions options;
    options.withAudio = true;
    ClipWriter clip(path, size, options);
    for (int i = 0; i < frameCount; ++i)
        QVERIFY(clip.add(frame(i), i * 41));
    std::vector<float> samples(rate * 5 / 4);
    for (std::size_t i = rate / 2; i < samples.size(); ++i)
        samples[i] = 0.5f * float(std::sin(0.1 * double(i)));
    QVERIFY(clip.addAudio(samples));
    QVERIFY2(clip.finish(), qPrintable(clip.errorString()));

    MediaFile file(path);
    QVERIFY(file.audioStream());
    QCOMPARE(file.audioStream()->codecId, AV_CODEC_ID_AAC);
    QCOMPARE(file.audioStream()->sampleRate, rate);
    QCOMPARE(file.audioStream()->channels, 2);
    const std::optional<MediaAudio> audio = file.audio();
    QVERIFY2(audio, qPrintable(file.errorString()));
    QCOMPARE(audio->sampleRate, rate);
    QCOMPARE(audio->channels.size(), 2);
    QVERIFY(audio->startMs > -25.0 && audio->startMs <= 0.0); // what the encoder puts before the audio may be there
    const double endMs = audio->startMs + audio->durationMs();
    QVERIFY2(endMs >= 1250.0 && endMs < 1272.0, qPrintable(QString::number(endMs)));
    QVERIFY2(audio->worstJoinMs < 0.1, qPrintable(QString::number(audio->worstJoinMs)));
    for (const std::vector<float>& channel : audio->channels) {
        const auto loud = std::find_if(channel.begin(), channel.end(), [](float sample) { return sample > 0.25f; });
        const double atMs = audio->startMs + double(loud - channel.begin()) * 1000.0 / rate;
        QVERIFY2(std::abs(atMs - 500.0) < 1.0, qPrintable(QString::number(atMs)));
    }
    const QList<MediaFrame> frames = file.frames();
    QCOMPARE(frames.size(), frameCount);
    for (int i = 0; i < frameCount; ++i)
        QCOMPARE(frames[i].ptsMs, i * 41.0);
}

void MediaFileTest::fileWithoutAudioHasNone()
{
    MediaFile file(path_);
    QVERIFY(!file.audio());
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QVERIFY(!MediaFile(directory_.filePath(QStringLiteral("missing.mp4"))).audio());
}

void MediaFileTest::cutOffFileIsReadToTheCut()
{
    QFile whole(path_);
    QVERIFY(whole.open(QIODevice::ReadOnly));
    const QByteArray bytes = whole.readAll();
    const QString path = directory_.filePath(QStringLiteral("cut.mp4"));
    QFile cut(path);
    QVERIFY(cut.open(QIODevice::WriteOnly));
    // Before the second fragment's end: the first holds frames 0 to 11.
    const qsizetype secondFragment = bytes.indexOf("moof", bytes.indexOf("moof") + 4);
    const qsizetype thirdFragment = bytes.indexOf("moof", secondFragment + 4);
    QVERIFY(secondFragment > 0 && thirdFragment > secondFragment);
    cut.write(bytes.left((secondFragment + thirdFragment) / 2));
    cut.close();

    MediaFile file(path);
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    const QList<MediaPacket> packets = file.packets();
    QVERIFY2(packets.size() >= 12 && packets.size() < 24, qPrintable(QString::number(packets.size())));
    QVERIFY(!packets[11].corrupt);
    QVERIFY(file.frames().size() >= 12);
}

/// The packets' bytes are overwritten: the demuxer still finds them, the decoder cannot use them.
void MediaFileTest::damagedPacketIsAFailure()
{
    QFile whole(path_);
    QVERIFY(whole.open(QIODevice::ReadOnly));
    QByteArray bytes = whole.readAll();
    MediaFile intact(path_);
    qsizetype at = bytes.indexOf("mdat");
    QVERIFY(at > 0);
    for (const MediaPacket& packet : intact.packets().first(12)) {
        std::fill_n(bytes.begin() + at + 4, packet.size, '\x7f');
        at += packet.size;
    }
    const QString path = directory_.filePath(QStringLiteral("damaged.mp4"));
    QFile damaged(path);
    QVERIFY(damaged.open(QIODevice::WriteOnly));
    damaged.write(bytes);
    damaged.close();

    MediaFile file(path);
    QCOMPARE(file.packets().size(), frameCount);
    QVERIFY(!file.forEachFrame([](const MediaFrame&) { return true; }));
    QVERIFY(file.errorString().contains(QStringLiteral("cannot decode")));
}

void MediaFileTest::noRecordingIsAnError()
{
    MediaFile missing(directory_.filePath(QStringLiteral("missing.mp4")));
    QVERIFY(!missing.isValid());
    QVERIFY(missing.errorString().contains(QStringLiteral("missing.mp4: cannot open: No such file")));
    QVERIFY(missing.packets().isEmpty());
    QVERIFY(missing.frames().isEmpty());
    QVERIFY(!missing.videoStream());
    QVERIFY(!missing.forEachFrame([](const MediaFrame&) { return true; }));

    const QString path = directory_.filePath(QStringLiteral("text.mp4"));
    QFile text(path);
    QVERIFY(text.open(QIODevice::WriteOnly));
    text.write(QByteArray(4096, 'x'));
    text.close();
    QVERIFY(!MediaFile(path).isValid());
}

ORVANTIS_TEST(MediaFileTest)
#include "mediafile_test.moc"

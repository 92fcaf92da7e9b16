// Sound and picture belong together: white pictures and tone bursts that begin at the same instants, recorded, and
// found again by decoding the file.
#include "ffmpegfaults.h"
#include "mediafile.h"
#include "soundingrecorder.h"

#include <QTest>

#include <algorithm>
#include <cmath>

using namespace ffmpegfaults;

namespace {

constexpr qint64 pictureMs = 40;
constexpr qint64 burstMs = 20; ///< of 1 kHz, at half of full scale, at the beginning of every white picture

bool isWhite(qint64 elapsedMs, qint64 periodMs)
{
    return elapsedMs % periodMs == periodMs / 2;
}

/// The sound at this sample.
qint16 soundAt(qint64 sample, qint64 periodMs)
{
    const qint64 ms = sample / 48;
    if (ms % periodMs < periodMs / 2 || ms % periodMs >= periodMs / 2 + burstMs)
        return 0;
    return sample / 24 % 2 ? -16000 : 16000;
}

/// Records pictures and sound for so long; every half period after a whole one is white and loud.
bool recordFlashes(SoundingRecorder& recorder, qint64 lengthMs, qint64 periodMs)
{
    for (qint64 at = 0; at < lengthMs; at += pictureMs) {
        const QColor colour = isWhite(at, periodMs) ? Qt::white : Qt::black;
        const auto sound
            = testsound::frames(at * 48, pictureMs * 48, [&](qint64 sample) { return soundAt(sample, periodMs); });
        if (!recorder->encodeImage(testpictures::solid(recorder.canvas(), colour), at)
            || !recorder.turn(at + pictureMs, sound))
            return false;
    }
    return recorder.finishSound();
}

/// When each white picture appears, milliseconds in the file.
QList<double> flashes(MediaFile& file)
{
    QList<double> times;
    bool white = false;
    file.forEachFrame([&](const MediaFrame& frame) {
        const bool now = qRed(frame.image.pixel(5, 5)) > 128;
        if (now && !white)
            times.append(frame.ptsMs);
        white = now;
        return true;
    });
    return times;
}

/// When each burst begins, milliseconds in the file.
QList<double> bursts(MediaFile& file)
{
    QList<double> times;
    const auto sound = file.sound();
    if (!sound)
        return times;
    constexpr qint64 quietMs = 200; // between two bursts
    const std::vector<float>& left = sound->channels[0];
    qint64 lastLoud = -quietMs * sound->sampleRate;
    for (std::size_t i = 0; i < left.size(); ++i) {
        if (std::abs(left[i]) < 0.25F)
            continue;
        if (qint64(i) - lastLoud > quietMs * sound->sampleRate / 1000)
            times.append(sound->startMs + double(i) * 1000.0 / sound->sampleRate);
        lastLoud = qint64(i);
    }
    return times;
}

}

class AudioSyncTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { reset(); }
    void cleanup() { reset(); }

    void flashesAndBurstsBelongTogether_data();
    void flashesAndBurstsBelongTogether();
    void soundThatBeginsLate_data();
    void soundThatBeginsLate();
    void primingMovesAllButTheFirstPicture();
};

void AudioSyncTest::flashesAndBurstsBelongTogether_data()
{
    QTest::addColumn<QByteArray>("encoder");
    QTest::addColumn<bool>("matroska");
    QTest::addColumn<double>("tolerance"); // ms
    QTest::newRow("aac in MP4") << QByteArray("aac") << false << 1.0;
    QTest::newRow("mp3 in MP4") << QByteArray("libmp3lame") << false << 1.0;
    QTest::newRow("aac in Matroska") << QByteArray("aac") << true << 1.0;
    QTest::newRow("mp3 in Matroska") << QByteArray("libmp3lame") << true << 1.0;
    // The muxer moves pictures and sound by the priming's 6.5 ms, and the reader the sound back by as much.
    QTest::newRow("Opus in Matroska") << QByteArray("libopus") << true << 7.5;
}

/// Twenty seconds: neither a constant distance nor one that grows.
void AudioSyncTest::flashesAndBurstsBelongTogether()
{
    QFETCH(const QByteArray, encoder);
    QFETCH(const bool, matroska);
    QFETCH(const double, tolerance);
    QVERIFY(SoundingRecorder::useEncoder(encoder.constData()));
    if (matroska)
        surroundings().hiddenEncoders = {"mpeg4"};
    SoundingRecorder recorder(QStringLiteral("clip.mp4"), QSize(64, 64));
    QVERIFY(recorder.openAndStart());
    QVERIFY(recordFlashes(recorder, 20000, 2000));
    MediaFile file(recorder->outputPath());
    const QList<double> seen = flashes(file);
    const QList<double> heard = bursts(file);
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QCOMPARE(seen.size(), 10);
    QCOMPARE(heard.size(), 10);
    for (int i = 0; i < 10; ++i) {
        const QByteArray pair = QByteArray::number(seen[i]) + " ms seen, " + QByteArray::number(heard[i]) + " heard";
        QVERIFY2(std::abs(heard[i] - seen[i]) <= tolerance, pair.constData());
        QVERIFY(std::abs(seen[i] - seen[0] - i * 2000) <= 1.0);
    }
}

void AudioSyncTest::soundThatBeginsLate_data()
{
    QTest::addColumn<qint64>("beginMs");
    QTest::addColumn<double>("tolerance"); // ms
    QTest::newRow("within the delay queue's time") << qint64(2000) << 1.0;
    QTest::newRow("later") << qint64(6000) << 1.0;
    // The pictures are in the file by then, without the priming's place before them.
    QTest::newRow("after the 10 s that FFmpeg waits for it") << qint64(16000) << 22.0;
}

/// Until then there are pictures only; the sound before is silence.
void AudioSyncTest::soundThatBeginsLate()
{
    QFETCH(const qint64, beginMs);
    QFETCH(const double, tolerance);
    SoundingRecorder recorder(QStringLiteral("clip.mp4"), QSize(64, 64));
    QVERIFY(recorder.openAndStart());
    for (qint64 at = 0; at < beginMs + 2000; at += pictureMs) {
        const QColor colour = isWhite(at, 2000) ? Qt::white : Qt::black;
        QVERIFY(recorder->encodeImage(testpictures::solid(recorder.canvas(), colour), at));
        const auto sound
            = testsound::frames(at * 48, pictureMs * 48, [](qint64 sample) { return soundAt(sample, 2000); });
        QVERIFY(at < beginMs ? recorder.turn(at + pictureMs) : recorder.turn(at + pictureMs, sound));
    }
    QVERIFY(recorder.finishSound());
    MediaFile file(recorder->outputPath());
    const QList<double> seen = flashes(file);
    const QList<double> heard = bursts(file);
    QCOMPARE(seen.size(), beginMs / 2000 + 1);
    QCOMPARE(heard.size(), 1);
    const QByteArray pair
        = QByteArray::number(seen.constLast()) + " ms seen, " + QByteArray::number(heard[0]) + " heard";
    QVERIFY2(std::abs(heard[0] - seen.constLast()) <= tolerance, pair.constData());
    QVERIFY(file.sound()->durationMs() >= double(beginMs) + 2000);
}

/// The encoder's priming comes before the first sample, and MP4 has no time before zero: everything moves by it, and
/// the first picture is shown that much longer instead.
void AudioSyncTest::primingMovesAllButTheFirstPicture()
{
    SoundingRecorder recorder;
    QVERIFY(recorder.openAndStart());
    const double primingMs = recorder->audioCodecContext()->initial_padding / 48.0;
    QVERIFY(primingMs > 21 && primingMs < 22);
    QVERIFY(recordFlashes(recorder, 2000, 2000));
    MediaFile file(recorder->outputPath());
    QList<MediaPacket> pictures;
    QList<MediaPacket> blocks;
    for (const MediaPacket& packet : file.packets())
        (packet.stream == 0 ? pictures : blocks).append(packet);
    QCOMPARE(pictures[0].ptsMs, 0.0);
    QVERIFY(std::abs(pictures[0].durationMs - pictureMs - primingMs) < 0.1);
    for (qsizetype i = 1; i < pictures.size(); ++i)
        QVERIFY(std::abs(pictures[i].ptsMs - double(i * pictureMs) - primingMs) < 0.1);
    for (qsizetype i = 0; i < blocks.size(); ++i)
        QVERIFY(std::abs(blocks[i].ptsMs - double(i) * 1024 / 48) < 0.1);
}

QTEST_GUILESS_MAIN(AudioSyncTest)
#include "audiosync_test.moc"

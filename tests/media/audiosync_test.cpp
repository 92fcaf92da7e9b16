// Audio and video are in step: white frames and tone bursts that begin at the same instants, recorded, and found
// again by decoding the file.
#include "ffmpegfaults.h"
#include "mediafile.h"
#include "recorderwithaudio.h"
#include "testregistry.h"

#include <QTest>

#include <algorithm>
#include <cmath>

using namespace ffmpegfaults;

namespace {

constexpr qint64 frameMs = 40;
constexpr qint64 burstMs = 20; ///< of 1 kHz, at half of full scale, at the beginning of every white frame

bool isWhite(qint64 elapsedMs, qint64 periodMs)
{
    return elapsedMs % periodMs == periodMs / 2;
}

/// The audio at this sample.
qint16 audioAt(qint64 sample, qint64 periodMs)
{
    const qint64 ms = sample / 48;
    if (ms % periodMs < periodMs / 2 || ms % periodMs >= periodMs / 2 + burstMs)
        return 0;
    return sample / 24 % 2 ? -16000 : 16000;
}

/// Records frames and audio for so long; every half period after a whole one is white and loud.
bool recordFlashes(RecorderWithAudio& recorder, qint64 lengthMs, qint64 periodMs)
{
    for (qint64 at = 0; at < lengthMs; at += frameMs) {
        const QColor colour = isWhite(at, periodMs) ? Qt::white : Qt::black;
        const auto audio
            = testaudio::frames(at * 48, frameMs * 48, [&](qint64 sample) { return audioAt(sample, periodMs); });
        if (!recorder->encodeImage(testimages::solid(recorder.canvas(), colour), at)
            || !recorder.turn(at + frameMs, audio))
            return false;
    }
    return recorder.finishAudio();
}

/// When each white frame appears, milliseconds in the file.
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
    const auto audio = file.audio();
    if (!audio)
        return times;
    constexpr qint64 quietMs = 200; // between two bursts
    const std::vector<float>& left = audio->channels[0];
    qint64 lastLoud = -quietMs * audio->sampleRate;
    for (std::size_t i = 0; i < left.size(); ++i) {
        if (std::abs(left[i]) < 0.25F)
            continue;
        if (qint64(i) - lastLoud > quietMs * audio->sampleRate / 1000)
            times.append(audio->startMs + double(i) * 1000.0 / audio->sampleRate);
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
    void audioThatBeginsLate_data();
    void audioThatBeginsLate();
    void primingMovesAllButTheFirstFrame();
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
    // The muxer moves both streams by the priming's 6.5 ms, and the reader moves the audio back by as much.
    QTest::newRow("Opus in Matroska") << QByteArray("libopus") << true << 7.5;
}

/// Twenty seconds: neither a constant distance nor one that grows.
void AudioSyncTest::flashesAndBurstsBelongTogether()
{
    QFETCH(const QByteArray, encoder);
    QFETCH(const bool, matroska);
    QFETCH(const double, tolerance);
    QVERIFY(RecorderWithAudio::useEncoder(encoder.constData()));
    if (matroska)
        surroundings().hiddenEncoders = {"mpeg4"};
    RecorderWithAudio recorder(QStringLiteral("clip.mp4"), QSize(64, 64));
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

void AudioSyncTest::audioThatBeginsLate_data()
{
    QTest::addColumn<qint64>("beginMs");
    QTest::addColumn<double>("tolerance"); // ms
    QTest::newRow("within the delay queue's time") << qint64(2000) << 1.0;
    QTest::newRow("later") << qint64(6000) << 1.0;
    // The frames are in the file by then, without the priming's place before them.
    QTest::newRow("after the 10 s that FFmpeg waits for it") << qint64(16000) << 22.0;
}

/// Until then there is video only; the audio before is silence.
void AudioSyncTest::audioThatBeginsLate()
{
    QFETCH(const qint64, beginMs);
    QFETCH(const double, tolerance);
    RecorderWithAudio recorder(QStringLiteral("clip.mp4"), QSize(64, 64));
    QVERIFY(recorder.openAndStart());
    for (qint64 at = 0; at < beginMs + 2000; at += frameMs) {
        const QColor colour = isWhite(at, 2000) ? Qt::white : Qt::black;
        QVERIFY(recorder->encodeImage(testimages::solid(recorder.canvas(), colour), at));
        const auto audio
            = testaudio::frames(at * 48, frameMs * 48, [](qint64 sample) { return audioAt(sample, 2000); });
        QVERIFY(at < beginMs ? recorder.turn(at + frameMs) : recorder.turn(at + frameMs, audio));
    }
    QVERIFY(recorder.finishAudio());
    MediaFile file(recorder->outputPath());
    const QList<double> seen = flashes(file);
    const QList<double> heard = bursts(file);
    QCOMPARE(seen.size(), beginMs / 2000 + 1);
    QCOMPARE(heard.size(), 1);
    const QByteArray pair
        = QByteArray::number(seen.constLast()) + " ms seen, " + QByteArray::number(heard[0]) + " heard";
    QVERIFY2(std::abs(heard[0] - seen.constLast()) <= tolerance, pair.constData());
    QVERIFY(file.audio()->durationMs() >= double(beginMs) + 2000);
}

/// The encoder's priming comes before the first sample, and MP4 has no time before zero: everything moves by it, and
/// the first frame is shown that much longer instead.
void AudioSyncTest::primingMovesAllButTheFirstFrame()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    const double primingMs = recorder->audioCodecContext()->initial_padding / 48.0;
    QVERIFY(primingMs > 21 && primingMs < 22);
    QVERIFY(recordFlashes(recorder, 2000, 2000));
    MediaFile file(recorder->outputPath());
    QList<MediaPacket> frames;
    QList<MediaPacket> blocks;
    for (const MediaPacket& packet : file.packets())
        (packet.stream == 0 ? frames : blocks).append(packet);
    QCOMPARE(frames[0].ptsMs, 0.0);
    QVERIFY(std::abs(frames[0].durationMs - frameMs - primingMs) < 0.1);
    for (qsizetype i = 1; i < frames.size(); ++i)
        QVERIFY(std::abs(frames[i].ptsMs - double(i * frameMs) - primingMs) < 0.1);
    for (qsizetype i = 0; i < blocks.size(); ++i)
        QVERIFY(std::abs(blocks[i].ptsMs - double(i) * 1024 / 48) < 0.1);
}

ORVANTIS_TEST(AudioSyncTest)
#include "audiosync_test.moc"

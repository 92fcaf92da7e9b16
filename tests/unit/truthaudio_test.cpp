// The report on the truth window's audio: it measures the offset, the drift and the losses that were made.
#include "clipwriter.h"
#include "mediafile.h"
#include "privatetempdir.h"
#include "testregistry.h"
#include "truthbeeps.h"
#include "truthframes.h"
#include "truthreporttext.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <cmath>
#include <functional>

using namespace truthframes;

namespace {

constexpr int rate = 48000;
constexpr double repaintMs = 25.0 / 3; // 120 times a second
constexpr quint32 startClockMs = 4'000'000'123;

/// What is between the window and the file.
struct Path {
    double offsetMs = 0.0; // of the audio, at the start
    double driftMsPerMinute = 0.0; // of the audio against the clock
    double frameDriftMsPerMinute = 0.0; // of the frames against the clock
};

/// The audio of a file that starts with the clock.
std::vector<float> recordedAudio(double seconds, const Path& path)
{
    std::vector<float> samples;
    for (int i = 0; i < int(seconds * rate); ++i) {
        const double ms = (i * 1000.0 / rate - path.offsetMs) / (1.0 + path.driftMsPerMinute / 60'000.0);
        samples.push_back(truthbeeps::sample(double(startClockMs) + ms));
    }
    return samples;
}

MediaAudio audioOf(std::vector<float> samples)
{
    MediaAudio audio;
    audio.sampleRate = rate;
    audio.channels = {samples, samples};
    return audio;
}

/// The audio of 20 s whose frames are exactly in time.
TruthAudio measured(std::vector<float> samples)
{
    return measureBeeps(audioOf(std::move(samples)), {startClockMs, 0.0, 1.0}, 0.0, 20'000.0);
}

/// A recording of the window, with AAC, as measured from its file.
TruthReport measuredClip(double seconds, const Path& path)
{
    const PrivateTempDir directory;
    const QString name = directory.filePath(QStringLiteral("clip.mp4"));
    ClipOptions options;
    options.withAudio = true;
    ClipWriter clip(name, windowSize, options);
    bool written = true;
    for (int i = 0; written && i * 0.041 < seconds; ++i) {
        const double ptsMs = i * 41.0;
        const double clockMs = ptsMs / (1.0 + path.frameDriftMsPerMinute / 60'000.0);
        const double painting = std::floor(clockMs / repaintMs);
        const TruthStamp stamp{quint32(painting), startClockMs + quint32(painting * repaintMs)};
        written = clip.add(windowWith(stamp), qint64(ptsMs));
    }
    TruthReport report;
    if (!written || !clip.addAudio(recordedAudio(seconds, path)) || !clip.finish()) {
        report.error = clip.errorString();
        return report;
    }
    TruthQuery query = plainQuery();
    query.beeps = true;
    return measureTruth(name, query);
}

}

class TruthAudioTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void scheduleIsUneven();
    void flashesAndBeepsCoincide();

    void clips_data();
    void clips();
    void clipWithoutAudio();
    void stillWindow();

    void offsetsOfWholeBeeps_data();
    void offsetsOfWholeBeeps();
    void lateAudioStart();
    void missingBeeps();
    void strayBeeps();
    void silence();
    void clockThatPassesItsEnd();
    void textsHoldTheNumbers();
};

void TruthAudioTest::scheduleIsUneven()
{
    for (quint32 second = 4'000'000; second < 4'000'600; ++second) {
        const quint32 distance = truthbeeps::startMs(second + 1) - truthbeeps::startMs(second);
        QVERIFY2(distance >= 600 && distance <= 1400, QByteArray::number(distance));
        // No other place within ten seconds has the same next four distances, give or take 20 ms.
        for (quint32 other = second + 1; other < second + 10; ++other) {
            bool same = true;
            for (quint32 i = 0; i < 4; ++i) {
                const auto at = [i](quint32 from) {
                    return int(truthbeeps::startMs(from + i + 1) - truthbeeps::startMs(from + i));
                };
                same = same && std::abs(at(second) - at(other)) <= 20;
            }
            QVERIFY2(!same, QByteArray::number(second) + " and " + QByteArray::number(other));
        }
    }
}

void TruthAudioTest::flashesAndBeepsCoincide()
{
    for (quint32 second = 1000; second < 1100; ++second) {
        const quint32 start = truthbeeps::startMs(second);
        QVERIFY(!truthbeeps::flashes(start - 1));
        QVERIFY(truthbeeps::flashes(start));
        QVERIFY(truthbeeps::flashes(start + 99));
        QVERIFY(!truthbeeps::flashes(start + 100));
        QCOMPARE(truthbeeps::sample(start - 0.01), 0.0f);
        QVERIFY(std::abs(truthbeeps::sample(start + 2.25) - truthbeeps::amplitude) < 1e-3f);
        QCOMPARE(truthbeeps::sample(start + 60.0), 0.0f);
    }
}

void TruthAudioTest::clips_data()
{
    QTest::addColumn<Path>("path");
    QTest::addColumn<double>("driftMsPerMinute");
    QTest::newRow("audio 30 ms early, drifts") << Path{-30.0, 2.0} << 2.0;
    QTest::newRow("frames drift") << Path{10.0, 0.0, 3.0} << -3.0;
}

void TruthAudioTest::clips()
{
    QFETCH(const Path, path);
    QFETCH(const double, driftMsPerMinute);
    constexpr double seconds = 20.0; // a drift takes that long to be told from the grid of the frames
    const TruthReport report = measuredClip(seconds, path);
    QCOMPARE(report.error, QString());
    QVERIFY(report.audio);
    const QByteArray text = truthReportTable(report).toUtf8();
    QVERIFY2(report.audio->flashes >= 17 && report.audio->missedBeeps == 0 && report.audio->strayBeeps == 0, text);
    for (const TruthBeep& beep : report.audio->beeps)
        QVERIFY2(about(beep.offsetMs, path.offsetMs + driftMsPerMinute * beep.fileMs / 60'000.0, 1.0), text);
    QVERIFY2(about(report.audio->meanMs, path.offsetMs + driftMsPerMinute * seconds / 120.0, 0.5), text);
    QVERIFY2(about(report.audio->driftMsPerMinute, driftMsPerMinute, 1.0), text);
    QVERIFY2(report.videoDurationMs && about(*report.videoDurationMs, seconds * 1000.0, 41.0), text);
    QVERIFY2(report.audioDurationMs && about(*report.audioDurationMs, seconds * 1000.0, 45.0), text);
}

void TruthAudioTest::clipWithoutAudio()
{
    const PrivateTempDir directory;
    const QString name = directory.filePath(QStringLiteral("clip.mp4"));
    ClipWriter clip(name, windowSize);
    for (const Frame& frame : steadyFrames(6))
        QVERIFY(clip.add(windowWith(frame.stamp), qint64(frame.ptsMs)));
    QVERIFY(clip.finish());
    TruthQuery query = plainQuery();
    query.beeps = true;
    const TruthReport report = measureTruth(name, query);
    QCOMPARE(report.error, QString());
    QVERIFY(report.clock);
    QVERIFY(!report.audio);
    QVERIFY(!report.audioDurationMs);
    QVERIFY(report.videoDurationMs && about(*report.videoDurationMs, 6 * 41.0, 0.1));
}

/// Without an animated window there is no clock to hold the audio against.
void TruthAudioTest::stillWindow()
{
    TruthMeter meter(plainQuery(), windowSize);
    for (int i = 0; i < 5; ++i)
        meter.add(windowWith({1, startClockMs}), i * 41.0);
    QVERIFY(!meter.report().clock);
}

void TruthAudioTest::offsetsOfWholeBeeps_data()
{
    QTest::addColumn<double>("offsetMs");
    for (const double offsetMs : {-4000.0, -1000.0, -700.0, 500.0, 1000.0, 1200.0, 3999.0})
        QTest::addRow("%.0f ms", offsetMs) << offsetMs;
}

void TruthAudioTest::offsetsOfWholeBeeps()
{
    QFETCH(const double, offsetMs);
    const TruthAudio audio = measured(recordedAudio(20.0, {offsetMs}));
    QVERIFY(audio.beeps.size() >= 14);
    QVERIFY(about(audio.meanMs, offsetMs, 0.1));
    QVERIFY(about(audio.worstMs, offsetMs, 0.1));
    QVERIFY(about(audio.driftMsPerMinute, 0.0, 0.1));
    QCOMPARE(audio.strayBeeps, 0);
}

void TruthAudioTest::lateAudioStart()
{
    const std::vector<float> whole = recordedAudio(20.0, {});
    MediaAudio audio = audioOf({whole.begin() + 5 * rate, whole.end()});
    audio.startMs = 5007.0;
    const TruthAudio result = measureBeeps(audio, {startClockMs, 0.0, 1.0}, 0.0, 20'000.0);
    QVERIFY(about(result.meanMs, 7.0, 0.1));
    QVERIFY(result.flashes >= 13 && result.flashes <= 16);
    QCOMPARE(result.missedBeeps, 0);
}

void TruthAudioTest::missingBeeps()
{
    std::vector<float> samples = recordedAudio(20.0, {12.0});
    const double first = double(truthbeeps::startMs(startClockMs / 1000 + 5) - startClockMs);
    const auto from = samples.begin() + std::ptrdiff_t(first * rate / 1000.0);
    std::fill(from, from + 3 * rate / 2, 0.0f); // a beep, and the next one as far as it is near
    const TruthAudio audio = measured(samples);
    QVERIFY2(audio.missedBeeps == 1 || audio.missedBeeps == 2, QByteArray::number(audio.missedBeeps));
    QVERIFY(about(audio.meanMs, 12.0, 0.1));
    QCOMPARE(audio.strayBeeps, 0);
    QCOMPARE(audio.beeps.size() + audio.missedBeeps, measured(recordedAudio(20.0, {12.0})).beeps.size());
}

void TruthAudioTest::strayBeeps()
{
    std::vector<float> samples = recordedAudio(20.0, {});
    const quint32 second = startClockMs / 1000 + 8;
    // In the middle between two, at least 300 ms from each.
    const double atMs
        = (truthbeeps::startMs(second) + (truthbeeps::startMs(second + 1) - truthbeeps::startMs(second)) / 2)
        - double(startClockMs);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] += truthbeeps::amplitude
            * float(audioanalysis::beepSample(truthbeeps::beep, double(i) * 1000.0 / rate - atMs));
    const TruthAudio audio = measured(samples);
    QCOMPARE(audio.strayBeeps, 1);
    QCOMPARE(audio.missedBeeps, 0);
    QVERIFY(about(audio.worstMs, 0.0, 0.1));
}

void TruthAudioTest::silence()
{
    const TruthAudio audio = measured(std::vector<float>(20 * rate));
    QVERIFY(audio.flashes >= 18);
    QCOMPARE(audio.missedBeeps, audio.flashes);
    QVERIFY(audio.beeps.isEmpty());
    QVERIFY(std::isnan(audio.meanMs) && std::isnan(audio.worstMs) && std::isnan(audio.driftMsPerMinute));
}

/// The 32 bits of the clock end within the recording, and with them a second.
void TruthAudioTest::clockThatPassesItsEnd()
{
    constexpr quint32 start = 0u - 10'000u;
    std::vector<float> samples;
    for (int i = 0; i < 20 * rate; ++i) {
        const double ms = std::fmod(double(start) + i * 1000.0 / rate, 4294967296.0);
        samples.push_back(truthbeeps::sample(ms));
    }
    const TruthAudio audio = measureBeeps(audioOf(samples), {start, 0.0, 1.0}, 0.0, 20'000.0);
    QVERIFY(audio.beeps.size() >= 17);
    QVERIFY(about(audio.worstMs, 0.0, 0.1));
}

void TruthAudioTest::textsHoldTheNumbers()
{
    TruthReport report;
    report.framesInFile = 1;
    report.videoDurationMs = 20'000.0;
    QVERIFY(truthReportTable(report).contains(QStringLiteral("video 20000.0, audio none")));
    QJsonObject json = QJsonDocument::fromJson(truthReportJson(report)).object();
    QVERIFY(json[QStringLiteral("audio")].isNull() && json[QStringLiteral("audioDurationMs")].isNull());

    report.audioDurationMs = 19'990.5;
    report.audio = measured(recordedAudio(20.0, {-12.5}));
    const QString table = truthReportTable(report);
    QVERIFY2(table.contains(QStringLiteral("video 20000.0, audio 19990.5")), qPrintable(table));
    QVERIFY2(table.contains(QStringLiteral("heard, 0 missing, 0 stray")), qPrintable(table));
    QVERIFY2(table.contains(QStringLiteral("mean -12.5")), qPrintable(table));
    json = QJsonDocument::fromJson(truthReportJson(report)).object()[QStringLiteral("audio")].toObject();
    QVERIFY(about(json[QStringLiteral("meanMs")].toDouble(), -12.5, 0.1));
    QVERIFY(about(json[QStringLiteral("worstMs")].toDouble(), -12.5, 0.1));
    QCOMPARE(json[QStringLiteral("beeps")].toArray().size(), report.audio->beeps.size());
}

ORVANTIS_TEST(TruthAudioTest)
#include "truthaudio_test.moc"

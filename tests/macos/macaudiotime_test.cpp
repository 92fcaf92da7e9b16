// Audio that the system delivers when it likes, on the recording clock: a steady tone stays one.
#include "allocationfaults.h"
#include "macaudio.h"
#include "memorylimit.h"
#include "simulatedaudio.h"
#include "testregistry.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>

Q_DECLARE_METATYPE(AudioSchedule)

namespace {

constexpr double usualMs = 10000;
constexpr qint64 startMs = 7200000; // any instant

const QString notTakenLine = QStringLiteral("Audio was not taken in time; some of it is left out. Told once.");

const QString noMemoryLine = QStringLiteral("No memory for audio that was delivered; it is left out. Told once.");

/// So many frames of one value, left and right.
QByteArray pcmOf(qint16 value, qsizetype frames)
{
    QByteArray pcm;
    for (qsizetype i = 0; i < frames * 2; ++i)
        pcm.append(reinterpret_cast<const char*>(&value), sizeof(value));
    return pcm;
}

/// Half a minute of audio.
void startAndDeliverUnread(RecorderAudioCapture& capture)
{
    macsim::setClocks(startMs * 1000000, startMs * 1000000);
    QVERIFY(capture.start());
    for (qint64 ms = 0; ms < 30000; ms += 20) {
        macsim::Audio audio = loudAudio;
        audio.timeNs = (startMs + ms) * 1000000;
        audio.timeFlags = 1;
        macsim::setClocks((startMs + ms) * 1000000, (startMs + ms) * 1000000);
        QVERIFY(macsim::deliver(audio));
    }
}

QString describe(const AudioReport& report)
{
    return QStringLiteral("%1 breaks, %2 frames padded, %3 cut, delay %4 to %5 ms")
        .arg(report.breaks)
        .arg(report.paddedFrames)
        .arg(report.cutFrames)
        .arg(report.firstDelayMs)
        .arg(report.lastDelayMs);
}

}

class MacAudioTimeTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void toneStaysWhole_data();
    void toneStaysWhole();
    void blockWithoutMemoryIsLeftOut();
    void blockOfTooManySamplesIsLeftOut();
    void audioThatNobodyReadsIsBounded();
    void turnWithoutMemoryIsTheOnlyLoss();
    void audioThatNobodyReadBeforeTheStart();
    void pauseIsTheOnlyBreak_data();
    void pauseIsTheOnlyBreak();

private:
    std::optional<MacBench> bench_;
};

void MacAudioTimeTest::init()
{
    bench_.emplace();
}

void MacAudioTimeTest::cleanup()
{
    MAC_IS_CLEAN();
    bench_.reset();
}

void MacAudioTimeTest::toneStaysWhole_data()
{
    QTest::addColumn<AudioSchedule>("schedule");
    QTest::addColumn<double>("durationMs");
    for (const int frames : {480, 960, 1024}) {
        for (const double jitter : {1.0, 5.0, 20.0}) {
            AudioSchedule schedule;
            schedule.blockFrames = frames;
            schedule.jitterMs = jitter;
            schedule.planar = frames != 960;
            QTest::addRow("%d frames, %g ms of jitter", frames, jitter) << schedule << usualMs;
        }
    }
    const auto row = [](const char* name, const auto& change) {
        AudioSchedule schedule;
        schedule.blockFrames = 1024;
        schedule.jitterMs = 5;
        change(schedule);
        QTest::newRow(name) << schedule << usualMs;
    };
    row("bursts after stalls", [](AudioSchedule& s) { s.stallEveryMs = 3000, s.stallMs = 200; });
    row("late start", [](AudioSchedule& s) { s.lateStartMs = 1700; });
    row("long latency", [](AudioSchedule& s) { s.latencyMs = 90; });
    row("no latency", [](AudioSchedule& s) { s.latencyMs = 0; });
    row("slow device", [](AudioSchedule& s) { s.driftPpm = 100; });
    row("fast device", [](AudioSchedule& s) { s.driftPpm = -100; });
    row("no valid times", [](AudioSchedule& s) { s.timed = false; });
    row("indefinite times", [](AudioSchedule& s) { s.timed = false, s.wrongTimeFlags = 17; });
    row("times without a scale",
        [](AudioSchedule& s) { s.timed = false, s.wrongTimeFlags = 1, s.wrongTimeScale = 0; });
    row("times beyond 64 bits", [](AudioSchedule& s) {
        s.timed = false, s.wrongTimeFlags = 1, s.wrongTimeScale = 1;
        s.wrongTimeNs = std::numeric_limits<qint64>::max();
    });
    row("no valid times, much jitter", [](AudioSchedule& s) { s.timed = false, s.jitterMs = 20; });
    row("interrupted between the clocks", [](AudioSchedule& s) { s.interruptedMs = 40; });
    row("no valid times, slow device", [](AudioSchedule& s) { s.timed = false, s.driftPpm = 100; });
    row("no valid times, very slow device", [](AudioSchedule& s) { s.timed = false, s.driftPpm = 1000; });
    AudioSchedule slow;
    slow.jitterMs = 20;
    slow.driftPpm = 100;
    QTest::newRow("ten minutes of a slow device") << slow << 600000.0;
}

void MacAudioTimeTest::toneStaysWhole()
{
    QFETCH(const AudioSchedule, schedule);
    QFETCH(const double, durationMs);
    constexpr double readerMs = 16; // the reader's interval and what it takes beyond
    const double latest = schedule.latencyMs + schedule.jitterMs + readerMs;
    RecorderAudioCapture capture{QString()};
    const AudioReport report = recordSimulatedAudio(capture, schedule, durationMs);
    QVERIFY2(report.breaks == 0 && report.paddedFrames == 0 && report.cutFrames == 0, qPrintable(describe(report)));
    const auto [least, most] = std::minmax(report.firstDelayMs, report.lastDelayMs);
    QVERIFY2(least > 0 && most < latest && most - least < 8, qPrintable(describe(report)));
}

/// The system does not know exceptions.
void MacAudioTimeTest::blockWithoutMemoryIsLeftOut()
{
    RecorderAudioCapture capture{QString()};
    QVERIFY(capture.start());
    macsim::setHostClockRead([] { throw std::bad_alloc(); });
    for (int blocks = 0; blocks < 2; ++blocks) {
        QVERIFY(macsim::deliver(loudAudio));
        QVERIFY(!isHeard(capture));
    }
    macsim::setHostClockRead(nullptr);
    QCOMPARE(bench_->log.count(noMemoryLine), 1);
}

void MacAudioTimeTest::blockOfTooManySamplesIsLeftOut()
{
    RecorderAudioCapture capture{QString()};
    QVERIFY(capture.start());
    macsim::Audio audio = loudAudio;
    audio.frames = std::numeric_limits<qint32>::max();
    {
        const MemoryLimit limit(rlim_t(4) << 30); // they take 8 GiB
        QVERIFY(macsim::deliver(audio));
    }
    QVERIFY(!isHeard(capture));
    QCOMPARE(bench_->log.count(noMemoryLine), 1);
}

/// The reader comes back in turns: what was there first is heard, what came later was not kept.
void MacAudioTimeTest::audioThatNobodyReadsIsBounded()
{
    constexpr qint64 awayMs = 31000;
    constexpr qint64 keptMs = 10000;
    RecorderAudioCapture capture{QString()};
    startAndDeliverUnread(capture);
    QByteArray all;
    for (qint64 turns = 1; qint64(all.size()) < awayMs * 48 * 4; ++turns) {
        const qint64 untilMs = capture.deliverUntil(startMs + awayMs, true) - startMs;
        QCOMPARE(untilMs, std::min(turns * 10000, awayMs));
        const auto chunks = capture.readAvailable();
        QCOMPARE(chunks.size(), 1);
        QVERIFY(chunks[0].frames <= 10000 * 48);
        all += chunks[0].pcm;
    }
    constexpr qint64 aroundMs = 50; // the reader's interval, and seams
    const QByteArray heard = all.mid(aroundMs * 48 * 4, (keptMs - 2 * aroundMs) * 48 * 4);
    QCOMPARE(heard, pcmOf(1000, heard.size() / 4));
    QVERIFY(all.endsWith(QByteArray((awayMs - keptMs - aroundMs) * 48 * 4, '\0')));
    QCOMPARE(bench_->log.count(notTakenLine), 1);
}

/// After a long absence, whichever part of the turn has none; what comes behind it is given all the same.
void MacAudioTimeTest::turnWithoutMemoryIsTheOnlyLoss()
{
    int refusals = 0;
    for (bool isRefused = true; isRefused; ++refusals) {
        RecorderAudioCapture capture{QString()};
        macsim::setClocks(startMs * 1000000, startMs * 1000000);
        QVERIFY(capture.start());
        for (const qint64 ms : {0, 15000}) {
            macsim::Audio audio = loudAudio;
            audio.timeNs = (startMs + ms) * 1000000;
            audio.timeFlags = 1;
            macsim::setClocks((startMs + ms) * 1000000, (startMs + ms) * 1000000);
            QVERIFY(macsim::deliver(audio));
        }
        try {
            const allocationfaults::RefusedOnce refused(refusals, 1 << 20);
            capture.deliverUntil(startMs + 25000, true);
            isRefused = refused.happened();
        } catch (const std::bad_alloc&) {
        }
        capture.readAvailable();
        qsizetype chunks = 0;
        for (qint64 untilMs = startMs; untilMs < startMs + 20000; chunks += capture.readAvailable().size())
            untilMs = capture.deliverUntil(startMs + 20000, true);
        QVERIFY2(chunks > 0, qPrintable(QString::number(refusals)));
    }
    QVERIFY(refusals > 3);
}

void MacAudioTimeTest::audioThatNobodyReadBeforeTheStart()
{
    RecorderAudioCapture capture{QString()};
    startAndDeliverUnread(capture);
    capture.stop();
    QVERIFY(capture.start());
    macsim::Audio audio = loudAudio;
    audio.timeNs = (startMs + 30000) * 1000000;
    audio.timeFlags = 1;
    QVERIFY(macsim::deliver(audio));
    capture.deliverUntil(startMs + 30100, true);
    const auto chunks = capture.readAvailable();
    QCOMPARE(chunks.size(), 1);
    QVERIFY(chunks[0].pcm.contains(pcmOf(1000, 480)));
    QCOMPARE(bench_->log.count(notTakenLine), 0);
}

void MacAudioTimeTest::pauseIsTheOnlyBreak_data()
{
    QTest::addColumn<AudioSchedule>("schedule");
    AudioSchedule sleep;
    sleep.sleepAtMs = 5000;
    sleep.sleepMs = 4000;
    QTest::newRow("the machine sleeps") << sleep;
    AudioSchedule stall;
    stall.stallEveryMs = 6000;
    stall.stallMs = 1000;
    QTest::newRow("no block comes for a second") << stall;
}

/// The audio ends, and goes on at its time.
void MacAudioTimeTest::pauseIsTheOnlyBreak()
{
    QFETCH(const AudioSchedule, schedule);
    constexpr double onePauseMs = 9000; // as long as there is one
    RecorderAudioCapture capture{QString()};
    const AudioReport report = recordSimulatedAudio(capture, schedule, onePauseMs);
    QVERIFY2(report.paddedFrames == 0 && report.cutFrames == 0, qPrintable(describe(report)));
    QVERIFY2(report.breaks >= 1 && report.breaks <= 3, qPrintable(describe(report))); // out and in
    QVERIFY2(std::abs(report.lastDelayMs - report.firstDelayMs) < 2, qPrintable(describe(report)));
}

ORVANTIS_TEST(MacAudioTimeTest)
#include "macaudiotime_test.moc"

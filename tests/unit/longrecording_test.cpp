// A recording longer than the hold time, as its finished file shows it: which images reached it, when, and with which
// click markers. It is made once; each function checks another property of it.
#include "numberedwindow.h"
#include "pacing.h"
#include "privatetempdir.h"
#include "recordedframes.h"
#include "recorderbench.h"
#include "testregistry.h"

#include <QDateTime>

#include <algorithm>

namespace {

const QString warmupLine = QStringLiteral("Skipping initial window capture warmup frames frames 3 settle ms 0");
const QString readyLine = QStringLiteral("Recorder ready; delaying first encoded frame 500 ms");

bool hasMarker(const QImage& image, const QPoint& at)
{
    const QRgb pixel = image.pixel(at);
    return qRed(pixel) > qGreen(pixel) + 25 && qRed(pixel) > qBlue(pixel) + 25;
}

}

class LongRecordingTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void warmupAndReadyDelayNeverReachTheFile();
    void everyLaterImageIsInTheFileInOrder();
    void timesRiseFromZero();
    void framesAreFortyOneMillisecondsApart();
    void durationIsThatOfTheClock();
    void progressIsLogged();
    void pauseAndUnpauseChangeNothing();
    void lateClickReachesItsFrames();
    void clickLaterThanTheHoldTimeMissesItsFirstFrames();
    void framesAreReleasedOnceTheyAreEncoded();

private:
    void record(GstRecorder& recorder, RecorderBench& bench, const NumberedWindow& window);
    void reportLateClicks(GstRecorder& recorder, const NumberedWindow& window, qint64 startedAtMs);

    static constexpr QPoint latePoint{40, 80}; // on the canvas, and on the screen
    static constexpr QPoint tooLatePoint{120, 80};

    PrivateTempDir directory_;
    const QString output_ = directory_.filePath(QStringLiteral("out.mp4"));

    // What is left of the recording.
    QList<RecordedFrame> frames_;
    QList<qint64> askedAtMs_;
    QByteArray received_;
    QStringList log_;
    quint32 durationMs_ = 0;
    qint64 lateKeyMs_ = 0; ///< of the click that was reported 2.5 s late
    qint64 tooLateKeyMs_ = 0; ///< of the click that was reported 3.3 s late
    qint64 reportedMs_ = 0; ///< recording time after both were reported
    int settledNumber_ = 0; ///< an image whose share of the queue was encoded before that
    int mostLiveFrames_ = 0;
    int liveFramesAfterwards_ = -1;
};

void LongRecordingTest::initTestCase()
{
    RecorderBench bench;
    NumberedWindow window;
    RecorderArguments arguments;
    arguments.output = output_;
    std::unique_ptr<GstRecorder> recorder = makeRecorder(arguments);
    record(*recorder, bench, window);
    recorder.reset();
    mostLiveFrames_ = window.mostLiveFrames();
    liveFramesAfterwards_ = window.liveFrames();
    frames_ = readFrames(output_);
}

void LongRecordingTest::record(GstRecorder& recorder, RecorderBench& bench, const NumberedWindow& window)
{
    RecorderProbe probe(recorder);
    QTRY_VERIFY_WITH_TIMEOUT(probe.recordingStartedAtMs().load() > 0, patienceMs);
    const qint64 startedAtMs = probe.recordingStartedAtMs().load();
    const auto recordingMs = [startedAtMs] { return QDateTime::currentMSecsSinceEpoch() - startedAtMs; };
    QTRY_VERIFY_WITH_TIMEOUT(recordingMs() > 500, patienceMs);
    QVERIFY(bench.launcher.send("{\"action\":\"pause\"}\n"));
    QTRY_VERIFY_WITH_TIMEOUT(recordingMs() > 1200, patienceMs);
    QVERIFY(probe.paused().load());
    QVERIFY(bench.launcher.send("{\"action\":\"unpause\"}\n"));
    QTRY_VERIFY_WITH_TIMEOUT(recordingMs() > 3500, patienceMs);
    QVERIFY(!probe.paused().load());

    reportLateClicks(recorder, window, startedAtMs);
    const int asked = window.asked();
    QTRY_VERIFY_WITH_TIMEOUT(window.asked() >= asked + 5, patienceMs);
    recorder.stop();
    QVERIFY(probe.finalized().load());
    durationMs_ = probe.durationMs();
    QVERIFY(bench.launcher.waitForReceived([](const QByteArray& bytes) { return bytes.endsWith('\n'); }, patienceMs));
    received_ = bench.launcher.received();
    log_ = bench.log.messages();
    askedAtMs_ = window.askedAtMs();
}

void LongRecordingTest::reportLateClicks(GstRecorder& recorder, const NumberedWindow& window, qint64 startedAtMs)
{
    settledNumber_ = window.asked() - 1;
    QTRY_VERIFY_WITH_TIMEOUT(window.asked() >= settledNumber_ + 3, patienceMs);
    const qint64 nowAtMs = QDateTime::currentMSecsSinceEpoch();
    recorder.addClick(latePoint.x(), latePoint.y(), -1, -1, nowAtMs - 2500);
    recorder.addClick(tooLatePoint.x(), tooLatePoint.y(), -1, -1, nowAtMs - 3300);
    reportedMs_ = QDateTime::currentMSecsSinceEpoch() - startedAtMs;
    lateKeyMs_ = nowAtMs - 2500 - startedAtMs;
    tooLateKeyMs_ = nowAtMs - 3300 - startedAtMs;
}

void LongRecordingTest::warmupAndReadyDelayNeverReachTheFile()
{
    // Images 0 to 2 are the warm-up; image 3 announces readiness, 500 ms before the first recorded one.
    QVERIFY(frames_.size() > 80);
    const int first = frames_.first().number;
    QVERIFY(first > 3);
    const qint64 delayMs = askedAtMs_[first] - askedAtMs_[3];
    QVERIFY2(delayMs >= 490, qPrintable(QString::number(delayMs)));
    // The image before it was still too early.
    const qint64 droppedMs = askedAtMs_[first - 1] - askedAtMs_[3];
    QVERIFY2(droppedMs <= 500, qPrintable(QString::number(droppedMs)));
}

void LongRecordingTest::everyLaterImageIsInTheFileInOrder()
{
    const int first = frames_.first().number;
    const QList<int> expected = sequence(first, askedAtMs_.size() - first);
    QCOMPARE(text(numbersOf(frames_)), text(expected));
}

void LongRecordingTest::timesRiseFromZero()
{
    // The clock starts with the first recorded frame.
    QVERIFY2(
        frames_.first().ptsMs >= 0 && frames_.first().ptsMs < 41, qPrintable(QString::number(frames_.first().ptsMs)));
    for (qsizetype i = 1; i < frames_.size(); ++i)
        QVERIFY(frames_[i].ptsMs > frames_[i - 1].ptsMs);
    const double spanMs = frames_.last().ptsMs - frames_.first().ptsMs;
    const int first = frames_.first().number;
    const double askedSpanMs = double(askedAtMs_.last() - askedAtMs_[first]);
    QVERIFY2(qAbs(spanMs - askedSpanMs) < 100, qPrintable(QStringLiteral("%1 %2").arg(spanMs).arg(askedSpanMs)));
}

void LongRecordingTest::framesAreFortyOneMillisecondsApart()
{
    QList<double> steps;
    for (qsizetype i = 1; i < frames_.size(); ++i)
        steps.append(frames_[i].ptsMs - frames_[i - 1].ptsMs);
    std::sort(steps.begin(), steps.end());
    const double median = steps[steps.size() / 2];
    QVERIFY2(qAbs(median - 41) <= 3, qPrintable(QString::number(median)));
}

void LongRecordingTest::durationIsThatOfTheClock()
{
    QVERIFY(double(durationMs_) >= frames_.last().ptsMs);
    QVERIFY(qint64(durationMs_) >= reportedMs_ - 5); // another clock, a little before
    QCOMPARE(received_, "1{\"duration\":" + QByteArray::number(durationMs_) + "}\n");
}

void LongRecordingTest::progressIsLogged()
{
    QCOMPARE(log_.count(warmupLine), 1);
    QCOMPARE(log_.count(readyLine), 1);
    QCOMPARE(log_.count(QStringLiteral("sending frame come")), 1);
    const QString finalized = QStringLiteral("FFmpeg recorder finalized output \"%1\" duration %2")
                                  .arg(directory_.filePath(QStringLiteral("out.mp4")))
                                  .arg(durationMs_);
    QCOMPARE(log_.count(finalized), 1);
    QVERIFY(log_.indexOf(warmupLine) < log_.indexOf(readyLine));
    QVERIFY(log_.indexOf(readyLine) < log_.indexOf(finalized));
}

void LongRecordingTest::pauseAndUnpauseChangeNothing()
{
    // It was paused from 0.5 to 1.2 s: frames of that time are there, and time runs on.
    const auto during = std::count_if(frames_.cbegin(), frames_.cend(),
        [](const RecordedFrame& frame) { return frame.ptsMs > 600 && frame.ptsMs < 1100; });
    QVERIFY2(during >= 5, qPrintable(QString::number(during)));
}

void LongRecordingTest::lateClickReachesItsFrames()
{
    int seen = 0;
    for (const RecordedFrame& frame : std::as_const(frames_)) {
        const double age = frame.ptsMs - double(lateKeyMs_);
        const QByteArray place = "age " + QByteArray::number(age);
        if (age < 0 || age > 2000) {
            QVERIFY2(!hasMarker(frame.image, latePoint), place.constData());
        } else if (age < 1200) {
            QVERIFY2(hasMarker(frame.image, latePoint), place.constData());
            ++seen;
        }
    }
    QVERIFY2(seen >= 10, qPrintable(QString::number(seen)));
}

void LongRecordingTest::clickLaterThanTheHoldTimeMissesItsFirstFrames()
{
    // Frames are encoded once they are 3 s old: what was older when the click was reported went without it.
    const auto settled = std::find_if(frames_.cbegin(), frames_.cend(),
        [this](const RecordedFrame& frame) { return frame.number == settledNumber_; });
    QVERIFY(settled != frames_.cend());
    int missed = 0;
    int reached = 0;
    for (const RecordedFrame& frame : std::as_const(frames_)) {
        const double age = frame.ptsMs - double(tooLateKeyMs_);
        const QByteArray place = "age " + QByteArray::number(age);
        if (age >= 0 && frame.ptsMs <= settled->ptsMs - pacing::holdMs) {
            QVERIFY2(!hasMarker(frame.image, tooLatePoint), place.constData());
            ++missed;
        } else if (age >= 0 && age < 1200 && frame.ptsMs > double(reportedMs_ - pacing::holdMs)) {
            QVERIFY2(hasMarker(frame.image, tooLatePoint), place.constData());
            ++reached;
        }
    }
    QVERIFY(missed > 0);
    QVERIFY(reached > 0);
}

void LongRecordingTest::framesAreReleasedOnceTheyAreEncoded()
{
    QVERIFY(askedAtMs_.size() > pacing::queueReserve);
    QVERIFY2(mostLiveFrames_ <= pacing::queueReserve, qPrintable(QString::number(mostLiveFrames_)));
    QVERIFY(mostLiveFrames_ > 50); // they were held
    QCOMPARE(liveFramesAfterwards_, 0);
}

ORVANTIS_TEST(LongRecordingTest)
#include "longrecording_test.moc"

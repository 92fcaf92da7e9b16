// The recording loop with windows that stall, vanish, change or never show, and with every early stop.
#include "numberedwindow.h"
#include "pacing.h"
#include "privatetempdir.h"
#include "recordedframes.h"
#include "recorderbench.h"
#include "testregistry.h"

#include <QDateTime>
#include <QSemaphore>
#include <QThread>

#include <climits>

namespace {

const QString warmupLine = QStringLiteral("Skipping initial window capture warmup frames frames 3 settle ms 0");
const QString readyLine = QStringLiteral("Recorder ready; delaying first encoded frame 500 ms");

}

class RecordingLoopTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void neverAnImageGivesABlackFrame();
    void stopDuringWarmup();
    void stopDuringReadyDelay();
    void stopAfterASecondKeepsEveryFrame();
    void stallIsNotCaughtUpInABurst();
    void captureThatHangsHoldsUpNeitherStopNorFrames();
    void vanishedWindowIsWaitedFor();
    void whatWaitsIsWrittenWhileThereIsNoImage();
    void changingSizesAreLetterboxed();
    void largeWindowDoesNotWaitAsItIs();
    void unchangedWindowIsRecordedAllTheSame();
    void framesAreComposedEarlyForWantOfMemory();
    void clicksArriveWhileTheClockStarts();
    void pointerIsRecorded();
    void drainStopsAtTheLimit_data();
    void drainStopsAtTheLimit();
    void frameThatCannotBeEncodedIsNotCounted();

private:
    /// A recorder of the numbered window, with its file in out.mp4.
    void make(const RecorderArguments& arguments = {});
    void waitForRecordedImages(int count);
    void stopAndRead(const QRectF& part = QRectF(0, 0, 160, 96));
    void verifyBlackFrameRecording(const QByteArray& sentBefore);
    RecorderProbe probe() { return RecorderProbe(*recorder_); }

    PrivateTempDir directory_;
    std::optional<RecorderBench> bench_;
    std::optional<NumberedWindow> window_;
    std::unique_ptr<GstRecorder> recorder_;
    QList<RecordedFrame> frames_;
};

void RecordingLoopTest::init()
{
    bench_.emplace();
    window_.emplace();
    frames_.clear();
}

void RecordingLoopTest::cleanup()
{
    recorder_.reset();
    window_.reset();
    bench_.reset();
}

void RecordingLoopTest::make(const RecorderArguments& arguments)
{
    RecorderArguments filled = arguments;
    filled.output = directory_.filePath(QStringLiteral("out.mp4"));
    recorder_ = makeRecorder(filled);
}

void RecordingLoopTest::waitForRecordedImages(int count)
{
    QTRY_VERIFY_WITH_TIMEOUT(probe().recordingStartedAtMs().load() > 0, patienceMs);
    const int asked = window_->asked();
    QTRY_VERIFY_WITH_TIMEOUT(window_->asked() >= asked + count, patienceMs);
}

void RecordingLoopTest::stopAndRead(const QRectF& part)
{
    recorder_->stop();
    QVERIFY(probe().finalized().load());
    frames_ = readFrames(probe().outputPath(), part);
}

void RecordingLoopTest::verifyBlackFrameRecording(const QByteArray& sentBefore)
{
    QCOMPARE(bench_->launcher.received(), sentBefore);
    recorder_->stop();
    QCOMPARE(probe().durationMs(), 41u);
    QCOMPARE(probe().encodedFrameCount(), 1);
    QVERIFY(probe().frameComeSent().load());
    // Also the readiness that the stop brought about comes before the reply.
    const QByteArray sentAfter = (sentBefore.isEmpty() ? "1" : "") + QByteArray("{\"duration\":41}\n");
    QVERIFY(bench_->launcher.waitForReceived(sentBefore.size() + sentAfter.size(), patienceMs));
    QCOMPARE(bench_->launcher.received(), sentBefore + sentAfter);
    QCOMPARE(bench_->log.count(QStringLiteral("sending frame come")), 1);

    MediaFile file(probe().outputPath());
    const QList<MediaPacket> packets = file.packets();
    QCOMPARE(packets.size(), 1);
    QCOMPARE(packets.first().ptsMs, 0.0);
    QCOMPARE(packets.first().durationMs, 41.0);
    const QList<MediaFrame> frames = file.frames();
    QCOMPARE(frames.size(), 1);
    QCOMPARE(frames.first().image.size(), QSize(160, 96));
    QVERIFY(isBlack(frames.first().image));
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
}

void RecordingLoopTest::neverAnImageGivesABlackFrame()
{
    window_->beforeImage = [](int) { return false; };
    make();
    QTRY_VERIFY_WITH_TIMEOUT(window_->asked() >= 4, patienceMs);
    QVERIFY(!probe().frameComeSent().load());
    QCOMPARE(bench_->log.count(warmupLine), 0);
    const QList<qint64> asked = window_->askedAtMs();
    for (int i = 1; i < 4; ++i)
        QVERIFY2(asked[i] - asked[i - 1] >= 49, "an absent image is asked for again after 50 ms");
    verifyBlackFrameRecording(QByteArray());
    QCOMPARE(bench_->log.count(QStringLiteral("macOS CoreGraphics capture returned no image for window 42")), 1);
}

void RecordingLoopTest::stopDuringWarmup()
{
    window_->beforeImage = [](int number) { return number < 3; };
    make();
    QTRY_VERIFY_WITH_TIMEOUT(window_->asked() >= 5, patienceMs);
    QCOMPARE(bench_->log.count(warmupLine), 1);
    QCOMPARE(bench_->log.count(readyLine), 0);
    verifyBlackFrameRecording(QByteArray());
}

void RecordingLoopTest::stopDuringReadyDelay()
{
    window_->beforeImage = [](int number) { return number < 4; }; // the fourth announces readiness
    make();
    QVERIFY(bench_->launcher.waitForReceived(1, patienceMs));
    QTRY_COMPARE_WITH_TIMEOUT(bench_->log.count(readyLine), 1, patienceMs);
    QVERIFY(!probe().recordingClock().isValid());
    verifyBlackFrameRecording("1");
}

void RecordingLoopTest::stopAfterASecondKeepsEveryFrame()
{
    make();
    waitForRecordedImages(24);
    QVERIFY(!probe().finalized().load());
    stopAndRead();
    QVERIFY(frames_.size() >= 24);
    const int first = frames_.first().number;
    QCOMPARE(text(numbersOf(frames_)), text(sequence(first, window_->asked() - first)));
    QCOMPARE(probe().encodedFrameCount(), qint64(frames_.size()));
    for (qsizetype i = 1; i < frames_.size(); ++i)
        QVERIFY(frames_[i].ptsMs > frames_[i - 1].ptsMs);
}

void RecordingLoopTest::stallIsNotCaughtUpInABurst()
{
    constexpr int stalled = 20; // well inside the recording: it starts with image 16 or so
    window_->beforeImage = [](int number) {
        if (number == stalled)
            QThread::msleep(150); // less than is waited for
        return true;
    };
    make();
    QTRY_VERIFY_WITH_TIMEOUT(window_->asked() > stalled + 6, patienceMs);
    stopAndRead();
    // One capture at once after the stall, the following ones at the usual pace: a loop that caught up would take
    // the four that it missed within a few milliseconds.
    const QList<qint64> asked = window_->askedAtMs();
    const qint64 fourOnMs = asked[stalled + 5] - asked[stalled + 1];
    QVERIFY2(fourOnMs >= 125, qPrintable(QString::number(fourOnMs)));
    QVERIFY(numbersOf(frames_).contains(stalled));
    const int first = frames_.first().number;
    QCOMPARE(text(numbersOf(frames_)), text(sequence(first, window_->asked() - first)));
}

void RecordingLoopTest::captureThatHangsHoldsUpNeitherStopNorFrames()
{
    QSemaphore answers;
    std::atomic<int> last{INT_MAX};
    window_->beforeImage = [&](int number) {
        if (number > last)
            answers.acquire();
        return true;
    };
    make();
    waitForRecordedImages(10);
    last = window_->asked();
    QTRY_VERIFY_WITH_TIMEOUT(window_->asked() > last + 1, patienceMs);
    stopAndRead();
    QCOMPARE(fakeplatform::openWindows().load(), 1); // the capture hangs still
    const int first = frames_.first().number;
    QCOMPARE(text(numbersOf(frames_)), text(sequence(first, last + 1 - first)));
    QCOMPARE(bench_->log.countStartingWith(QStringLiteral("macOS CoreGraphics capture returned no image")), 0);
    answers.release(INT_MAX);
    recorder_.reset();
    QTRY_COMPARE_WITH_TIMEOUT(fakeplatform::openWindows().load(), 0, patienceMs);
}

void RecordingLoopTest::vanishedWindowIsWaitedFor()
{
    window_->beforeImage = [](int number) { return number < 20 || number > 22; };
    make();
    QTRY_VERIFY_WITH_TIMEOUT(window_->asked() > 27, patienceMs);
    stopAndRead();
    const int first = frames_.first().number;
    QList<int> expected = sequence(first, window_->asked() - first);
    expected.removeIf([](int number) { return number >= 20 && number <= 22; });
    QCOMPARE(text(numbersOf(frames_)), text(expected));
    QCOMPARE(bench_->log.count(QStringLiteral("macOS CoreGraphics capture returned no image for window 42")), 1);
    const QList<qint64> asked = window_->askedAtMs();
    QVERIFY(asked[22] - asked[21] >= 49);
}

void RecordingLoopTest::whatWaitsIsWrittenWhileThereIsNoImage()
{
    std::atomic<bool> shows{true};
    window_->beforeImage = [&](int) { return shows.load(); };
    make();
    waitForRecordedImages(10);
    shows = false;
    const qint64 hiddenAtMs = QDateTime::currentMSecsSinceEpoch();
    // The delay queue has let go of every frame; the last one is the image that was composed last.
    QTRY_COMPARE_WITH_TIMEOUT(window_->liveFrames(), 1, patienceMs);
    QVERIFY(QDateTime::currentMSecsSinceEpoch() - hiddenAtMs > pacing::holdMs - 500); // and not before their time
    QVERIFY(!probe().stopRequested().load());
    const int shown = window_->asked();
    shows = true;
    QTRY_VERIFY_WITH_TIMEOUT(window_->asked() > shown + 5, patienceMs);
    stopAndRead();
    QVERIFY(frames_.size() >= 15);
    for (qsizetype i = 1; i < frames_.size(); ++i)
        QVERIFY(frames_[i].ptsMs > frames_[i - 1].ptsMs);
}

void RecordingLoopTest::changingSizesAreLetterboxed()
{
    // All of the window's own shape, so that the number lies at the same place of the canvas.
    window_->sizeOf = [](int number) { return QSize(160, 96) * (number % 3 + 1); };
    RecorderArguments arguments;
    arguments.canvasWidth = 320;
    arguments.canvasHeight = 256;
    make(arguments);
    waitForRecordedImages(9);
    stopAndRead(QRectF(0, 32, 320, 192));
    QVERIFY(frames_.size() >= 9);
    const int first = frames_.first().number;
    QCOMPARE(text(numbersOf(frames_)), text(sequence(first, window_->asked() - first)));
    for (const RecordedFrame& frame : std::as_const(frames_)) {
        QCOMPARE(frame.image.size(), QSize(320, 256));
        QVERIFY(isBlack(frame.image.copy(0, 0, 320, 30)));
        QVERIFY(isBlack(frame.image.copy(0, 226, 320, 30)));
    }
}

/// Its frames wait as the canvas, and the window's own images are let go of.
void RecordingLoopTest::largeWindowDoesNotWaitAsItIs()
{
    window_->sizeOf = [](int) { return QSize(640, 384); };
    RecorderArguments arguments;
    arguments.canvasWidth = 320;
    arguments.canvasHeight = 192;
    make(arguments);
    waitForRecordedImages(20);
    QVERIFY2(window_->mostLiveFrames() < 5, qPrintable(QString::number(window_->mostLiveFrames())));
    stopAndRead(QRectF(0, 0, 320, 192));
    const int first = frames_.first().number;
    QCOMPARE(text(numbersOf(frames_)), text(sequence(first, window_->asked() - first)));
}

void RecordingLoopTest::unchangedWindowIsRecordedAllTheSame()
{
    const QImage still = fakeplatform::solidImage(160, 96, qRgb(255, 255, 255));
    std::atomic<int> asked{0};
    fakeplatform::state().image = [&](int) {
        ++asked;
        return still;
    };
    make();
    QTRY_VERIFY_WITH_TIMEOUT(probe().recordingStartedAtMs().load() > 0, patienceMs);
    const int before = asked;
    QTRY_VERIFY_WITH_TIMEOUT(asked > before + 5, patienceMs);
    stopAndRead();
    QVERIFY(frames_.size() > 5);
    for (const RecordedFrame& frame : std::as_const(frames_))
        QCOMPARE(frame.number, 255);
}

/// The memory that is there holds ten frames: no more are kept, each reaches the file, and the log says it once.
void RecordingLoopTest::framesAreComposedEarlyForWantOfMemory()
{
    constexpr int held = 10;
    constexpr int onTheWay = 3; // captured, composed, and the one that makes it too much
    fakeplatform::state().availableMemory = held * 4 * NumberedWindow::width * NumberedWindow::height;
    make();
    waitForRecordedImages(3 * held);
    stopAndRead();
    QVERIFY2(window_->mostLiveFrames() <= held + onTheWay, qPrintable(QString::number(window_->mostLiveFrames())));
    QVERIFY(window_->mostLiveFrames() > held / 2);
    QCOMPARE(
        text(numbersOf(frames_)), text(sequence(frames_.first().number, window_->asked() - frames_.first().number)));
    const QStringList lines = bench_->log.messages().filter(QStringLiteral("composes frames early"));
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().endsWith(QStringLiteral("MiB 0 limit 0")), qPrintable(lines.first()));
}

/// The launcher's clicks and the worker's first frame meet at the clock.
void RecordingLoopTest::clicksArriveWhileTheClockStarts()
{
    make();
    QElapsedTimer limit;
    limit.start();
    while (probe().recordingStartedAtMs().load() == 0 && limit.elapsed() < patienceMs) {
        recorder_->addClick(80, 48, -1, -1, 0);
        QTest::qSleep(1);
    }
    recorder_->addClick(80, 48, -1, -1, 0);
    QVERIFY(probe().recordingStartedAtMs().load() > 0);
    recorder_->stop();
    QVERIFY(bench_->log.countStartingWith(QStringLiteral("Recorder mouse click received ")) > 100);
    QVERIFY(probe().clicks().lastKey() < qint64(limit.elapsed()) + 1000);
}

void RecordingLoopTest::pointerIsRecorded()
{
    fakeplatform::state().bounds = [] { return QRectF(1000, 500, 80, 48); }; // two pixels to the point
    fakeplatform::state().pointer = [] { return QPointF(1040, 535); }; // (80, 70) on the canvas
    make();
    waitForRecordedImages(2);
    stopAndRead();
    QVERIFY(!frames_.isEmpty());
    for (const RecordedFrame& frame : std::as_const(frames_)) {
        QVERIFY(qGray(frame.image.pixel(84, 82)) > 220); // inside the arrow
        QVERIFY(qAbs(qGray(frame.image.pixel(120, 82)) - 128) < 20);
    }
}

void RecordingLoopTest::drainStopsAtTheLimit_data()
{
    QTest::addColumn<qint64>("limitMs");
    QTest::addColumn<bool>("flushAll");
    QTest::addColumn<int>("encoded");
    QTest::newRow("none is old enough") << qint64(-1) << false << 0;
    QTest::newRow("the first, exactly at the limit") << qint64(0) << false << 1;
    QTest::newRow("just before the second") << qint64(40) << false << 1;
    QTest::newRow("two") << qint64(41) << false << 2;
    QTest::newRow("all by the limit") << qint64(82) << false << 3;
    QTest::newRow("all by the flush") << qint64(-1) << true << 3;
}

void RecordingLoopTest::drainStopsAtTheLimit()
{
    QFETCH(qint64, limitMs);
    QFETCH(bool, flushAll);
    QFETCH(int, encoded);
    RecorderArguments arguments;
    arguments.output = directory_.filePath(QStringLiteral("drain.mp4"));
    recorder_ = bench_->makeIdleRecorder(arguments);
    QVERIFY(probe().openOutput());
    QList<RecorderProbe::QueuedFrame> queue;
    for (const qint64 elapsedMs : {0, 41, 82}) {
        RecorderProbe::CapturedFrame frame;
        frame.image = fakeplatform::solidImage(160, 96, qRgb(9, 9, 9)).convertToFormat(QImage::Format_ARGB32);
        queue.append({frame, elapsedMs});
    }
    probe().drainQueue(queue, limitMs, flushAll);
    QCOMPARE(probe().encodedFrameCount(), encoded);
    QCOMPARE(queue.size(), 3 - encoded);
    if (!queue.isEmpty())
        QCOMPARE(queue.first().elapsedMs, qint64(41 * encoded));
}

void RecordingLoopTest::frameThatCannotBeEncodedIsNotCounted()
{
    recorder_ = bench_->makeIdleRecorder(); // without an output
    RecorderProbe::CapturedFrame frame;
    frame.image = fakeplatform::solidImage(160, 96, qRgb(9, 9, 9)).convertToFormat(QImage::Format_ARGB32);
    QList<RecorderProbe::QueuedFrame> queue{{frame, 0}, {frame, 41}};
    probe().drainQueue(queue, 41, false);
    QCOMPARE(probe().encodedFrameCount(), 0);
    QVERIFY(queue.isEmpty());
    QCOMPARE(bench_->log.messages(), QStringList());
}

ORVANTIS_TEST(RecordingLoopTest)
#include "recordingloop_test.moc"

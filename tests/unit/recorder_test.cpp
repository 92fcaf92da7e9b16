// The end of a recorder's life: stop, its deferrals, the bounded finish, the destructor.
#include "busypool.h"
#include "mediafile.h"
#include "numberedwindow.h"
#include "privatetempdir.h"
#include "recorderbench.h"
#include "testregistry.h"

#include <QFileInfo>
#include <QTimer>

using namespace std::chrono_literals;

namespace {

const QString deferringLine
    = QStringLiteral("FFmpeg recorder stop requested before worker started; deferring stop acknowledgement.");
const QString unfinishedLine
    = QStringLiteral("FFmpeg recorder stop requested before finalization completed; deferring stop acknowledgement.");
const QString stillRunningLine
    = QStringLiteral("Recorder worker still writes the output; the stop is acknowledged when it has ended.");

}

class RecorderTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void stopBeforeTheWorkerStartedIsDeferred();
    void stopBeforeFinalizationIsDeferred();
    void stopFinalizesAndReplies();
    void fallbackEndsUnderItsOwnName();
    void stopAfterTheWorkerEndedByItselfReplies();
    void stopOfAStuckWorkerIsAnsweredWhenItEnds();
    void finishRecordingAnswersAStopThatWaits();

    void finishRecordingClosesTheFile();
    void finishRecordingGivesUpOnAStuckWorker();
    void destructorFinishesTheFile();
    void destructorBeforeTheWorkerStarted();

private:
    void make(RecorderArguments arguments);
    RecorderProbe probe() { return RecorderProbe(*recorder_); }
    QString output() const { return directory_->filePath(QStringLiteral("out.mp4")); }
    /// Makes a recorder of a numbered window and returns when it has recorded a few frames.
    void startRecording(const RecorderArguments& arguments = {});
    /// Makes a recorder whose worker waits at the gate with its file open.
    void startAndGetStuck();

    std::optional<PrivateTempDir> directory_;
    std::optional<RecorderBench> bench_;
    std::optional<NumberedWindow> window_;
    std::optional<std::binary_semaphore> gate_;
    std::unique_ptr<GstRecorder> recorder_;
};

void RecorderTest::init()
{
    directory_.emplace();
    bench_.emplace();
}

void RecorderTest::cleanup()
{
    recorder_.reset();
    QCOMPARE(fakeplatform::openWindows().load(), 0);
    window_.reset();
    bench_.reset();
    directory_.reset();
}

void RecorderTest::make(RecorderArguments arguments)
{
    if (arguments.output.isEmpty())
        arguments.output = output();
    recorder_ = makeRecorder(arguments);
}

void RecorderTest::startRecording(const RecorderArguments& arguments)
{
    window_.emplace();
    make(arguments);
    QVERIFY(bench_->launcher.waitForReceived(1, patienceMs));
    QTRY_VERIFY_WITH_TIMEOUT(probe().recordingStartedAtMs().load() > 0, patienceMs);
    const int asked = window_->asked();
    QTRY_VERIFY_WITH_TIMEOUT(window_->asked() > asked + 3, patienceMs);
}

void RecorderTest::startAndGetStuck()
{
    std::binary_semaphore reached(0);
    gate_.emplace(0);
    window_.emplace();
    window_->beforeRelease = [&, waits = true](int) mutable {
        if (std::exchange(waits, false)) {
            reached.release();
            gate_->acquire();
        }
    };
    make({});
    reached.acquire();
}

void RecorderTest::stopBeforeTheWorkerStartedIsDeferred()
{
    BusyPool pool;
    make({});
    bench_->log.clear();
    int ticks = 0;
    QTimer beside; // takes the same steps as the recorder's retries
    beside.setTimerType(Qt::PreciseTimer);
    beside.setSingleShot(true);
    connect(&beside, &QTimer::timeout, this, [&] {
        ++ticks;
        beside.start(10ms);
    });
    beside.start(10ms);
    recorder_->stop();
    QCOMPARE(bench_->log.messages(), QStringList{deferringLine});
    QTRY_VERIFY_WITH_TIMEOUT(ticks >= 20, patienceMs);
    const int deferred = bench_->log.count(deferringLine);
    QVERIFY2(qAbs(deferred - 1 - ticks) <= 5, qPrintable(QStringLiteral("%1 in %2 ticks").arg(deferred).arg(ticks)));
    QCOMPARE(bench_->log.messages().size(), deferred);
    QCOMPARE(bench_->launcher.received(), QByteArray());
    QVERIFY(!probe().workerStarted().load());

    pool.release();
    QVERIFY(bench_->launcher.waitForReceived(durationReply(41).size() + 1, patienceMs));
    const QByteArray received = bench_->launcher.received();
    QCOMPARE(received, '1' + durationReply(41));
    QVERIFY(probe().stopAcknowledged());
    QCOMPARE(bench_->log.count(stoppedLine(41)), 1);
    const QStringList lines = bench_->log.messages();
    QVERIFY(lines.lastIndexOf(deferringLine) < lines.indexOf(stoppedLine(41)));
    QTest::qWait(30); // the retries are over
    QCOMPARE(bench_->log.count(stoppedLine(41)), 1);
    QCOMPARE(bench_->launcher.received(), received);
}

void RecorderTest::stopBeforeFinalizationIsDeferred()
{
    recorder_ = bench_->makeIdleRecorder();
    probe().finalized().store(false); // a worker that is gone and has not said so yet
    recorder_->stop();
    QCOMPARE(bench_->log.messages(QtDebugMsg), QStringList{unfinishedLine});
    QTRY_VERIFY_WITH_TIMEOUT(bench_->log.count(unfinishedLine) >= 3, patienceMs);
    QVERIFY(!probe().stopAcknowledged());
    probe().finalized().store(true);
    QVERIFY(bench_->launcher.waitForReceived(durationReply(0).size(), patienceMs));
    QCOMPARE(bench_->launcher.received(), durationReply(0));
    QCOMPARE(bench_->log.messages().last(), stoppedLine(0));
}

void RecorderTest::stopFinalizesAndReplies()
{
    startRecording();
    QVERIFY(!probe().finalized().load());
    bench_->launcher.clearReceived();
    recorder_->stop();
    QVERIFY(probe().finalized().load());
    const quint32 durationMs = probe().durationMs();
    QVERIFY(durationMs > 0);
    QVERIFY(bench_->launcher.waitForReceived(durationReply(durationMs).size(), patienceMs));
    QCOMPARE(bench_->launcher.received(), durationReply(durationMs));
    const QStringList lines = bench_->log.messages();
    QCOMPARE(lines.mid(lines.size() - 2),
        (QStringList{
            QStringLiteral("FFmpeg recorder finalized output \"%1\" duration %2").arg(output()).arg(durationMs),
            stoppedLine(durationMs)}));
}

/// MPEG-4 states sizes in 13 bits: a canvas that is wider is recorded as FFV1 in Matroska.
void RecorderTest::fallbackEndsUnderItsOwnName()
{
    RecorderArguments arguments;
    arguments.canvasWidth = 8192;
    arguments.canvasHeight = 16;
    startRecording(arguments);
    bench_->launcher.clearReceived();
    recorder_->stop();
    const quint32 durationMs = probe().durationMs();
    QVERIFY(durationMs > 0);
    QVERIFY(bench_->launcher.waitForReceived(durationReply(durationMs).size(), patienceMs));
    QCOMPARE(bench_->launcher.received(), durationReply(durationMs));
    const QString path = directory_->filePath(QStringLiteral("out.mkv"));
    const QStringList lines = bench_->log.messages();
    QCOMPARE(lines.mid(lines.size() - 2),
        (QStringList{QStringLiteral("FFmpeg recorder finalized output \"%1\" duration %2").arg(path).arg(durationMs),
            stoppedLine(durationMs)}));

    QVERIFY(!QFileInfo::exists(output()));
    MediaFile file(path);
    QCOMPARE(qint64(file.frames().size()), probe().encodedFrameCount());
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QCOMPARE(file.videoStream()->codecId, AV_CODEC_ID_FFV1);
}

void RecorderTest::stopAfterTheWorkerEndedByItselfReplies()
{
    startRecording();
    probe().stopRequested().store(true);
    probe().waitForWorker();
    bench_->launcher.clearReceived();
    recorder_->stop();
    QVERIFY(bench_->launcher.waitForReceived(durationReply(probe().durationMs()).size(), patienceMs));
    QCOMPARE(bench_->launcher.received(), durationReply(probe().durationMs()));
    QCOMPARE(bench_->log.count(unfinishedLine), 0);
}

void RecorderTest::stopOfAStuckWorkerIsAnsweredWhenItEnds()
{
    startAndGetStuck();
    bench_->log.clear();
    recorder_->stop();
    QVERIFY(!probe().finalized().load());
    QCOMPARE(bench_->log.messages(), QStringList{stillRunningLine});
    int ticks = 0;
    QTimer beside; // the event loop serves others meanwhile
    connect(&beside, &QTimer::timeout, this, [&] { ++ticks; });
    beside.start(10ms);
    recorder_->stop(); // does not block a second time
    QTRY_VERIFY_WITH_TIMEOUT(ticks >= 5, patienceMs);
    QCOMPARE(bench_->log.messages(), QStringList{stillRunningLine});
    QCOMPARE(bench_->launcher.received(), QByteArray());

    gate_->release();
    QVERIFY(bench_->launcher.waitForReceived(durationReply(41).size() + 1, patienceMs));
    QTest::qWait(30); // the retries are over
    QCOMPARE(bench_->launcher.received(), "1" + durationReply(41)); // in this order, once
    QCOMPARE(bench_->log.count(stoppedLine(41)), 1);
    QCOMPARE(bench_->log.countStartingWith(QStringLiteral("FFmpeg recorder stop requested ")), 0);
}

void RecorderTest::finishRecordingAnswersAStopThatWaits()
{
    startAndGetStuck();
    recorder_->stop();
    QVERIFY(!recorder_->finishRecording(30ms));
    QVERIFY(!probe().stopAcknowledged());
    gate_->release();
    QVERIFY(recorder_->finishRecording(60s));
    QCOMPARE(bench_->log.count(stoppedLine(41)), 1);
    QVERIFY(bench_->launcher.waitForReceived(1 + durationReply(41).size(), patienceMs));
    QCOMPARE(bench_->launcher.received(), "1" + durationReply(41));
}

void RecorderTest::finishRecordingClosesTheFile()
{
    startRecording();
    bench_->launcher.clearReceived();
    QVERIFY(recorder_->finishRecording(60s));
    QVERIFY(probe().finalized().load());
    QCOMPARE(probe().formatContext(), nullptr);
    MediaFile file(output());
    QCOMPARE(file.frames().size(), int(probe().encodedFrameCount()));
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QVERIFY(recorder_->finishRecording(0ms)); // again is harmless
    QVERIFY(!bench_->launcher.waitForReceived(1, 50)); // and is no stop: nothing is acknowledged
    QVERIFY(!probe().stopAcknowledged());
}

void RecorderTest::finishRecordingGivesUpOnAStuckWorker()
{
    startAndGetStuck();
    QVERIFY(!recorder_->finishRecording(30ms));
    QVERIFY(probe().stopRequested().load());
    QVERIFY(probe().formatContext()); // left to the worker, which still uses it
    gate_->release();
    QVERIFY(recorder_->finishRecording(60s));
    MediaFile file(output());
    QCOMPARE(file.frames().size(), 1);
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
}

void RecorderTest::destructorFinishesTheFile()
{
    startRecording();
    recorder_.reset();
    QCOMPARE(window_->liveFrames(), 0);
    MediaFile file(output());
    QVERIFY(file.frames().size() >= 3);
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QCOMPARE(bench_->log.countStartingWith(QStringLiteral("FFmpeg recorder finalized output ")), 1);
    QCOMPARE(bench_->log.countStartingWith(QStringLiteral("FFmpeg recorder stopped")), 0);
}

void RecorderTest::destructorBeforeTheWorkerStarted()
{
    BusyPool pool;
    window_.emplace();
    make({});
    recorder_->stop();
    recorder_.reset(); // with a deferred stop pending
    QCOMPARE(window_->asked(), 0);
    MediaFile file(output());
    QCOMPARE(file.frames().size(), 1);
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    pool.release();
    QTest::qWait(30); // a pending retry would reach the object that is gone
}

ORVANTIS_TEST(RecorderTest)
#include "recorder_test.moc"

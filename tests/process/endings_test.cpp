// All the ways in which a recording ends, as its launcher and its user see them: the reply, the exit code, the file.
#include "privatexserver.h"
#include "recordedfile.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthwindowprocess.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTest>

#include <array>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

const auto finalizedLine = QStringLiteral("FFmpeg recorder finalized output ");
const auto exitingLine = QStringLiteral("recorder exiting ");
const auto clickLineStart = QStringLiteral("Recorder mouse click received ");

}

class EndingsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void stopTwice();
    void stopAtOnce();
    void stopWhileWaitingAfterReadiness();
    void exitWithoutStop();
    void signal_data();
    void signal();
    void hangUpIgnoredFromTheStart();
    void launcherGone();
    void launcherGoneThenEnd();
    void standardErrorClosed();
    void killed();

private:
    PrivateXServer server_;
    std::unique_ptr<TruthWindowProcess> window_;
};

void EndingsTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    window_ = std::make_unique<TruthWindowProcess>(server_.display());
    QVERIFY2(window_->id() != 0, qPrintable(window_->errorString()));
}

void EndingsTest::stopTwice()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(200), scene.story());
    scene.launcher.clearReceived();
    QVERIFY(scene.launcher.send("{\"action\":\"stop\"}\n{\"action\":\"stop\"}\n"));
    const auto isWhole = [](const QByteArray& received) { return received.contains('\n'); };
    QVERIFY2(scene.launcher.waitForReceived(isWhole, hangLimitMs), scene.story());
    QVERIFY(scene.launcher.send("{\"action\":\"stop\"}\n"));
    QVERIFY2(scene.exit(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), 0);
    QVERIFY2(durationIn(scene.launcher.received()).value_or(0) >= 200, scene.story());
    QCOMPARE(countLines(scene.log(), QStringLiteral("FFmpeg recorder stopped, duration ")), 1);
    QVERIFY2(playBack(scene.command.output).isWhole(), playBack(scene.command.output).description());
}

void EndingsTest::stopAtOnce()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(scene.start(), scene.story());
    QVERIFY(scene.launcher.send("{\"action\":\"stop\"}\n{\"action\":\"exit\"}\n"));
    QVERIFY2(scene.recorder.waitForEnd(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), 0);
    // Nothing was recorded yet, so there is one black frame, which counts as readiness.
    QCOMPARE(scene.launcher.received(), QByteArray("1{\"duration\":41}\n"));
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    QCOMPARE(file.ptsMs, QList<double>{0.0});
}

void EndingsTest::stopWhileWaitingAfterReadiness()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(scene.startRecording(), scene.story());
    const auto durationMs = scene.stop(); // within the 500 ms, unless the machine is very slow
    QVERIFY2(durationMs && *durationMs >= 41, scene.story());
    QVERIFY2(scene.exit(), scene.story());
    QCOMPARE(scene.launcher.received(), "{\"duration\":" + QByteArray::number(*durationMs) + "}\n");
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
}

void EndingsTest::exitWithoutStop()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(200), scene.story());
    QElapsedTimer sinceExit;
    sinceExit.start();
    QVERIFY2(scene.exit(), scene.story());
    QVERIFY(sinceExit.elapsed() >= 1000);
    QCOMPARE(scene.recorder.exitCode(), 0);
    QCOMPARE(scene.launcher.received(), "1"); // the launcher did not ask for a duration
    QCOMPARE(countLines(scene.log(), finalizedLine), 1);
    QCOMPARE(scene.log().last().text, exitingLine + QStringLiteral("0"));
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    QVERIFY2(file.ptsMs.last() >= 1000.0, file.description()); // it went on until the end
}

void EndingsTest::signal_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<int>("exitCode");
    QTest::newRow("SIGTERM") << SIGTERM << 143;
    QTest::newRow("SIGINT") << SIGINT << 130;
    QTest::newRow("SIGHUP") << SIGHUP << 129;
}

void EndingsTest::signal()
{
    QFETCH(int, number);
    QFETCH(int, exitCode);
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(300), scene.story());
    scene.recorder.send(number);
    QVERIFY2(scene.recorder.waitForEnd(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), exitCode);
    QCOMPARE(countLines(scene.log(), finalizedLine), 1);
    QCOMPARE(scene.log().last().text, exitingLine + QString::number(exitCode));
    QCOMPARE(scene.launcher.received(), "1");
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    QVERIFY2(file.ptsMs.last() >= 200.0, file.description()); // the queued frames are there
}

void EndingsTest::hangUpIgnoredFromTheStart()
{
    RecordingScene scene(server_.display(), window_->id());
    scene.recorder.setWrapper({QStringLiteral("nohup")});
    QVERIFY2(scene.startRecording(), scene.story());
    scene.recorder.send(SIGHUP);
    QVERIFY2(scene.waitUntilRecorded(500), scene.story());
    QVERIFY2(scene.stopAndExit(), scene.story());
}

void EndingsTest::launcherGone()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(300), scene.story());
    scene.launcher.disconnectClient();
    QVERIFY(scene.launcher.waitForDisconnected(hangLimitMs));
    // The first fragment is written when the frames of its second have left the queue, which is long after this.
    QVERIFY2(scene.waitForFragments(1), scene.story());
    QVERIFY(scene.recorder.isRunning());
    scene.recorder.send(SIGTERM);
    QVERIFY2(scene.recorder.waitForEnd(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), 143);
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    QVERIFY2(file.ptsMs.last() >= 3000.0, file.description());
}

/// A launcher that says stop and exit and leaves, without waiting for the answers.
void EndingsTest::launcherGoneThenEnd()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(300), scene.story());
    QVERIFY(scene.launcher.send("{\"action\":\"stop\"}\n{\"action\":\"exit\"}\n"));
    scene.launcher.disconnectClient();
    QVERIFY2(scene.recorder.waitForEnd(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), 0);
    QCOMPARE(countLines(scene.log(), QStringLiteral("FFmpeg recorder stopped, duration ")), 1);
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
}

void EndingsTest::standardErrorClosed()
{
    RecordingScene scene(server_.display(), window_->id());
    std::array<int, 2> ends{};
    QCOMPARE(::pipe2(ends.data(), O_CLOEXEC), 0);
    scene.recorder.setStandardError(ends[1]);
    const bool recording = scene.startRecording();
    ::close(ends[0]);
    ::close(ends[1]);
    QVERIFY2(recording, scene.story());
    QVERIFY2(scene.waitUntilRecorded(300), scene.story()); // which makes it log, to a pipe without a reader
    QVERIFY(countLines(scene.log(), clickLineStart) > 0);
    QVERIFY2(scene.stopAndExit(), scene.story());
    QCOMPARE(scene.log().last().text, exitingLine + QStringLiteral("0"));
    QVERIFY2(playBack(scene.command.output).isWhole(), playBack(scene.command.output).description());
}

void EndingsTest::killed()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitForFragments(2), scene.story());
    scene.recorder.send(SIGKILL);
    QVERIFY2(scene.recorder.waitForEnd(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), -SIGKILL);
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.plays() && !file.finished, file.description());
    QVERIFY2(file.ptsMs.last() >= 1500.0, file.description()); // two fragments, of 24 frames or a second each
}

ORVANTIS_TEST(EndingsTest)
#include "endings_test.moc"

// The X server dies, or stops answering, while a recording runs. What the capture makes of such a server in every
// other state is looked at in capture/.
#include "privatexserver.h"
#include "recordedfile.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthwindowprocess.h"

#include <QTest>

#include <csignal>

class DisplayLossTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void serverKilled();
    void serverStoppedWhileRecording();
};

void DisplayLossTest::serverKilled()
{
    PrivateXServer server;
    QVERIFY2(server.isRunning(), qPrintable(server.errorString()));
    TruthWindowProcess window(server.display());
    RecordingScene scene(server.display(), window.id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(500), scene.story());
    server.kill();
    QVERIFY2(
        scene.waitForLine(QStringLiteral("macOS CoreGraphics capture returned no image for window ")), scene.story());
    QVERIFY2(scene.waitUntilRecorded(1000), scene.story()); // the launcher still reaches it
    const auto durationMs = scene.stop();
    QVERIFY2(durationMs && *durationMs >= 1000, scene.story());
    QVERIFY2(scene.exit(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), 0);
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    QVERIFY2(file.ptsMs.last() >= 400.0, file.description());
}

void DisplayLossTest::serverStoppedWhileRecording()
{
    PrivateXServer server;
    QVERIFY2(server.isRunning(), qPrintable(server.errorString()));
    TruthWindowProcess window(server.display());
    RecordingScene scene(server.display(), window.id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(500), scene.story());
    QCOMPARE(::kill(pid_t(server.pid()), SIGSTOP), 0);
    const auto durationMs = scene.stop(); // while the server owes an answer
    const bool ended = scene.exit();
    QCOMPARE(::kill(pid_t(server.pid()), SIGCONT), 0);
    QVERIFY2(durationMs && *durationMs >= 500, scene.story());
    QVERIFY2(ended, scene.story());
    QCOMPARE(scene.recorder.exitCode(), 0);
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    QVERIFY2(file.ptsMs.last() >= 400.0, file.description());
}

ORVANTIS_TEST(DisplayLossTest)
#include "displayloss_test.moc"

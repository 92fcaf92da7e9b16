// kill -9, or a fault, long after the window showed its last image: what had been recorded until then is on the disk.
#include "desktop.h"
#include "privatexserver.h"
#include "recordedfile.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthwindowprocess.h"

#include <QTest>

#include <csignal>

namespace {

constexpr int shownMs = 2500; // of recording with images
constexpr int hiddenMs = 8000; // of recording after them, which is longer than a frame is held
const QByteArray lastLine = "Fatal: recorder is ended by a fault of the program or for want of memory; ";

}

class KilledTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void windowHidden();
    void displayHangs();

private:
    static void killAndVerify(RecordingScene& scene, int signal);
};

void KilledTest::killAndVerify(RecordingScene& scene, int signal)
{
    scene.recorder.send(signal);
    QVERIFY2(scene.recorder.waitForEnd(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), -signal);
    QCOMPARE(scene.recorder.standardError().count(lastLine), signal == SIGABRT ? 1 : 0);
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.plays() && !file.finished, file.description());
    // Only the last fragment is lost: 24 frames at most.
    QVERIFY2(file.ptsMs.last() >= shownMs - 24 * 41 - 100, file.description());
}

/// Two recorders of it: one is killed, the other meets a fault.
void KilledTest::windowHidden()
{
    PrivateXServer server;
    QVERIFY2(server.isRunning(), qPrintable(server.errorString()));
    Desktop desktop(server.display());
    QVERIFY(desktop.isConnected());
    TruthWindowProcess window(server.display());
    RecordingScene killed(server.display(), window.id());
    RecordingScene faulty(server.display(), window.id());
    for (RecordingScene* const scene : {&killed, &faulty})
        QVERIFY2(scene->startRecording(), scene->story());
    QVERIFY2(faulty.waitUntilRecorded(shownMs), faulty.story());
    desktop.unmap(window.id());
    QVERIFY2(faulty.waitUntilRecorded(shownMs + hiddenMs), faulty.story());
    killAndVerify(killed, SIGKILL);
    killAndVerify(faulty, SIGABRT); // a sanitizer would see to SIGSEGV itself
}

void KilledTest::displayHangs()
{
    PrivateXServer server;
    QVERIFY2(server.isRunning(), qPrintable(server.errorString()));
    TruthWindowProcess window(server.display());
    RecordingScene scene(server.display(), window.id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(shownMs), scene.story());
    QCOMPARE(::kill(pid_t(server.pid()), SIGSTOP), 0);
    const bool recorded = scene.waitUntilRecorded(shownMs + hiddenMs);
    killAndVerify(scene, SIGKILL);
    QCOMPARE(::kill(pid_t(server.pid()), SIGCONT), 0);
    QVERIFY2(recorded, scene.story());
}

ORVANTIS_TEST(KilledTest)
#include "killed_test.moc"

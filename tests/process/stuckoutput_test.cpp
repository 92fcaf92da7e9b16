// An output that takes nothing: a disk that hangs (stuckdisk.cpp). The process still ends.
#include "privatexserver.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthwindowprocess.h"

#include <QFile>
#include <QTest>

#include <csignal>

namespace {

const auto stillRunningLine = QStringLiteral("Recorder worker still writes the output; ");
const auto givenUpLine = QStringLiteral("recorder worker did not end in time; leaving the output as it is");
constexpr int endLimitMs = 120'000; // what stop() and the process's end wait for, and some

/// A recorder whose disk hangs.
class StuckScene {
public:
    /// place: as stuckdisk.cpp knows it.
    StuckScene(const QByteArray& display, quint32 window, const char* place) : scene(display, window)
    {
        scene.recorder.setVariable(QStringLiteral("LD_PRELOAD"), QStringLiteral(STUCK_DISK));
        scene.recorder.setVariable(QStringLiteral("STUCK_DISK_AT"), QLatin1String(place));
        scene.recorder.setVariable(QStringLiteral("STUCK_DISK_HURRY"), hurry());
        // A sanitizer wants to be first in the list of libraries.
        scene.recorder.setVariable(QStringLiteral("ASAN_OPTIONS"),
            qEnvironmentVariable("ASAN_OPTIONS") + QStringLiteral(":verify_asan_link_order=0"));
    }

    /// From now on its clock runs fast.
    bool makeHurry() const { return QFile(hurry()).open(QIODevice::WriteOnly); }

    RecordingScene scene;

private:
    QString hurry() const { return scene.directory.filePath(QStringLiteral("hurry")); }
};

}

class StuckOutputTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void processEnds();

private:
    static void verifyGivenUp(RecordingScene& scene, int exitCode);

    PrivateXServer server_;
    std::unique_ptr<TruthWindowProcess> window_;
};

void StuckOutputTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    window_ = std::make_unique<TruthWindowProcess>(server_.display());
    QVERIFY2(window_->id() != 0, qPrintable(window_->errorString()));
}

void StuckOutputTest::verifyGivenUp(RecordingScene& scene, int exitCode)
{
    QVERIFY2(scene.recorder.waitForEnd(endLimitMs), scene.story());
    QCOMPARE(scene.recorder.exitCode(), exitCode);
    QCOMPARE(scene.log().last().level, "Critical");
    QCOMPARE(scene.log().last().text, givenUpLine);
    QCOMPARE(countLines(scene.log(), QStringLiteral("FFmpeg recorder stopped")), 0);
    QCOMPARE(countLines(scene.log(), QStringLiteral("FFmpeg recorder stop requested")), 0);
}

/// All at the same time, because each one waits for as long as a worker may take.
void StuckOutputTest::processEnds()
{
    StuckScene stopped(server_.display(), window_->id(), "open");
    StuckScene signalled(server_.display(), window_->id(), "open");
    StuckScene writing(server_.display(), window_->id(), "write");
    for (StuckScene* const stuck : {&stopped, &signalled, &writing})
        QVERIFY2(stuck->scene.start(), stuck->scene.story());
    QVERIFY2(writing.scene.launcher.waitForReceived(1, hangLimitMs), writing.scene.story());
    QVERIFY2(writing.scene.waitUntilRecorded(4500), writing.scene.story()); // frames have been written

    signalled.scene.recorder.send(SIGTERM);
    for (StuckScene* const stuck : {&stopped, &writing}) {
        QVERIFY(stuck->scene.launcher.send("{\"action\":\"stop\"}\n{\"action\":\"stop\"}\n{\"action\":\"exit\"}\n"));
    }
    for (StuckScene* const stuck : {&stopped, &signalled, &writing})
        QVERIFY(stuck->makeHurry());
    verifyGivenUp(signalled.scene, 128 + SIGTERM);
    verifyGivenUp(stopped.scene, 0);
    verifyGivenUp(writing.scene, 0);
    QCOMPARE(countLines(signalled.scene.log(), stillRunningLine), 0);
    QCOMPARE(countLines(stopped.scene.log(), stillRunningLine), 1);
    QCOMPARE(countLines(writing.scene.log(), stillRunningLine), 1);
    QCOMPARE(stopped.scene.launcher.received(), "");
    QCOMPARE(writing.scene.launcher.received(), "1");
}

ORVANTIS_TEST(StuckOutputTest)
#include "stuckoutput_test.moc"

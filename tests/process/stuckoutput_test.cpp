// An output that takes nothing: a pipe that nobody reads stands for a disk that hangs. The process still ends.
#include "privatexserver.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthwindowprocess.h"

#include <QFile>
#include <QTest>

#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const auto stillRunningLine = QStringLiteral("Recorder worker still writes the output; ");
const auto givenUpLine = QStringLiteral("recorder worker did not end in time; leaving the output as it is");
constexpr int endLimitMs = 120'000; // what stop() and the process's end wait for, and some

/// A recorder whose output is a pipe.
class PipeScene {
public:
    PipeScene(const QByteArray& display, quint32 window) : scene(display, window)
    {
        made_ = ::mkfifo(QFile::encodeName(scene.command.output).constData(), 0600) == 0;
    }
    ~PipeScene()
    {
        if (reader_ >= 0)
            ::close(reader_);
    }
    PipeScene(const PipeScene&) = delete;
    PipeScene& operator=(const PipeScene&) = delete;

    bool isMade() const { return made_; }

    /// Opens the pipe's other end, so that opening the output does not hang, and never reads.
    bool openUnread()
    {
        reader_ = ::open(QFile::encodeName(scene.command.output).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        // The smallest that there is: one page.
        return reader_ >= 0 && ::fcntl(reader_, F_SETPIPE_SZ, 1) > 0;
    }

    RecordingScene scene;

private:
    bool made_ = false;
    int reader_ = -1;
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
    PipeScene stopped(server_.display(), window_->id());
    PipeScene signalled(server_.display(), window_->id());
    PipeScene unread(server_.display(), window_->id());
    QVERIFY(stopped.isMade() && signalled.isMade() && unread.isMade());
    QVERIFY(unread.openUnread());
    for (PipeScene* const pipe : {&stopped, &signalled, &unread})
        QVERIFY2(pipe->scene.start(), pipe->scene.story());
    QVERIFY2(unread.scene.launcher.waitForReceived(1, hangLimitMs), unread.scene.story());
    QVERIFY2(unread.scene.waitUntilRecorded(4000), unread.scene.story()); // frames have been written

    signalled.scene.recorder.send(SIGTERM);
    for (PipeScene* const pipe : {&stopped, &unread}) {
        QVERIFY(pipe->scene.launcher.send("{\"action\":\"stop\"}\n{\"action\":\"stop\"}\n{\"action\":\"exit\"}\n"));
    }
    verifyGivenUp(signalled.scene, 128 + SIGTERM);
    verifyGivenUp(stopped.scene, 0);
    verifyGivenUp(unread.scene, 0);
    QCOMPARE(countLines(signalled.scene.log(), stillRunningLine), 0);
    QCOMPARE(countLines(stopped.scene.log(), stillRunningLine), 1);
    QCOMPARE(countLines(unread.scene.log(), stillRunningLine), 1);
    QCOMPARE(stopped.scene.launcher.received(), "");
    QCOMPARE(unread.scene.launcher.received(), "1");
}

ORVANTIS_TEST(StuckOutputTest)
#include "stuckoutput_test.moc"

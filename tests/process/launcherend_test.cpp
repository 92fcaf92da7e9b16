// A launcher that goes before it has said "exit", with and without the wish that the recorder ends with it.
#include "privatexserver.h"
#include "recordedfile.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthwindowprocess.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <csignal>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int goneExitCode = 3;
const auto variable = QStringLiteral("ORVANTIS_END_WITH_LAUNCHER");
const auto goneLine = QStringLiteral("Browser recorder control socket is closed; finishing the file and ending.");
const auto exitingLine = QStringLiteral("recorder exiting ");

/// A launcher in a process of its own: it takes the connection and does nothing more.
class LauncherProcess {
public:
    /// directory: what the recorder has as TMPDIR.
    explicit LauncherProcess(const QString& directory)
    {
        const int server = listen(directory + QLatin1String("/orvantis-recorder"));
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::accept(server, nullptr, nullptr);
            for (;;)
                ::pause();
        }
        ::close(server);
    }
    ~LauncherProcess() { kill(); }
    LauncherProcess(const LauncherProcess&) = delete;
    LauncherProcess& operator=(const LauncherProcess&) = delete;

    void kill()
    {
        if (pid_ <= 0)
            return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    static int listen(const QString& path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, QFile::encodeName(path).constData(), sizeof(address.sun_path));
        const int server = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::bind(server, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0
            || ::listen(server, 1) != 0)
            qFatal("No control socket at %s", qUtf8Printable(path));
        return server;
    }

    pid_t pid_ = -1;
};

}

class LauncherEndTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void killedLauncherEndsTheRecording();
    void killedLauncherIsOutlivedByDefault_data();
    void killedLauncherIsOutlivedByDefault();
    void noLauncherFromTheStart();
    void hangUpAfterStop();
    void hangUpAfterExit();

private:
    PrivateXServer server_;
    std::unique_ptr<TruthWindowProcess> window_;
};

void LauncherEndTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    window_ = std::make_unique<TruthWindowProcess>(server_.display());
    QVERIFY2(window_->id() != 0, qPrintable(window_->errorString()));
}

void LauncherEndTest::killedLauncherEndsTheRecording()
{
    RecordingScene scene(server_.display(), window_->id());
    LauncherProcess launcher(scene.command.logDirectory);
    scene.recorder.setVariable(QStringLiteral("TMPDIR"), scene.command.logDirectory);
    scene.recorder.setVariable(variable, QStringLiteral("1"));
    QVERIFY(scene.recorder.start(scene.command.arguments()));
    QVERIFY2(scene.waitForFragments(2), scene.story());
    launcher.kill();
    QVERIFY2(scene.recorder.waitForEnd(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), goneExitCode);
    QCOMPARE(countLines(scene.log(), goneLine), 1);
    QCOMPARE(scene.log().last().text, exitingLine + QString::number(goneExitCode));
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    QVERIFY2(file.ptsMs.last() >= 3000.0, file.description()); // with all that was still in the delay queue
}

void LauncherEndTest::killedLauncherIsOutlivedByDefault_data()
{
    QTest::addColumn<QString>("value");
    QTest::newRow("not set") << QString();
    QTest::newRow("0") << QStringLiteral("0");
}

void LauncherEndTest::killedLauncherIsOutlivedByDefault()
{
    QFETCH(QString, value);
    RecordingScene scene(server_.display(), window_->id());
    LauncherProcess launcher(scene.command.logDirectory);
    scene.recorder.setVariable(QStringLiteral("TMPDIR"), scene.command.logDirectory);
    if (!value.isEmpty())
        scene.recorder.setVariable(variable, value);
    QVERIFY(scene.recorder.start(scene.command.arguments()));
    QVERIFY2(scene.waitForFragments(1), scene.story());
    launcher.kill();
    QVERIFY2(scene.waitForFragments(3), scene.story());
    QVERIFY(scene.recorder.isRunning());
    QCOMPARE(countLines(scene.log(), goneLine), 0);
    scene.recorder.send(SIGTERM);
    QVERIFY2(scene.recorder.waitForEnd(), scene.story());
    QVERIFY2(playBack(scene.command.output).isWhole(), playBack(scene.command.output).description());
}

void LauncherEndTest::noLauncherFromTheStart()
{
    RecordingScene scene(server_.display(), window_->id());
    scene.recorder.setVariable(QStringLiteral("TMPDIR"), scene.command.logDirectory);
    scene.recorder.setVariable(variable, QStringLiteral("1"));
    QVERIFY(scene.recorder.start(scene.command.arguments()));
    QVERIFY2(scene.recorder.waitForEnd(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), goneExitCode);
    QCOMPARE(countLines(scene.log(), QStringLiteral("Unable to connect to browser recorder control socket:")), 1);
    QCOMPARE(countLines(scene.log(), goneLine), 1);
    const Playback file = playBack(scene.command.output);
    QVERIFY2(!QFile::exists(scene.command.output) || file.isWhole(), file.description());
}

/// It has its duration, and the recorder has nothing left to do.
void LauncherEndTest::hangUpAfterStop()
{
    RecordingScene scene(server_.display(), window_->id());
    scene.recorder.setVariable(variable, QStringLiteral("1"));
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(300), scene.story());
    QVERIFY2(scene.stop().value_or(0) >= 300, scene.story());
    scene.launcher.disconnectClient();
    QVERIFY2(scene.recorder.waitForEnd(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), goneExitCode);
    QVERIFY2(playBack(scene.command.output).isWhole(), playBack(scene.command.output).description());
}

void LauncherEndTest::hangUpAfterExit()
{
    RecordingScene scene(server_.display(), window_->id());
    scene.recorder.setVariable(variable, QStringLiteral("1"));
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(300), scene.story());
    QVERIFY(scene.launcher.send("{\"action\":\"stop\"}\n{\"action\":\"exit\"}\n"));
    scene.launcher.disconnectClient();
    QVERIFY2(scene.recorder.waitForEnd(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), 0);
    QCOMPARE(countLines(scene.log(), goneLine), 0);
    QVERIFY2(playBack(scene.command.output).isWhole(), playBack(scene.command.output).description());
}

ORVANTIS_TEST(LauncherEndTest)
#include "launcherend_test.moc"

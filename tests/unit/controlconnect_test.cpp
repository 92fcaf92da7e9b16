// How the recorder finds its launcher: absent, late, of another user.
#include "fullbacklog.h"
#include "privatetempdir.h"
#include "recorderbench.h"
#include "testregistry.h"

#include <QLocalSocket>
#include <QThread>

#include <atomic>

class ControlConnectTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { fakeplatform::reset(); }
    void absentLauncher();
    void lateLauncherIsMet();
    void serverOfAnotherUserIsNotObeyed();
    void connectionAfterTheAttemptsIsNotObeyed();

private:
    PrivateTempDir directory_;
};

void ControlConnectTest::absentLauncher()
{
    LogCapture log;
    RecorderArguments arguments;
    arguments.command = QStringLiteral("gdigrab");
    arguments.window = QStringLiteral("0");
    arguments.output = directory_.filePath(QStringLiteral("absent.mp4"));
    QElapsedTimer time;
    time.start();
    const std::unique_ptr<GstRecorder> recorder = makeRecorder(arguments);
    QVERIFY2(time.elapsed() >= 4900, qPrintable(QString::number(time.elapsed()))); // a late one would have been met

    RecorderProbe probe(*recorder);
    probe.waitForWorker();
    QCOMPARE(probe.controlSocket()->state(), QLocalSocket::LocalSocketState::UnconnectedState);
    const QString warning = QStringLiteral("Unable to connect to browser recorder control socket: \"%1\"")
                                .arg(probe.controlSocket()->errorString());
    QCOMPARE(log.count(warning), 1);
    // The order of the constructor's steps.
    const QStringList lines = log.messages();
    const QStringList expected{
        QStringLiteral("FFmpeg recorder starting command \"gdigrab\" window \"0\" output \"%1\" canvas 160 96 "
                       "screen origin 0 0 scale 1")
            .arg(arguments.output),
        warning,
        QStringLiteral("macOS recorder uses CoreGraphics window capture; requested command \"gdigrab\" will use "
                       "CoreGraphics window capture."),
        QStringLiteral("macOS CoreGraphics capture requested for window id \"0\" parsed 0 ok true"),
        QStringLiteral("macOS CoreGraphics capture received an empty window id."),
        QStringLiteral("macOS CoreGraphics window capture setup failed."),
        QStringLiteral("macOS window capture is not available.")};
    QCOMPARE(lines, expected);

    // A launcher that comes now is too late: nothing is sent, nothing obeyed, nothing warned of.
    log.clear();
    LauncherServer launcher;
    QVERIFY(launcher.isListening());
    Q_EMIT recorder->frameCome();
    recorder->stop();
    QVERIFY(!launcher.waitForReceived(1, 150));
    QVERIFY(!launcher.isConnected());
    QCOMPARE(log.messages(),
        (QStringList{QStringLiteral("sending frame come"), QStringLiteral("FFmpeg recorder stopped, duration 0")}));
}

void ControlConnectTest::lateLauncherIsMet()
{
    LogCapture log;
    QByteArray received;
    bool listening = false;
    bool met = false;
    std::atomic<bool> done{false}; // what is above belongs to the launcher's thread until then
    // The constructor blocks this thread, so the launcher needs one of its own.
    std::unique_ptr<QThread> thread(QThread::create([&] {
        QThread::msleep(300);
        LauncherServer launcher;
        listening = launcher.isListening();
        met = launcher.waitForConnection(patienceMs);
        launcher.send("{\"action\":\"pause\"}\n");
        launcher.waitForReceived(1, patienceMs);
        received = launcher.received();
        done.store(true, std::memory_order_release);
    }));
    thread->start();
    RecorderArguments arguments;
    arguments.window = QStringLiteral("0");
    const std::unique_ptr<GstRecorder> recorder = makeRecorder(arguments);
    RecorderProbe probe(*recorder);
    QCOMPARE(probe.controlSocket()->state(), QLocalSocket::LocalSocketState::ConnectedState);
    QTRY_VERIFY_WITH_TIMEOUT(probe.paused().load(), patienceMs); // sent at once after the connection
    Q_EMIT recorder->frameCome();
    QTRY_VERIFY_WITH_TIMEOUT(done.load(std::memory_order_acquire), 2 * patienceMs);
    QVERIFY(thread->wait());
    QVERIFY(listening);
    QVERIFY(met);
    QCOMPARE(received, QByteArray("1"));
    QCOMPARE(log.countStartingWith(QStringLiteral("Unable to connect")), 0);
}

void ControlConnectTest::serverOfAnotherUserIsNotObeyed()
{
    RecorderBench bench;
    fakeplatform::state().peerUserId = 4711;
    RecorderArguments arguments;
    arguments.window = QStringLiteral("0");
    const std::unique_ptr<GstRecorder> recorder = makeRecorder(arguments);
    RecorderProbe probe(*recorder);
    probe.waitForWorker();
    QCOMPARE(probe.controlSocket()->state(), QLocalSocket::LocalSocketState::UnconnectedState);
    const QString foreign
        = QStringLiteral("Browser recorder control socket belongs to another user; not obeying it.");
    const QString unable = QStringLiteral("Unable to connect to browser recorder control socket: \"%1\"")
                               .arg(probe.controlSocket()->errorString());
    QCOMPARE(bench.log.messages(QtWarningMsg).mid(0, 2), (QStringList{foreign, unable}));
    QCOMPARE(bench.log.count(foreign), 1);
    QCOMPARE(fakeplatform::state().peerUserIdCalls, 50); // an attempt each
    QCOMPARE(bench.log.count(unable), 1);

    Q_EMIT recorder->frameCome();
    recorder->stop();
    QVERIFY(!bench.launcher.waitForReceived(1, 150));
    QCOMPARE(bench.launcher.received(), QByteArray());
}

/// The last attempt is still under way when the attempts are over, and nobody would look at who completes it.
void ControlConnectTest::connectionAfterTheAttemptsIsNotObeyed()
{
    fakeplatform::state().peerUserId = 4711;
    FullBacklog planted(QFile::encodeName(directory_.filePath(QStringLiteral("orvantis-recorder"))));
    QVERIFY(planted.isFull());
    LogCapture log;
    RecorderArguments arguments;
    arguments.window = QStringLiteral("0");
    const std::unique_ptr<GstRecorder> recorder = makeRecorder(arguments);
    RecorderProbe probe(*recorder);
    probe.waitForWorker();
    QCOMPARE(log.countStartingWith(QStringLiteral("Unable to connect to browser recorder control socket:")), 1);
    QCOMPARE(probe.controlSocket()->state(), QLocalSocket::LocalSocketState::UnconnectedState);

    constexpr int lateMs = 500;
    const auto comesLate = [&] {
        planted.acceptAll("click|1|2|0.5|0.5\n{\"action\":\"pause\"}\n");
        return planted.strangers() > 0;
    };
    QVERIFY(!QTest::qWaitFor(comesLate, lateMs));
    QVERIFY(!probe.paused().load());
    QVERIFY(probe.clicks().isEmpty());
}

ORVANTIS_TEST(ControlConnectTest)
#include "controlconnect_test.moc"

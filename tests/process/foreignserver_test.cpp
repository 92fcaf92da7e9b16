// A control socket that belongs to another user is not obeyed, unless that is root. To have another user takes root.
#include "fullbacklog.h"
#include "privatexserver.h"
#include "recordedfile.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthwindowprocess.h"
#include "xauthority.h"

#include <QFile>
#include <QTest>

#include <csignal>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uid_t anotherUser = 65534;
const auto refusal = QStringLiteral("Browser recorder control socket belongs to another user; not obeying it.");

/// A scene whose directory was made, and whose server was opened, by another user; the recorder is started by root.
std::unique_ptr<RecordingScene> makeForeignScene(const QByteArray& display, quint32 window)
{
    if (::seteuid(anotherUser) != 0)
        return nullptr;
    auto scene = std::make_unique<RecordingScene>(display, window);
    return ::seteuid(0) == 0 ? std::move(scene) : nullptr;
}

}

class ForeignServerTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void notObeyed();
    void notObeyedWhenItAcceptsLate();
    void rootIsObeyed();
};

void ForeignServerTest::notObeyed()
{
    PrivateXServer server;
    QVERIFY2(server.isRunning(), qPrintable(server.errorString()));
    TruthWindowProcess window(server.display());
    const auto scene = makeForeignScene(server.display(), window.id());
    QVERIFY2(scene, "this test has to be run by root");
    QVERIFY(scene->recorder.start(scene->command.arguments()));

    // It tries again, for its own launcher may come late; then it records without one.
    int connections = 0;
    const auto isReady = [&] {
        if (scene->launcher.isConnected()) {
            ++connections;
            scene->launcher.send("click|1|2|0.5|0.5\n{\"action\":\"exit\"}\n{\"action\":\"stop\"}\n");
            scene->launcher.waitForDisconnected(hangLimitMs);
        }
        return countLines(scene->log(), QStringLiteral("sending frame come")) == 1;
    };
    QVERIFY2(QTest::qWaitFor(isReady, hangLimitMs), scene->story());
    QVERIFY2(connections > 0, scene->story());
    QCOMPARE(countLines(scene->log(), refusal), 1);
    QCOMPARE(countLines(scene->log(), QStringLiteral("Unable to connect to browser recorder control socket:")), 1);
    QCOMPARE(countLines(scene->log(), QStringLiteral("Recorder mouse click received")), 0);
    QCOMPARE(scene->launcher.received(), "");

    QVERIFY(scene->recorder.isRunning());
    scene->recorder.send(SIGTERM);
    QVERIFY(scene->recorder.waitForEnd());
    QCOMPARE(scene->recorder.exitCode(), 143);
    QVERIFY2(playBack(scene->command.output).isWhole(), playBack(scene->command.output).description());
}

/// Its queue is full while the recorder tries to connect, and has room when nobody looks any more.
void ForeignServerTest::notObeyedWhenItAcceptsLate()
{
    PrivateXServer server;
    QVERIFY2(server.isRunning(), qPrintable(server.errorString()));
    TruthWindowProcess window(server.display());
    RecordingScene scene(server.display(), window.id());
    FullBacklog planted(
        QFile::encodeName(scene.directory.filePath(QStringLiteral("orvantis-recorder"))), anotherUser);
    QVERIFY2(planted.isFull(), "this test has to be run by root");
    QVERIFY(scene.recorder.start(scene.command.arguments()));
    QVERIFY2(
        scene.waitForLine(QStringLiteral("Unable to connect to browser recorder control socket:")), scene.story());

    const auto isReady = [&] {
        planted.acceptAll("click|1|2|0.5|0.5\n{\"action\":\"exit\"}\n{\"action\":\"stop\"}\n");
        return countLines(scene.log(), QStringLiteral("sending frame come")) == 1;
    };
    QVERIFY2(QTest::qWaitFor(isReady, hangLimitMs), scene.story());
    QCOMPARE(planted.strangers(), 0);
    QCOMPARE(countLines(scene.log(), QStringLiteral("Recorder mouse click received")), 0);
    scene.recorder.send(SIGTERM);
    QVERIFY(scene.recorder.waitForEnd());
    QCOMPARE(scene.recorder.exitCode(), 143);
    QVERIFY2(playBack(scene.command.output).isWhole(), playBack(scene.command.output).description());
}

/// A launcher that runs as root, and a recorder in the session of somebody else.
void ForeignServerTest::rootIsObeyed()
{
    PrivateXServer server;
    QVERIFY2(server.isRunning(), qPrintable(server.errorString()));
    TruthWindowProcess window(server.display());
    RecordingScene scene(server.display(), window.id());
    const QString binary = scene.directory.filePath(QStringLiteral("recorder")); // where that user may read it
    QVERIFY(QFile::copy(RecorderProcess::defaultBinary(), binary));
    scene.recorder.setBinary(binary);
    const QString authority = scene.directory.filePath(QStringLiteral("authority"));
    QVERIFY(QFile::copy(xAuthorityFile(), authority));
    QCOMPARE(::chown(qPrintable(authority), anotherUser, anotherUser), 0);
    scene.recorder.setVariable(QStringLiteral("XAUTHORITY"), authority);
    for (const QString& path : {scene.directory.path(), scene.command.logDirectory})
        QCOMPARE(::chown(qPrintable(path), anotherUser, anotherUser), 0);
    QCOMPARE(::chmod(qPrintable(scene.directory.filePath(QStringLiteral("orvantis-recorder"))), 0777), 0);
    const QString id = QString::number(anotherUser);
    scene.recorder.setWrapper({"setpriv", "--reuid", id, "--regid", id, "--clear-groups"});

    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(100), scene.story());
    QVERIFY2(scene.stopAndExit(), scene.story());
    QCOMPARE(countLines(scene.log(), refusal), 0);
}

ORVANTIS_TEST(ForeignServerTest)
#include "foreignserver_test.moc"

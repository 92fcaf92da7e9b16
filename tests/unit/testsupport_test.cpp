// The tests' own tools: the log capture, the private directory and the launcher's end.
#include "launcherserver.h"
#include "logcapture.h"
#include "privatetempdir.h"
#include "testregistry.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QLocalSocket>
#include <QTest>

#include <thread>
#include <vector>

class TestSupportTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void captureKeepsTextsAndLevels();
    void captureHearsEveryThread();
    void innerCaptureHidesTheOuter();
    void captureGivesTheHandlerBack();
    void temporaryDirectoryIsPrivateAndGoes();
    void launcherTakesAConnectionMadeBeforeItsEventLoop();
    void launcherNoticesTheEnd();
    void launcherTakesTheNextClient();
    void launcherWaitsEnd();
};

namespace {

/// What a recorder does in its constructor: connects and blocks until that is done.
bool connectBlocking(QLocalSocket& socket)
{
    constexpr int limitMs = 5000;
    socket.connectToServer(QStringLiteral("orvantis-recorder"), QIODevice::ReadWrite);
    return socket.waitForConnected(limitMs);
}

constexpr int limitMs = 20'000;

int messagesHeard = 0;

void countMessage(QtMsgType, const QMessageLogContext&, const QString&)
{
    ++messagesHeard;
}

}

void TestSupportTest::captureKeepsTextsAndLevels()
{
    LogCapture log;
    qDebug() << "first" << 1 << QStringLiteral("quoted");
    qWarning("second");
    qWarning("second");
    qCritical("third");
    QCOMPARE(log.messages(),
        QStringList({QStringLiteral("first 1 \"quoted\""), QStringLiteral("second"), QStringLiteral("second"),
            QStringLiteral("third")}));
    QCOMPARE(log.messages(QtCriticalMsg), QStringList({QStringLiteral("third")}));
    QCOMPARE(log.count(QStringLiteral("second")), 2);
    QCOMPARE(log.count(QStringLiteral("secon")), 0);
    QCOMPARE(log.countStartingWith(QStringLiteral("first")), 1);
    QVERIFY(log.contains(QStringLiteral("third")));
    log.clear();
    QVERIFY(log.messages().isEmpty());
}

void TestSupportTest::captureHearsEveryThread()
{
    LogCapture log;
    constexpr int threadCount = 4;
    constexpr int each = 250;
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([] {
            for (int line = 0; line < each; ++line)
                qDebug("line");
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    QCOMPARE(log.count(QStringLiteral("line")), threadCount * each);
}

void TestSupportTest::innerCaptureHidesTheOuter()
{
    const LogCapture outer;
    qDebug("before");
    {
        const LogCapture inner;
        qDebug("between");
        QCOMPARE(inner.messages(), QStringList({QStringLiteral("between")}));
    }
    qDebug("after");
    QCOMPARE(outer.messages(), QStringList({QStringLiteral("before"), QStringLiteral("after")}));
}

void TestSupportTest::captureGivesTheHandlerBack()
{
    messagesHeard = 0;
    const QtMessageHandler original = qInstallMessageHandler(countMessage);
    {
        const LogCapture log;
        qDebug("for the capture");
    }
    qDebug("for the handler");
    QVERIFY(qInstallMessageHandler(original) == &countMessage);
    QCOMPARE(messagesHeard, 1);
}

void TestSupportTest::temporaryDirectoryIsPrivateAndGoes()
{
    const QByteArray before = qgetenv("TMPDIR");
    QString path;
    {
        const PrivateTempDir directory;
        path = directory.path();
        QCOMPARE(QDir::tempPath(), path);
        QVERIFY(path.size() < 40);
        const QFile::Permissions others = QFile::ReadGroup | QFile::WriteGroup | QFile::ExeGroup | QFile::ReadOther
            | QFile::WriteOther | QFile::ExeOther;
        QVERIFY(!(QFileInfo(path).permissions() & others));
    }
    QCOMPARE(qgetenv("TMPDIR"), before);
    QVERIFY(!QFileInfo::exists(path));
}

void TestSupportTest::launcherTakesAConnectionMadeBeforeItsEventLoop()
{
    const PrivateTempDir directory;
    LauncherServer launcher;
    QVERIFY2(launcher.isListening(), qPrintable(launcher.errorString()));
    QVERIFY(QFileInfo::exists(directory.filePath(QStringLiteral("orvantis-recorder"))));
    QVERIFY(!launcher.send("too early\n"));

    QLocalSocket recorder;
    QVERIFY(connectBlocking(recorder));
    recorder.write("1");
    recorder.flush();
    QVERIFY(!launcher.isConnected());

    QVERIFY(launcher.waitForConnection(limitMs));
    QVERIFY(launcher.waitForReceived(1, limitMs));
    QCOMPARE(launcher.received(), QByteArray("1"));
    QVERIFY(launcher.send("click|1|2|3|4\n"));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.bytesAvailable(), 14, limitMs);
    QCOMPARE(recorder.readAll(), QByteArray("click|1|2|3|4\n"));

    recorder.write("{\"duration\":41}\n");
    QVERIFY(launcher.waitForReceived([](const QByteArray& bytes) { return bytes.endsWith('\n'); }, limitMs));
    QCOMPARE(launcher.received(), QByteArray("1{\"duration\":41}\n"));
    launcher.clearReceived();
    QCOMPARE(launcher.received(), QByteArray());
}

void TestSupportTest::launcherNoticesTheEnd()
{
    const PrivateTempDir directory;
    LauncherServer launcher;
    QLocalSocket recorder;
    QVERIFY(connectBlocking(recorder));
    QVERIFY(launcher.waitForConnection(limitMs));
    recorder.write("last words");
    recorder.disconnectFromServer();
    QVERIFY(launcher.waitForDisconnected(limitMs));
    QCOMPARE(launcher.received(), QByteArray("last words"));
}

void TestSupportTest::launcherTakesTheNextClient()
{
    const PrivateTempDir directory;
    LauncherServer launcher;
    QLocalSocket first;
    QVERIFY(connectBlocking(first));
    QVERIFY(launcher.waitForConnection(limitMs));
    QVERIFY(launcher.send("bye\n"));
    launcher.disconnectClient();
    QTRY_COMPARE_WITH_TIMEOUT(first.state(), QLocalSocket::UnconnectedState, limitMs);
    QCOMPARE(first.readAll(), QByteArray("bye\n"));
    QVERIFY(!launcher.isConnected());

    QLocalSocket second;
    QVERIFY(connectBlocking(second));
    QVERIFY(launcher.waitForConnection(limitMs));
    QLocalSocket third;
    QVERIFY(connectBlocking(third));
    QTRY_COMPARE_WITH_TIMEOUT(second.state(), QLocalSocket::UnconnectedState, limitMs);
    third.write("3");
    QVERIFY(launcher.waitForReceived(1, limitMs));
}

void TestSupportTest::launcherWaitsEnd()
{
    const PrivateTempDir directory;
    LauncherServer launcher;
    constexpr int shortMs = 20;
    QVERIFY(!launcher.waitForConnection(shortMs));
    QVERIFY(!launcher.waitForReceived(1, shortMs));
    QVERIFY(launcher.waitForDisconnected(shortMs));
}

ORVANTIS_TEST(TestSupportTest)
#include "testsupport_test.moc"

// Permission mode: the answer is the exit code, and lines on stderr.
#include "privatexserver.h"
#include "recordingscene.h"
#include "testregistry.h"

#include <QDir>
#include <QTest>

#include <array>
#include <fcntl.h>
#include <unistd.h>

class PermissionsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void held_data();
    void held();
    void refused_data();
    void refused();
    void withoutAReaderOfItsLines_data();
    void withoutAReaderOfItsLines();
    void capitalsDoNotSelectIt();

private:
    PrivateXServer server_;
};

void PermissionsTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
}

void PermissionsTest::held_data()
{
    QTest::addColumn<int>("position"); // among the ten arguments of a recording; -1: alone
    QTest::newRow("alone") << -1;
    QTest::newRow("in place of the log directory") << 0;
    QTest::newRow("among the others") << 4;
    QTest::newRow("in place of the audio source") << 9;
    QTest::newRow("after all others") << 10;
}

void PermissionsTest::held()
{
    QFETCH(int, position);
    RecordingScene scene(server_.display(), 1);
    const QString option = QStringLiteral("--request-permissions");
    QStringList arguments = scene.command.arguments();
    if (position < 0)
        arguments = {option};
    else if (position < arguments.size())
        arguments[position] = option;
    else
        arguments << option;

    QVERIFY(scene.recorder.start(arguments));
    QVERIFY(scene.recorder.waitForEnd());
    QCOMPARE(scene.recorder.exitCode(), 0);
    QCOMPARE(scene.recorder.standardError(),
        "macOS screen recording preflight before request true\n"
        "recorder permission preflight completed screenCaptureAllowed true\n");
    QVERIFY(QDir(scene.command.logDirectory).isEmpty());
    QVERIFY(!scene.launcher.isConnected());
}

void PermissionsTest::refused_data()
{
    QTest::addColumn<QByteArray>("display");
    QTest::newRow("no display") << QByteArray();
    QTest::newRow("a display that nobody serves") << QByteArray(":60999");
    QTest::newRow("a display that is none") << QByteArray("not a display");
}

void PermissionsTest::refused()
{
    QFETCH(QByteArray, display);
    RecordingScene scene(display, 1);
    QVERIFY(scene.recorder.start({QStringLiteral("--request-permissions")}));
    QVERIFY(scene.recorder.waitForEnd());
    QCOMPARE(scene.recorder.exitCode(), 2);
    QCOMPARE(scene.recorder.standardError(),
        "macOS screen recording preflight before request false\n"
        "macOS screen recording request result false preflight after request false\n"
        "recorder permission preflight completed screenCaptureAllowed false\n");
}

void PermissionsTest::withoutAReaderOfItsLines_data()
{
    QTest::addColumn<bool>("held");
    QTest::newRow("held") << true;
    QTest::newRow("refused") << false;
}

void PermissionsTest::withoutAReaderOfItsLines()
{
    QFETCH(const bool, held);
    RecordingScene scene(held ? server_.display() : QByteArray(), 1);
    std::array<int, 2> ends{};
    QCOMPARE(::pipe2(ends.data(), O_CLOEXEC), 0);
    ::close(ends[0]);
    scene.recorder.setStandardError(ends[1]);
    const bool started = scene.recorder.start({QStringLiteral("--request-permissions")});
    ::close(ends[1]);
    QVERIFY(started);
    QVERIFY(scene.recorder.waitForEnd());
    QCOMPARE(scene.recorder.exitCode(), held ? 0 : 2);
}

void PermissionsTest::capitalsDoNotSelectIt()
{
    RecordingScene scene(server_.display(), 1);
    QVERIFY(scene.recorder.start({scene.command.logDirectory, QStringLiteral("--REQUEST-PERMISSIONS")}));
    QVERIFY(scene.recorder.waitForEnd());
    QCOMPARE(scene.recorder.exitCode(), 0);
    QCOMPARE(scene.log().last().text, QStringLiteral("invalid param count"));
}

ORVANTIS_TEST(PermissionsTest)
#include "permissions_test.moc"

// The process on Linux: Qt's platform, bundles, and who is at the other end of a socket.
#include "platform/application.h"
#include "testregistry.h"

#include <QFile>
#include <QTest>

#include <array>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

class LinuxApplicationTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void guiPlatformIsChosenUnlessNamed_data();
    void guiPlatformIsChosenUnlessNamed();
    void thereAreNoBundles();
    void peerOfALocalSocketIsKnown();
    void whatHasNoPeerHasNoUser();
};

void LinuxApplicationTest::guiPlatformIsChosenUnlessNamed_data()
{
    QTest::addColumn<bool>("set");
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<QByteArray>("expected");
    QTest::newRow("unset") << false << QByteArray() << QByteArray("minimal");
    QTest::newRow("empty") << true << QByteArray("") << QByteArray("minimal");
    QTest::newRow("named") << true << QByteArray("offscreen") << QByteArray("offscreen");
}

void LinuxApplicationTest::guiPlatformIsChosenUnlessNamed()
{
    QFETCH(bool, set);
    QFETCH(QByteArray, value);
    QFETCH(QByteArray, expected);
    if (set)
        qputenv("QT_QPA_PLATFORM", value);
    else
        qunsetenv("QT_QPA_PLATFORM");
    platform::chooseGuiPlatform();
    QCOMPARE(qgetenv("QT_QPA_PLATFORM"), expected);
}

void LinuxApplicationTest::thereAreNoBundles()
{
    platform::becomeAccessory();
    for (const char* name : {"bundleIdentifier", "bundlePath", "executablePath", ""})
        QCOMPARE(platform::mainBundleString(name), QString());
}

void LinuxApplicationTest::peerOfALocalSocketIsKnown()
{
    std::array<int, 2> ends{};
    QCOMPARE(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    QCOMPARE(platform::peerUserId(ends[0]), std::optional<quint32>(::geteuid()));
    QCOMPARE(platform::ownUserId(), quint32(::geteuid()));
    ::close(ends[0]);
    ::close(ends[1]);
}

void LinuxApplicationTest::whatHasNoPeerHasNoUser()
{
    const int unconnected = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    QVERIFY(unconnected >= 0);
    QCOMPARE(platform::peerUserId(unconnected), std::nullopt);
    ::close(unconnected);
    const int file = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    QVERIFY(file >= 0);
    QCOMPARE(platform::peerUserId(file), std::nullopt);
    ::close(file);
    QCOMPARE(platform::peerUserId(-1), std::nullopt);
}

ORVANTIS_TEST(LinuxApplicationTest)
#include "linuxapplication_test.moc"

// Which processes own a window that is to be seen, with a real X server and a real window manager.
#include "ownertest.h"
#include "privatetempdir.h"
#include "testregistry.h"
#include "x11fixture.h"

#include <QFile>
#include <QTest>

#include <memory>

using namespace ownertest;
using streamowners::ApplicationSnapshot;

class WindowOwnersTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();

    void windowsWithoutAManager();
    void windowsUnderAManager();
    void windowTellsNameAndId();
    void serverThatDoesNotKnowProcesses();
    void whatAWindowSaysOfItsProcessDoesNotCount();
    void noDisplay();
    void deadServer();

private:
    std::unique_ptr<DisplayForTest> display_;
};

void WindowOwnersTest::init()
{
    display_ = std::make_unique<DisplayForTest>();
    QVERIFY2(display_->server.isRunning(), qPrintable(display_->server.errorString()));
}

void WindowOwnersTest::windowsWithoutAManager()
{
    WindowProcess first;
    WindowStart menu;
    menu.overrideRedirect = true;
    const WindowProcess second(menu);
    WindowStart hidden;
    hidden.mapped = false;
    const WindowProcess third(hidden);
    QVERIFY(first.id() && second.id() && third.id());
    const auto all = owners();
    QCOMPARE(all.size(), std::size_t(1));
    QCOMPARE(all[0].processId, first.pid());
    QCOMPARE(all[0].name, QString());
    QVERIFY(first.send("unmap"));
    QVERIFY(owners().empty());
}

void WindowOwnersTest::windowsUnderAManager()
{
    PrivateTempDir home; // no configuration of the user's
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_DATA_HOME"})
        environment.insert(QString::fromLatin1(name), home.path());
    QProcess manager;
    manager.setProcessEnvironment(environment);
    const QString ready = home.filePath(QStringLiteral("ready"));
    manager.start(QStringLiteral("openbox"),
        {QStringLiteral("--sm-disable"), QStringLiteral("--startup"), QStringLiteral("touch ") + ready});
    QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(ready), limitMs);

    WindowProcess window;
    QTRY_COMPARE_WITH_TIMEOUT(windowOwner(0), window.pid(), limitMs); // and not the manager, whose frame it is in
    QCOMPARE(owners().size(), std::size_t(1));
    QVERIFY(window.send("iconify"));
    QCOMPARE(windowOwner(0), window.pid());
    manager.kill();
    QVERIFY(manager.waitForFinished(limitMs));
    QVERIFY(window.send("map"));
    QTRY_COMPARE_WITH_TIMEOUT(windowOwner(0), window.pid(), limitMs); // the dead manager's list does not count
    QVERIFY(window.send("unmap"));
    QVERIFY(owners().empty());
}

void WindowOwnersTest::windowTellsNameAndId()
{
    WindowProcess window;
    QVERIFY(window.send("class Player") && window.send("appid org.example.Player"));
    const auto all = owners();
    QCOMPARE(all.size(), std::size_t(1));
    QCOMPARE(all[0].name, QStringLiteral("Player"));
    QCOMPARE(all[0].applicationId, QStringLiteral("org.example.Player"));

    const auto snapshot = ApplicationSnapshot::take({});
    QCOMPARE(snapshot->applications()[0].processId, qint32(window.pid()));
    QCOMPARE(snapshot->applications()[0].applicationName, QStringLiteral("Player"));
    QCOMPARE(snapshot->applications()[0].bundleIdentifier, QStringLiteral("org.example.Player"));
}

void WindowOwnersTest::serverThatDoesNotKnowProcesses()
{
    display_ = std::make_unique<DisplayForTest>(
        QSize(640, 480), 24, QStringList{QStringLiteral("-extension"), QStringLiteral("X-Resource")});
    WindowProcess window;
    QVERIFY(owners().empty());
    QVERIFY(window.send("pid " + QByteArray::number(window.pid())));
    QCOMPARE(windowOwner(0), window.pid());
    QVERIFY(window.send("pid 0"));
    QVERIFY(owners().empty());
}

void WindowOwnersTest::whatAWindowSaysOfItsProcessDoesNotCount()
{
    const Idler other;
    WindowProcess window;
    QVERIFY(window.send("pid " + QByteArray::number(other.pid())));
    QCOMPARE(owners().size(), std::size_t(1));
    QCOMPARE(windowOwner(0), window.pid());
}

void WindowOwnersTest::noDisplay()
{
    const WindowProcess window;
    QCOMPARE(windowOwner(0), window.pid());
    qunsetenv("DISPLAY");
    const auto none = windowowners::find();
    QVERIFY(none && none->empty());
}

void WindowOwnersTest::deadServer()
{
    display_->server.kill();
    QVERIFY(!windowowners::find());
    const auto snapshot = ApplicationSnapshot::take({});
    QVERIFY(find(*snapshot, ::getpid()));
}

ORVANTIS_TEST(WindowOwnersTest)

#include "windowowners_test.moc"

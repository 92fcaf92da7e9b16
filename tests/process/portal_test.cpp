// record-window on Wayland: the window is one that the desktop portal hands out. The portal and the recorder are the
// real ones; the desktop with its user, and the compositor's node, are the test's.
#include "desktopportal.h"
#include "privateaudioserver.h"
#include "privatesessionbus.h"
#include "recordedfile.h"
#include "recordwindowprocess.h"
#include "testregistry.h"
#include "videonode.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPainter>
#include <QTest>

#include <csignal>
#include <memory>

#include <spa/param/video/raw.h>

namespace {

constexpr int limitMs = 60'000; // against hanging
constexpr QSize monitor(800, 600);
constexpr QRect window(0, 0, 640, 360); // of the monitor's size, as mutter has it

constexpr QFile::Permissions othersPermissions
    = QFile::ReadGroup | QFile::WriteGroup | QFile::ReadOther | QFile::WriteOther;

QImage content()
{
    QImage image(monitor, QImage::Format_ARGB32);
    image.fill(Qt::red);
    QPainter(&image).fillRect(window, Qt::blue);
    return image;
}

}

class PortalTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void selected();
    void again();
    void notRemembered();
    void withoutAPlaceToRemember();
    void cancelled();
    void interruptedQuestion();
    void portalDiesDuringTheQuestion();
    void portalHangs();
    void portalDiesDuringTheRecording();
    void sharingEnded();
    void windowClosed();
    void windowClosedAndKeptGoing();
    void monitorsOnly();
    void pointerIsNotTold();
    void noPortal();
    void noBus();
    void whatCannotBeHad_data();
    void whatCannotBeHad();

private:
    void startPortal(const DesktopPortal::Desktop& wanted = DesktopPortal::Desktop());
    void makeNode();
    /// With the real recorder.
    void start(const QStringList& arguments) { launcher_->startWithout(arguments); }
    /// While the portal's backend answers. The exit code; -1 when it was ended by a signal, or not at all.
    int end();
    int run(const QStringList& arguments)
    {
        start(arguments);
        return end();
    }
    /// With one that records nothing, for what the launcher alone does.
    int runFake(const QStringList& arguments)
    {
        launcher_->start(arguments);
        return end();
    }
    QString tokenFile() const { return launcher_->path(QStringLiteral("state/orvantis-recorder/window-token")); }
    bool isRefused(const QByteArray& sentence);

    PrivateAudioServer server_;
    std::unique_ptr<PrivateSessionBus> bus_;
    std::unique_ptr<DesktopPortal> portal_;
    std::unique_ptr<VideoNode> node_;
    std::unique_ptr<RecordWindowProcess> launcher_;
};

void PortalTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    server_.apply();
    bus_ = std::make_unique<PrivateSessionBus>();
    QVERIFY2(!bus_->address().isEmpty(), qPrintable(bus_->errorString()));
    makeNode();
}

void PortalTest::makeNode()
{
    VideoNode::Options options;
    options.size = monitor;
    options.format = SPA_VIDEO_FORMAT_BGRx;
    options.atStart = NodeFrame{content(), window, {}, {}};
    node_ = std::make_unique<VideoNode>(options);
    QVERIFY(node_->id() != 0);
}

void PortalTest::startPortal(const DesktopPortal::Desktop& wanted)
{
    DesktopPortal::Desktop desktop = wanted;
    desktop.node = node_->id();
    desktop.told = monitor;
    portal_.reset(); // two cannot have the name
    portal_ = std::make_unique<DesktopPortal>(bus_->address(), server_.environment(), desktop);
    QVERIFY2(portal_->isRunning(), qPrintable(portal_->errorString()));
}

void PortalTest::init()
{
    launcher_ = std::make_unique<RecordWindowProcess>();
    launcher_->setEnvironment("WAYLAND_DISPLAY", "wayland-of-nobody");
    launcher_->setEnvironment("DBUS_SESSION_BUS_ADDRESS", bus_->address());
    launcher_->setEnvironment("XDG_STATE_HOME", launcher_->path(QStringLiteral("state")).toLocal8Bit());
    if (!portal_ || !portal_->isRunning())
        startPortal();
    portal_->desktop().node = node_->id();
}

void PortalTest::cleanup()
{
    launcher_.reset();
    portal_->desktop().user = DesktopPortal::User::Chooses;
    portal_->desktop().remembers = true;
}

int PortalTest::end()
{
    QProcess& process = launcher_->process();
    const bool ended = QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, limitMs);
    return ended && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

/// In a sentence, and nothing is left.
bool PortalTest::isRefused(const QByteArray& sentence)
{
    const QByteArray said = launcher_->standardError();
    if (!said.endsWith(sentence) || !launcher_->leftFiles().isEmpty() || launcher_->process().exitCode() != 2) {
        qWarning() << said << launcher_->leftFiles() << launcher_->process().exitCode();
        return false;
    }
    return true;
}

void PortalTest::selected()
{
    QCOMPARE(run({"--select", "--seconds", "0.5", "--output", "clip.mp4", "--json", "--audio", "none"}), 0);
    QVERIFY(launcher_->standardError().contains("choose the window to record in the desktop's dialogue\n"));
    QVERIFY(launcher_->standardError().contains("mouse clicks are not watched"));
    const QVariantMap wishes = portal_->wishes();
    QCOMPARE(wishes.value(QStringLiteral("types")).toUInt(), 2U);
    QCOMPARE(wishes.value(QStringLiteral("cursor_mode")).toUInt(), 4U);
    QCOMPARE(wishes.value(QStringLiteral("persist_mode")).toUInt(), 2U);
    QVERIFY(!wishes.contains(QStringLiteral("restore_data")));
    QTRY_COMPARE_WITH_TIMEOUT(portal_->openSessions(), 0, limitMs);
    const Playback file = playBack(launcher_->path(QStringLiteral("clip.mp4")));
    QVERIFY2(file.isWhole(), file.description());
    QCOMPARE(file.last.size(), window.size()); // not the size that the portal tells
    const QColor corner = file.last.pixelColor(630, 350);
    QVERIFY2(corner.blue() > 200 && corner.red() < 60, qPrintable(corner.name()));
    QCOMPARE(QFileInfo(tokenFile()).permissions() & othersPermissions, QFile::Permissions());
}

void PortalTest::again()
{
    QCOMPARE(runFake({"--again"}), 2);
    QVERIFY(isRefused("record-window: --again: no window is remembered; --select asks for one\n"));
    const QStringList recording{"--seconds", "0.1", "--output", "clip", "--force", "--audio", "none"};
    QCOMPARE(runFake(QStringList{"--select"} + recording), 0);
    const int restored = portal_->restored();
    for (int i = 0; i < 2; ++i) { // what is remembered is used up, and comes anew
        QCOMPARE(runFake(QStringList{"--again"} + recording), 0);
        QVERIFY(portal_->wishes().contains(QStringLiteral("restore_data")));
    }
    QCOMPARE(portal_->restored(), restored + 2);
    QCOMPARE(runFake(QStringList{"--select"} + recording), 0);
    QVERIFY(!portal_->wishes().contains(QStringLiteral("restore_data")));
}

void PortalTest::notRemembered()
{
    QCOMPARE(runFake({"--select", "--seconds", "0.1", "--audio", "none"}), 0);
    QVERIFY(QFile::exists(tokenFile()));
    portal_->desktop().remembers = false;
    QCOMPARE(runFake({"--select", "--seconds", "0.1", "--audio", "none", "--output", "second"}), 0);
    QVERIFY(!QFile::exists(tokenFile()));
}

void PortalTest::withoutAPlaceToRemember()
{
    QFile file(launcher_->path(QStringLiteral("state")));
    QVERIFY(file.open(QIODevice::WriteOnly)); // where the directory should be
    QCOMPARE(runFake({"--select", "--seconds", "0.1", "--audio", "none"}), 0);
    QVERIFY2(launcher_->standardError().contains("the choice of the window is not remembered: cannot write "),
        launcher_->standardError());
}

void PortalTest::cancelled()
{
    portal_->desktop().user = DesktopPortal::User::Cancels;
    QCOMPARE(run({"--select"}), 2);
    QVERIFY(isRefused("record-window: --select: no window was chosen\n"));
    QTRY_COMPARE_WITH_TIMEOUT(portal_->openSessions(), 0, limitMs);
}

void PortalTest::interruptedQuestion()
{
    portal_->desktop().user = DesktopPortal::User::Hesitates;
    const int questions = portal_->questions();
    start({"--select"});
    QTRY_COMPARE_WITH_TIMEOUT(portal_->questions(), questions + 1, limitMs);
    launcher_->interrupt(SIGINT);
    QCOMPARE(end(), -1);
    QTRY_COMPARE_WITH_TIMEOUT(portal_->openRequests(), 0, limitMs); // the dialogue goes
    QCOMPARE(launcher_->leftFiles(), QStringList());
}

void PortalTest::portalDiesDuringTheQuestion()
{
    portal_->desktop().user = DesktopPortal::User::Hesitates;
    const int questions = portal_->questions();
    start({"--select"});
    QTRY_COMPARE_WITH_TIMEOUT(portal_->questions(), questions + 1, limitMs);
    portal_->kill();
    QCOMPARE(end(), 2);
    QVERIFY(isRefused("record-window: --select: the desktop portal ended before it answered\n"));
}

void PortalTest::portalHangs()
{
    portal_->stop();
    QCOMPARE(run({"--select"}), 2);
    portal_->resume();
    QVERIFY(isRefused("record-window: --select: the desktop portal does not answer\n"));
}

/// The stream is the compositor's.
void PortalTest::portalDiesDuringTheRecording()
{
    start({"--select", "--seconds", "0.6", "--output", "clip.mp4", "--audio", "none"});
    QVERIFY(launcher_->waitForRecording());
    portal_->kill();
    QCOMPARE(end(), 0);
    QVERIFY(playBack(launcher_->path(QStringLiteral("clip.mp4"))).isWhole());
}

void PortalTest::sharingEnded()
{
    launcher_->start({"--select"});
    QVERIFY(launcher_->waitForRecording());
    portal_->endSharing();
    QCOMPARE(end(), 0);
    QVERIFY2(launcher_->standardError().contains("the window has closed, or its sharing was ended\n"),
        launcher_->standardError());
}

/// Some desktops leave the session open.
void PortalTest::windowClosed()
{
    start({"--select", "--output", "clip.mp4", "--audio", "none"});
    QVERIFY(launcher_->waitForRecording());
    QTest::qWait(700);
    node_.reset();
    QCOMPARE(end(), 0);
    QVERIFY2(launcher_->standardError().contains("the window has closed, or its sharing was ended\n"),
        launcher_->standardError());
    makeNode();
}

void PortalTest::windowClosedAndKeptGoing()
{
    start({"--select", "--output", "clip.mp4", "--keep-going", "--seconds", "1.5", "--audio", "none"});
    QVERIFY(launcher_->waitForRecording());
    QTest::qWait(600);
    portal_->endSharing();
    node_.reset();
    QCOMPARE(end(), 8);
    QCOMPARE(launcher_->standardError().count("; the recording goes on without frames\n"), 1);
    makeNode();
}

void PortalTest::monitorsOnly()
{
    DesktopPortal::Desktop desktop;
    desktop.sourceTypes = 1;
    startPortal(desktop);
    QCOMPARE(run({"--select"}), 2);
    QVERIFY(isRefused("record-window: --select: this desktop's portal hands out monitors only, and no windows\n"));
    startPortal();
}

void PortalTest::pointerIsNotTold()
{
    DesktopPortal::Desktop desktop;
    desktop.pointerModes = 3;
    startPortal(desktop);
    QCOMPARE(runFake({"--select", "--seconds", "0.1", "--audio", "none"}), 0);
    QCOMPARE(portal_->wishes().value(QStringLiteral("cursor_mode")).toUInt(), 1U);
    QVERIFY2(
        launcher_->standardError().contains("the desktop does not tell where the pointer is; it is not recorded"),
        launcher_->standardError());
    startPortal();
}

void PortalTest::noPortal()
{
    const PrivateSessionBus empty;
    launcher_->setEnvironment("DBUS_SESSION_BUS_ADDRESS", empty.address());
    QCOMPARE(run({"--select"}), 2);
    QVERIFY(isRefused("record-window: --select: there is no desktop portal (org.freedesktop.portal.Desktop) on the "
                      "session bus\n"));
}

void PortalTest::noBus()
{
    launcher_->setEnvironment("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus");
    QCOMPARE(run({"--select"}), 2);
    QVERIFY(isRefused(
        "record-window: --select: there is no session bus, over which the desktop is asked for a window\n"));
}

void PortalTest::whatCannotBeHad_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("isWayland");
    QTest::addColumn<QByteArray>("sentence");
    QTest::newRow("a click's position") << QStringList{"--select", "--click", "1,1@1"} << true
                                        << QByteArray("--click: a window of Wayland has no position on the screen\n");
    QTest::newRow("the window's process") << QStringList{"--select", "--audio", "app"} << true
                                          << QByteArray("--audio app: the process of the window is not known; give "
                                                        "app-pid:PID\n");
    QTest::newRow("X11") << QStringList{"--again"} << false
                         << QByteArray("--again: the desktop hands out windows on Wayland only; choose one with "
                                       "--select\n");
}

void PortalTest::whatCannotBeHad()
{
    QFETCH(const QStringList, arguments);
    QFETCH(const bool, isWayland);
    QFETCH(const QByteArray, sentence);
    if (!isWayland)
        launcher_->unsetEnvironment("WAYLAND_DISPLAY");
    const int questions = portal_->questions();
    QCOMPARE(run(arguments), 2);
    QVERIFY(isRefused("record-window: " + sentence));
    QCOMPARE(portal_->questions(), questions);
}

ORVANTIS_TEST(PortalTest)
#include "portal_test.moc"

// Which process a stream belongs to, with real processes and real windows.
#include "linux/pipewire/processtable.h"
#include "linux/pipewire/streamowners.h"
#include "linux/x11/windowowners.h"
#include "privatetempdir.h"
#include "testregistry.h"
#include "x11fixture.h"

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSet>
#include <QTest>

#include <algorithm>
#include <csignal>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>

using streamowners::ApplicationSnapshot;
using streamowners::Stream;

namespace {

constexpr int limitMs = 30'000;
const QString keepAlive = QStringLiteral("600"); // seconds

/// A process that does nothing, for the lifetime of the object; its children end with it.
class Idler {
public:
    explicit Idler(const QString& program = QStringLiteral("sleep"), const QStringList& arguments = {keepAlive})
    {
        process_.setChildProcessModifier([] { ::setpgid(0, 0); });
        process_.start(program, arguments);
        process_.waitForStarted();
    }
    ~Idler()
    {
        ::kill(pid_t(-process_.processId()), SIGKILL);
        process_.waitForFinished();
    }

    qint64 pid() const { return process_.processId(); }

private:
    QProcess process_;
};

/// Asked by process ids.
class ProcessFilter : public streamowners::ProcessFilter {
public:
    using streamowners::ProcessFilter::ProcessFilter;
    std::optional<bool> answer(qint64 pid) { return streamowners::ProcessFilter::accepts(ancestryOf(pid)); }
    bool accepts(qint64 pid) { return answer(pid).value_or(false); }
};

std::vector<qint64> childrenOf(qint64 pid)
{
    std::vector<qint64> children;
    for (const auto& [child, process] : processtable::readAll()) {
        if (process.parent == pid && !process.ended)
            children.push_back(child);
    }
    return children;
}

/// A child of the window's process, started now; 0 when there is none.
qint64 startChild(WindowProcess& window, const QByteArray& command)
{
    const std::vector<qint64> before = childrenOf(window.pid());
    if (!window.send("run exec " + command))
        return 0;
    for (const qint64 child : childrenOf(window.pid())) {
        if (std::find(before.begin(), before.end(), child) == before.end())
            return child;
    }
    return 0;
}

QByteArray windowCommand()
{
    return QFile::encodeName(QCoreApplication::applicationDirPath()) + "/testwindow 10 10 50 50 24 0 ff";
}

std::optional<std::size_t> find(const ApplicationSnapshot& snapshot, qint64 pid)
{
    for (std::size_t i = 0; i < snapshot.applications().size(); ++i) {
        if (snapshot.applications()[i].processId == pid)
            return i;
    }
    return std::nullopt;
}

/// All but those of the given processes.
std::vector<std::size_t> allBut(const ApplicationSnapshot& snapshot, const QSet<qint64>& wanted)
{
    std::vector<std::size_t> excluded;
    for (std::size_t i = 0; i < snapshot.applications().size(); ++i) {
        if (!wanted.contains(snapshot.applications()[i].processId))
            excluded.push_back(i);
    }
    return excluded;
}

/// Nobody where it is not known.
std::vector<windowowners::Owner> owners()
{
    return windowowners::find().value_or(std::vector<windowowners::Owner>());
}

qint64 windowOwner(std::size_t index)
{
    const auto all = owners();
    return index < all.size() ? all[index].processId : 0;
}

}

class StreamOwnersTest : public QObject {
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
    void serverThatHangs();

    void everyProcessOnce();
    void ordinaryProcessHasNoName();
    void neitherTheDeadNorTheFirst();
    void processOfAnotherUser();
    void streamBelongsToTheWindowAbove();
    void streamWithoutAWindowIsAnApplication();
    void streamsOfNobodyAreIgnored();

    void helperStartedLater();
    void windowFromATerminal();
    void windowOpenedLater();
    void shellAndItsChild();
    void helperOfAPlayer();
    void orphanIsStillKnown();
    void processThatIsNone();

private:
    std::unique_ptr<DisplayForTest> display_;
};

void StreamOwnersTest::init()
{
    display_ = std::make_unique<DisplayForTest>();
    QVERIFY2(display_->server.isRunning(), qPrintable(display_->server.errorString()));
}

void StreamOwnersTest::windowsWithoutAManager()
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

void StreamOwnersTest::windowsUnderAManager()
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

void StreamOwnersTest::windowTellsNameAndId()
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

void StreamOwnersTest::serverThatDoesNotKnowProcesses()
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

void StreamOwnersTest::whatAWindowSaysOfItsProcessDoesNotCount()
{
    const Idler other;
    WindowProcess window;
    QVERIFY(window.send("pid " + QByteArray::number(other.pid())));
    QCOMPARE(owners().size(), std::size_t(1));
    QCOMPARE(windowOwner(0), window.pid());
}

void StreamOwnersTest::noDisplay()
{
    const WindowProcess window;
    QCOMPARE(windowOwner(0), window.pid());
    qunsetenv("DISPLAY");
    const auto none = windowowners::find();
    QVERIFY(none && none->empty());
}

void StreamOwnersTest::deadServer()
{
    display_->server.kill();
    QVERIFY(!windowowners::find());
    const auto snapshot = ApplicationSnapshot::take({});
    QVERIFY(find(*snapshot, ::getpid()));
}

/// It is waited for once, and what is known without it still counts.
void StreamOwnersTest::serverThatHangs()
{
    const WindowProcess window;
    const Idler wanted;
    const auto snapshot = ApplicationSnapshot::take({});
    ProcessFilter filter(snapshot, allBut(*snapshot, {wanted.pid()}));
    const Idler first;
    const Idler second;
    ::kill(pid_t(display_->server.pid()), SIGSTOP);
    // What is clear without it does not wait at all.
    QCOMPARE(filter.acceptsAtOnce(filter.ancestryOf(wanted.pid())), std::optional(true));
    QCOMPARE(filter.acceptsAtOnce(filter.ancestryOf(window.pid())), std::optional(false));
    QCOMPARE(filter.acceptsAtOnce(filter.ancestryOf(first.pid())), std::optional<bool>());
    QElapsedTimer waiting;
    waiting.start();
    QVERIFY(!filter.accepts(window.pid()) && filter.accepts(wanted.pid()));
    const qint64 before = waiting.elapsed();
    QCOMPARE(filter.answer(first.pid()), std::optional<bool>()); // and not as if nobody owned a window
    const qint64 once = waiting.elapsed() - before;
    for (int i = 0; i < 5; ++i)
        QCOMPARE(filter.answer(second.pid()), std::optional<bool>());
    const qint64 more = waiting.elapsed() - before - once;
    ::kill(pid_t(display_->server.pid()), SIGCONT);
    QVERIFY(before < once);
    QVERIFY(more < once);
}

void StreamOwnersTest::everyProcessOnce()
{
    const WindowProcess window;
    const Idler player;
    const auto snapshot = ApplicationSnapshot::take({{player.pid(), QStringLiteral("Player"), QString()},
        {player.pid(), QStringLiteral("Again"), QString()}, {window.pid(), QString(), QString()}});
    QCOMPARE(find(*snapshot, window.pid()), std::optional<std::size_t>(0));
    QCOMPARE(find(*snapshot, player.pid()), std::optional<std::size_t>(1));
    QCOMPARE(snapshot->applications()[1].applicationName, QStringLiteral("Player"));
    QVERIFY(*find(*snapshot, ::getpid()) > 1);
    QSet<qint64> pids;
    for (const platform::AudioApplication& application : snapshot->applications())
        pids.insert(application.processId);
    QCOMPARE(std::size_t(pids.size()), snapshot->applications().size());
}

void StreamOwnersTest::ordinaryProcessHasNoName()
{
    const Idler idler;
    const auto snapshot = ApplicationSnapshot::take({});
    const auto index = find(*snapshot, idler.pid());
    QVERIFY(index);
    QCOMPARE(snapshot->applications()[*index].applicationName, QString());
    QCOMPARE(snapshot->applications()[*index].bundleIdentifier, QString());
}

void StreamOwnersTest::neitherTheDeadNorTheFirst()
{
    const pid_t dead = ::fork();
    if (dead == 0)
        ::_exit(0);
    QTRY_VERIFY(processtable::read(dead)->ended);
    const auto snapshot = ApplicationSnapshot::take(
        {{1, QStringLiteral("First"), QString()}, {dead, QStringLiteral("Dead"), QString()}});
    QVERIFY(!find(*snapshot, 1));
    QVERIFY(!find(*snapshot, dead));
    QCOMPARE(::waitpid(dead, nullptr, 0), dead);
}

/// Without a window or a stream it is not listed; process 1 is the other user's where this test does not run as root.
void StreamOwnersTest::processOfAnotherUser()
{
    const Idler foreign(QStringLiteral("setpriv"),
        ::geteuid() == 0 ? QStringList{QStringLiteral("--reuid=65534"), QStringLiteral("--clear-groups"),
            QStringLiteral("sleep"), keepAlive}
                         : QStringList{QStringLiteral("sleep"), keepAlive});
    const qint64 pid = ::geteuid() == 0 ? foreign.pid() : 1;
    const auto isForeign = [pid] { return processtable::read(pid)->user != qint64(::geteuid()); };
    QTRY_VERIFY(isForeign());
    QVERIFY(!find(*ApplicationSnapshot::take({}), pid));
    const processtable::Processes processes = processtable::readAll();
    const auto snapshot = ApplicationSnapshot::take({});
    for (const platform::AudioApplication& application : snapshot->applications()) {
        const auto process = processes.find(application.processId);
        QVERIFY(process == processes.end() || process->second.user == qint64(::geteuid()));
    }
    QCOMPARE(find(*ApplicationSnapshot::take({{foreign.pid(), QStringLiteral("Foreign"), QString()}}), foreign.pid()),
        std::optional<std::size_t>(0));
}

void StreamOwnersTest::streamBelongsToTheWindowAbove()
{
    WindowProcess window;
    QVERIFY(window.send("class Browser"));
    const qint64 helper = startChild(window, "sleep 600");
    QVERIFY(helper > 0);
    const auto snapshot = ApplicationSnapshot::take(
        {{helper, QString(), QString()}, {helper, QStringLiteral("Music"), QStringLiteral("org.example.Music")}});
    QCOMPARE(snapshot->applications()[0].processId, qint32(window.pid()));
    QCOMPARE(snapshot->applications()[0].applicationName, QStringLiteral("Music"));
    QCOMPARE(snapshot->applications()[0].bundleIdentifier, QStringLiteral("org.example.Music"));
    const auto index = find(*snapshot, helper);
    QVERIFY(index && *index > 0);
    QCOMPARE(snapshot->applications()[*index].applicationName, QString()); // a process like any other
}

void StreamOwnersTest::streamWithoutAWindowIsAnApplication()
{
    const Idler player;
    const auto snapshot
        = ApplicationSnapshot::take({{player.pid(), QStringLiteral("Radio"), QStringLiteral("org.example.Radio")}});
    QCOMPARE(find(*snapshot, player.pid()), std::optional<std::size_t>(0));
    QCOMPARE(snapshot->applications()[0].applicationName, QStringLiteral("Radio"));
    QCOMPARE(snapshot->applications()[0].bundleIdentifier, QStringLiteral("org.example.Radio"));
}

void StreamOwnersTest::streamsOfNobodyAreIgnored()
{
    const auto with = ApplicationSnapshot::take({{0, QStringLiteral("Unknown"), QString()},
        {-3, QStringLiteral("Wrong"), QString()}, {qint64(1) << 40, QStringLiteral("Gone"), QString()}});
    for (const platform::AudioApplication& application : with->applications())
        QVERIFY(application.processId > 1 && application.applicationName.isEmpty());
}

void StreamOwnersTest::helperStartedLater()
{
    WindowProcess wanted;
    WindowProcess excluded;
    const auto snapshot = ApplicationSnapshot::take({});
    ProcessFilter filter(snapshot, allBut(*snapshot, {wanted.pid()}));
    QVERIFY(filter.accepts(wanted.pid()));
    QVERIFY(!filter.accepts(excluded.pid()));
    QVERIFY(filter.accepts(startChild(wanted, "sleep 600")));
    QVERIFY(!filter.accepts(startChild(excluded, "sleep 600")));
    const Idler later;
    QVERIFY(filter.accepts(later.pid()));
}

void StreamOwnersTest::windowFromATerminal()
{
    WindowProcess terminal;
    QVERIFY(terminal.send("run (echo map; echo run exec sleep 600; exec sleep 600) | " + windowCommand()));
    QTRY_COMPARE_WITH_TIMEOUT(owners().size(), std::size_t(2), limitMs);
    const qint64 window = windowOwner(0) == terminal.pid() ? windowOwner(1) : windowOwner(0);
    QTRY_COMPARE_WITH_TIMEOUT(childrenOf(window).size(), std::size_t(1), limitMs);
    const qint64 player = childrenOf(window)[0];

    const auto snapshot = ApplicationSnapshot::take({{player, QStringLiteral("Player"), QString()}});
    QCOMPARE(snapshot->applications()[*find(*snapshot, window)].applicationName, QStringLiteral("Player"));
    QCOMPARE(snapshot->applications()[*find(*snapshot, terminal.pid())].applicationName, QString());
    ProcessFilter ofWindow(snapshot, allBut(*snapshot, {window}));
    QVERIFY(ofWindow.accepts(player) && ofWindow.accepts(window) && !ofWindow.accepts(terminal.pid()));
    ProcessFilter ofTerminal(snapshot, allBut(*snapshot, {terminal.pid()}));
    QVERIFY(!ofTerminal.accepts(player) && !ofTerminal.accepts(window) && ofTerminal.accepts(terminal.pid()));
    QVERIFY(ofTerminal.accepts(startChild(terminal, "sleep 600")));
    QVERIFY(!ofWindow.accepts(startChild(terminal, "sleep 600")));
}

void StreamOwnersTest::windowOpenedLater()
{
    WindowProcess terminal;
    const Idler wanted;
    const auto snapshot = ApplicationSnapshot::take({});
    ProcessFilter filter(snapshot, allBut(*snapshot, {wanted.pid()}));
    QVERIFY(!filter.accepts(terminal.pid()));
    QVERIFY(terminal.send("run (echo map; exec sleep 600) | " + windowCommand()));
    QTRY_COMPARE_WITH_TIMEOUT(owners().size(), std::size_t(2), limitMs);
    const qint64 window = windowOwner(0) == terminal.pid() ? windowOwner(1) : windowOwner(0);
    QTRY_VERIFY_WITH_TIMEOUT(filter.accepts(window), limitMs); // its own application by now, and a new one
}

void StreamOwnersTest::shellAndItsChild()
{
    PrivateTempDir directory;
    const QString go = directory.filePath(QStringLiteral("go"));
    const QString script
        = QStringLiteral("while ! test -e '%1'; do sleep 0.05; done; sleep %2; true").arg(go, keepAlive);
    const Idler wanted(QStringLiteral("sh"), {QStringLiteral("-c"), script});
    const Idler other(QStringLiteral("sh"), {QStringLiteral("-c"), script});
    const auto snapshot = ApplicationSnapshot::take({});
    ProcessFilter filter(snapshot, allBut(*snapshot, {wanted.pid()}));
    QVERIFY(filter.accepts(wanted.pid()));
    QVERIFY(!filter.accepts(other.pid()));
    QFile(go).open(QIODevice::WriteOnly);
    const auto childOf = [&snapshot](const Idler& shell) {
        const std::vector<qint64> children = childrenOf(shell.pid());
        return children.empty() || find(*snapshot, children[0]) ? 0 : children[0];
    };
    QTRY_VERIFY_WITH_TIMEOUT(childOf(wanted) > 0 && childOf(other) > 0, limitMs);
    QVERIFY(filter.accepts(childOf(wanted)));
    QVERIFY(filter.accepts(childOf(other))); // a program by itself: its shell had no audio and no window
}

void StreamOwnersTest::helperOfAPlayer()
{
    PrivateTempDir directory;
    const QString go = directory.filePath(QStringLiteral("go"));
    const QString script
        = QStringLiteral("while ! test -e '%1'; do sleep 0.05; done; sleep %2; true").arg(go, keepAlive);
    const Idler player(QStringLiteral("sh"), {QStringLiteral("-c"), script});
    const Idler wanted;
    const auto snapshot = ApplicationSnapshot::take({{player.pid(), QStringLiteral("Player"), QString()}});
    ProcessFilter filter(snapshot, allBut(*snapshot, {wanted.pid()}));
    QFile(go).open(QIODevice::WriteOnly);
    const auto child = [&] {
        const std::vector<qint64> children = childrenOf(player.pid());
        return children.empty() || find(*snapshot, children[0]) ? 0 : children[0];
    };
    QTRY_VERIFY_WITH_TIMEOUT(child() > 0, limitMs);
    QVERIFY(!filter.accepts(child()));
}

void StreamOwnersTest::orphanIsStillKnown()
{
    const Idler idler;
    auto window = std::make_unique<WindowProcess>();
    QVERIFY(window->send("run trap '' TERM; exec sleep 600"));
    const auto child = [&window] {
        const std::vector<qint64> children = childrenOf(window->pid());
        return children.empty() ? 0 : children[0];
    };
    QTRY_VERIFY_WITH_TIMEOUT(child() > 0, limitMs);
    const qint64 helper = child();
    const qint64 windowPid = window->pid();
    const auto snapshot = ApplicationSnapshot::take({});
    ProcessFilter ofWindow(snapshot, allBut(*snapshot, {window->pid()}));
    ProcessFilter ofIdler(snapshot, allBut(*snapshot, {idler.pid()}));
    QVERIFY(ofWindow.accepts(helper) && !ofIdler.accepts(helper));
    window->kill();
    window.reset();
    const auto isOrphan = [helper, windowPid] {
        const auto process = processtable::read(helper);
        return process && process->parent != windowPid;
    };
    QTRY_VERIFY_WITH_TIMEOUT(isOrphan(), limitMs);
    QVERIFY(ofWindow.accepts(helper) && !ofIdler.accepts(helper));
    ::kill(pid_t(helper), SIGKILL);
}

void StreamOwnersTest::processThatIsNone()
{
    const auto snapshot = ApplicationSnapshot::take({});
    ProcessFilter filter(snapshot, allBut(*snapshot, {::getpid()}));
    QCOMPARE(filter.answer(qint64(1) << 40), std::optional<bool>());
    QCOMPARE(filter.acceptsAtOnce(filter.ancestryOf(qint64(1) << 40)), std::optional<bool>());
    QVERIFY(!filter.accepts(1));
    QVERIFY(filter.accepts(::getpid()));
}

ORVANTIS_TEST(StreamOwnersTest)

#include "streamowners_test.moc"

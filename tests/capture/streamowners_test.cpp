// Which process a stream belongs to, with real processes and real windows.
#include "linux/pipewire/processtable.h"
#include "ownertest.h"
#include "privatetempdir.h"
#include "testregistry.h"
#include "x11fixture.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSet>
#include <QTest>

#include <algorithm>
#include <memory>
#include <sys/wait.h>

using namespace ownertest;
using streamowners::ApplicationSnapshot;

namespace {

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

}

class StreamOwnersTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();

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

// The rules by which a stream is heard or not, without a machine.
#include "linux/pipewire/processancestry.h"
#include "testregistry.h"

#include <QMap>
#include <QTest>

#include <set>

using namespace processancestry;

namespace {

Process process(qint64 pid, quint64 start, qint64 parent)
{
    Process result;
    result.identity = {pid, start};
    result.parent = parent;
    return result;
}

Processes table(const std::vector<Process>& processes)
{
    Processes result;
    for (const Process& entry : processes)
        result.emplace(entry.identity.pid, entry);
    return result;
}

std::vector<Identity> lineOf(qint64 pid, const Processes& snapshot, const Processes& now)
{
    return ancestry(pid, snapshot, [&now](qint64 wanted) {
        const auto found = now.find(wanted);
        return found == now.end() ? std::nullopt : std::optional(found->second);
    });
}

}

class ProcessAncestryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void lineGoesUpToTheFirstProcess();
    void orphanKeepsItsParentOfTheSnapshot();
    void newOrphanHasItsNewParent();
    void processThatIsGoneIsRemembered();
    void processIdGivenAwayAgain();
    void parentIdGivenAwayAgain();
    void loopEnds();
    void nobody();
    void decision_data();
    void decision();
    void windowsAreAskedForOnlyWhereTheyMatter();
};

void ProcessAncestryTest::lineGoesUpToTheFirstProcess()
{
    const Processes now = table({process(1, 1, 0), process(20, 5, 1), process(30, 9, 20)});
    QVERIFY(lineOf(30, {}, now) == (std::vector<Identity>{{30, 9}, {20, 5}}));
    QVERIFY(lineOf(1, {}, now) == (std::vector<Identity>{{1, 1}}));
}

void ProcessAncestryTest::orphanKeepsItsParentOfTheSnapshot()
{
    const Processes snapshot = table({process(1, 1, 0), process(20, 5, 1), process(30, 9, 20)});
    const Processes now = table({process(1, 1, 0), process(30, 9, 1)});
    QVERIFY(lineOf(30, snapshot, now) == (std::vector<Identity>{{30, 9}, {20, 5}}));
}

void ProcessAncestryTest::newOrphanHasItsNewParent()
{
    const Processes snapshot = table({process(1, 1, 0), process(20, 5, 1)});
    const Processes now = table({process(1, 1, 0), process(20, 5, 1), process(30, 9, 1)});
    QVERIFY(lineOf(30, snapshot, now) == (std::vector<Identity>{{30, 9}}));
}

void ProcessAncestryTest::processThatIsGoneIsRemembered()
{
    const Processes snapshot = table({process(1, 1, 0), process(20, 5, 1), process(30, 9, 20)});
    QVERIFY(lineOf(30, snapshot, {}) == (std::vector<Identity>{{30, 9}, {20, 5}}));
}

void ProcessAncestryTest::processIdGivenAwayAgain()
{
    const Processes snapshot = table({process(1, 1, 0), process(20, 5, 1), process(30, 9, 20)});
    const Processes now = table({process(1, 1, 0), process(20, 5, 1), process(30, 50, 1)});
    QVERIFY(lineOf(30, snapshot, now) == (std::vector<Identity>{{30, 50}}));
}

void ProcessAncestryTest::parentIdGivenAwayAgain()
{
    const Processes snapshot = table({process(1, 1, 0), process(20, 5, 1), process(30, 9, 20)});
    const Processes now = table({process(1, 1, 0), process(20, 50, 1), process(30, 9, 1)});
    QVERIFY(lineOf(30, snapshot, now) == (std::vector<Identity>{{30, 9}}));
}

void ProcessAncestryTest::loopEnds()
{
    const Processes now = table({process(20, 5, 30), process(30, 5, 20)});
    QVERIFY(lineOf(30, {}, now) == (std::vector<Identity>{{30, 5}, {20, 5}}));
    QVERIFY(lineOf(20, {}, table({process(20, 5, 20)})) == (std::vector<Identity>{{20, 5}}));
}

void ProcessAncestryTest::nobody()
{
    QVERIFY(lineOf(30, {}, {}).empty());
    QVERIFY(lineOf(0, {}, table({process(1, 1, 0)})).empty());
    QVERIFY(lineOf(-5, {}, {}).empty());
}

/// One letter a process, the one with the stream first. Of those that ran when the snapshot was taken: w owner of a
/// window, s of a stream, p plain, o none of these (another user's); capitals are wanted. Of those that started
/// later: n. A window that is there now but was not when the snapshot was taken: a + behind the letter.
void ProcessAncestryTest::decision_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<bool>("heard");

    QTest::newRow("nobody knows the process") << QByteArray("") << false;
    QTest::newRow("wanted window") << QByteArray("W") << true;
    QTest::newRow("excluded window") << QByteArray("w") << false;
    QTest::newRow("wanted stream") << QByteArray("S") << true;
    QTest::newRow("excluded stream") << QByteArray("s") << false;
    QTest::newRow("wanted process") << QByteArray("P") << true;
    QTest::newRow("excluded process") << QByteArray("p") << false;
    QTest::newRow("another user's") << QByteArray("o") << false;
    QTest::newRow("new and alone") << QByteArray("n") << true;
    QTest::newRow("new, with a window") << QByteArray("n+") << true;

    QTest::newRow("helper of a wanted window") << QByteArray("pW") << true;
    QTest::newRow("helper of a wanted window, started later") << QByteArray("nW") << true;
    QTest::newRow("helper of an excluded window") << QByteArray("pw") << false;
    QTest::newRow("helper of an excluded window, started later") << QByteArray("nw") << false;
    QTest::newRow("helper of a helper, both started later") << QByteArray("nnw") << false;
    QTest::newRow("playing helper of a wanted window") << QByteArray("sW") << true;
    QTest::newRow("helper of an excluded player, started later") << QByteArray("ns") << false;
    QTest::newRow("helper of a helper of an excluded player") << QByteArray("nns") << false;
    QTest::newRow("helper of a wanted player, started later") << QByteArray("nS") << true;

    QTest::newRow("wanted shell's child") << QByteArray("nP") << true;
    QTest::newRow("wanted shell's child that played before") << QByteArray("sP") << true;
    QTest::newRow("excluded shell's child") << QByteArray("pp") << false;
    QTest::newRow("excluded shell's child, started later") << QByteArray("np") << true;
    QTest::newRow("child of another user's, started later") << QByteArray("no") << true;
    QTest::newRow("wanted child of an excluded player") << QByteArray("Ss") << true;
    QTest::newRow("wanted child of an excluded window") << QByteArray("Pw") << true;
    QTest::newRow("child of a wanted process below an excluded window") << QByteArray("nPw") << true;
    QTest::newRow("wanted process above an excluded player") << QByteArray("nsP") << true;

    QTest::newRow("window started from a wanted terminal") << QByteArray("wW") << false;
    QTest::newRow("below a window from a wanted terminal") << QByteArray("nwW") << false;
    QTest::newRow("wanted window from an excluded terminal") << QByteArray("Ww") << true;
    QTest::newRow("shell's child in a wanted terminal") << QByteArray("npW") << true;
    QTest::newRow("shell's child in an excluded terminal") << QByteArray("npw") << false;
    QTest::newRow("new window from an excluded terminal") << QByteArray("n+w") << true;
    QTest::newRow("new window from a wanted terminal") << QByteArray("n+W") << true;
    QTest::newRow("below a new window from an excluded terminal") << QByteArray("nn+w") << true;
    QTest::newRow("excluded process that has a window by now") << QByteArray("p+") << false;
    QTest::newRow("below it, started later") << QByteArray("np+") << false;
    QTest::newRow("below it, and it is wanted") << QByteArray("nP+") << true;
    QTest::newRow("excluded player that has a window by now") << QByteArray("ns+W") << false;
    QTest::newRow("another user's, with a window by now") << QByteArray("no+") << false;
}

void ProcessAncestryTest::decision()
{
    QFETCH(QByteArray, line);
    const QMap<char, Kind> kinds{{'w', Kind::WindowOwner}, {'s', Kind::StreamOwner}, {'p', Kind::Plain}};
    std::vector<Identity> ancestors;
    Processes snapshot;
    std::map<Identity, Application> applications;
    std::set<Identity> newWindows;
    for (const char letter : line) {
        if (letter == '+') {
            newWindows.insert(ancestors.back());
            continue;
        }
        const qint64 pid = 100 - qint64(ancestors.size());
        const Identity identity{pid, quint64(pid)};
        ancestors.push_back(identity);
        if (letter != 'n')
            snapshot.emplace(pid, process(pid, identity.start, pid - 1));
        const char kind = char(std::tolower(letter));
        if (kinds.contains(kind))
            applications[identity] = {kinds[kind], kind == letter};
    }
    const auto ownsWindow
        = [&newWindows](const Identity& identity) { return std::optional(newWindows.count(identity) > 0); };
    const std::optional<bool> heard = isHeard(ancestors, {snapshot, applications, ownsWindow});
    QTEST(heard.value_or(false), "heard");
    QCOMPARE(heard.has_value(), !line.isEmpty());
}

void ProcessAncestryTest::windowsAreAskedForOnlyWhereTheyMatter()
{
    const std::vector<Identity> ancestors{{30, 9}, {20, 5}};
    const Processes snapshot = table({process(20, 5, 1), process(30, 9, 20)});
    int asked = 0;
    const auto ownsWindow = [&asked](const Identity&) {
        ++asked;
        return std::optional<bool>();
    };
    const std::map<Identity, Application> wanted{{{30, 9}, {Kind::Plain, false}}};
    QCOMPARE(isHeard(ancestors, {snapshot, wanted, ownsWindow}), std::optional(true));
    const std::map<Identity, Application> excluded{{{30, 9}, {Kind::WindowOwner, true}}};
    QCOMPARE(isHeard(ancestors, {snapshot, excluded, ownsWindow}), std::optional(false));
    QCOMPARE(asked, 0);
    const std::map<Identity, Application> wantedParent{{{20, 5}, {Kind::WindowOwner, false}}};
    QCOMPARE(isHeard(ancestors, {snapshot, wantedParent, ownsWindow}), std::optional<bool>()); // nor guessed
    QCOMPARE(asked, 1);
}

ORVANTIS_TEST(ProcessAncestryTest)

#include "processancestry_test.moc"

// Reading the process table.
#include "linux/pipewire/processtable.h"
#include "testregistry.h"

#include <QProcess>
#include <QTest>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

using processtable::Process;

namespace {

/// A line of /proc/PID/stat.
QByteArray stat(const QByteArray& head, const QByteArray& state = "S", const QByteArray& flags = "4194304")
{
    return head + ' ' + state + " 77 80 80 0 -1 " + flags + " 100 0 0 0 1 2 3 4 20 0 1 0 4711 8000000 200\n";
}

}

class ProcessTableTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void lineIsRead_data();
    void lineIsRead();
    void nonsenseIsRefused_data();
    void nonsenseIsRefused();
    void stateAndFlagsAreRead_data();
    void stateAndFlagsAreRead();
    void effectiveUserIsRead_data();
    void effectiveUserIsRead();
    void ownProcess();
    void child();
    void deadChild();
    void noProcess();
};

void ProcessTableTest::lineIsRead_data()
{
    QTest::addColumn<QByteArray>("head");
    QTest::newRow("plain") << QByteArray("123 (cat)");
    QTest::newRow("blank") << QByteArray("123 (Web Content)");
    QTest::newRow("brackets") << QByteArray("123 (a) R 5 (b)");
    QTest::newRow("closing bracket last") << QByteArray("123 (x))");
    QTest::newRow("empty") << QByteArray("123 ()");
    QTest::newRow("line feed") << QByteArray("123 (a\nb)");
    QTest::newRow("not text") << QByteArray("123 (\xff\xfe)");
}

void ProcessTableTest::lineIsRead()
{
    QFETCH(QByteArray, head);
    const std::optional<Process> process = processtable::parseStat(stat(head));
    QVERIFY(process);
    QCOMPARE(process->identity.pid, 123);
    QCOMPARE(process->identity.start, quint64(4711));
    QCOMPARE(process->parent, 77);
    QVERIFY(!process->ended);
    QVERIFY(!process->ofKernel);
}

void ProcessTableTest::nonsenseIsRefused_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("no name") << QByteArray("123 S 77");
    QTest::newRow("too short") << QByteArray("123 (cat) S 77 80 80 0 -1 0 100 0 0 0 1 2 3 4 20 0 1 0");
    QTest::newRow("no number") << stat("x (cat)");
    QTest::newRow("brackets the wrong way round") << QByteArray("1 )cat( S 77");
    QTest::newRow("no state") << stat("123 (cat)", "Sleeping");
}

void ProcessTableTest::nonsenseIsRefused()
{
    QFETCH(QByteArray, text);
    QVERIFY(!processtable::parseStat(text));
}

void ProcessTableTest::stateAndFlagsAreRead_data()
{
    QTest::addColumn<QByteArray>("state");
    QTest::addColumn<QByteArray>("flags");
    QTest::addColumn<bool>("ended");
    QTest::addColumn<bool>("ofKernel");
    QTest::newRow("runs") << QByteArray("R") << QByteArray("4194304") << false << false;
    QTest::newRow("waits for a disk") << QByteArray("D") << QByteArray("4194304") << false << false;
    QTest::newRow("stopped") << QByteArray("T") << QByteArray("4194304") << false << false;
    QTest::newRow("zombie") << QByteArray("Z") << QByteArray("4194308") << true << false;
    QTest::newRow("dead") << QByteArray("X") << QByteArray("4194308") << true << false;
    QTest::newRow("kernel's") << QByteArray("I") << QByteArray("69238880") << false << true;
}

void ProcessTableTest::stateAndFlagsAreRead()
{
    QFETCH(QByteArray, state);
    QFETCH(QByteArray, flags);
    const std::optional<Process> process = processtable::parseStat(stat("123 (cat)", state, flags));
    QVERIFY(process);
    QTEST(process->ended, "ended");
    QTEST(process->ofKernel, "ofKernel");
}

void ProcessTableTest::effectiveUserIsRead_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<qint64>("user");
    QTest::newRow("second number") << QByteArray("Name:\tcat\nUid:\t1000\t0\t5\t7\nGid:\t1\t2\t3\t4\n") << qint64(0);
    QTest::newRow("large") << QByteArray("Uid:\t1\t4294967294\t1\t1\n") << qint64(4294967294);
    QTest::newRow("name that looks like it") << QByteArray("Name:\tUid: 1 2 3\nUid:\t5\t6\t7\t8\n") << qint64(6);
    QTest::newRow("missing") << QByteArray("Name:\tcat\n") << qint64(-1);
    QTest::newRow("cut off") << QByteArray("Uid:\t5\n") << qint64(-1);
    QTest::newRow("nothing") << QByteArray() << qint64(-1);
}

void ProcessTableTest::effectiveUserIsRead()
{
    QFETCH(QByteArray, text);
    QTEST(processtable::parseEffectiveUser(text), "user");
}

void ProcessTableTest::ownProcess()
{
    const std::optional<Process> own = processtable::read(::getpid());
    QVERIFY(own);
    QCOMPARE(own->identity.pid, qint64(::getpid()));
    QCOMPARE(own->parent, qint64(::getppid()));
    QCOMPARE(own->user, qint64(::geteuid()));
    QVERIFY(!own->ended);
    const processtable::Processes all = processtable::readAll();
    QVERIFY(all.count(::getpid()) == 1);
    QVERIFY(all.at(::getpid()).identity == own->identity);
}

void ProcessTableTest::child()
{
    QProcess child;
    child.start(QStringLiteral("sleep"), {QStringLiteral("600")});
    QVERIFY(child.waitForStarted());
    const std::optional<Process> process = processtable::read(child.processId());
    QVERIFY(process);
    QCOMPARE(process->parent, qint64(::getpid()));
    QVERIFY(process->identity.start >= processtable::read(::getpid())->identity.start);
    child.kill();
    QVERIFY(child.waitForFinished());
    QVERIFY(!processtable::read(process->identity.pid));
}

void ProcessTableTest::deadChild()
{
    const pid_t child = ::fork();
    if (child == 0)
        ::_exit(0);
    const auto hasEnded = [child] {
        const std::optional<Process> process = processtable::read(child);
        return process && process->ended;
    };
    QTRY_VERIFY(hasEnded());
    QCOMPARE(::waitpid(child, nullptr, 0), child);
}

void ProcessTableTest::noProcess()
{
    QVERIFY(!processtable::read(0));
    QVERIFY(!processtable::read(-1));
    QVERIFY(!processtable::read(qint64(1) << 40));
}

ORVANTIS_TEST(ProcessTableTest)

#include "processtable_test.moc"

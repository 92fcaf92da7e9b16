// The last line of a run that ends by a fault or by an exception.
#include "lastline.h"
#include "messagehandler.h"
#include "testregistry.h"

#include "logcapture.h"
#include "privatetempdir.h"

#include <QFile>
#include <QTest>

#include <array>
#include <csignal>
#include <cstdio>
#include <functional>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const auto lastLine = QByteArrayLiteral("Fatal: recorder is ended by a fault of the program or for want of memory; "
                                        "what the file has up to its last whole "
                                        "fragment can be played (:0, )\n");
constexpr int failed = 1;
constexpr int handledElsewhere = 7;

/// How a child ends that does this, as waitpid() tells it.
int statusOfChild(const std::function<void()>& act)
{
    const pid_t child = ::fork();
    if (child == 0) {
        const rlimit noCore = {};
        ::setrlimit(RLIMIT_CORE, &noCore);
        act();
        ::_exit(failed);
    }
    int status = 0;
    return ::waitpid(child, &status, 0) == child ? status : -1;
}

/// Empty when there is no such file.
QByteArray contents(const QByteArray& path)
{
    QFile file(QString::fromLocal8Bit(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

}

class LastLineTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void fault_data();
    void fault();
    void faultWhileNobodyReads();
    void handlerOfSomebodyElseStays();
    void endNow();
    void exception();
};

void LastLineTest::fault_data()
{
    QTest::addColumn<int>("number");
    QTest::addColumn<bool>("hasLog");
    QTest::newRow("memory that is not there") << SIGSEGV << true;
    QTest::newRow("memory behind the end of a file") << SIGBUS << true;
    QTest::newRow("abort") << SIGABRT << true;
    QTest::newRow("trap, as GLib has it") << SIGTRAP << true;
    QTest::newRow("without a log file") << SIGABRT << false;
}

/// Two lines, one in the log and one on stderr, and then the end that the signal has always had.
void LastLineTest::fault()
{
    QFETCH(const int, number);
    QFETCH(const bool, hasLog);
    const PrivateTempDir directory;
    const QByteArray log = directory.filePath(QStringLiteral("log")).toLocal8Bit();
    const QByteArray errors = directory.filePath(QStringLiteral("errors")).toLocal8Bit();
    int status = statusOfChild([&] {
        std::signal(number, SIG_DFL); // a sanitizer and QtTest have handlers of their own
        logFilePtr = hasLog ? std::fopen(log.constData(), "w") : nullptr;
        if (!std::freopen(errors.constData(), "w", stderr))
            ::_exit(failed);
        lastline::tellFaults();
        std::raise(number);
    });
    QVERIFY(WIFSIGNALED(status));
    QCOMPARE(WTERMSIG(status), number);
    QCOMPARE(contents(log), hasLog ? lastLine : QByteArray());
    QCOMPARE(contents(errors), lastLine);
}

/// A launcher's socket that is full: the process ends all the same.
void LastLineTest::faultWhileNobodyReads()
{
    const PrivateTempDir directory;
    const QByteArray log = directory.filePath(QStringLiteral("log")).toLocal8Bit();
    int status = statusOfChild([&] {
        std::signal(SIGABRT, SIG_DFL);
        std::array<int, 2> ends{};
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0)
            ::_exit(failed);
        while (::send(ends[0], "x", 1, MSG_DONTWAIT) == 1) { }
        ::dup2(ends[0], STDERR_FILENO);
        logFilePtr = std::fopen(log.constData(), "w");
        lastline::tellFaults();
        ::alarm(20); // seconds; the end of one that waits
        std::raise(SIGABRT);
    });
    QVERIFY(WIFSIGNALED(status));
    QCOMPARE(WTERMSIG(status), SIGABRT);
    QCOMPARE(contents(log), lastLine);
}

void LastLineTest::handlerOfSomebodyElseStays()
{
    int status = statusOfChild([] {
        std::signal(SIGABRT, [](int) { ::_exit(handledElsewhere); });
        lastline::tellFaults();
        std::raise(SIGABRT);
    });
    QVERIFY(WIFEXITED(status));
    QCOMPARE(WEXITSTATUS(status), handledElsewhere);
}

void LastLineTest::endNow()
{
    const PrivateTempDir directory;
    const QByteArray errors = directory.filePath(QStringLiteral("errors")).toLocal8Bit();
    int status = statusOfChild([&] {
        if (std::freopen(errors.constData(), "w", stderr))
            lastline::endNow(handledElsewhere);
    });
    QVERIFY(WIFEXITED(status));
    QCOMPARE(WEXITSTATUS(status), handledElsewhere);
    QCOMPARE(contents(errors), lastLine);
}

void LastLineTest::exception()
{
    const LogCapture log;
    lastline::tellException("std::bad_alloc");
    QCOMPARE(log.messages(QtCriticalMsg),
        QStringList{QStringLiteral(
            "Recorder was interrupted by an exception; finishing the file and ending: std::bad_alloc")});
}

ORVANTIS_TEST(LastLineTest)
#include "lastline_test.moc"

// The log sink: formats, the two outputs and their order.
#include "messagehandler.h"
#include "testregistry.h"

#include "memorylimit.h"
#include "privatetempdir.h"
#include "stderrcapture.h"
#include "stderrlines.h"

#include <QDebug>
#include <QSet>
#include <QTest>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

const QMessageLogContext noContext;
const QMessageLogContext mainContext("main", 10, "main", "default");

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// Points descriptor 2 at a pipe for its lifetime. Nobody reads it unless take() is called. It is left without a
/// line to be reported.
class StderrPipe {
public:
    StderrPipe()
    {
        if (::pipe2(ends_.data(), O_CLOEXEC) != 0)
            qFatal("No pipe for stderr");
        ::fcntl(ends_[0], F_SETFL, O_NONBLOCK);
        std::fflush(stderr);
        saved_ = ::dup(STDERR_FILENO);
        ::dup2(ends_[1], STDERR_FILENO);
        ::close(ends_[1]);
    }
    ~StderrPipe()
    {
        logFilePtr = nullptr;
        take();
        MessageHandlerImpl(QtDebugMsg, noContext, QStringLiteral("the last one"));
        ::dup2(saved_, STDERR_FILENO);
        ::close(saved_);
        ::close(ends_[0]);
    }
    StderrPipe(const StderrPipe&) = delete;
    StderrPipe& operator=(const StderrPipe&) = delete;

    QByteArray take() const
    {
        QByteArray taken;
        std::array<char, 65536> bytes{};
        for (ssize_t size = 0; (size = ::read(ends_[0], bytes.data(), bytes.size())) > 0;)
            taken.append(bytes.data(), size);
        return taken;
    }

    int flags() const { return ::fcntl(STDERR_FILENO, F_GETFL); }

private:
    std::array<int, 2> ends_{-1, -1};
    int saved_ = -1;
};

/// Logs numbered lines, more than a pipe holds.
constexpr int floodCount = 2000;
void flood()
{
    const QString filler(200, QLatin1Char('x'));
    for (int i = 0; i < floodCount; ++i)
        MessageHandlerImpl(QtDebugMsg, noContext, QString::number(i) + filler);
}

}

class MessageHandlerTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void lineOfEachType_data();
    void lineOfEachType();
    void missingContextIsEmptyText();
    void lineNumberIsUnsigned();
    void messageIsTakenLiterally();
    void messageIsInTheLocalEncoding();
    void unknownTypeWritesNothingButFlushes();
    void lineThatThereIsNoMemoryForIsReplaced();
    void everyLineIsFlushed();
    void fileComesBeforeStderr();
    void withoutALogFileOnlyStderrIsWritten();
    void logFileThatTakesNoMore();
    void qtMessagesArriveThroughTheHandler();
    void linesOfManyThreadsDoNotMix();

    void pipeThatNobodyReads();
    void droppedLinesAreReportedOnce();
    void longLineArrivesInPieces();
    void longLineWithoutMemoryForItsRestIsCutOff();
    void callThatWasInterruptedBeforeIsNotRepeatedForEver();
    void linesOfManyThreadsInAFullPipe();
    void withoutStandardErrorOnlyTheFileIsWritten();

private:
    PrivateTempDir directory_;
    QString path_ = directory_.filePath(QStringLiteral("log.txt"));
    FileHandle file_;
};

void MessageHandlerTest::init()
{
    file_.reset(std::fopen(qPrintable(path_), "w"));
    QVERIFY(file_);
    logFilePtr = file_.get();
}

void MessageHandlerTest::cleanup()
{
    logFilePtr = nullptr;
    file_.reset();
}

void MessageHandlerTest::lineOfEachType_data()
{
    QTest::addColumn<QtMsgType>("type");
    QTest::addColumn<QByteArray>("line");
    QTest::newRow("debug") << QtDebugMsg << QByteArray("Debug: recorder exiting 0 (main:10, main)\n");
    QTest::newRow("warning") << QtWarningMsg << QByteArray("Warning: recorder exiting 0 (main:10, main)\n");
    QTest::newRow("critical") << QtCriticalMsg << QByteArray("Critical: recorder exiting 0 (main:10, main)\n");
    QTest::newRow("fatal") << QtFatalMsg << QByteArray("Fatal: recorder exiting 0 (main:10, main)\n");
    QTest::newRow("info") << QtInfoMsg << QByteArray("Info: recorder exiting 0 (main:10, main)\n");
}

void MessageHandlerTest::lineOfEachType()
{
    QFETCH(QtMsgType, type);
    QFETCH(QByteArray, line);
    const StderrCapture errors;
    MessageHandlerImpl(type, mainContext, QStringLiteral("recorder exiting 0"));
    QCOMPARE(contents(path_), line);
    QCOMPARE(errors.text(), line);
}

void MessageHandlerTest::missingContextIsEmptyText()
{
    const StderrCapture errors;
    MessageHandlerImpl(QtDebugMsg, noContext, QStringLiteral("hello"));
    QCOMPARE(contents(path_), QByteArray("Debug: hello (:0, )\n"));
    QCOMPARE(errors.text(), QByteArray("Debug: hello (:0, )\n"));
}

void MessageHandlerTest::lineNumberIsUnsigned()
{
    const StderrCapture errors;
    MessageHandlerImpl(QtDebugMsg, QMessageLogContext("f", -1, "g", "default"), QStringLiteral("x"));
    QCOMPARE(contents(path_), QByteArray("Debug: x (f:4294967295, g)\n"));
}

void MessageHandlerTest::messageIsTakenLiterally()
{
    const StderrCapture errors;
    MessageHandlerImpl(QtDebugMsg, noContext, QStringLiteral("100%s %1 %n \"quoted\"\nsecond"));
    QCOMPARE(contents(path_), QByteArray("Debug: 100%s %1 %n \"quoted\"\nsecond (:0, )\n"));
}

void MessageHandlerTest::messageIsInTheLocalEncoding()
{
    const StderrCapture errors;
    const QString text = QStringLiteral("Aufzeichnung l\u00e4uft \u2713");
    MessageHandlerImpl(QtDebugMsg, noContext, text);
    QCOMPARE(contents(path_), "Debug: " + text.toLocal8Bit() + " (:0, )\n");
}

void MessageHandlerTest::unknownTypeWritesNothingButFlushes()
{
    const StderrCapture errors;
    std::fputs("still in the buffer\n", file_.get());
    QCOMPARE(contents(path_), QByteArray());
    MessageHandlerImpl(QtMsgType(5), mainContext, QStringLiteral("lost"));
    QCOMPARE(contents(path_), QByteArray("still in the buffer\n"));
    QCOMPARE(errors.text(), QByteArray());
}

void MessageHandlerTest::lineThatThereIsNoMemoryForIsReplaced()
{
    const StderrCapture errors;
    const QString huge(64 << 20, QLatin1Char('x'));
    {
        const MemoryLimit limit(16 << 20);
        MessageHandlerImpl(QtDebugMsg, noContext, huge);
    }
    MessageHandlerImpl(QtDebugMsg, noContext, QStringLiteral("next"));
    const QByteArray expected
        = "Warning: a line of the log is missing for want of memory (:0, )\nDebug: next (:0, )\n";
    QCOMPARE(contents(path_), expected);
    QCOMPARE(errors.text(), expected);
}

void MessageHandlerTest::everyLineIsFlushed()
{
    const StderrCapture errors;
    QByteArray expected;
    for (int i = 0; i < 5; ++i) {
        MessageHandlerImpl(QtDebugMsg, noContext, QString::number(i));
        expected += "Debug: " + QByteArray::number(i) + " (:0, )\n";
        QCOMPARE(contents(path_), expected);
    }
}

void MessageHandlerTest::fileComesBeforeStderr()
{
    // An unbuffered log file that checks stderr whenever a piece of a line reaches it.
    struct Watch {
        const StderrCapture& errors;
        QByteArray file;
        QByteArray stderrBefore;
    };
    const StderrCapture errors;
    Watch watch{errors, {}, {}};
    cookie_io_functions_t functions = {};
    functions.write = [](void* cookie, const char* bytes, std::size_t size) -> ssize_t {
        auto* self = static_cast<Watch*>(cookie);
        self->file.append(bytes, qsizetype(size));
        self->stderrBefore += self->errors.text();
        return ssize_t(size);
    };
    const FileHandle watched(fopencookie(&watch, "w", functions));
    QVERIFY(watched);
    std::setvbuf(watched.get(), nullptr, _IONBF, 0);
    logFilePtr = watched.get();
    MessageHandlerImpl(QtDebugMsg, noContext, QStringLiteral("hello"));
    QCOMPARE(watch.file, QByteArray("Debug: hello (:0, )\n"));
    QCOMPARE(watch.stderrBefore, QByteArray());
    QCOMPARE(errors.text(), watch.file);
}

void MessageHandlerTest::withoutALogFileOnlyStderrIsWritten()
{
    const StderrCapture errors;
    logFilePtr = nullptr;
    MessageHandlerImpl(QtWarningMsg, noContext, QStringLiteral("hello"));
    QCOMPARE(errors.text(), QByteArray("Warning: hello (:0, )\n"));
    QCOMPARE(contents(path_), QByteArray());
}

/// On a full disk. Once it takes something again, it gets what comes then.
void MessageHandlerTest::logFileThatTakesNoMore()
{
    struct Disk {
        bool isFull = false;
        int refusals = 0;
        QByteArray bytes;
    };
    const StderrCapture errors;
    Disk disk;
    cookie_io_functions_t functions = {};
    functions.write = [](void* cookie, const char* bytes, std::size_t size) -> ssize_t {
        auto* self = static_cast<Disk*>(cookie);
        if (self->isFull) {
            ++self->refusals;
            errno = ENOSPC;
            return 0;
        }
        self->bytes.append(bytes, qsizetype(size));
        return ssize_t(size);
    };
    const FileHandle full(fopencookie(&disk, "w", functions));
    QVERIFY(full);
    logFilePtr = full.get();
    const QByteArray line = "Debug: hello (:0, )\n";
    for (int i = 1; i <= 4; ++i) {
        disk.isFull = i == 2 || i == 3;
        MessageHandlerImpl(QtDebugMsg, noContext, QStringLiteral("hello"));
        QCOMPARE(errors.text(), line.repeated(i));
    }
    QVERIFY(disk.refusals >= 2);
    QVERIFY(disk.bytes.size() >= 2 * line.size() && disk.bytes.endsWith(line));
    logFilePtr = nullptr;
}

void MessageHandlerTest::qtMessagesArriveThroughTheHandler()
{
    const StderrCapture errors;
    const QtMessageHandler before = qInstallMessageHandler(MessageHandlerImpl);
    QMessageLogger("file.cpp", 7, "f").debug() << "canvas" << 16 << QStringLiteral("quoted");
    QMessageLogger("file.cpp", 8, "f").critical() << "bad";
    qInstallMessageHandler(before);
    QCOMPARE(
        contents(path_), QByteArray("Debug: canvas 16 \"quoted\" (file.cpp:7, f)\nCritical: bad (file.cpp:8, f)\n"));
    QCOMPARE(errors.text(), contents(path_));
}

void MessageHandlerTest::linesOfManyThreadsDoNotMix()
{
    constexpr int threadCount = 8;
    constexpr int linesPerThread = 250;
    const StderrCapture errors;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([thread] {
            const QString filler(200 + 37 * thread, QLatin1Char(char('a' + thread)));
            for (int line = 0; line < linesPerThread; ++line)
                MessageHandlerImpl(QtMsgType(line % 3), mainContext, filler + QString::number(line));
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    QSet<QByteArray> expected;
    const QByteArrayList names{"Debug: ", "Warning: ", "Critical: "};
    for (int thread = 0; thread < threadCount; ++thread) {
        for (int line = 0; line < linesPerThread; ++line) {
            const QByteArray filler(200 + 37 * thread, char('a' + thread));
            expected.insert(names[line % 3] + filler + QByteArray::number(line) + " (main:10, main)");
        }
    }
    for (const QByteArray& output : {contents(path_), errors.text()}) {
        QVERIFY(output.endsWith('\n'));
        const QByteArrayList lines = output.chopped(1).split('\n');
        QCOMPARE(lines.size(), expected.size());
        QCOMPARE(QSet<QByteArray>(lines.cbegin(), lines.cend()), expected);
    }
}

void MessageHandlerTest::pipeThatNobodyReads()
{
    const StderrPipe errors;
    flood();
    const QByteArray logged = contents(path_);
    QCOMPARE(logged.count('\n'), floodCount);
    const QByteArray shown = errors.take();
    QVERIFY(shown.size() > 4096);
    QVERIFY(logged.startsWith(shown));
    QVERIFY(shown.endsWith('\n'));
    QCOMPARE(errors.flags() & O_NONBLOCK, 0); // it would hold for everybody who has this pipe
}

void MessageHandlerTest::droppedLinesAreReportedOnce()
{
    const StderrPipe errors;
    flood();
    const qsizetype dropped = floodCount - errors.take().count('\n');
    QVERIFY(dropped > 0);
    const qsizetype before = contents(path_).size();
    MessageHandlerImpl(QtWarningMsg, mainContext, QStringLiteral("again"));
    MessageHandlerImpl(QtDebugMsg, noContext, QStringLiteral("and again"));
    const QByteArray expected = "Warning: again (main:10, main)\nWarning: stderr has not taken "
        + QByteArray::number(dropped) + " earlier lines (:0, )\nDebug: and again (:0, )\n";
    QCOMPARE(contents(path_).mid(before), expected);
    QCOMPARE(errors.take(), expected);
}

void MessageHandlerTest::longLineArrivesInPieces()
{
    const StderrPipe errors;
    QString text;
    for (int i = 0; text.size() < 300'000; ++i)
        text += QString::number(i) + QLatin1Char(' ');
    MessageHandlerImpl(QtDebugMsg, noContext, text);
    const QByteArray expected = contents(path_);
    QByteArray shown;
    int dropped = 0;
    for (; shown.size() < expected.size() && dropped < 100; ++dropped) { // each call goes on with the rest
        shown += errors.take();
        MessageHandlerImpl(QtDebugMsg, noContext, QStringLiteral("next"));
    }
    QVERIFY(dropped > 1);
    shown += errors.take();
    // Whole, and the report of those that were dropped meanwhile behind the first line that was taken again.
    QVERIFY(shown.startsWith(expected + "Debug: next (:0, )\n"));
    QVERIFY2(shown.mid(expected.size()).contains("earlier lines (:0, )\n"), shown.mid(expected.size()));
}

void MessageHandlerTest::longLineWithoutMemoryForItsRestIsCutOff()
{
    const StderrPipe errors;
    const QByteArray line(qsizetype(32) << 20, 'x');
    {
        const MemoryLimit limit(rlim_t(8) << 20);
        QCOMPARE(stderrlines::write(line), 0u);
    }
    const QByteArray beginning = errors.take();
    QVERIFY(!beginning.isEmpty() && line.startsWith(beginning));
    QCOMPARE(stderrlines::write("next\n"), 1u);
    QCOMPARE(errors.take(), QByteArray("\nnext\n"));
}

/// A signal comes to a thread that then logs.
void MessageHandlerTest::callThatWasInterruptedBeforeIsNotRepeatedForEver()
{
    const StderrPipe errors;
    flood();
    const qsizetype before = contents(path_).size();
    errno = EINTR;
    MessageHandlerImpl(QtDebugMsg, noContext, QStringLiteral("terminated"));
    QCOMPARE(contents(path_).mid(before), QByteArray("Debug: terminated (:0, )\n"));
}

void MessageHandlerTest::linesOfManyThreadsInAFullPipe()
{
    const StderrPipe errors;
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([] { flood(); });
    QByteArray shown;
    for (int i = 0; i < 20; ++i)
        shown += errors.take(); // while they write
    for (std::thread& thread : threads)
        thread.join();
    shown += errors.take();
    const QByteArrayList all = contents(path_).split('\n');
    const QSet<QByteArray> lines(all.cbegin(), all.cend());
    for (const QByteArray& line : shown.split('\n'))
        QVERIFY2(lines.contains(line), line);
    QVERIFY(all.size() > 4 * floodCount);
}

void MessageHandlerTest::withoutStandardErrorOnlyTheFileIsWritten()
{
    const StderrPipe errors;
    ::close(STDERR_FILENO);
    MessageHandlerImpl(QtDebugMsg, noContext, QStringLiteral("hello"));
    QCOMPARE(contents(path_), QByteArray("Debug: hello (:0, )\n"));
    QCOMPARE(errors.take(), QByteArray());
    QFile nowhere(QStringLiteral("/dev/null"));
    QVERIFY(nowhere.open(QIODevice::WriteOnly));
    ::dup2(nowhere.handle(), STDERR_FILENO);
}

ORVANTIS_TEST(MessageHandlerTest)
#include "messagehandler_test.moc"

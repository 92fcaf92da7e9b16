// The log sink: formats, the two outputs and their order.
#include "messagehandler.h"
#include "testregistry.h"

#include "privatetempdir.h"
#include "stderrcapture.h"

#include <QDebug>
#include <QSet>
#include <QTest>

#include <memory>
#include <thread>
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
    void everyLineIsFlushed();
    void fileComesBeforeStderr();
    void withoutALogFileOnlyStderrIsWritten();
    void qtMessagesArriveThroughTheHandler();
    void linesOfManyThreadsDoNotMix();

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

ORVANTIS_TEST(MessageHandlerTest)
#include "messagehandler_test.moc"

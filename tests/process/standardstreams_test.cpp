// What the recorder finds at descriptors 0, 1 and 2: a reader that never reads, a stopped terminal, nothing at all.
// None of it may hold up the recording or reach the log file.
#include "privatexserver.h"
#include "recordedfile.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthwindowprocess.h"

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

#include <array>
#include <fcntl.h>
#include <pty.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

namespace {

const auto clickLineStart = QStringLiteral("Recorder mouse click received ");

/// A pipe, a socket or a terminal: the recorder gets one end as its stderr, the test holds the other.
class Line {
public:
    enum class Kind { Pipe, Socket, Terminal, StoppedTerminal };

    explicit Line(Kind kind)
    {
        if (!open(kind))
            qFatal("No line for stderr");
        ::fcntl(ends_[0], F_SETFL, O_NONBLOCK);
        for (const int end : ends_)
            ::fcntl(end, F_SETFD, FD_CLOEXEC);
    }
    ~Line()
    {
        for (const int end : ends_)
            ::close(end);
    }
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    int recordersEnd() const { return ends_[1]; }

    /// What is in it now.
    QByteArray take() const
    {
        QByteArray taken;
        std::array<char, 4096> bytes{};
        for (ssize_t size = 0; (size = ::read(ends_[0], bytes.data(), bytes.size())) > 0;)
            taken.append(bytes.data(), size);
        return taken;
    }

private:
    bool open(Kind kind)
    {
        if (kind == Kind::Pipe)
            return ::pipe(ends_.data()) == 0;
        if (kind == Kind::Socket)
            return ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends_.data()) == 0;
        return ::openpty(&ends_[0], &ends_[1], nullptr, nullptr, nullptr) == 0
            && (kind == Kind::Terminal || ::tcflow(ends_[1], TCOOFF) == 0);
    }

    std::array<int, 2> ends_{-1, -1};
};

QByteArray logText(const RecordingScene& scene)
{
    QFile file(RecorderProcess::logFile(scene.command.logDirectory));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// What was shown and is no whole line of the log.
QByteArrayList strangeLines(const QByteArray& shown, const QByteArray& logged)
{
    const QByteArrayList all = logged.split('\n');
    const QSet<QByteArray> known(all.cbegin(), all.cend()); // with the empty text behind the last line feed
    QByteArrayList strange;
    for (const QByteArray& line : shown.split('\n')) {
        if (!known.contains(line))
            strange.append(line);
    }
    return strange;
}

/// What a descriptor of the process is.
QString target(const RecorderProcess& recorder, int descriptor)
{
    return QFile::symLinkTarget(QStringLiteral("/proc/%1/fd/%2").arg(recorder.pid()).arg(descriptor));
}

}

Q_DECLARE_METATYPE(Line::Kind)

class StandardStreamsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void nobodyReadsStandardError_data();
    void nobodyReadsStandardError();
    void droppedLinesAreCounted_data();
    void droppedLinesAreCounted();
    void closedDescriptors();

private:
    /// More log lines than any of the kinds can hold.
    bool flood(RecordingScene& scene);

    static constexpr int clickCount = 1200;

    PrivateXServer server_;
    std::unique_ptr<TruthWindowProcess> window_;
};

void StandardStreamsTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    window_ = std::make_unique<TruthWindowProcess>(server_.display());
    QVERIFY2(window_->id() != 0, qPrintable(window_->errorString()));
}

bool StandardStreamsTest::flood(RecordingScene& scene)
{
    const int before = countLines(scene.log(), clickLineStart);
    return scene.launcher.send(QByteArray("click|1|2|0.5|0.5\n").repeated(clickCount))
        && QTest::qWaitFor(
            [&] { return countLines(scene.log(), clickLineStart) >= before + clickCount; }, hangLimitMs);
}

void StandardStreamsTest::nobodyReadsStandardError_data()
{
    QTest::addColumn<Line::Kind>("kind");
    QTest::newRow("pipe") << Line::Kind::Pipe;
    QTest::newRow("socket") << Line::Kind::Socket;
    QTest::newRow("terminal") << Line::Kind::Terminal;
    QTest::newRow("stopped terminal") << Line::Kind::StoppedTerminal;
}

void StandardStreamsTest::nobodyReadsStandardError()
{
    QFETCH(Line::Kind, kind);
    const Line line(kind);
    RecordingScene scene(server_.display(), window_->id());
    scene.recorder.setStandardError(line.recordersEnd());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY(scene.waitUntilRecorded(300));
    QVERIFY(flood(scene));
    // Others have the same open file: their writes must go on as they did.
    QCOMPARE(::fcntl(line.recordersEnd(), F_GETFL) & O_NONBLOCK, 0);
    QVERIFY(scene.stopAndExit());
    QList<LogLine> log = scene.log();
    if (log.last().text.startsWith(
            QStringLiteral("stderr has not taken "))) // a short line may fit where others did not
        log.removeLast();
    QCOMPARE(log.last().text, QStringLiteral("recorder exiting 0"));
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    if (kind == Line::Kind::Pipe)
        QCOMPARE(strangeLines(line.take(), logText(scene)), QByteArrayList());
}

void StandardStreamsTest::droppedLinesAreCounted_data()
{
    QTest::addColumn<Line::Kind>("kind");
    QTest::newRow("pipe") << Line::Kind::Pipe;
    QTest::newRow("socket") << Line::Kind::Socket;
}

void StandardStreamsTest::droppedLinesAreCounted()
{
    QFETCH(Line::Kind, kind);
    const Line line(kind);
    RecordingScene scene(server_.display(), window_->id());
    scene.recorder.setStandardError(line.recordersEnd());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY(flood(scene));
    QByteArray shown = line.take();
    QVERIFY(scene.waitUntilRecorded(1)); // which logs a click at least
    QVERIFY(scene.stopAndExit());
    shown += line.take();

    static const QRegularExpression form(
        QStringLiteral("^Warning: stderr has not taken (\\d+) earlier lines \\(:0, \\)$"),
        QRegularExpression::MultilineOption);
    const QByteArray logged = logText(scene);
    const QRegularExpressionMatch report = form.match(QString::fromUtf8(logged));
    QVERIFY2(report.hasMatch(), logged.right(2000));
    QVERIFY(!form.match(QString::fromUtf8(logged), report.capturedEnd()).hasMatch());
    QVERIFY(report.captured(1).toInt() > 0);
    QCOMPARE(shown.count('\n') + report.captured(1).toInt(), logged.count('\n'));
    QCOMPARE(strangeLines(shown, logged), QByteArrayList());
}

void StandardStreamsTest::closedDescriptors()
{
    RecordingScene scene(server_.display(), window_->id());
    scene.recorder.setWrapper({"sh", "-c", "exec \"$@\" <&- >&- 2>&-", "sh"});
    QVERIFY2(scene.startRecording(), scene.story());
    for (int descriptor = 0; descriptor <= 2; ++descriptor)
        QCOMPARE(target(scene.recorder, descriptor), QStringLiteral("/dev/null"));
    QVERIFY2(scene.stopAndExit(), scene.story());
    QCOMPARE(scene.log().last().text, QStringLiteral("recorder exiting 0"));
}

ORVANTIS_TEST(StandardStreamsTest)
#include "standardstreams_test.moc"

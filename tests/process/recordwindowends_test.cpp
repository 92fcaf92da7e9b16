// record-window when something goes wrong: every exit code, and what is left behind.
#include "recordwindowprocess.h"
#include "testregistry.h"

#include <QFileInfo>
#include <QTest>

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <unistd.h>
#include <vector>

class RecordWindowEndsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void badUsageIsRefused_data();
    void badUsageIsRefused();
    void unusableDirectoryIsRefused_data();
    void unusableDirectoryIsRefused();
    void helpAndVersionAreGiven();
    void missingRecorderIsReported();
    void recorderEndingBeforeItIsReady_data();
    void recorderEndingBeforeItIsReady();
    void interruptBeforeTheFirstImage();
    void readyTimeout();
    void badRepliesAreReported();
    void lostRecorderIsEnded();
    void recorderThatDiesAsItConnects();
    void recorderThatDoesNotFinish_data();
    void recorderThatDoesNotFinish();
    void secondInterruptKillsTheRecorder_data();
    void secondInterruptKillsTheRecorder();
    void differentSignalsKillNothing();
    void killedLauncherTakesItsRecorderAlong();
    void nobodyReadsStandardError();
};

namespace {

const QStringList window{"--window", "77"};
const QStringList brief = window + QStringList{"--seconds", "0.1"};

bool isRunning(qint64 pid)
{
    return ::kill(pid_t(pid), 0) == 0 || errno != ESRCH;
}

/// It has ended; its parent need not have noticed.
bool isGone(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/stat").arg(pid));
    return !status.open(QIODevice::ReadOnly) || status.readAll().contains(") Z ");
}

}

void RecordWindowEndsTest::badUsageIsRefused_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("complaint");
    const auto row = [](const char* name, const QStringList& arguments, const char* complaint) {
        QTest::newRow(name) << arguments << QByteArray(complaint);
    };
    const auto windowRow = [&](const char* id) {
        row(qPrintable(QStringLiteral("window '%1'").arg(QLatin1String(id))), {"--window", QString::fromUtf8(id)},
            "is no window id");
    };
    const auto valueRow = [&](const char* option, const char* text, const char* complaint) {
        row(qPrintable(QStringLiteral("%1 '%2'").arg(QLatin1String(option), QLatin1String(text))),
            window + QStringList{QLatin1String(option), QString::fromUtf8(text)}, complaint);
    };
    row("nothing", {}, "--window is missing");
    row("unknown option", window + QStringList{"--wat"}, "wat");
    row("value missing", {"--window"}, "Missing value");
    row("stray argument", window + QStringList{"clip.mp4"}, "unexpected argument 'clip.mp4'");
    row("two windows", window + QStringList{"--active"}, "only one of");
    for (const char* id : {"0", "0x0", "", "abc", "-1", "+5", " 5", "5.0", "0x", "0xg", "4294967296", "0x100000000",
             "99999999999999999999999"})
        windowRow(id);
    for (const char* size : {"0x0", "0x720", "1280x0", "-5x7", "5x-7", "abc", "", "1280", "1280x", "1280X720",
             "1280.5x720", "99999999999x720"})
        valueRow("--canvas", size, "is no size");
    for (const char* seconds : {"0", "-1", "x", "", "nan", "inf", "1e9", "0.0001"})
        valueRow("--seconds", seconds, "is no number of seconds");
    valueRow("--ready-timeout", "0", "is no number of seconds");
    valueRow("--finish-timeout", "0", "is no number of seconds");
    for (const char* click : {"", "1,2", "1@2", "1,2@", "1,2@-1", "1,2@3+", "1,2@3-1", "1,2,3@4", "a,b@1", "1,2@1e3",
             "1,2@99999999999", "1,2@1+99999999999"})
        valueRow("--click", click, "is no click");
    for (const char* pid : {"0", "-1", "x", "", " 1", "99999999999"})
        row(qPrintable(QStringLiteral("pid '%1'").arg(QLatin1String(pid))), {"--pid", QLatin1String(pid)},
            "is no process id");
    row("no title", {"--title", ""}, "the text is empty");
    row("no regular expression", {"--title", "/(/"}, "is no regular expression");
    for (const char* source : {"", "app-pid:", "app-pid:abc", "app-pid:0", "app-pid: 1", "speakers", "App"})
        valueRow("--audio", source, "is none of app, app-pid:PID, system and none");
    valueRow("--audio", "app-pid:2147483647", "there is no process 2147483647");
    valueRow("--audio", "app", "the process of the window is not known");
    for (const char* seconds : {"0", "-1", "1.5", "x", "", "3601"})
        valueRow("--countdown", seconds, "is no whole number of seconds");
    valueRow("--pointer", "off", "always draws the mouse pointer");
    valueRow("--pointer", "no", "is neither on nor off");
    valueRow("--output", "-", "cannot go to standard output");
    valueRow("--output", "/dev/null", "is a device or a pipe");
    for (const char* name : {"a.webm", "a.gif", "a.mov", "a.AVI"})
        valueRow("--output", name, "the recorder writes no .");
    valueRow("--output", "clip%d.mp4", "has %d in it");
    valueRow("--output", "\033[31mred\n/", "'?[31mred?/' is no file name");
    valueRow("--output", "", "is no file name");
    valueRow("--output", "clips/", "is no file name");
    valueRow("--output", ".", "is no file name");
}

void RecordWindowEndsTest::badUsageIsRefused()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, complaint);
    RecordWindowProcess launcher;
    launcher.startWithout(QStringList{"--recorder", FAKE_RECORDER} + arguments);
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 2);
    QVERIFY2(launcher.standardError().contains(complaint), launcher.standardError());
    QCOMPARE(launcher.standardOutput(), QByteArray());
    QCOMPARE(launcher.note("process"), QByteArray()); // nothing was started
    QVERIFY(launcher.leftFiles().isEmpty());
}

void RecordWindowEndsTest::unusableDirectoryIsRefused_data()
{
    QTest::addColumn<QString>("option");
    QTest::addColumn<QString>("path");
    QTest::newRow("output below a file") << "--output"
                                         << "file/clip.mp4";
    QTest::newRow("output in a place without files") << "--output"
                                                     << "/proc/clip.mp4";
    QTest::newRow("log directory is a file") << "--log-dir"
                                             << "file";
}

void RecordWindowEndsTest::unusableDirectoryIsRefused()
{
    QFETCH(QString, option);
    QFETCH(QString, path);
    RecordWindowProcess launcher;
    QFile file(launcher.path("file"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(launcher.run(brief + QStringList{option, path}), 2);
    QVERIFY2(launcher.standardError().contains("cannot write into the directory /"), launcher.standardError());
    QCOMPARE(launcher.note("process"), QByteArray());
}

void RecordWindowEndsTest::helpAndVersionAreGiven()
{
    for (const char* option : {"--help", "-h"}) {
        RecordWindowProcess launcher;
        launcher.startWithout({QLatin1String(option)});
        QVERIFY(launcher.waitForEnd());
        QCOMPARE(launcher.process().exitCode(), 0);
        const QByteArray help = launcher.standardOutput();
        for (const char* part : {"Choose the window:\n  --list  ", "\n  --json  ", "Exit codes:\n  0 ", "\n  2 ",
                 "\n  3 ", "\n  4 ", "\n  5 ", "\n  6 ", "\n  7 ", "\n  8 ", "\n  130 "})
            QVERIFY2(help.contains(part), part);
    }
    RecordWindowProcess launcher;
    launcher.startWithout({"--version"});
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 0);
    QVERIFY(launcher.standardOutput().startsWith("record-window 0."));
}

void RecordWindowEndsTest::missingRecorderIsReported()
{
    RecordWindowProcess launcher;
    launcher.startWithout(brief + QStringList{"--recorder", "no/such recorder"});
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 3);
    const QByteArray error = launcher.standardError();
    QVERIFY2(error.contains("cannot start the recorder /") && error.contains("no/such recorder"), error);
}

void RecordWindowEndsTest::recorderEndingBeforeItIsReady_data()
{
    QTest::addColumn<QByteArray>("mode");
    QTest::addColumn<QByteArray>("reason");
    QTest::newRow("set-up") << QByteArray("setupfails")
                            << QByteArray("exit code 2: the window capture could not be set up");
    QTest::newRow("crash") << QByteArray("crashes") << QByteArray("ended by signal 9");
}

void RecordWindowEndsTest::recorderEndingBeforeItIsReady()
{
    QFETCH(QByteArray, mode);
    QFETCH(QByteArray, reason);
    RecordWindowProcess launcher(mode);
    QCOMPARE(launcher.run(window), 4);
    const QByteArray error = launcher.standardError();
    QVERIFY2(error.contains("the recorder ended before it was ready (" + reason + ")\nthe recorder's log: /"), error);
    QVERIFY2(error.endsWith("/20260101T000000.000Z-orvantis-recorder-log.txt\n"), error);
}

void RecordWindowEndsTest::interruptBeforeTheFirstImage()
{
    RecordWindowProcess launcher("noimage");
    launcher.start(window);
    QTRY_VERIFY_WITH_TIMEOUT(launcher.recorderGroup() > 0, 60'000);
    launcher.interrupt(SIGINT); // maybe before it is connected
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 5);
    QVERIFY2(launcher.standardError().contains("window 0x4d never gave an image"), launcher.standardError());
    QVERIFY2(!launcher.standardOutput().contains("file "), launcher.standardOutput());
    QCOMPARE(launcher.leftFiles(), QStringList{"20260101T000000.000Z-orvantis-recorder-log.txt"});
}

void RecordWindowEndsTest::readyTimeout()
{
    RecordWindowProcess launcher("noimage");
    QCOMPARE(launcher.run(window + QStringList{"--ready-timeout", "0.2"}), 5);
    QVERIFY2(launcher.standardError().contains("window 0x4d gave no image in time"), launcher.standardError());
    RecordWindowProcess inTime;
    QCOMPARE(inTime.run(brief + QStringList{"--ready-timeout", "60"}), 0);
}

/// All at once, for each takes its time.
void RecordWindowEndsTest::badRepliesAreReported()
{
    struct Reply {
        const char* mode;
        int code;
        const char* complaint;
    };
    const std::array replies{Reply{"noreply", 6, "ended without confirming the recording (exit code 3)"},
        Reply{"nonsense", 6, "did not answer with a duration but with: what do you mean?"},
        Reply{"nofile", 7, "the recorder left no file"}, Reply{"badexit", 7, "did not end well (exit code 9)"}};
    std::vector<std::unique_ptr<RecordWindowProcess>> launchers;
    for (const Reply& reply : replies) {
        launchers.push_back(std::make_unique<RecordWindowProcess>(reply.mode));
        launchers.back()->start(brief);
    }
    for (std::size_t i = 0; i < replies.size(); ++i) {
        QVERIFY2(launchers[i]->waitForEnd(), replies[i].mode);
        QVERIFY2(launchers[i]->process().exitCode() == replies[i].code, replies[i].mode);
        const QByteArray error = launchers[i]->standardError();
        QVERIFY2(error.contains(replies[i].complaint), error);
    }
}

/// Both at once: the launcher waits some seconds for each.
void RecordWindowEndsTest::lostRecorderIsEnded()
{
    RecordWindowProcess hangsUp("hangsup");
    RecordWindowProcess doesNotConnect("nobody");
    for (RecordWindowProcess* launcher : {&hangsUp, &doesNotConnect})
        launcher->start(window);
    for (const RecordWindowProcess* launcher : {&hangsUp, &doesNotConnect})
        QTRY_VERIFY_WITH_TIMEOUT(launcher->recorderGroup() > 0, 60'000);
    doesNotConnect.interrupt(SIGINT);
    for (RecordWindowProcess* launcher : {&hangsUp, &doesNotConnect}) {
        QVERIFY(launcher->waitForEnd());
        QCOMPARE(launcher->process().exitCode(), 6);
        QVERIFY2(launcher->standardError().contains("cannot be reached"), launcher->standardError());
        QVERIFY(QFileInfo::exists(launcher->path("notes/terminated")));
    }
}

void RecordWindowEndsTest::recorderThatDiesAsItConnects()
{
    RecordWindowProcess launcher("dies");
    launcher.start(window);
    QTRY_VERIFY_WITH_TIMEOUT(launcher.recorderGroup() > 0, 60'000);
    launcher.interrupt(SIGINT);
    QTRY_VERIFY_WITH_TIMEOUT(launcher.standardError().contains("waiting for the recorder to connect"), 60'000);
    // Its end of the line is closed before record-window has even seen the connection.
    launcher.interrupt(SIGSTOP);
    QFile go(launcher.path("notes/go"));
    QVERIFY(go.open(QIODevice::WriteOnly));
    QTRY_VERIFY_WITH_TIMEOUT(isGone(launcher.recorderPid()), 60'000);
    launcher.interrupt(SIGCONT);
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitStatus(), QProcess::NormalExit);
    QCOMPARE(launcher.process().exitCode(), 6);
    QVERIFY2(launcher.standardError().contains("ended without confirming the recording (exit code 1)"),
        launcher.standardError());
}

void RecordWindowEndsTest::recorderThatDoesNotFinish_data()
{
    QTest::addColumn<QByteArray>("mode");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArrayList>("messages");
    QTest::newRow("no answer to the stop") << QByteArray("deaf") << 6
                                           << QByteArrayList{"the recorder does not answer; ending its process",
                                                  "did not confirm the recording in time (exit code 143)"};
    QTest::newRow("no end after the exit") << QByteArray("stays") << 7
                                           << QByteArrayList{"the recorder does not end; ending its process",
                                                  "the recorder did not end well (exit code 143)"};
    QTest::newRow("no end after SIGTERM") << QByteArray("stubborn") << 6
                                          << QByteArrayList{"the recorder does not answer; ending its process",
                                                 "the recorder does not answer; killing it",
                                                 "did not confirm the recording in time (ended by signal 9)"};
}

void RecordWindowEndsTest::recorderThatDoesNotFinish()
{
    QFETCH(QByteArray, mode);
    QFETCH(int, code);
    QFETCH(QByteArrayList, messages);
    RecordWindowProcess launcher(mode);
    QCOMPARE(launcher.run(brief + QStringList{"--finish-timeout", "0.3"}), code);
    const QByteArray error = launcher.standardError();
    for (const QByteArray& message : std::as_const(messages))
        QVERIFY2(error.contains(message), error);
    QVERIFY(QFileInfo::exists(launcher.path("notes/terminated"))); // asked first, in every case
    QVERIFY(isGone(launcher.recorderPid()));
}

void RecordWindowEndsTest::secondInterruptKillsTheRecorder_data()
{
    QTest::addColumn<QByteArray>("mode");
    QTest::newRow("before the first image") << QByteArray("notready");
    QTest::newRow("while recording") << QByteArray("deaf");
}

void RecordWindowEndsTest::secondInterruptKillsTheRecorder()
{
    QFETCH(QByteArray, mode);
    RecordWindowProcess launcher(mode);
    launcher.start(window);
    if (mode == "deaf")
        QVERIFY2(launcher.waitForRecording(), launcher.standardError());
    QTRY_VERIFY_WITH_TIMEOUT(launcher.recorderGroup() > 0, 60'000);
    launcher.interrupt(SIGINT);
    QTRY_COMPARE_WITH_TIMEOUT(launcher.lines().size(), 1, 60'000); // the stop, which nobody answers
    QVERIFY(isRunning(launcher.recorderPid()));
    launcher.interrupt(SIGINT);
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 130);
    QVERIFY(!isRunning(launcher.recorderPid()));
    QVERIFY(!QFileInfo::exists(launcher.path("notes/terminated"))); // killed, not asked
    QVERIFY2(launcher.standardError().contains("the recorder was killed"), launcher.standardError());
}

void RecordWindowEndsTest::differentSignalsKillNothing()
{
    RecordWindowProcess launcher;
    launcher.start(window);
    QVERIFY2(launcher.waitForRecording(), launcher.standardError());
    // While it is stopped all become pending, as at the end of a session.
    for (const int number : {SIGSTOP, SIGTERM, SIGHUP, SIGINT, SIGCONT})
        launcher.interrupt(number);
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 0);
    QVERIFY2(launcher.standardOutput().contains("duration  1.234 s\n"), launcher.standardOutput());
}

void RecordWindowEndsTest::killedLauncherTakesItsRecorderAlong()
{
    RecordWindowProcess launcher("deaf");
    launcher.start(window);
    QVERIFY2(launcher.waitForRecording(), launcher.standardError());
    launcher.interrupt(SIGKILL);
    QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(launcher.path("notes/terminated")), 60'000);
}

/// Nor takes it anything: the recording ends in time all the same, and is told on stdout.
void RecordWindowEndsTest::nobodyReadsStandardError()
{
    std::array<int, 2> ends{};
    QCOMPARE(::pipe2(ends.data(), O_CLOEXEC), 0);
    const QByteArray own = "/proc/self/fd/" + QByteArray::number(ends[1]); // its flags are not those of ends[1]
    const int filler = ::open(own.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    while (::write(filler, "x", 1) == 1) { }
    RecordWindowProcess launcher;
    launcher.process().setChildProcessModifier([end = ends[1]] { ::dup2(end, STDERR_FILENO); });
    const int code = launcher.run(window + QStringList{"--seconds", "1.2"});
    for (const int descriptor : {ends[0], ends[1], filler})
        ::close(descriptor);
    QCOMPARE(code, 0);
    QVERIFY2(launcher.standardOutput().contains("duration  1.234 s\n"), launcher.standardOutput());
}

ORVANTIS_TEST(RecordWindowEndsTest)
#include "recordwindowends_test.moc"

// FakeRecorder: stands in for the recorder when a launcher is tested. It notes what it is told in the directory
// FAKE_RECORDER_NOTES (which must exist) and behaves as FAKE_RECORDER_MODE says:
//   (empty)      ready, and a duration on "stop"      fallback     the file ends in .mkv
//   setupfails   exit code 2 before it is ready       crashes      killed by a signal before it is ready
//   noimage      never ready; a black frame           notready     never ready and no answer to anything
//   noreply      ends on "stop" without an answer     nonsense     answers "stop" with something else
//   nofile       ready; duration 0 and no file        badexit      exit code 9 after all went well
//   deaf         ready; no answer, but on "stop" the readiness byte again and again, as notready and stubborn do
//   hangsup      ready, then hangs up and lives on
//   nobody       does not connect and lives on        stays        does not end on "exit"
//   stubborn     like deaf, and ignores SIGTERM       dies         connects when the note "go" is there, and ends
//   slowstart    connects and is ready late           pieces       answers byte by byte
//   nooutput     never ready; duration 0 and no file  crasheslater killed by a signal after it is ready
//   twice        ready twice                          quits        ends as soon as it has answered
// FAKE_RECORDER_FILE names a file that becomes what it has recorded; FAKE_RECORDER_LOG holds lines that its log has
// before it is ready.
// The notes: "arguments" (each ended by a null byte), "process" (process id, process group), "ready" (wall clock of
// the readiness byte), "lines" (wall clock and text of each line), "terminated" (made on SIGTERM), "environment" (the
// variables that record-window sets for it, in lines).
// With FAKE_RECORDER_CHECKS=1 it writes little to stderr, tries to connect as long as the recorder does, ends with
// the launcher when that asked for it, and keeps two more notes: "alive", which is locked as long as it lives, and
// "journal" (lines of wall clock, event and details: "connected", "impatient" for a stop that came
// before the readiness, "ready", "line", "early" for what came before the answer, "replied", "hungup").
#include "fakerecorder.h"

#include <QByteArray>
#include <QDateTime>
#include <QDebug>
#include <QFile>
#include <QString>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int usageExitCode = 99;
constexpr unsigned longestLifeSeconds = 600; // whatever becomes of the launcher
constexpr useconds_t slowStepUs = 1'500'000;
constexpr useconds_t pieceUs = 20'000;
QByteArray terminatedNote;
bool ignoresTermination = false;

void onTerminate(int)
{
    ::close(::open(terminatedNote.constData(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    if (!ignoresTermination)
        ::_exit(143);
}

void append(const QString& path, const QByteArray& text)
{
    QFile file(path);
    if (!file.open(QIODevice::Append) || file.write(text) != text.size()) {
        std::fprintf(stderr, "fakerecorder: cannot write %s\n", qPrintable(path));
        std::exit(usageExitCode);
    }
}

class FakeRecorder {
public:
    FakeRecorder(int argc, char** argv)
        : mode_(qgetenv("FAKE_RECORDER_MODE")), checks_(qEnvironmentVariableIsSet("FAKE_RECORDER_CHECKS")),
          notes_(qEnvironmentVariable("FAKE_RECORDER_NOTES") + '/'), log_(logPath(argv[1])),
          output_(QString::fromUtf8(argv[3]))
    {
        for (int i = 1; i < argc; ++i)
            note("arguments", QByteArray(argv[i]) + '\0');
        note("process", QByteArray::number(::getpid()) + ' ' + QByteArray::number(::getpgrp()));
        terminatedNote = (notes_ + QLatin1String("terminated")).toUtf8();
        for (const char* name : {"ORVANTIS_END_WITH_LAUNCHER", "ORVANTIS_POPUPS"})
            note("environment", QByteArray(name) + '=' + qgetenv(name) + '\n');
        ignoresTermination = mode_ == "stubborn";
        std::signal(SIGTERM, onTerminate);
        ::alarm(longestLifeSeconds);
        if (mode_ == "fallback")
            output_.replace(QLatin1String(".mp4"), QLatin1String(".mkv"));
    }

    int run()
    {
        // More than a pipe holds: who does not read it must not stop us.
        std::fputs(QByteArray(checks_ ? 1 : 1 << 20, 'x').append("\nend of the fake's standard error\n").constData(),
            stderr);
        log("recorder process identity pid " + QByteArray::number(::getpid()) + " applicationFilePath \"/fake\"");
        if (mode_ == "nobody")
            waitForTheEnd();
        if (mode_ == "slowstart")
            ::usleep(slowStepUs);
        while (mode_ == "dies" && !QFile::exists(notes_ + QLatin1String("go")))
            ::usleep(1000);
        if (!connectToLauncher())
            return usageExitCode;
        if (mode_ == "dies")
            return 1;
        if (mode_ == "setupfails")
            return 2;
        if (mode_ == "crashes")
            std::raise(SIGKILL);
        append(log_, qgetenv("FAKE_RECORDER_LOG"));
        if (mode_ == "slowstart")
            ::usleep(slowStepUs);
        if (mode_ != "noimage" && mode_ != "notready" && mode_ != "nooutput")
            sayReady();
        if (mode_ == "crasheslater") {
            ::usleep(slowStepUs / 10);
            std::raise(SIGKILL);
        }
        if (mode_ == "hangsup") {
            ::close(socket_);
            waitForTheEnd();
        }
        return serve();
    }

private:
    /// Several fakes may share a directory.
    static QString logPath(const char* directory)
    {
        return QString::fromUtf8(directory)
            + QStringLiteral("/20260101T000000.%1Z-orvantis-recorder-log.txt")
                  .arg(qEnvironmentVariableIsSet("FAKE_RECORDER_CHECKS") ? ::getpid() : 0, 3, 10, QLatin1Char('0'));
    }

    void note(const char* name, const QByteArray& text) { append(notes_ + QLatin1String(name), text); }
    void log(const QByteArray& message) { append(log_, "Debug: " + message + " (:0, )\n"); }
    void journal(const QByteArray& event)
    {
        if (checks_)
            note("journal", now() + ' ' + event + '\n');
    }
    static QByteArray now() { return QByteArray::number(QDateTime::currentMSecsSinceEpoch()); }

    [[noreturn]] static void waitForTheEnd()
    {
        for (;;)
            ::pause();
    }

    bool connectToLauncher()
    {
        const QByteArray directory = qEnvironmentVariableIsSet("TMPDIR") ? qgetenv("TMPDIR") : QByteArray("/tmp");
        const QByteArray path = directory + "/orvantis-recorder";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, path.constData(), sizeof(address.sun_path));
        const int attempts = checks_ ? 50 : 1;
        for (int attempt = 1; attempt <= attempts; ++attempt) {
            socket_ = ::socket(AF_UNIX, SOCK_STREAM, 0);
            if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
                journalConnection(attempt, directory, path);
                return true;
            }
            ::close(socket_);
            if (attempt < attempts)
                ::usleep(100'000);
        }
        std::fprintf(stderr, "fakerecorder: %s: %s\n", path.constData(), std::strerror(errno));
        return false;
    }

    void journalConnection(int attempt, const QByteArray& directory, const QByteArray& path)
    {
        struct stat status { };
        if (::stat(directory.constData(), &status) != 0)
            return;
        journal("connected " + QByteArray::number(attempt) + ' ' + QByteArray::number(status.st_mode & 0777, 8) + ' '
            + QByteArray::number(int(status.st_uid == ::geteuid())) + ' ' + QByteArray::number(path.size()));
    }

    void send(const QByteArray& bytes)
    {
        if (::write(socket_, bytes.constData(), size_t(bytes.size())) != bytes.size())
            std::exit(usageExitCode);
    }

    void sayReady()
    {
        writeOutput("using video encoder \"mpeg4\" output ", " container mp4");
        note("ready", now());
        char peeked[512];
        const ssize_t size = ::recv(socket_, peeked, sizeof(peeked), MSG_PEEK | MSG_DONTWAIT);
        if (QByteArray(peeked, std::max<ssize_t>(size, 0)).contains("\"stop\""))
            journal("impatient");
        journal("ready");
        send(mode_ == "twice" ? "11" : "1");
    }

    void writeOutput(const QByteArray& label, const QByteArray& rest)
    {
        QFile recorded(qEnvironmentVariable("FAKE_RECORDER_FILE"));
        if (label.startsWith("finalized") && recorded.open(QIODevice::ReadOnly))
            QFile::resize(output_, 0);
        append(output_, recorded.isOpen() ? recorded.readAll() : QByteArray("content\n"));
        QString quoted;
        QDebug(&quoted) << output_;
        log("FFmpeg recorder " + label + quoted.trimmed().toUtf8() + rest);
    }

    /// Bytes that mean nothing behind a stop, but wake the launcher. A thread sanitizer holds signals back while Qt
    /// waits, until the launcher's own code runs again.
    [[noreturn]] void repeatReadiness()
    {
        constexpr useconds_t pauseUs = 50'000;
        for (;;) {
            ::usleep(pauseUs);
            send("1");
        }
    }

    QByteArray answer()
    {
        if (mode_ == "nofile" || mode_ == "nooutput") {
            QFile::remove(output_);
            return "{\"duration\":0}\n";
        }
        writeOutput("finalized output ", " duration 1234");
        if (mode_ == "nonsense")
            return "what do you mean?\n";
        return mode_ == "noimage" ? "1{\"duration\":41}\n" : "{\"duration\":1234}\n";
    }

    /// unread: what came in the same read behind the stop.
    void answerStop(const QByteArray& unread)
    {
        const QByteArray bytes = answer();
        if (mode_ == "pieces") {
            for (const char byte : bytes.chopped(1)) {
                send(QByteArray(1, byte));
                ::usleep(pieceUs);
            }
        }
        pollfd waiting{socket_, POLLIN, 0};
        if (!unread.isEmpty() || ::poll(&waiting, 1, 0) > 0)
            journal("early");
        send(mode_ == "pieces" ? bytes.right(1) : bytes);
        journal("replied");
    }

    int onHungUp()
    {
        journal("hungup");
        if (!checks_ || qgetenv("ORVANTIS_END_WITH_LAUNCHER") != "1")
            waitForTheEnd();
        return 3;
    }

    int serve()
    {
        QByteArray buffer;
        char bytes[512];
        for (;;) {
            const ssize_t size = ::read(socket_, bytes, sizeof(bytes));
            if (size < 0 && errno == EINTR)
                continue; // SIGTERM, which it ignores
            if (size <= 0)
                return onHungUp();
            buffer.append(bytes, size);
            for (qsizetype end = buffer.indexOf('\n'); end >= 0; end = buffer.indexOf('\n')) {
                const QByteArray line = buffer.left(end);
                buffer.remove(0, end + 1);
                note("lines", now() + ' ' + line + '\n');
                journal("line " + line);
                if (mode_ == "deaf" || mode_ == "notready" || mode_ == "stubborn") {
                    if (!checks_ && line == "{\"action\":\"stop\"}")
                        repeatReadiness();
                    continue;
                }
                if (line == "{\"action\":\"stop\"}" && mode_ == "noreply")
                    return 3;
                if (line == "{\"action\":\"stop\"}")
                    answerStop(buffer);
                if (line == "{\"action\":\"stop\"}" && mode_ == "quits")
                    return 0;
                if (line == "{\"action\":\"exit\"}" && mode_ != "stays")
                    return mode_ == "badexit" ? 9 : 0;
            }
        }
    }

    const QByteArray mode_;
    const bool checks_; // the launcher is judged by the notes
    const QString notes_;
    const QString log_;
    QString output_;
    int socket_ = -1;
};

}

int runFakeRecorder(int argc, char** argv)
{
    constexpr int fewest = 4; // up to the output
    if (argc < fewest) {
        for (int i = 1; i < argc; ++i)
            append(qEnvironmentVariable("FAKE_RECORDER_NOTES") + QLatin1String("/arguments"),
                QByteArray(argv[i]) + '\0');
        return usageExitCode;
    }
    // Held until the process ends.
    const QByteArray alive = qgetenv("FAKE_RECORDER_NOTES") + "/alive";
    const int descriptor = ::open(alive.constData(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    if (descriptor < 0 || ::flock(descriptor, LOCK_EX) != 0)
        return usageExitCode;
    return FakeRecorder(argc, argv).run();
}

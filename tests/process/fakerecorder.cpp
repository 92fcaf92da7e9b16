// fakerecorder: stands in for the recorder when its launcher is tested. It notes what it is told in the directory
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
// The notes: "arguments" (each ended by a null byte), "process" (process id, process group), "ready" (wall clock of
// the readiness byte), "lines" (wall clock and text of each line), "terminated" (made on SIGTERM), "environment" (the
// variables that record-window sets for it, in lines).
#include <QByteArray>
#include <QDateTime>
#include <QDebug>
#include <QFile>
#include <QString>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int usageExitCode = 99;
constexpr unsigned longestLifeSeconds = 600; // whatever becomes of the launcher
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
        : mode_(qgetenv("FAKE_RECORDER_MODE")), notes_(qEnvironmentVariable("FAKE_RECORDER_NOTES") + '/'),
          log_(QString::fromUtf8(argv[1]) + QLatin1String("/20260101T000000.000Z-orvantis-recorder-log.txt")),
          output_(QString::fromUtf8(argv[3]))
    {
        for (int i = 1; i < argc; ++i)
            note("arguments", QByteArray(argv[i]) + '\0');
        note("process", QByteArray::number(::getpid()) + ' ' + QByteArray::number(::getpgrp()));
        terminatedNote = (notes_ + QLatin1String("terminated")).toUtf8();
        note("environment", "ORVANTIS_END_WITH_LAUNCHER=" + qgetenv("ORVANTIS_END_WITH_LAUNCHER") + '\n');
        ignoresTermination = mode_ == "stubborn";
        std::signal(SIGTERM, onTerminate);
        ::alarm(longestLifeSeconds);
        if (mode_ == "fallback")
            output_.replace(QLatin1String(".mp4"), QLatin1String(".mkv"));
    }

    int run()
    {
        // More than a pipe holds: who does not read it must not stop us.
        std::fputs(QByteArray(1 << 20, 'x').append("\nend of the fake's standard error\n").constData(), stderr);
        log("recorder process identity pid " + QByteArray::number(::getpid()) + " applicationFilePath \"/fake\"");
        if (mode_ == "nobody")
            waitForTheEnd();
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
        if (mode_ != "noimage" && mode_ != "notready")
            sayReady();
        if (mode_ == "hangsup") {
            ::close(socket_);
            waitForTheEnd();
        }
        return serve();
    }

private:
    void note(const char* name, const QByteArray& text) { append(notes_ + QLatin1String(name), text); }
    void log(const QByteArray& message) { append(log_, "Debug: " + message + " (:0, )\n"); }
    static QByteArray now() { return QByteArray::number(QDateTime::currentMSecsSinceEpoch()); }

    [[noreturn]] static void waitForTheEnd()
    {
        for (;;)
            ::pause();
    }

    bool connectToLauncher()
    {
        const QByteArray path = qgetenv("TMPDIR") + "/orvantis-recorder";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, path.constData(), sizeof(address.sun_path));
        socket_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0)
            return true;
        std::fprintf(stderr, "fakerecorder: %s: %s\n", path.constData(), std::strerror(errno));
        return false;
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
        send("1");
    }

    void writeOutput(const QByteArray& label, const QByteArray& rest)
    {
        append(output_, "content\n");
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

    void answerStop()
    {
        if (mode_ == "nofile") {
            QFile::remove(output_);
            return send("{\"duration\":0}\n");
        }
        writeOutput("finalized output ", " duration 1234");
        if (mode_ == "nonsense")
            send("what do you mean?\n");
        else if (mode_ == "noimage")
            send("1{\"duration\":41}\n");
        else
            send("{\"duration\":1234}\n");
    }

    int serve()
    {
        QByteArray buffer;
        char bytes[512];
        for (;;) {
            const ssize_t size = ::read(socket_, bytes, sizeof(bytes));
            if (size <= 0)
                waitForTheEnd(); // the launcher went first
            buffer.append(bytes, size);
            for (qsizetype end = buffer.indexOf('\n'); end >= 0; end = buffer.indexOf('\n')) {
                const QByteArray line = buffer.left(end);
                buffer.remove(0, end + 1);
                note("lines", now() + ' ' + line + '\n');
                if (mode_ == "deaf" || mode_ == "notready" || mode_ == "stubborn") {
                    if (line == "{\"action\":\"stop\"}")
                        repeatReadiness();
                    continue;
                }
                if (line == "{\"action\":\"stop\"}" && mode_ == "noreply")
                    return 3;
                if (line == "{\"action\":\"stop\"}")
                    answerStop();
                if (line == "{\"action\":\"exit\"}" && mode_ != "stays")
                    return mode_ == "badexit" ? 9 : 0;
            }
        }
    }

    const QByteArray mode_;
    const QString notes_;
    const QString log_;
    QString output_;
    int socket_ = -1;
};

}

int main(int argc, char** argv)
{
    constexpr int fewest = 4; // up to the output
    if (argc < fewest || !qEnvironmentVariableIsSet("FAKE_RECORDER_NOTES"))
        return usageExitCode;
    return FakeRecorder(argc, argv).run();
}

// PrivateXServer: an X server of a test's own.
#include "privatexserver.h"

#include "descriptor.h"
#include "xauthority.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int startLimitMs = 30'000; // 40 ms when nothing else runs
constexpr int endLimitMs = 10'000;

/// The display number that the server writes, with a line feed, once it takes connections. Empty when it
/// closed the descriptor without that (it died) or the time ran out.
QByteArray readDisplayNumber(int descriptor)
{
    QByteArray text;
    while (!text.endsWith('\n')) {
        pollfd waiting{descriptor, POLLIN, 0};
        const int ready = ::poll(&waiting, 1, startLimitMs);
        if (ready < 0 && errno == EINTR)
            continue;
        char byte = 0;
        if (ready <= 0 || ::read(descriptor, &byte, 1) != 1)
            return QByteArray();
        text.append(byte);
    }
    return text.trimmed();
}

/// True when a socket file is there and no process listens at it.
bool isStaleSocket(const QByteArray& path)
{
    const Descriptor client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, path.constData(), sizeof(address.sun_path));
    return ::connect(client.number(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0
        && errno == ECONNREFUSED;
}

}

PrivateXServer::PrivateXServer(QSize screen, int depth, const QStringList& extraArguments)
{
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) < 0) {
        error_ = QStringLiteral("No pipe for the X server: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
        return;
    }
    const Descriptor reader(ends[0]);
    Descriptor writer(ends[1]);

    const QString screenText = QStringLiteral("%1x%2x%3").arg(screen.width()).arg(screen.height()).arg(depth);
    process_.setChildProcessModifier([writerNumber = writer.number(), parent = ::getpid()] {
        ::fcntl(writerNumber, F_SETFD, 0); // this one end stays open in the server
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(1); // the parent was gone before the line above
    });
    process_.start(QStringLiteral("Xvfb"),
        QStringList{QStringLiteral("-displayfd"), QString::number(writer.number()), QStringLiteral("-auth"),
            xAuthorityFile(), QStringLiteral("-screen"), QStringLiteral("0"), screenText, QStringLiteral("-nolisten"),
            QStringLiteral("tcp"), QStringLiteral("-noreset")}
            + extraArguments);
    if (!process_.waitForStarted(startLimitMs)) {
        error_ = QStringLiteral("Xvfb did not start: %1").arg(process_.errorString());
        return;
    }
    pid_ = process_.processId();
    writer.close(); // so that the server's end shows as the end of the pipe

    const QByteArray number = readDisplayNumber(reader.number());
    if (number.isEmpty()) {
        kill();
        error_ = QStringLiteral("Xvfb gave no display number: %1")
                     .arg(QString::fromLocal8Bit(process_.readAllStandardError()).trimmed());
        return;
    }
    display_ = ":" + number;
}

PrivateXServer::~PrivateXServer()
{
    if (isRunning()) {
        process_.terminate();
        if (!process_.waitForFinished(endLimitMs))
            kill();
    }
    removeLeftovers();
}

bool PrivateXServer::isRunning()
{
    process_.waitForFinished(0); // notices an end that no event loop has reported yet
    return process_.state() == QProcess::Running;
}

void PrivateXServer::kill()
{
    process_.kill();
    process_.waitForFinished(endLimitMs);
}

/// A killed server leaves its socket behind. Another server may own the display by now, so the socket is
/// removed only when it refuses connections. (There is no lock file with -displayfd.)
void PrivateXServer::removeLeftovers() const
{
    const QByteArray socketPath = "/tmp/.X11-unix/X" + display_.mid(1);
    if (!display_.isEmpty() && isStaleSocket(socketPath))
        ::unlink(socketPath.constData());
}

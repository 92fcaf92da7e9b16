// What each kind of file takes without waiting. O_NONBLOCK is not set on descriptor 2: it would hold for everybody
// who shares the open file (standardstreams.h tells how it may be set already).
#include "stderrlines.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr int errorOutput = STDERR_FILENO;

struct Output {
    std::mutex mutex;
    QByteArray rest; // a line whose beginning was taken
    qsizetype restTaken = 0; // bytes of it; removing them might need memory
    quint64 dropped = 0; // lines since the last report
};

/// Never destroyed: lines are logged until the process ends.
Output& output()
{
    static Output& only = *new Output;
    return only;
}

bool hasRoom()
{
    pollfd state{errorOutput, POLLOUT, 0};
    return ::poll(&state, 1, 0) == 1 && state.revents != 0; // also on an error, which the write then reports
}

/// One call that does not wait; below 0 when nothing is taken now.
ssize_t writeOnce(const char* bytes, std::size_t size)
{
    struct stat status = {};
    if (::fstat(errorOutput, &status) != 0)
        return -1;
    if (S_ISSOCK(status.st_mode))
        return ::send(errorOutput, bytes, size, MSG_DONTWAIT);
    if (S_ISREG(status.st_mode) || (::fcntl(errorOutput, F_GETFL) & O_NONBLOCK) != 0)
        return ::write(errorOutput, bytes, size);
    if (!hasRoom()) {
        errno = EAGAIN;
        return -1;
    }
    // A pipe that has room at all has room for PIPE_BUF bytes.
    return ::write(errorOutput, bytes, std::min<std::size_t>(size, PIPE_BUF));
}

/// From this byte of the text on. Up to which one it is taken.
qsizetype writeAtOnce(const QByteArray& text, qsizetype written)
{
    while (written < text.size()) {
        const ssize_t size = writeOnce(text.constData() + written, std::size_t(text.size() - written));
        if (size > 0)
            written += size;
        else if (size == 0 || errno != EINTR)
            break;
    }
    return written;
}

/// Behind the rest of the one before. False when nothing is taken of it, or when it has to end after its beginning.
bool writeNext(Output& to, const QByteArray& text)
{
    to.restTaken = writeAtOnce(to.rest, to.restTaken);
    if (to.restTaken < to.rest.size())
        return false;
    to.rest = QByteArray();
    to.restTaken = 0;
    const qsizetype written = writeAtOnce(text, 0);
    if (written == 0 || written == text.size())
        return written > 0;
    try {
        to.rest = text.mid(written);
        return true;
    } catch (const std::bad_alloc&) { // the beginning stands there, and is to mix with nothing
        to.rest = QByteArray::fromRawData("\n", 1);
        return false;
    }
}

}

quint64 stderrlines::write(const QByteArray& line)
{
    Output& to = output();
    const std::lock_guard lock(to.mutex);
    if (!writeNext(to, line))
        ++to.dropped;
    else if (to.rest.isEmpty())
        return std::exchange(to.dropped, 0);
    return 0;
}

void stderrlines::writeBeside(const QByteArray& text)
{
    Output& to = output();
    const std::lock_guard lock(to.mutex);
    writeNext(to, text);
}

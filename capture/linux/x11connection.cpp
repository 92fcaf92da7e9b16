// Opening, flushing and waiting, each with a bound.
//
// libxcb waits for ever in several places; this file avoids them all. xcb_wait_for_reply() and xcb_request_check()
// are replaced by poll() and xcb_poll_for_reply(). xcb_get_extension_data(), which every request of an extension
// calls, is harmless once the extension was prefetched and a later answer has arrived. xcb_connect() has no bounded
// form and runs on a thread of its own.
#include "x11connection.h"

#include <QByteArray>

#include <xcb/composite.h>
#include <xcb/damage.h>
#include <xcb/shm.h>
#include <xcb/xcbext.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <future>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <system_error>
#include <thread>

namespace x11 {

namespace {

/// Keeps a write to a server that has just died from ending the process: libxcb writes without MSG_NOSIGNAL. Holds
/// SIGPIPE back on this thread and takes away the one that appeared meanwhile.
class BrokenPipeGuard {
public:
    BrokenPipeGuard()
    {
        sigemptyset(&brokenPipe_);
        sigaddset(&brokenPipe_, SIGPIPE);
        wasPending_ = isPending();
        pthread_sigmask(SIG_BLOCK, &brokenPipe_, &before_);
    }
    ~BrokenPipeGuard()
    {
        const timespec noTime{};
        if (!wasPending_ && isPending())
            sigtimedwait(&brokenPipe_, nullptr, &noTime);
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    BrokenPipeGuard(const BrokenPipeGuard&) = delete;
    BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;

private:
    static bool isPending()
    {
        sigset_t pending;
        sigemptyset(&pending);
        sigpending(&pending);
        return sigismember(&pending, SIGPIPE) == 1;
    }

    sigset_t brokenPipe_;
    sigset_t before_;
    bool wasPending_ = false;
};

/// Null when the display refuses, or takes longer than the limit. In the latter case the thread stays until the
/// server answers or goes, and then closes the connection that nobody waits for any more.
ConnectionHandle connectToDisplay(const QByteArray& display)
{
    std::promise<ConnectionHandle> promise;
    std::future<ConnectionHandle> connecting = promise.get_future();
    std::thread thread([display, promise = std::move(promise)]() mutable {
        const BrokenPipeGuard guard;
        promise.set_value(ConnectionHandle(xcb_connect(display.constData(), nullptr)));
    });
    if (connecting.wait_for(answerLimit) != std::future_status::ready) {
        thread.detach();
        return nullptr;
    }
    thread.join();
    ConnectionHandle handle = connecting.get();
    if (xcb_connection_has_error(handle.get()))
        return nullptr;
    return handle;
}

/// What an answer or event takes in the stream, told by its first 32 bytes.
size_t packetSize(const uchar* start)
{
    static constexpr size_t unit = 32;
    const int type = start[0] & 0x7f;
    if (type != 1 && type != XCB_GE_GENERIC) // neither a reply nor an event of any length
        return unit;
    quint32 furtherWords = 0;
    std::memcpy(&furtherWords, start + 4, sizeof(furtherWords));
    return unit + size_t(furtherWords) * 4;
}

bool waitForDescriptor(int descriptor, short events, QDeadlineTimer deadline)
{
    for (;;) {
        pollfd waiting{descriptor, events, 0};
        const int ready = ::poll(&waiting, 1, int(deadline.remainingTime()));
        if (ready > 0)
            return true; // also when the connection broke: libxcb then finds out
        if (ready == 0 || errno != EINTR)
            return false;
    }
}

}

std::unique_ptr<Connection> Connection::open()
{
    const QByteArray display = qgetenv("DISPLAY");
    if (display.isEmpty())
        return nullptr;
    try {
        ConnectionHandle handle = connectToDisplay(display);
        if (!handle)
            return nullptr;
        std::unique_ptr<Connection> connection(new Connection(std::move(handle)));
        return connection->queryExtensions() ? std::move(connection) : nullptr;
    } catch (const std::system_error&) { // the system has no thread left
        return nullptr;
    }
}

bool Connection::queryExtensions()
{
    xcb_prefetch_extension_data(xcb(), &xcb_composite_id);
    xcb_prefetch_extension_data(xcb(), &xcb_shm_id);
    xcb_prefetch_extension_data(xcb(), &xcb_damage_id);
    if (!synchronise())
        return false;

    const auto isPresent = [this](xcb_extension_t& extension) {
        const xcb_query_extension_reply_t* data = xcb_get_extension_data(xcb(), &extension);
        return data && data->present;
    };
    if (isPresent(xcb_composite_id)) {
        Request<xcb_composite_query_version_reply_t> request(*this, xcb_composite_query_version(xcb(), 0, 4));
        const auto version = request.reply();
        extensions_.composite = version && (version->major_version > 0 || version->minor_version >= 2);
    }
    if (isPresent(xcb_shm_id)) {
        Request<xcb_shm_query_version_reply_t> request(*this, xcb_shm_query_version(xcb()));
        const auto version = request.reply();
        extensions_.sharedMemory = version != nullptr;
        extensions_.sharedMemoryByDescriptor
            = version && (version->major_version > 1 || (version->major_version == 1 && version->minor_version >= 2));
    }
    if (isPresent(xcb_damage_id)) {
        Request<xcb_damage_query_version_reply_t> request(*this, xcb_damage_query_version(xcb(), 1, 1));
        if (request.reply())
            extensions_.damageNotify = xcb_get_extension_data(xcb(), &xcb_damage_id)->first_event + XCB_DAMAGE_NOTIFY;
    }
    return isResponsive();
}

bool Connection::isLocal() const
{
    sockaddr_storage peer{};
    socklen_t size = sizeof(peer);
    return ::getpeername(xcb_get_file_descriptor(xcb()), reinterpret_cast<sockaddr*>(&peer), &size) == 0
        && peer.ss_family == AF_UNIX;
}

bool Connection::recover()
{
    const QDeadlineTimer now(0);
    if (overdue_ && flush(now) && waitForWholePackets(now)) {
        readAvailable();
        Answer late;
        if (pollAnswer(*overdue_, late))
            overdue_.reset();
    }
    return isResponsive();
}

bool Connection::synchronise()
{
    return Request<xcb_get_input_focus_reply_t>(*this, xcb_get_input_focus(xcb())).reply() != nullptr;
}

Connection::Answer Connection::awaitAnswer(unsigned sequence)
{
    Answer answer;
    if (!isResponsive())
        return answer;

    const QDeadlineTimer deadline(answerLimit);
    bool inTime = flush(deadline);
    while (inTime && !pollAnswer(sequence, answer)) {
        inTime = waitForDescriptor(xcb_get_file_descriptor(xcb()), POLLIN, deadline) && waitForWholePackets(deadline);
        if (inTime)
            readAvailable();
    }
    if (!inTime) {
        overdue_ = sequence;
        answer.state = Answer::State::Overdue;
    }
    return answer;
}

std::vector<Allocated<xcb_generic_event_t>> Connection::takeEvents()
{
    while (xcb_generic_event_t* event = xcb_poll_for_queued_event(xcb()))
        events_.emplace_back(event);
    return std::exchange(events_, {});
}

/// A socket reports itself writable only while it has room for much more than one round of requests, so that
/// xcb_flush(), which would wait without a bound, does not have to wait.
bool Connection::flush(QDeadlineTimer deadline)
{
    if (!waitForDescriptor(xcb_get_file_descriptor(xcb()), POLLOUT, deadline) || !waitForWholePackets(deadline))
        return false;
    const BrokenPipeGuard guard;
    xcb_flush(xcb());
    return true;
}

/// Servers write the header and the body of a long answer apart, and can stop in between.
bool Connection::waitForWholePackets(QDeadlineTimer deadline)
{
    static constexpr int impatientLooks = 100; // the body follows at once, when the server does not stop
    for (int looks = 0; !onlyWholePacketsWait(); ++looks) {
        if (deadline.hasExpired())
            return false;
        if (looks < impatientLooks)
            std::this_thread::yield();
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// True, too, when nothing waits or the connection is broken: libxcb then reads without waiting.
bool Connection::onlyWholePacketsWait()
{
    const int descriptor = xcb_get_file_descriptor(xcb());
    int available = 0;
    if (::ioctl(descriptor, FIONREAD, &available) != 0 || available <= 0)
        return true;
    peeked_.resize(size_t(available));
    const ssize_t count = ::recv(descriptor, peeked_.data(), peeked_.size(), MSG_PEEK | MSG_DONTWAIT);
    if (count <= 0)
        return true;
    size_t end = 0;
    while (end + 32 <= size_t(count))
        end += packetSize(peeked_.data() + end);
    return end == size_t(count);
}

/// libxcb reads from the socket only when it is asked for an event and has none left.
void Connection::readAvailable()
{
    while (xcb_generic_event_t* event = xcb_poll_for_event(xcb()))
        events_.emplace_back(event);
}

bool Connection::pollAnswer(unsigned sequence, Answer& answer)
{
    void* reply = nullptr;
    xcb_generic_error_t* error = nullptr;
    if (!xcb_poll_for_reply(xcb(), sequence, &reply, &error))
        return false;
    answer.reply.reset(reply);
    const Allocated<xcb_generic_error_t> ownedError(error);
    answer.errorCode = error ? error->error_code : 0;
    if (!xcb_connection_has_error(xcb()))
        answer.state = Answer::State::Arrived;
    return true;
}

}

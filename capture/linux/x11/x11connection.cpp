// Opening and waiting, each with a bound.
//
// Some calls of libxcb can block without a limit; none of them is used here on the caller's thread. Reading and
// writing go through the Transport. xcb_wait_for_reply() and xcb_request_check() are replaced by xcb_poll_for_reply()
// and a wait with a limit. xcb_get_extension_data(), which every request of an extension calls, does not block once
// the extension was prefetched and a later answer has arrived. xcb_connect() has no bounded form and runs on its own
// thread.
#include "x11connection.h"

#include <QByteArray>

#include <xcb/composite.h>
#include <xcb/damage.h>
#include <xcb/shm.h>
#include <xcb/xcbext.h>

#include <csignal>
#include <future>
#include <system_error>
#include <thread>

namespace x11 {

namespace {

/// Null when the display refuses, or takes longer than the limit. In the latter case the thread stays until the
/// server answers or ends, and then closes the connection, which is no longer needed.
DisplayHandle connectToDisplay(const QByteArray& display)
{
    std::promise<DisplayHandle> promise;
    std::future<DisplayHandle> connecting = promise.get_future();
    std::thread thread([display, promise = std::move(promise)]() mutable {
        sigset_t brokenPipe; // libxcb may write to a server that has just died
        sigemptyset(&brokenPipe);
        sigaddset(&brokenPipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &brokenPipe, nullptr);
        promise.set_value(DisplayHandle(xcb_connect(display.constData(), nullptr)));
    });
    if (connecting.wait_for(answerLimit) != std::future_status::ready) {
        thread.detach();
        return nullptr;
    }
    thread.join();
    DisplayHandle handle = connecting.get();
    if (xcb_connection_has_error(handle.get()))
        return nullptr;
    return handle;
}

}

std::unique_ptr<DisplayConnection> DisplayConnection::open()
{
    const QByteArray display = qgetenv("DISPLAY");
    if (display.isEmpty())
        return nullptr;
    try {
        DisplayHandle handle = connectToDisplay(display);
        std::unique_ptr<Transport> line = handle ? Transport::insert(handle.get()) : nullptr;
        if (!line)
            return nullptr;
        std::unique_ptr<DisplayConnection> connection(new DisplayConnection(std::move(handle), std::move(line)));
        return connection->queryExtensions() ? std::move(connection) : nullptr;
    } catch (const std::system_error&) { // the system has no thread left
        return nullptr;
    }
}

bool DisplayConnection::queryExtensions()
{
    // It does not tell when it was refused the memory, so it is asked twice; what it has already costs nothing.
    for (xcb_extension_t* const extension :
        {&xcb_composite_id, &xcb_shm_id, &xcb_damage_id, &xcb_composite_id, &xcb_shm_id, &xcb_damage_id})
        xcb_prefetch_extension_data(xcb(), extension);
    if (!synchronise())
        return false;

    // Null as well when the connection has broken meanwhile.
    const auto dataOf = [this](xcb_extension_t& extension) {
        const xcb_query_extension_reply_t* data = xcb_get_extension_data(xcb(), &extension);
        return data && data->present ? data : nullptr;
    };
    if (dataOf(xcb_composite_id)) {
        Request<xcb_composite_query_version_reply_t> request(*this, xcb_composite_query_version(xcb(), 0, 4));
        const auto version = request.reply();
        extensions_.composite = version && (version->major_version > 0 || version->minor_version >= 2);
    }
    if (const auto* const data = dataOf(xcb_shm_id)) {
        extensions_.badSegment = quint8(data->first_error + XCB_SHM_BAD_SEG);
        Request<xcb_shm_query_version_reply_t> request(*this, xcb_shm_query_version(xcb()));
        const auto version = request.reply();
        extensions_.sharedMemory = version != nullptr;
        extensions_.sharedMemoryByDescriptor
            = version && (version->major_version > 1 || (version->major_version == 1 && version->minor_version >= 2));
    }
    if (const auto* const data = dataOf(xcb_damage_id)) {
        const int notify = data->first_event + XCB_DAMAGE_NOTIFY;
        Request<xcb_damage_query_version_reply_t> request(*this, xcb_damage_query_version(xcb(), 1, 1));
        if (request.reply())
            extensions_.damageNotify = notify;
    }
    return isResponsive();
}

bool DisplayConnection::recover()
{
    if (overdue_) {
        exchange();
        Answer late;
        if (pollAnswer(*overdue_, late))
            overdue_.reset();
    }
    return isResponsive();
}

bool DisplayConnection::synchronise()
{
    return Request<xcb_get_input_focus_reply_t>(*this, xcb_get_input_focus(xcb())).reply() != nullptr;
}

DisplayConnection::Answer DisplayConnection::awaitAnswer(unsigned sequence)
{
    Answer answer;
    if (!isResponsive())
        return answer;

    const QDeadlineTimer deadline(answerLimit);
    xcb_flush(xcb()); // into the Transport, which always has room
    exchange();
    while (!pollAnswer(sequence, answer)) {
        if (!line_->wait(deadline)) {
            overdue_ = sequence;
            answer.state = Answer::State::Overdue;
            break;
        }
        exchange();
    }
    return answer;
}

std::vector<Allocated<xcb_generic_event_t>> DisplayConnection::takeEvents()
{
    while (xcb_generic_event_t* event = xcb_poll_for_queued_event(xcb()))
        events_.emplace_back(event);
    return std::exchange(events_, {});
}

void DisplayConnection::exchange()
{
    line_->exchange();
    bool handedOver = false;
    do {
        handedOver = line_->handOverPackets();
        // libxcb reads only when it is asked for an event and has none left.
        while (xcb_generic_event_t* event = xcb_poll_for_event(xcb()))
            events_.emplace_back(event);
    } while (handedOver);
}

bool DisplayConnection::pollAnswer(unsigned sequence, Answer& answer)
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

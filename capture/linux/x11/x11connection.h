// DisplayConnection: a connection to the X server that never waits without a bound and never ends the process, and
// the requests made on it.
#pragma once

#include "x11transport.h"
#include "xcbhandles.h"

#include <QtGlobal>

#include <xcb/xcb.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace x11 {

/// How long the X server may take: to accept a connection, and to answer a request.
inline constexpr std::chrono::milliseconds answerLimit{2000};

/// What the X server offers.
struct Extensions {
    bool composite = false; ///< 0.2 or later: windows have pixmaps that can be named
    bool sharedMemory = false;
    bool sharedMemoryByDescriptor = false; ///< 1.2 or later
    quint8 badSegment = 0; ///< error code for shared memory that the server does not know; 0 without the extension
    std::optional<quint8> damageNotify; ///< event code; nothing without the extension
};

/**
 * Made on one thread, then used from one thread at a time. Everything that was made on the server through it goes
 * with it. After the server has failed to answer in time the connection is unresponsive: it sends nothing and waits
 * for nothing until recover() finds the overdue answer. So at most one round of requests is ever unanswered, and
 * these are small.
 */
class DisplayConnection {
public:
    /// The display that DISPLAY names, or null when it cannot be reached or does not answer.
    static std::unique_ptr<DisplayConnection> open();

    xcb_connection_t* xcb() const { return handle_.get(); }
    const Extensions& extensions() const { return extensions_; }
    /// The server is on this machine, behind a Unix socket.
    bool isLocal() const { return line_->isLocal(); }
    /// The process that serves the display on this machine; 0 when it is unknown.
    qint64 serverProcess() const { return line_->serverProcess(); }
    /// The server has ended the connection: it died, or another client had it ended.
    bool isLost() const { return xcb_connection_has_error(xcb()); }

    /// Whether the server answered last time; stays false once the connection is lost.
    bool isResponsive() const { return !overdue_ && !xcb_connection_has_error(xcb()); }
    /// Checks whether an unresponsive server has answered meanwhile; does not wait. Returns isResponsive().
    bool recover();

    /// Waits until the server has processed everything that was sent.
    bool synchronise();

    struct Answer {
        enum class State {
            Arrived,
            Overdue, ///< it did not come in time; recover() will take it
            NotAwaited, ///< the connection is unresponsive or lost
        };
        State state = State::NotAwaited;
        Allocated<void> reply; ///< null for a request without reply, and when there is no answer
        quint8 errorCode = 0; ///< 0 when the server reported no error
    };
    /// Sends what is queued and waits for the answer to one request. A request without a reply is answered as soon
    /// as the answer to a later one is there, and must not be waited for earlier.
    Answer awaitAnswer(unsigned sequence);

    /// The events that arrived up to now; nothing is read from the server. Late errors are among them.
    std::vector<Allocated<xcb_generic_event_t>> takeEvents();

private:
    DisplayConnection(DisplayHandle handle, std::unique_ptr<Transport> line)
        : handle_(std::move(handle)), line_(std::move(line))
    {
    }

    bool queryExtensions();
    void exchange();
    bool pollAnswer(unsigned sequence, Answer& answer);

    DisplayHandle handle_;
    std::unique_ptr<Transport> line_;
    Extensions extensions_;
    std::optional<unsigned> overdue_; ///< sequence number of the request whose answer did not come in time
    std::vector<Allocated<xcb_generic_event_t>> events_;
};

/// A request with a reply of type T, or (void) a checked one without. An answer that was not taken is discarded, so
/// that it does not pile up in the connection. The connection outlives it.
template <typename T>
class Request {
public:
    template <typename Cookie>
    Request(DisplayConnection& connection, Cookie cookie) : connection_(connection), sequence_(cookie.sequence)
    {
    }
    ~Request()
    {
        if (!settled_)
            xcb_discard_reply(connection_.xcb(), sequence_);
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    /// Waits, once. Null when the server reported an error, did not answer in time or is gone.
    Allocated<T> reply()
    {
        DisplayConnection::Answer answer = takeAnswer();
        return Allocated<T>(static_cast<T*>(answer.reply.release()));
    }

    /// Waits, once; for a request without a reply, see DisplayConnection::awaitAnswer().
    bool succeeded()
    {
        const DisplayConnection::Answer answer = takeAnswer();
        return answer.state == DisplayConnection::Answer::State::Arrived && answer.errorCode == 0;
    }

    /// The error that the server reported, 0 when none; after reply() or succeeded().
    quint8 errorCode() const { return errorCode_; }

private:
    DisplayConnection::Answer takeAnswer()
    {
        DisplayConnection::Answer answer = connection_.awaitAnswer(sequence_);
        settled_ = answer.state != DisplayConnection::Answer::State::NotAwaited;
        errorCode_ = answer.errorCode;
        return answer;
    }

    DisplayConnection& connection_;
    unsigned sequence_;
    bool settled_ = false; // nothing is left to discard
    quint8 errorCode_ = 0;
};

}

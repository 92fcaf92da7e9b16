// Transport: the socket between libxcb and the X server, made so that neither can hold up this process.
#pragma once

#include "descriptor.h"

#include <QDeadlineTimer>
#include <QtGlobal>

#include <xcb/xcb.h>

#include <memory>
#include <vector>

namespace x11 {

/**
 * libxcb, once it has the beginning of an answer, waits for the rest without a bound, and servers write header and
 * body of an answer apart. It also waits until the server has taken a request, and it writes so that a server that
 * has just died can end the process (SIGPIPE). Therefore libxcb gets one end of a pair of sockets in place of its
 * own. The line holds the other end and the server's socket, passes on what comes, and hands libxcb whole packets
 * only (replies, events, errors). No method but wait() waits.
 */
class Transport {
public:
    /// For a connection that is open and idle. Null when the system has no descriptor left.
    static std::unique_ptr<Transport> insert(xcb_connection_t* connection);
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;

    /// The server is on this machine, behind a Unix socket.
    bool isLocal() const;
    /// The process at the other end; 0 when it is unknown.
    qint64 serverProcess() const;

    /// Passes on what libxcb has written, and receives what the server has sent. What cannot be passed on yet is
    /// kept.
    void exchange();

    /// Hands whole packets to libxcb, which has to read them before the next call. False when there are none. When
    /// the server has ended, libxcb then sees the end of the stream.
    bool handOverPackets();

    /// Waits until there is something to exchange; false when the time is over.
    bool wait(QDeadlineTimer deadline) const;

private:
    Transport(Descriptor server, Descriptor library);

    void takeRequests();
    void sendRequests();
    void receive();
    void discardHandedOver(size_t size);

    Descriptor server_;
    Descriptor library_; ///< the other end of libxcb's
    std::vector<uchar> requests_; ///< not yet sent
    std::vector<Descriptor> attached_; ///< sent with them; at most one, as nothing is queued behind an unsent one
    std::vector<uchar> packets_; ///< received; what is not yet handed over begins with the beginning of a packet
    size_t handedOver_ = 0; ///< of them, bytes
    bool serverGone_ = false;
};

}

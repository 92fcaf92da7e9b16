// Passing on, in both directions.
#include "x11transport.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace x11 {

namespace {

constexpr size_t unitSize = 32; ///< of a packet, at least

/// What libxcb reads at a time.
constexpr size_t portionSize = size_t(16) * 1024;

/// The size of a packet, from its first 32 bytes.
size_t packetSize(const uchar* start)
{
    const int type = start[0] & 0x7f;
    if (type != 1 && type != XCB_GE_GENERIC) // neither a reply nor an event of any length
        return unitSize;
    quint32 furtherWords = 0;
    std::memcpy(&furtherWords, start + 4, sizeof(furtherWords));
    return unitSize + size_t(furtherWords) * 4;
}

/// A message of one piece of data, with room for descriptors beside it.
struct Message {
    static constexpr size_t mostDescriptors = 16; // as libxcb

    Message(void* data, size_t size) : part{data, size}
    {
        header.msg_iov = &part;
        header.msg_iovlen = 1;
    }

    void attach(const std::vector<Descriptor>& descriptors)
    {
        header.msg_control = control.data();
        header.msg_controllen = CMSG_SPACE(descriptors.size() * sizeof(int));
        cmsghdr* rights = CMSG_FIRSTHDR(&header);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(descriptors.size() * sizeof(int));
        for (size_t i = 0; i < descriptors.size(); ++i) {
            const int number = descriptors[i].number();
            std::memcpy(CMSG_DATA(rights) + i * sizeof(int), &number, sizeof(int));
        }
    }

    void detachTo(std::vector<Descriptor>& descriptors)
    {
        for (cmsghdr* rights = CMSG_FIRSTHDR(&header); rights; rights = CMSG_NXTHDR(&header, rights)) {
            if (rights->cmsg_level != SOL_SOCKET || rights->cmsg_type != SCM_RIGHTS)
                continue;
            const size_t count = (rights->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (size_t i = 0; i < count; ++i) {
                int number = -1;
                std::memcpy(&number, CMSG_DATA(rights) + i * sizeof(int), sizeof(int));
                descriptors.emplace_back(number);
            }
        }
    }

    iovec part;
    msghdr header{};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(mostDescriptors * sizeof(int))> control{};
};

}

std::unique_ptr<Transport> Transport::insert(xcb_connection_t* connection)
{
    const int number = xcb_get_file_descriptor(connection);
    Descriptor server(::fcntl(number, F_DUPFD_CLOEXEC, 0));
    int ends[2] = {-1, -1};
    if (!server.isValid() || ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0)
        return nullptr;
    const Descriptor libraryEnd(ends[0]);
    Descriptor ownEnd(ends[1]);
    if (::dup3(libraryEnd.number(), number, O_CLOEXEC) < 0) // libxcb knows the connection by its number only
        return nullptr;
    return std::unique_ptr<Transport>(new Transport(std::move(server), std::move(ownEnd)));
}

Transport::Transport(Descriptor server, Descriptor library) : server_(std::move(server)), library_(std::move(library))
{
}

bool Transport::isLocal() const
{
    sockaddr_storage peer{};
    socklen_t size = sizeof(peer);
    return ::getpeername(server_.number(), reinterpret_cast<sockaddr*>(&peer), &size) == 0
        && peer.ss_family == AF_UNIX;
}

qint64 Transport::serverProcess() const
{
    ucred peer{};
    socklen_t size = sizeof(peer);
    return isLocal() && ::getsockopt(server_.number(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 ? peer.pid : 0;
}

bool Transport::wait(QDeadlineTimer deadline) const
{
    const short events = requests_.empty() ? POLLIN : POLLIN | POLLOUT;
    while (!deadline.hasExpired()) { // checked each time: events that keep coming must not prolong the wait
        pollfd waiting{server_.number(), events, 0};
        const int ready = ::poll(&waiting, 1, int(deadline.remainingTime()));
        if (ready > 0)
            return true; // also when the server has ended: receive() finds that out
        if (ready < 0 && errno != EINTR)
            return false;
    }
    return false;
}

void Transport::exchange()
{
    takeRequests();
    sendRequests();
    receive();
}

void Transport::takeRequests()
{
    std::array<uchar, portionSize> portion;
    for (;;) {
        Message message(portion.data(), portion.size());
        message.header.msg_control = message.control.data();
        message.header.msg_controllen = message.control.size();
        const ssize_t size = ::recvmsg(library_.number(), &message.header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (size <= 0)
            return;
        requests_.insert(requests_.end(), portion.begin(), portion.begin() + size);
        message.detachTo(attached_);
    }
}

void Transport::sendRequests()
{
    while (!requests_.empty() && !serverGone_) {
        Message message(requests_.data(), requests_.size());
        if (!attached_.empty())
            message.attach(attached_);
        const ssize_t size = ::sendmsg(server_.number(), &message.header, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (size < 0) {
            serverGone_ = errno != EAGAIN && errno != EINTR;
            return;
        }
        attached_.clear();
        requests_.erase(requests_.begin(), requests_.begin() + size);
    }
}

void Transport::receive()
{
    while (!serverGone_) {
        const size_t before = packets_.size();
        packets_.resize(before + portionSize);
        const ssize_t size = ::recv(server_.number(), packets_.data() + before, portionSize, MSG_DONTWAIT);
        packets_.resize(before + size_t(std::max<ssize_t>(size, 0)));
        if (size < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        serverGone_ = size <= 0;
        if (size < ssize_t(portionSize))
            return;
    }
}

bool Transport::handOverPackets()
{
    const uchar* waiting = packets_.data() + handedOver_;
    const size_t available = packets_.size() - handedOver_;
    size_t size = 0;
    while (size + unitSize <= available) {
        const size_t next = size + packetSize(waiting + size);
        if (next > available || (size > 0 && next > portionSize))
            break;
        size = next;
    }
    if (size > 0) {
        const ssize_t sent = ::send(library_.number(), waiting, size, MSG_DONTWAIT | MSG_NOSIGNAL);
        discardHandedOver(size);
        serverGone_ = serverGone_ || sent != ssize_t(size); // a socket without room for one answer is useless
    }
    if (serverGone_)
        ::shutdown(library_.number(), SHUT_WR);
    return size > 0;
}

/// Only when there is as much of it as of the rest: any client can send us so many events that moving the rest each
/// time would take for ever.
void Transport::discardHandedOver(size_t size)
{
    handedOver_ += size;
    if (handedOver_ * 2 < packets_.size())
        return;
    packets_.erase(packets_.begin(), packets_.begin() + ssize_t(handedOver_));
    handedOver_ = 0;
}

}

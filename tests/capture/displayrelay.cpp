// The relay's sockets and its thread.
#include "displayrelay.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int pollMs = 5;
constexpr int firstNumber = 20'000; // of displays; no X server chooses such
constexpr int lastNumber = 20'999;
constexpr qsizetype headerSize = 32;

/// Where the display of that name listens: a name that starts with a zero byte, so that no file is left behind.
sockaddr_un socketAddress(const QByteArray& display)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path + 1, "/tmp/.X11-unix/X" + display.mid(1), sizeof(address.sun_path) - 1);
    return address;
}

socklen_t addressSize(const sockaddr_un& address)
{
    return socklen_t(offsetof(sockaddr_un, sun_path) + 1 + qstrlen(address.sun_path + 1));
}

bool writeAll(int descriptor, const char* data, qsizetype size)
{
    while (size > 0) {
        const ssize_t written = ::send(descriptor, data, size_t(size), MSG_NOSIGNAL);
        if (written <= 0)
            return false;
        data += written;
        size -= written;
    }
    return true;
}

}

DisplayRelay::DisplayRelay(const QByteArray& target) : target_(target)
{
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int number = firstNumber;
    sockaddr_un address{};
    do {
        display_ = ':' + QByteArray::number(number);
        address = socketAddress(display_);
    } while (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), addressSize(address)) != 0
        && ++number <= lastNumber);
    if (number > lastNumber || ::listen(listener_, 4) != 0) {
        error_ = QStringLiteral("No relay: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
        return;
    }
    thread_ = std::thread([this] { relay(); });
}

DisplayRelay::~DisplayRelay()
{
    ending_ = true;
    if (thread_.joinable())
        thread_.join();
    ::close(listener_);
}

void DisplayRelay::holdNextAnswer(int leastSize)
{
    holdFrom_ = leastSize;
}

void DisplayRelay::release()
{
    holding_ = false;
}

void DisplayRelay::relay()
{
    pollfd waiting{listener_, POLLIN, 0};
    while (::poll(&waiting, 1, pollMs) <= 0) {
        if (ending_)
            return;
    }
    const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    const int server = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = socketAddress(target_);
    bool going = ::connect(server, reinterpret_cast<const sockaddr*>(&address), addressSize(address)) == 0;
    while (going && !ending_) {
        std::array<pollfd, 2> ends{{{client, POLLIN, 0}, {server, short(holding_ ? 0 : POLLIN), 0}}};
        ::poll(ends.data(), ends.size(), pollMs);
        if (!holding_ && !held_.isEmpty()) {
            going = writeAll(client, held_.constData(), held_.size());
            held_.clear();
        }
        if (going && ends[0].revents)
            going = passToServer(client, server);
        if (going && !holding_ && ends[1].revents)
            going = passToClient(client, server);
    }
    ::close(client);
    ::close(server);
}

bool DisplayRelay::passToServer(int client, int server)
{
    std::array<char, 16384> buffer;
    const ssize_t size = ::recv(client, buffer.data(), buffer.size(), 0);
    return size > 0 && writeAll(server, buffer.data(), size);
}

bool DisplayRelay::passToClient(int client, int server)
{
    std::array<char, 65536> buffer;
    const ssize_t size = ::recv(server, buffer.data(), buffer.size(), 0);
    if (size <= 0)
        return false;
    const int holdFrom = holdFrom_;
    if (holdFrom == 0 || size < holdFrom)
        return writeAll(client, buffer.data(), size);
    holdFrom_ = 0;
    const qsizetype passed = std::min<qsizetype>(size, headerSize);
    held_ = QByteArray(buffer.data() + passed, size - passed);
    holding_ = true;
    return writeAll(client, buffer.data(), passed);
}

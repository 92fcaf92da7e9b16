// FullBacklog: a control socket that takes no connection until it is told to.
#pragma once

#include <QByteArray>
#include <QList>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/// Listens under a path of its own, in place of what is there, with its queue of connections filled by itself:
/// everybody else's attempt to connect is told to try again. One thread.
class FullBacklog {
public:
    /// The socket belongs to `user`, who is another one only where root runs the test.
    explicit FullBacklog(const QByteArray& path, uid_t user = ::geteuid())
    {
        std::signal(SIGPIPE, SIG_IGN); // whom it accepts may have gone
        address_.sun_family = AF_UNIX;
        qstrncpy(address_.sun_path, path.constData(), sizeof(address_.sun_path));
        ::unlink(path.constData());
        listener_ = newSocket();
        const uid_t self = ::geteuid();
        isFull_ = ::bind(listener_, name(), sizeof(address_)) == 0 && ::seteuid(user) == 0
            && ::listen(listener_, 0) == 0 && ::seteuid(self) == 0 && fill();
    }
    ~FullBacklog()
    {
        for (const int descriptor : accepted_ + fillers_ + QList<int>{listener_})
            ::close(descriptor);
    }
    FullBacklog(const FullBacklog&) = delete;
    FullBacklog& operator=(const FullBacklog&) = delete;

    bool isFull() const { return isFull_; }

    /// Takes every connection that waits, and sends each the bytes.
    void acceptAll(const QByteArray& bytes)
    {
        for (int next = -1; (next = ::accept(listener_, nullptr, nullptr)) >= 0;) {
            accepted_.append(next);
            static_cast<void>(::write(next, bytes.constData(), std::size_t(bytes.size())));
        }
    }

    /// How many of the accepted connections came from elsewhere.
    qsizetype strangers() const { return accepted_.size() - fillers_.size(); }

private:
    static int newSocket()
    {
        const int descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
        ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
        ::fcntl(descriptor, F_SETFL, O_NONBLOCK);
        return descriptor;
    }
    const sockaddr* name() const { return reinterpret_cast<const sockaddr*>(&address_); }

    bool fill()
    {
        constexpr int more = 100;
        for (int i = 0; i < more; ++i) {
            const int filler = newSocket();
            if (::connect(filler, name(), sizeof(address_)) != 0) {
                const bool full = errno == EAGAIN || errno == ECONNREFUSED; // on Linux; elsewhere
                ::close(filler);
                return full;
            }
            fillers_.append(filler);
        }
        return false;
    }

    sockaddr_un address_{};
    int listener_ = -1;
    bool isFull_ = false;
    QList<int> fillers_;
    QList<int> accepted_;
};

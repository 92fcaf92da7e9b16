// The two variables of the environment.
#include "windowsourcechoice.h"

#include <QByteArray>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace wayland {

namespace {

int socketOption(int descriptor, int name)
{
    int value = -1;
    socklen_t size = sizeof(value);
    return ::getsockopt(descriptor, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
}

/// Of a local stream socket that is connected; anything else would be written to, or closed, by mistake.
bool isConnection(int descriptor)
{
    sockaddr_storage peer{};
    socklen_t size = sizeof(peer);
    return socketOption(descriptor, SO_DOMAIN) == AF_UNIX && socketOption(descriptor, SO_TYPE) == SOCK_STREAM
        && socketOption(descriptor, SO_ACCEPTCONN) == 0
        && ::getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &size) == 0;
}

}

SourceKind chosenSource()
{
    const QByteArray value = qgetenv("ORVANTIS_WINDOW_SOURCE");
    if (value.isEmpty() || value == "x11")
        return SourceKind::X11;
    return value == "pipewire" ? SourceKind::PipeWire : SourceKind::Unknown;
}

InheritedConnection inheritedConnection()
{
    const QByteArray value = qgetenv("ORVANTIS_PIPEWIRE_FD");
    if (value.isEmpty())
        return {};
    bool isNumber = false;
    const int descriptor = value.toInt(&isNumber);
    if (!isNumber || descriptor <= STDERR_FILENO || !isConnection(descriptor)
        || ::fcntl(descriptor, F_SETFD, FD_CLOEXEC) != 0) {
        return {-1,
            QStringLiteral("ORVANTIS_PIPEWIRE_FD is not the descriptor of a connected local socket: ")
                + QString::fromLocal8Bit(value)};
    }
    return {descriptor, QString()};
}

}

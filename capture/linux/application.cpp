// The process on Linux: no Dock, no bundles; peers of a local socket are known to the kernel.
#include "platform/application.h"
#include "platform/recordinghold.h"

#include <QByteArray>

#include <sys/socket.h>
#include <unistd.h>

namespace platform {

// Qt's default on Linux aborts the process when there is no display. The recorder shows nothing, and it opens its own
// connection to the X server, so it needs none; "minimal" is the plug-in that starts fastest.
void chooseGuiPlatform()
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "minimal");
}

void becomeAccessory() { }

// A session ends with signals here, and nothing is slowed down.
struct RecordingHold::Impl { };

RecordingHold::RecordingHold(const std::function<void()>&) { }

RecordingHold::~RecordingHold() = default;

QString mainBundleString(const char*)
{
    return QString();
}

std::optional<quint32> peerUserId(qintptr socketDescriptor)
{
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (::getsockopt(int(socketDescriptor), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return std::nullopt;
    if (peer.uid == uid_t(-1)) // what the kernel says of a socket without a peer, or without credentials
        return std::nullopt;
    return peer.uid;
}

quint32 ownUserId()
{
    return ::geteuid();
}

std::optional<quint32> administratorsGroup()
{
    return std::nullopt;
}

}

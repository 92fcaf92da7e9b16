// The process on the Mac, in Qt's types; peers of a local socket are known to the kernel.
#include "platform/application.h"

#include "appkit.h"

#include <QByteArray>

#include <unistd.h>

namespace platform {

// Qt would make the process the active application as soon as the event loop runs, although it shows nothing: the
// window that is recorded would lose the keyboard, and show it.
void chooseGuiPlatform()
{
    static constexpr auto stayInBackground = "QT_MAC_DISABLE_FOREGROUND_APPLICATION_TRANSFORM";
    if (qEnvironmentVariableIsEmpty(stayInBackground))
        qputenv(stayInBackground, "1");
}

void becomeAccessory()
{
    macos::becomeAccessory();
}

QString mainBundleString(const char* selectorName)
{
    return QString::fromStdString(macos::mainBundleString(selectorName));
}

std::optional<quint32> peerUserId(qintptr socketDescriptor)
{
    uid_t user = 0;
    gid_t group = 0;
    if (::getpeereid(int(socketDescriptor), &user, &group) != 0)
        return std::nullopt;
    return user;
}

quint32 ownUserId()
{
    return ::geteuid();
}

// The system compresses and swaps before it ends anybody, so no figure of the moment says what can be taken. A
// quarter of what is built in leaves the other programs alone.
std::optional<qint64> availableMemory()
{
    const long pages = ::sysconf(_SC_PHYS_PAGES);
    const long pageBytes = ::sysconf(_SC_PAGESIZE);
    return pages > 0 && pageBytes > 0 ? std::optional(qint64(pages) * pageBytes / 4) : std::nullopt;
}

// Its members may write into /Applications.
std::optional<quint32> administratorsGroup()
{
    constexpr quint32 admin = 80;
    return admin;
}

}

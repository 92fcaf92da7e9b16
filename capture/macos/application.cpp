// The process on the Mac, in Qt's types; peers of a local socket are known to the kernel.
#include "platform/application.h"

#include "appkit.h"

#include <unistd.h>

namespace platform {

// Qt's default is the one that makes the process an application of the desktop.
void chooseGuiPlatform() { }

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

}

// The process on the Mac: what AppKit, the main bundle and the kernel tell of it and do with it.
#include "platform/application.h"

#include "nstext.h"

#import <AppKit/AppKit.h>
#import <objc/runtime.h>

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

// Skipped where the system has no application object.
void becomeAccessory()
{
    @autoreleasepool {
        const Class type = objc_getClass("NSApplication");
        if (![type respondsToSelector:@selector(sharedApplication)])
            return;
        NSApplication* application = [type sharedApplication];
        if ([application respondsToSelector:@selector(setActivationPolicy:)])
            [application setActivationPolicy:NSApplicationActivationPolicyAccessory];
    }
}

QString mainBundleString(const char* selectorName)
{
    @autoreleasepool {
        const Class type = objc_getClass("NSBundle");
        const SEL selector = sel_registerName(selectorName);
        if (!selector || ![type respondsToSelector:@selector(mainBundle)])
            return QString();
        NSBundle* bundle = [type mainBundle];
        if (![bundle respondsToSelector:selector])
            return QString();
        const id value = [bundle performSelector:selector];
        return [value respondsToSelector:@selector(UTF8String)] ? macos::text(value) : QString();
    }
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

// The seam between the process and the operating system's idea of an application. Each platform folder defines
// all of it; which one is used is decided at link time.
#pragma once

#include <QString>

#include <optional>

namespace platform {

/// Call it before the application object exists. Sets those of Qt's environment variables that are not set yet, so
/// that the process needs no display for itself and does not come to the front. Main thread.
void chooseGuiPlatform();

/// Makes the process an accessory: no Dock icon, no menu bar. Does nothing where the system has no such thing.
void becomeAccessory();

/// The main bundle's property of that selector name ("bundleIdentifier", "bundlePath", "executablePath") as text;
/// empty when there is no bundle, no such property, or the platform knows no bundles.
QString mainBundleString(const char* selectorName);

/// The user id of the process at the other end of a connected local socket, or nothing when it is unknown.
std::optional<quint32> peerUserId(qintptr socketDescriptor);

/// The user id that this process acts with (the effective one).
quint32 ownUserId();

/// Bytes of memory that this process can still take before the system, or a limit that was set for it, makes it or
/// others suffer; nothing when the system does not tell. Any thread; takes well below a millisecond.
std::optional<qint64> availableMemory();

/// The group whose members administer the machine, and so can become root, where the system has one by its number.
std::optional<quint32> administratorsGroup();

}

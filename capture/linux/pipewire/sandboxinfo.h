// What the sandbox of a process says about it: the file .flatpak-info in the process's root directory.
#pragma once

#include <QByteArrayView>
#include <QString>

namespace sandboxinfo {

/// The id of the application in the text of such a file: the first "name" in the section "Application". Empty when
/// there is none that looks like an id. Values of other kinds are not interpreted.
QString parseApplicationId(QByteArrayView text);

/// The id for a root directory ("/proc/PID/root"). The process may have put there whatever it likes: only a regular
/// file is read, at most 64 KiB of it, and nothing is waited for or followed. Empty outside of a sandbox.
QString applicationId(const QString& rootDirectory);

}

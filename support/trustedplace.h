// Whether what lies at a path can be changed by other users of the machine: asked before code is loaded from there.
#pragma once

#include <QByteArray>

#include <optional>
#include <sys/types.h>

namespace trustedplace {

/**
 * True when nobody but root and this process's user can change what the path leads to, nor what is in it: the
 * directory, every directory on the way to it and every symbolic link on that way belong to one of the two, and
 * nobody else can write there. A sticky directory above (as /tmp) may be everybody's: what belongs to the user or to
 * root can neither be replaced nor renamed in it by others. Relative paths count from the current directory.
 *
 * administrators: members of this group may write, because they can become root anyway. Any thread.
 */
bool isDirectory(const QByteArray& path, std::optional<gid_t> administrators);

/// True for a sticky directory (as /tmp) to which others can add what they like, but where they cannot replace what
/// is the user's.
bool isShared(const QByteArray& directory);

/// As isDirectory(), for a directory of plug-ins, the directories in it, and the files in both.
bool isPlugInDirectory(const QByteArray& path, std::optional<gid_t> administrators);

}

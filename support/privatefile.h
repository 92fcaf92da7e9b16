// Files and directories that are nobody else's: what the program writes is made so, and what lies in its place is
// used only when it is so already.
#pragma once

#include <QByteArray>

namespace privatefile {

/// A file, or why there is none.
struct Opened {
    int descriptor = -1; ///< the caller's to close; below 0: not opened
    int error = 0; ///< as errno has it
    const char* refusal = nullptr; ///< why the file that is there is not used; null when the system said no
};

/**
 * Opens an empty file for writing, with mode 0600. It is made when there is none, never through a symbolic link. One
 * that is there is used only when it is a regular file of this process's user with one name; it loses the permissions
 * of others before it is emptied. Never waits for another process. Any thread.
 */
Opened openEmpty(const QByteArray& path);

/// Opens a file for reading under the same conditions.
Opened openToRead(const QByteArray& path);

/// Makes a directory and those above it that are missing, with mode 0700. False when there is no directory
/// afterwards.
bool makeDirectories(const QByteArray& path);

}

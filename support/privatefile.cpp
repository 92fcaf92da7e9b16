// What a name leads to can change between two calls, so that everything that counts is asked of the open file.
#include "privatefile.h"

#include "descriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t ownersFile = 0600;
constexpr mode_t ownersDirectory = 0700;
// A pipe, or a file under somebody's lease, is not waited for.
constexpr int carefully = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

privatefile::Opened refused(int error, const char* why)
{
    return {-1, error, why};
}

privatefile::Opened failed()
{
    return {-1, errno, nullptr};
}

/// Without an error when the file may be used.
privatefile::Opened judged(const struct stat& status)
{
    if (S_ISLNK(status.st_mode))
        return refused(ELOOP, "it is a symbolic link");
    if (S_ISDIR(status.st_mode))
        return {-1, EISDIR, nullptr};
    if (!S_ISREG(status.st_mode))
        return refused(EPERM, "it is no regular file");
    if (status.st_uid != ::geteuid())
        return refused(EACCES, "it belongs to another user");
    if (status.st_nlink != 1)
        return refused(EMLINK, "it has more than one name");
    return {};
}

/// A file that is there. A device is not opened even to look at it: that alone can do something.
privatefile::Opened openOwn(const QByteArray& path, int access)
{
    struct stat status = {};
    if (::lstat(path.constData(), &status) != 0)
        return failed();
    privatefile::Opened result = judged(status);
    if (result.error != 0)
        return result;
    Descriptor file(::open(path.constData(), access | carefully));
    if (!file.isValid() || ::fstat(file.number(), &status) != 0)
        return failed();
    result = judged(status);
    if (result.error == 0)
        result.descriptor = file.release();
    return result;
}

/// Where a file system keeps no permissions, its mount decides who may read.
void takePermissionsFromOthers(int descriptor)
{
    static_cast<void>(::fchmod(descriptor, ownersFile));
}

}

privatefile::Opened privatefile::openEmpty(const QByteArray& path)
{
    const int made = ::open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | carefully, ownersFile);
    if (made >= 0) {
        takePermissionsFromOthers(made);
        return {made, 0, nullptr};
    }
    if (errno != EEXIST)
        return failed();
    Opened existing = openOwn(path, O_WRONLY);
    if (existing.descriptor < 0)
        return existing;
    Descriptor file(existing.descriptor);
    takePermissionsFromOthers(file.number());
    if (::ftruncate(file.number(), 0) != 0)
        return failed();
    return {file.release(), 0, nullptr};
}

privatefile::Opened privatefile::openToRead(const QByteArray& path)
{
    return openOwn(path, O_RDONLY);
}

bool privatefile::makeDirectories(const QByteArray& path)
{
    if (::mkdir(path.constData(), ownersDirectory) == 0)
        return true;
    const qsizetype above = path.lastIndexOf('/');
    if (errno == ENOENT && above > 0 && makeDirectories(path.left(above))
        && ::mkdir(path.constData(), ownersDirectory) == 0)
        return true;
    struct stat status = {};
    return ::stat(path.constData(), &status) == 0 && S_ISDIR(status.st_mode);
}

// The way to a place is walked as the kernel walks it, one name at a time, so that no link is followed unseen. What
// was found stays true: who could change it is refused.
#include "trustedplace.h"

#include <QByteArrayList>

#include <algorithm>
#include <climits>
#include <dirent.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int mostLinks = 40; // as the kernel

struct DirectoryCloser {
    void operator()(DIR* directory) const { ::closedir(directory); }
};

class Walk {
public:
    explicit Walk(std::optional<gid_t> administrators) : administrators_(administrators) { }

    /// The place itself may be a directory (without an exception for sticky ones) or a file.
    bool isTrusted(const QByteArray& path);
    bool isDirectory() const { return S_ISDIR(last_.st_mode); }
    /// Where the path led, without links.
    QByteArray place() const { return place_.isEmpty() ? QByteArray("/") : place_; }

private:
    bool enter(const QByteArray& name);
    bool followLink(const QByteArray& link);
    bool belongsToUs() const { return last_.st_uid == 0 || last_.st_uid == ::geteuid(); }
    bool othersMayWrite() const;

    const std::optional<gid_t> administrators_;
    QByteArray place_; // without the slash at its end: empty for the root
    QByteArrayList ahead_; // names still to be entered, the last one first
    int links_ = 0;
    struct stat last_ = {}; // what place_ is
};

void prependNames(QByteArrayList& ahead, const QByteArray& path)
{
    const QByteArrayList names = path.split('/');
    for (auto name = names.crbegin(); name != names.crend(); ++name) {
        if (!name->isEmpty() && *name != ".")
            ahead.append(*name);
    }
}

QByteArray absolute(const QByteArray& path)
{
    if (path.startsWith('/'))
        return path;
    // Not asked of Qt: bytes that are no text would become another name.
    QByteArray current(PATH_MAX, '\0');
    if (!::getcwd(current.data(), std::size_t(current.size())))
        return QByteArray();
    return current.constData() + ('/' + path);
}

bool Walk::isTrusted(const QByteArray& path)
{
    const QByteArray whole = absolute(path);
    if (whole.isEmpty() || whole.contains('\0') || !enter(QByteArray()))
        return false;
    prependNames(ahead_, whole);
    while (!ahead_.isEmpty()) {
        const QByteArray name = ahead_.takeLast();
        if (name == "..")
            place_.truncate(std::max<qsizetype>(place_.lastIndexOf('/'), 0));
        else if (!enter(name))
            return false;
    }
    // Behind "..": what was entered on the way is known to be ours, but not what it is.
    return ::lstat(place().constData(), &last_) == 0 && !othersMayWrite();
}

bool Walk::enter(const QByteArray& name)
{
    const QByteArray entered = name.isEmpty() ? QByteArray() : place_ + '/' + name;
    if (::lstat(entered.isEmpty() ? "/" : entered.constData(), &last_) != 0 || !belongsToUs())
        return false;
    if (S_ISLNK(last_.st_mode))
        return followLink(entered);
    const bool sticky = S_ISDIR(last_.st_mode) && (last_.st_mode & S_ISVTX);
    if (othersMayWrite() && !sticky)
        return false;
    place_ = entered;
    return true;
}

bool Walk::followLink(const QByteArray& link)
{
    QByteArray target(PATH_MAX, '\0');
    const ssize_t size = ::readlink(link.constData(), target.data(), std::size_t(target.size()));
    if (size <= 0 || size == target.size() || ++links_ > mostLinks)
        return false;
    target.truncate(size);
    if (target.startsWith('/'))
        place_.clear();
    prependNames(ahead_, target);
    return true;
}

bool Walk::othersMayWrite() const
{
    const bool groupMay = last_.st_mode & S_IWGRP && !(administrators_ && last_.st_gid == *administrators_);
    return groupMay || last_.st_mode & S_IWOTH;
}

/// What is in a directory; nothing when it cannot be read.
std::optional<QByteArrayList> entriesOf(const QByteArray& directory)
{
    const std::unique_ptr<DIR, DirectoryCloser> opened(::opendir(directory.constData()));
    if (!opened)
        return std::nullopt;
    QByteArrayList paths;
    while (const dirent* entry = ::readdir(opened.get())) {
        const QByteArray name(entry->d_name);
        if (name != "." && name != "..")
            paths.append(directory + '/' + name);
    }
    return paths;
}

/// The place and everything in it, so many directories deep.
bool isTreeTrusted(const QByteArray& path, int depth, std::optional<gid_t> administrators)
{
    Walk walk(administrators);
    if (!walk.isTrusted(path))
        return false;
    if (!walk.isDirectory() || depth == 0)
        return true;
    const std::optional<QByteArrayList> entries = entriesOf(walk.place());
    return entries && std::all_of(entries->begin(), entries->end(), [&](const QByteArray& entry) {
        return isTreeTrusted(entry, depth - 1, administrators);
    });
}

}

bool trustedplace::isDirectory(const QByteArray& path, std::optional<gid_t> administrators)
{
    Walk walk(administrators);
    return walk.isTrusted(path) && walk.isDirectory();
}

bool trustedplace::isShared(const QByteArray& directory)
{
    struct stat status = {};
    return ::stat(directory.constData(), &status) == 0 && S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX)
        && (status.st_mode & (S_IWGRP | S_IWOTH));
}

bool trustedplace::isPlugInDirectory(const QByteArray& path, std::optional<gid_t> administrators)
{
    constexpr int kindsAndFiles = 2; // Qt looks for PlugIns/KIND/FILE
    return isDirectory(path, administrators) && isTreeTrusted(path, kindsAndFiles, administrators);
}

// How much memory the kernel, and the groups that this process belongs to, still leave it.
#include "availablememory.h"

#include "platform/application.h"

#include <QByteArray>
#include <QFile>
#include <QList>

#include <algorithm>
#include <limits>

namespace availablememory {

namespace {

constexpr qint64 bytesPerKibibyte = 1024;
constexpr qint64 longestFile = qint64(64) * 1024; // these are a few kilobytes

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.read(longestFile) : QByteArray();
}

std::optional<qint64> number(const QByteArray& text)
{
    bool ok = false;
    const qint64 value = text.trimmed().toLongLong(&ok);
    return ok && value >= 0 ? std::optional(value) : std::nullopt;
}

/// The number after that name, where a line is a name and a number.
std::optional<qint64> numberNamed(const QByteArray& lines, const QByteArray& name)
{
    for (const QByteArray& line : lines.split('\n')) {
        const QList<QByteArray> words = line.simplified().split(' ');
        if (words.size() >= 2 && words[0] == name)
            return number(words[1]);
    }
    return std::nullopt;
}

/// The names that a version of control groups has for the same things.
struct GroupFiles {
    QString limit;
    QString used;
    QByteArray droppable; ///< in memory.stat: file pages of this group and those below that were not used lately
};

const GroupFiles version1{
    QStringLiteral("memory.limit_in_bytes"), QStringLiteral("memory.usage_in_bytes"), "total_inactive_file"};
const GroupFiles version2{QStringLiteral("memory.max"), QStringLiteral("memory.current"), "inactive_file"};

std::optional<qint64> leftIn(const QString& group, const GroupFiles& files)
{
    const std::optional<qint64> limit = number(contents(group + '/' + files.limit)); // none: "max", or no such file
    const std::optional<qint64> used = number(contents(group + '/' + files.used));
    if (!limit || !used)
        return std::nullopt;
    const qint64 droppable
        = numberNamed(contents(group + QStringLiteral("/memory.stat")), files.droppable).value_or(0);
    return std::max<qint64>(0, *limit - std::max<qint64>(0, *used - droppable));
}

/// The least that the group, or one above it, leaves. The path is below the root and begins with a slash.
qint64 leastLeft(const QString& root, QString path, const GroupFiles& files, qint64 least)
{
    while (!path.isEmpty()) {
        least = std::min(least, leftIn(root + path, files).value_or(least));
        path.truncate(std::max<qsizetype>(0, path.lastIndexOf('/')));
    }
    return std::min(least, leftIn(root, files).value_or(least));
}

}

std::optional<qint64> read(const QString& processes, const QString& groups)
{
    const auto machine = numberNamed(contents(processes + QStringLiteral("/meminfo")), "MemAvailable:");
    if (!machine || *machine > std::numeric_limits<qint64>::max() / bytesPerKibibyte)
        return std::nullopt;
    qint64 least = *machine * bytesPerKibibyte;
    // Lines such as "4:memory:/a/b" (version 1) and "0::/a/b" (version 2).
    for (const QByteArray& line : contents(processes + QStringLiteral("/self/cgroup")).split('\n')) {
        const QList<QByteArray> fields = line.split(':');
        if (fields.size() < 3)
            continue;
        const QString path = QFile::decodeName(line.mid(fields[0].size() + fields[1].size() + 2));
        const QString below = path == '/' ? QString() : path;
        if (fields[0] == "0" && fields[1].isEmpty())
            least = leastLeft(groups, below, version2, least);
        else if (fields[1].split(',').contains("memory"))
            least = leastLeft(groups + QStringLiteral("/memory"), below, version1, least);
    }
    return least;
}

}

namespace platform {

std::optional<qint64> availableMemory()
{
    return availablememory::read();
}

}

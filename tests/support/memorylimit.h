// MemoryLimit: a process that is refused more memory than it has, for a while.
#pragma once

#include <QByteArray>
#include <QFile>

#include <sys/resource.h>

/// What counts against RLIMIT_DATA now; a sanitizer has terabytes of it.
inline rlim_t dataBytes()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmData:"))
            return rlim_t(line.mid(7).trimmed().split(' ').constFirst().toULongLong()) * 1024;
    }
    return 0;
}

/// While it lives, so many bytes more can be had. Linux only: others do not keep the limit.
class MemoryLimit {
public:
    explicit MemoryLimit(rlim_t more)
    {
        if (getrlimit(RLIMIT_DATA, &before_) != 0)
            qFatal("No limit of the memory");
        const rlimit small{dataBytes() + more, before_.rlim_max};
        if (setrlimit(RLIMIT_DATA, &small) != 0)
            qFatal("The limit of the memory cannot be set");
    }
    ~MemoryLimit() { setrlimit(RLIMIT_DATA, &before_); }
    MemoryLimit(const MemoryLimit&) = delete;
    MemoryLimit& operator=(const MemoryLimit&) = delete;

private:
    rlimit before_{};
};

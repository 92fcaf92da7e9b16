// The processes of this machine, as /proc tells them.
#include "processtable.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QStringList>

#include <array>

namespace processtable {

namespace {

constexpr quint32 kernelThread = 0x00200000; // PF_KTHREAD of the flags

/// Files of /proc tell no size; these are far below the limit.
QByteArray contents(qint64 pid, const char* name)
{
    QFile file(QStringLiteral("/proc/%1/%2").arg(pid).arg(QLatin1String(name)));
    return file.open(QIODevice::ReadOnly) ? file.read(65536) : QByteArray();
}

}

/// The name stands in brackets and may itself hold blanks and brackets: the fields begin behind the last bracket.
std::optional<Process> parseStat(QByteArrayView text)
{
    const QByteArray line = text.toByteArray();
    const qsizetype open = line.indexOf('(');
    const qsizetype close = line.lastIndexOf(')');
    if (open < 0 || close < open)
        return std::nullopt;
    const QList<QByteArray> fields = line.mid(close + 1).simplified().split(' ');
    constexpr int state = 0, parent = 1, flags = 6, start = 19; // of what follows the name
    if (fields.size() <= start || fields[state].size() != 1)
        return std::nullopt;

    std::array<bool, 4> right{};
    Process process;
    process.identity.pid = line.left(open).trimmed().toLongLong(&right[0]);
    process.parent = fields[parent].toLongLong(&right[1]);
    process.ofKernel = (fields[flags].toUInt(&right[2]) & kernelThread) != 0;
    process.identity.start = fields[start].toULongLong(&right[3]);
    process.ended = QByteArrayView("ZXx").contains(fields[state][0]);
    if (right != std::array<bool, 4>{true, true, true, true} || process.identity.pid < 1 || process.parent < 0)
        return std::nullopt;
    return process;
}

/// "Uid:", then the real, effective, saved and file system user.
qint64 parseEffectiveUser(QByteArrayView text)
{
    const QList<QByteArray> lines = text.toByteArray().split('\n');
    for (const QByteArray& line : lines) {
        const QList<QByteArray> words = line.simplified().split(' ');
        bool right = false;
        if (words.size() >= 3 && words[0] == "Uid:") {
            const qint64 user = words[2].toLongLong(&right);
            return right ? user : -1;
        }
    }
    return -1;
}

std::optional<Process> read(qint64 pid)
{
    std::optional<Process> process = pid > 0 ? parseStat(contents(pid, "stat")) : std::nullopt;
    if (process)
        process->user = parseEffectiveUser(contents(pid, "status"));
    return process;
}

Processes readAll()
{
    Processes processes;
    const QStringList names = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& name : names) {
        bool isNumber = false;
        const qint64 pid = name.toLongLong(&isNumber);
        const std::optional<Process> process = isNumber ? read(pid) : std::nullopt;
        if (process)
            processes.emplace(pid, *process);
    }
    return processes;
}

}

// The processes of this machine, as /proc tells them.
#pragma once

#include <QByteArrayView>
#include <QtGlobal>

#include <map>
#include <optional>

namespace processtable {

/// A process id is given away again when its process is gone; together with the start it names one process for good.
struct Identity {
    qint64 pid = 0;
    quint64 start = 0; ///< clock ticks since the machine started

    bool operator==(const Identity& other) const { return pid == other.pid && start == other.start; }
    bool operator<(const Identity& other) const { return pid != other.pid ? pid < other.pid : start < other.start; }
};

struct Process {
    Identity identity;
    qint64 parent = 0; ///< process id; 0 for none
    bool ended = false; ///< a zombie, or nearly gone
    bool ofKernel = false; ///< a thread of the kernel
    qint64 user = -1; ///< effective user id; -1 when it could not be told
};

using Processes = std::map<qint64, Process>; ///< by process id

/// The text of /proc/PID/stat; nothing when it is not of that form. It does not tell the user.
std::optional<Process> parseStat(QByteArrayView text);
/// The effective user id in the text of /proc/PID/status; -1 when it is not there.
qint64 parseEffectiveUser(QByteArrayView text);

/// Nothing when there is no such process.
std::optional<Process> read(qint64 pid);
/// All that this process may see.
Processes readAll();

}

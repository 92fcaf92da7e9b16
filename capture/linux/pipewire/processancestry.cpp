// Which application a process belongs to, and whether it is heard: the rules, without the machine.
#include "processancestry.h"

#include <algorithm>

namespace processancestry {

namespace {

bool ranAt(const Processes& snapshot, const Identity& identity)
{
    const auto found = snapshot.find(identity.pid);
    return found != snapshot.end() && found->second.identity == identity;
}

/// A process as the snapshot knew it where it is the same one, or gone by now; else as it is now.
std::optional<Process> recall(qint64 pid, const Processes& snapshot, const Lookup& now)
{
    const auto then = snapshot.find(pid);
    const std::optional<Process> current = now(pid);
    const bool known = then != snapshot.end() && (!current || current->identity == then->second.identity);
    return known ? std::optional(then->second) : current;
}

}

/// A parent is never younger than its child, and one process stands once in the list: so the walk ends.
std::vector<Identity> ancestry(qint64 pid, const Processes& snapshot, const Lookup& now)
{
    std::vector<Identity> line;
    while (pid > 1 || (pid == 1 && line.empty())) {
        const std::optional<Process> process = recall(pid, snapshot, now);
        if (!process || std::find(line.begin(), line.end(), process->identity) != line.end()
            || (!line.empty() && process->identity.start > line.back().start))
            break;
        line.push_back(process->identity);
        pid = process->parent;
    }
    return line;
}

std::optional<bool> isHeard(const std::vector<Identity>& ancestry, const Knowledge& knowledge)
{
    if (ancestry.empty())
        return std::nullopt;
    bool startedByExcluded = false;
    for (const Identity& process : ancestry) {
        const auto found = knowledge.applications.find(process);
        const bool isApplication = found != knowledge.applications.end();
        if (isApplication && !found->second.excluded)
            return true;
        const bool ownedWindow = isApplication && found->second.kind == Kind::WindowOwner;
        const std::optional<bool> ownsWindow = ownedWindow ? true : knowledge.ownsWindow(process);
        if (!ownsWindow)
            return std::nullopt;
        if (*ownsWindow)
            return !isApplication && !ranAt(knowledge.snapshot, process);
        startedByExcluded = startedByExcluded || (isApplication && found->second.kind == Kind::StreamOwner);
    }
    return !startedByExcluded && !ranAt(knowledge.snapshot, ancestry.front());
}

}

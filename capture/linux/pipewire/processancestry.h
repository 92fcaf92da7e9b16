// Which application a process belongs to, and whether it is heard: the rules, without the machine.
#pragma once

#include "processtable.h"

#include <functional>
#include <map>
#include <optional>
#include <vector>

namespace processancestry {

using processtable::Identity;
using processtable::Process;
using processtable::Processes;

/// Why a process is an application.
enum class Kind {
    WindowOwner,
    StreamOwner, ///< plays without a window of its own or above it
    Plain, ///< a process of the user's and nothing more
};

struct Application {
    Kind kind = Kind::Plain;
    bool excluded = false;
};

/// A process now; nothing when it is gone.
using Lookup = std::function<std::optional<Process>(qint64 pid)>;

/**
 * The process, its parent, and so on; process 1 is nobody's parent. A process that ran when the snapshot was taken
 * keeps the parent that it had then, for an orphan is given another one. A parent that is younger than its child is
 * none: its process id was given away again.
 */
std::vector<Identity> ancestry(qint64 pid, const Processes& snapshot, const Lookup& now);

/// What one moment knew.
struct Knowledge {
    const Processes& snapshot;
    const std::map<Identity, Application>& applications;
    /// Now; asked only where it matters. Nothing where it cannot be told.
    std::function<std::optional<bool>(const Identity&)> ownsWindow;
};

/**
 * Whether the stream of the first of the ancestry is heard. From the process upwards, the first that decides: a
 * wanted application is heard, any other owner of a window is not, unless it started after the snapshot. Where nobody
 * decides, a process that ran when the snapshot was taken is not heard, because it was not wanted; nor is what an
 * excluded owner of a stream started later. All else belongs to nobody that is excluded. A plain process decides only
 * when it is wanted: what an excluded shell starts later is a program by itself. Nothing where it cannot be told:
 * nobody knows the process, or who owns a window; what is not known could be excluded.
 */
std::optional<bool> isHeard(const std::vector<Identity>& ancestry, const Knowledge& knowledge);

}

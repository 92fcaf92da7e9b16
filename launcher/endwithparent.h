// What a child process does between fork and exec, so that it does not outlive this one. One definition set for
// each system, chosen by CMake.
#pragma once

#include <sys/types.h>

/// Async-signal-safe. From now on the death of the parent, of whatever kind, sends this process SIGTERM, where the
/// system can do that. parent: the parent's process id, read before the fork.
void endWithParent(pid_t parent);

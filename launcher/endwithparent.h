// What a child process does between fork and exec, so that it does not outlive this one. One definition set for
// each system, chosen by CMake.
#pragma once

#include <sys/types.h>

/// Async-signal-safe. From now on this process gets SIGTERM when its parent ends for any reason, where the system
/// supports that. parent: the parent's process id, read before the fork.
void endWithParent(pid_t parent);

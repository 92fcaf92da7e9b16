// Work that nobody may have to wait for: what it asks (a server, say) can hang.
#pragma once

#include <functional>
#include <stop_token>

namespace backgroundtasks {

/// Runs on a thread of its own. When the process ends, tasks that still run are asked to stop, and awaited. False
/// when no thread is to be had; then the task has not run and will not. A task that throws has ended. Any thread.
bool start(std::function<void(const std::stop_token& stop)> task);

}

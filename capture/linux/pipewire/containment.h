// Where code of this program is called by C code, or is all that a thread runs: an exception ends there, not the
// process.
#pragma once

#include <exception>

namespace pipewire {

/// One line in the log, the first time in this process. Any thread.
void reportContained(const char* what) noexcept;
void reportContainedOfWindow(const char* what) noexcept;

/// False when it threw; report says so in the log then.
template <typename Work>
bool contain(const Work& work, void (*report)(const char*) noexcept = &reportContained) noexcept
{
    try {
        work();
        return true;
    } catch (const std::exception& error) {
        report(error.what());
    } catch (...) {
        report("unknown");
    }
    return false;
}

}

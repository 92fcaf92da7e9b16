// Where code of this program is called by C code, or is all that a thread runs: an exception ends there, not the
// process.
#pragma once

#include <exception>

namespace pipewire {

/// One line in the log, the first time in this process. Any thread.
void reportContained(const char* what) noexcept;

/// False when it threw; that is in the log then.
template <typename Work>
bool contain(const Work& work) noexcept
{
    try {
        work();
        return true;
    } catch (const std::exception& error) {
        reportContained(error.what());
    } catch (...) {
        reportContained("unknown");
    }
    return false;
}

}

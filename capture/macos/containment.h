// Where code of this program is called by the system: an exception ends there, not in the system's frames.
#pragma once

#include <exception>

namespace macos {

/// False when it threw, for want of memory mostly.
template <typename Work>
bool contain(const Work& work) noexcept
{
    try {
        work();
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

}

// What the log says of an exception.
#include "containment.h"

#include <QDebug>

#include <atomic>

namespace pipewire {

namespace {

/// Once; again when there is no memory for the line.
template <typename Write>
void reportOnce(std::atomic<bool>& reported, const Write& write) noexcept
{
    if (reported.exchange(true))
        return;
    try {
        write();
    } catch (const std::exception&) {
        reported = false;
    }
}

}

void reportContained(const char* what) noexcept
{
    static std::atomic<bool> reported = false;
    reportOnce(reported, [&] { qCritical() << "Audio capture was interrupted by an exception:" << what; });
}

void reportContainedOfWindow(const char* what) noexcept
{
    static std::atomic<bool> reported = false;
    reportOnce(reported, [&] { qCritical() << "Window capture was interrupted by an exception:" << what; });
}

}

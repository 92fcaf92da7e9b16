// What the log says of an exception.
#include "containment.h"

#include <QDebug>

#include <atomic>

namespace pipewire {

void reportContained(const char* what) noexcept
{
    static std::atomic<bool> reported = false;
    if (reported.exchange(true))
        return;
    try {
        qCritical() << "Audio capture was interrupted by an exception:" << what;
    } catch (const std::exception&) { // no memory for the line
        reported = false;
    }
}

}

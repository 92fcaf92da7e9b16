// The clocks that the program reads.
#import <CoreMedia/CoreMedia.h>

#include "macsim.h"
#include "system.h"

#include <time.h>

#include <mutex>

namespace {

struct Clocks {
    std::mutex mutex; // guards the rest
    std::optional<std::pair<std::int64_t, std::int64_t>> set; ///< steady, host
    std::function<void()> hostRead;
};

/// Never destroyed: threads of the system may outlive the statics.
Clocks& clocks()
{
    static auto* instance = new Clocks;
    return *instance;
}

std::int64_t machineNs()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

std::pair<std::int64_t, std::int64_t> now()
{
    const std::scoped_lock lock(clocks().mutex);
    return clocks().set.value_or(std::pair(machineNs(), machineNs()));
}

}

void macsim::setClocks(std::int64_t steadyNs, std::int64_t hostNs)
{
    const std::scoped_lock lock(clocks().mutex);
    clocks().set = {steadyNs, hostNs};
}

void macsim::setHostClockRead(std::function<void()> read)
{
    const std::scoped_lock lock(clocks().mutex);
    clocks().hostRead = std::move(read);
}

void macsim::system::resetClocks()
{
    const std::scoped_lock lock(clocks().mutex);
    clocks().set.reset();
    clocks().hostRead = nullptr;
}

extern "C" {

std::uint64_t clock_gettime_nsec_np(clockid_t)
{
    return std::uint64_t(now().first);
}

CMClockRef CMClockGetHostTimeClock()
{
    static int clock = 0;
    return reinterpret_cast<CMClockRef>(&clock);
}

CMTime CMClockGetTime(CMClockRef)
{
    std::function<void()> read;
    {
        const std::scoped_lock lock(clocks().mutex);
        read = clocks().hostRead;
    }
    if (read)
        read();
    CMTime time = CMTimeMake(now().second, 1000000000);
    return time;
}
}

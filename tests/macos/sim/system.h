// The simulated system's own threads, its held answers and its record.
#pragma once

#include "macsim.h"

#include <functional>

namespace macsim::system {

/// Changes the record under its lock.
void note(const std::function<void(Record&)>& change);

/// Runs it on a thread of its own, in an autorelease pool.
void onThread(std::function<void()> work);
/// The answer to a call, in its time.
void answer(Call call, When when, std::function<void()> work);

/// Back to the machine's own.
void resetClocks();
/// No delegate, no activity.
void resetApplication();

/// Whether anything of the system runs, so that answers may be on their way.
bool isBusy();

/// Work of the system that settle() waits for.
class Running {
public:
    Running();
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
    ~Running();
};

}

// What libdispatch does for the audio capture: waiting with a bound, and a serial queue. Plain C++: no Objective-C,
// no Qt.
#pragma once

#include <cstdint>
#include <memory>

namespace macos {

/// A counting semaphore, 0 at first. Any thread.
class Semaphore {
public:
    Semaphore();
    ~Semaphore();
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    void signal();
    /// False when no signal came within that time from now.
    bool wait(std::int64_t nanoseconds);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// Runs its blocks one at a time. The system keeps the queue itself alive until everything on it has run.
class SerialQueue {
public:
    explicit SerialQueue(const char* label);
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    struct Impl;
    const Impl& impl() const { return *impl_; }

private:
    std::unique_ptr<Impl> impl_;
};

}

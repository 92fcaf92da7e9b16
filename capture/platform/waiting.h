// The seam between the audio capture and the operating system's threads. Each platform folder defines all of it;
// which one is used is decided at link time.
#pragma once

#include <cstdint>
#include <memory>

namespace platform {

/// A counting semaphore, 0 at first. signal() may be called on any thread.
class Semaphore {
public:
    Semaphore();
    ~Semaphore();
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    void signal();
    /// Waits for a signal at most this long (nanoseconds from now). False when the time ran out.
    bool wait(std::int64_t nanoseconds);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

/// A serial queue: what runs on it runs one at a time. The system may keep it until everything on it has run.
class AudioQueue {
public:
    explicit AudioQueue(const char* label);
    ~AudioQueue();
    AudioQueue(const AudioQueue&) = delete;
    AudioQueue& operator=(const AudioQueue&) = delete;

    struct Impl;
    Impl& impl() { return *impl_; }

private:
    std::unique_ptr<Impl> impl_;
};

}

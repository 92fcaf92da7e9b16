// The seam between a recording that runs and the operating system that may end it. Each platform folder defines all
// of it; which one is used is decided at link time.
#pragma once

#include <functional>
#include <memory>

namespace platform {

/**
 * While it exists, the system neither slows the process down nor ends it without asking, where it does such things.
 * When it asks, as at a log-out, finish is called on the main thread, and the process may end as soon as that
 * returns. A system that asks by signals never calls it. Main thread, once at a time, behind the application object.
 */
class RecordingHold {
public:
    explicit RecordingHold(const std::function<void()>& finish);
    ~RecordingHold();
    RecordingHold(const RecordingHold&) = delete;
    RecordingHold& operator=(const RecordingHold&) = delete;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}

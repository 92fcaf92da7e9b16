// What keeps the system from slowing the process down and from ending it unasked. Plain C++: no Objective-C, no Qt.
#pragma once

#include <functional>
#include <memory>

namespace macos {

/// Main thread, once at a time, behind the application object.
class RecordingHold {
public:
    /// finish is called when the system asks the process to end, on the main thread. Then the system may end it.
    explicit RecordingHold(std::function<void()> finish);
    ~RecordingHold();
    RecordingHold(const RecordingHold&) = delete;
    RecordingHold& operator=(const RecordingHold&) = delete;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}

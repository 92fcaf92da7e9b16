// The connection over which windows are captured from PipeWire.
#pragma once

#include "pipewireconnection.h"

#include <QString>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

namespace wayland {

/// Lets one thread wait until another one has done something. Any thread.
class Wakeup {
public:
    using Clock = std::chrono::steady_clock;

    void wake();
    /// Returns at the next wake(), at once when there was one since the last return, and at the latest at that time.
    void waitUntil(Clock::time_point latest);

private:
    std::mutex mutex_;
    std::condition_variable condition_;
    bool awake_ = false;
};

/// To the server that the environment names: over an inherited descriptor, which serves only one connection, so all
/// share it until the process ends; else a new one. Null when it cannot be had; *error is then the text.
std::shared_ptr<pipewire::CoreConnection> connectToServer(QString* error);

/// What the log says when it cannot be had.
void logNoServer(const QString& error);

/// Whether PipeWire can be reached and answers, within two seconds. Logs why not.
bool serverAnswers();

}

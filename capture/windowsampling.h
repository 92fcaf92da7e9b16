// WindowSampling: samples of a window from a thread of their own, so that a system that does not answer holds up
// nobody else.
#pragma once

#include "platform/screen.h"

#include <chrono>
#include <memory>
#include <optional>

/**
 * Made on one thread, then used from one thread at a time. The window's source is made with it and is used on the
 * thread that takes the samples, or by the caller where there is no thread to be had.
 */
class WindowSampling {
public:
    /// How long is waited, and what counts as slow.
    struct Patience {
        std::chrono::milliseconds wait{250}; ///< for one sample, and for its end
        std::chrono::milliseconds slow{1000}; ///< above that a sample is told of
    };

    explicit WindowSampling(quint32 windowId) : WindowSampling(windowId, Patience()) { }
    WindowSampling(quint32 windowId, Patience patience);
    /// A sample that does not end is left behind with its thread and the source; both end after it.
    ~WindowSampling();
    WindowSampling(const WindowSampling&) = delete;
    WindowSampling& operator=(const WindowSampling&) = delete;

    /// The window now; throws what the source throws. Nothing when the system has not answered in time. Its late
    /// answer is thrown away, as the moment that it shows has gone, and nothing new is asked for before it has come:
    /// the rows that it named are then missing in what follows. One that takes long is logged, once. Without a thread
    /// the caller waits for each sample to its end, and nothing is logged.
    std::optional<platform::WindowSample> sample(bool withBounds);

private:
    struct Shared;

    bool hasAnswer();

    const Patience patience_;
    std::shared_ptr<Shared> shared_; ///< with the thread, which may live longer
    bool isLate_ = false; ///< what is under way was given up
    bool slowLogged_ = false;
};

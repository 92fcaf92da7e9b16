// One sample after the other, on a thread that may be left behind.
#include "windowsampling.h"

#include <QDebug>
#include <QScopeGuard>

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

using Clock = std::chrono::steady_clock;

/// What the caller and the thread share, under the mutex. Only the thread touches the source while a sample is asked
/// for, and only the caller the rest of the time.
struct WindowSampling::Shared {
    std::mutex mutex;
    std::condition_variable changed;
    std::unique_ptr<platform::WindowSource> source;
    bool isAsked = false; ///< a sample is under way
    bool withBounds = false;
    Clock::time_point askedAt;
    platform::WindowSample sample; ///< the last one
    std::exception_ptr error; ///< in place of it
    bool ends = false;
    bool hasEnded = false; ///< nothing of the thread is left but its end
    std::thread thread;

    void run();
    void take();
};

/// Without the mutex held.
void WindowSampling::Shared::take()
{
    try {
        sample = source->sample(withBounds);
    } catch (...) {
        error = std::current_exception();
    }
}

void WindowSampling::Shared::run()
{
    std::unique_lock lock(mutex);
    for (;;) {
        changed.wait(lock, [this] { return isAsked || ends; });
        if (!isAsked)
            break;
        lock.unlock();
        take();
        lock.lock();
        isAsked = false;
        changed.notify_all();
    }
    sample = {};
    source.reset();
    hasEnded = true;
    changed.notify_all();
}

WindowSampling::WindowSampling(quint32 windowId, Patience patience)
    : patience_(patience), shared_(std::make_shared<Shared>())
{
    shared_->source = std::make_unique<platform::WindowSource>(windowId);
    try {
        shared_->thread = std::thread([shared = shared_] { shared->run(); });
    } catch (const std::system_error&) {
        qWarning() << "No thread for the capture of the window; one that stalls will hold up the recording.";
    }
}

WindowSampling::~WindowSampling()
{
    if (!shared_->thread.joinable())
        return;
    std::unique_lock lock(shared_->mutex);
    shared_->ends = true;
    shared_->changed.notify_all();
    const bool ended = shared_->changed.wait_for(lock, patience_.wait, [this] { return shared_->hasEnded; });
    lock.unlock();
    if (ended)
        shared_->thread.join();
    else
        shared_->thread.detach();
}

/// Waits for it, within bounds.
bool WindowSampling::hasAnswer()
{
    std::unique_lock lock(shared_->mutex);
    const bool answered = shared_->changed.wait_for(lock, patience_.wait, [this] { return !shared_->isAsked; });
    if (Clock::now() - shared_->askedAt > patience_.slow && !std::exchange(slowLogged_, true))
        qWarning() << "Window capture takes longer than" << qint64(patience_.slow.count())
                   << "ms; frames are missing. Told once.";
    return answered;
}

std::optional<platform::WindowSample> WindowSampling::sample(bool withBounds)
{
    if (isLate_ && !hasAnswer())
        return std::nullopt;
    isLate_ = false;
    shared_->error = nullptr;
    shared_->withBounds = withBounds;
    shared_->askedAt = Clock::now();
    if (!shared_->thread.joinable()) {
        shared_->take();
    } else {
        {
            const std::lock_guard lock(shared_->mutex);
            shared_->isAsked = true;
        }
        shared_->changed.notify_all();
        isLate_ = !hasAnswer();
    }
    if (isLate_)
        return std::nullopt;
    if (shared_->error)
        std::rethrow_exception(std::exchange(shared_->error, nullptr));
    return std::exchange(shared_->sample, {});
}

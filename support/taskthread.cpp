// Handing tasks to a thread.
#include "taskthread.h"

#include <exception>
#include <utility>

TaskThread::~TaskThread()
{
    {
        const std::lock_guard lock(mutex_);
        ends_ = true;
    }
    changed_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

bool TaskThread::start(std::function<void()> task)
{
    try {
        if (!thread_.joinable())
            thread_ = std::thread([this] { run(); });
    } catch (const std::exception&) { // std::system_error, std::bad_alloc
        return false;
    }
    {
        const std::lock_guard lock(mutex_);
        task_ = std::move(task);
    }
    changed_.notify_all();
    return true;
}

bool TaskThread::isDone() const
{
    const std::lock_guard lock(mutex_);
    return !task_;
}

void TaskThread::wait()
{
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return !task_; });
}

bool TaskThread::waitFor(std::chrono::milliseconds limit)
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [this] { return !task_; });
}

/// A task that has begun is done before the thread ends.
void TaskThread::run()
{
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return task_ || ends_; });
        if (!task_)
            return;
        lock.unlock();
        task_(); // nobody else touches it before it is done
        lock.lock();
        task_ = nullptr;
        changed_.notify_all();
    }
}

// TaskThread: a thread that does one thing after the other for somebody, who may wait for it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

/// Used from one thread at a time. What the task wrote is seen after isDone() was true, or wait() has returned.
class TaskThread {
public:
    TaskThread() = default;
    /// Waits for the task.
    ~TaskThread();
    TaskThread(const TaskThread&) = delete;
    TaskThread& operator=(const TaskThread&) = delete;

    /// Begins a task, which must not throw. Only while there is none. The thread is made with the first one. False
    /// when the system has none left, or no memory: nothing is done then, and the caller may do it.
    bool start(std::function<void()> task);

    bool isDone() const;
    void wait();
    /// Waits no longer than that; isDone() afterwards.
    bool waitFor(std::chrono::milliseconds limit);

private:
    void run();

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::function<void()> task_; ///< empty: done
    bool ends_ = false;
    std::thread thread_;
};

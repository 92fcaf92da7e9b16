// BusyPool: the global thread pool with no thread to spare.
#pragma once

#include <QThreadPool>

#include <semaphore>

/// From its construction to release(), or to its destruction, work that is given to the global pool waits.
class BusyPool {
public:
    BusyPool() : oldThreadCount_(QThreadPool::globalInstance()->maxThreadCount())
    {
        QThreadPool::globalInstance()->setMaxThreadCount(1);
        QThreadPool::globalInstance()->start([this] { gate_.acquire(); });
    }

    ~BusyPool()
    {
        release();
        QThreadPool::globalInstance()->waitForDone();
        QThreadPool::globalInstance()->setMaxThreadCount(oldThreadCount_);
    }

    BusyPool(const BusyPool&) = delete;
    BusyPool& operator=(const BusyPool&) = delete;

    void release()
    {
        if (!released_)
            gate_.release();
        released_ = true;
    }

private:
    int oldThreadCount_;
    bool released_ = false;
    std::binary_semaphore gate_{0};
};

// The threads of tasks.
#include "backgroundtasks.h"

#include "containment.h"

#include <atomic>
#include <list>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace backgroundtasks {

namespace {

class Threads {
public:
    bool start(std::function<void(const std::stop_token&)> task)
    {
        const std::lock_guard lock(mutex_);
        running_.remove_if([](const Running& running) { return running.finished.load(); });
        Running& running = running_.emplace_back();
        try {
            running.thread = std::jthread([&running, work = std::move(task)](const std::stop_token& stop) {
                pipewire::contain([&] { work(stop); });
                running.finished = true;
            });
        } catch (const std::system_error&) {
            running_.pop_back();
            return false;
        }
        return true;
    }

private:
    struct Running {
        std::atomic<bool> finished = false;
        std::jthread thread; // ends first
    };

    std::mutex mutex_;
    std::list<Running> running_;
};

}

bool start(std::function<void(const std::stop_token& stop)> task)
{
    static Threads threads;
    return threads.start(std::move(task));
}

}

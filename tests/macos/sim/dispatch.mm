// Semaphores, times and serial queues. No wait is longer than the test allows; what was asked for is on record.
#include <dispatch/dispatch.h>

#include "blocks.h"
#include "objects.h"
#include "queue.h"
#include "runtime.h"
#include "system.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

@interface SimSemaphore : NSObject <OS_dispatch_semaphore>
@end
@implementation SimSemaphore
@end
@interface SimQueue : NSObject <OS_dispatch_queue>
@end
@implementation SimQueue
@end

namespace {

using macsim::bodyOf;

struct SemaphoreBody : macsim::ledger::Body {
    std::mutex mutex;
    std::condition_variable changed;
    std::intptr_t value = 0;
    int waiting = 0;

    void end() override
    {
        const std::scoped_lock lock(mutex);
        if (waiting > 0)
            macsim::ledger::fault("a semaphore went while somebody waited for it");
    }
};

struct Work {
    std::function<void()> run;
    std::shared_ptr<macsim::system::Running> running; ///< until all that the work held is given back
};

/// What a queue and its thread share. The thread ends when the queue is gone and all its work is done.
struct Line {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Work> work;
    bool closed = false;

    /// The next piece of work; nothing at the end.
    std::optional<Work> take()
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return closed || !work.empty(); });
        if (work.empty())
            return std::nullopt;
        auto next = std::move(work.front());
        work.pop_front();
        return next;
    }
};

struct QueueBody : macsim::ledger::Body {
    std::shared_ptr<Line> line = std::make_shared<Line>();
    std::string label;

    void end() override
    {
        const std::scoped_lock lock(line->mutex);
        line->closed = true;
        line->changed.notify_all();
    }
};

void runLine(const std::shared_ptr<Line>& line)
{
    while (auto work = line->take()) {
        @autoreleasepool {
            work->run();
            work->run = nullptr;
        }
    }
}

/// The limits that dispatch_time() gave out, by instant: the wait that follows tells what was asked for.
struct Limits {
    std::mutex mutex;
    std::unordered_map<dispatch_time_t, std::int64_t> nanoseconds;
};

Limits& limits()
{
    static auto* instance = new Limits;
    return *instance;
}

std::chrono::nanoseconds askedLimit(dispatch_time_t until)
{
    const std::scoped_lock lock(limits().mutex);
    const auto found = limits().nanoseconds.find(until);
    return std::chrono::nanoseconds(found != limits().nanoseconds.end() ? found->second : -1);
}

/// When a wait ends in vain: when what was asked for has passed, or, much sooner, when nothing of the system has run
/// for a while, so that no answer can be on its way.
class Patience {
public:
    explicit Patience(std::chrono::nanoseconds asked) : asked_(asked) { }

    bool isOver() const { return idle_ >= macsim::answers().longestWait || passed_ >= asked_; }
    void stepPassed()
    {
        passed_ += step;
        if (!macsim::system::isBusy())
            idle_ += step;
    }

    static constexpr std::chrono::milliseconds step{2};

private:
    std::chrono::nanoseconds asked_;
    std::chrono::nanoseconds passed_{0};
    std::chrono::nanoseconds idle_{0};
};

}

void macsim::runOnQueue(id queue, std::function<void()> work)
{
    const auto line = bodyOf<QueueBody>(queue)->line;
    const std::scoped_lock lock(line->mutex);
    line->work.push_back({std::move(work), std::make_shared<system::Running>()});
    line->changed.notify_all();
}

extern "C" {

dispatch_semaphore_t dispatch_semaphore_create(intptr_t value)
{
    SimSemaphore* semaphore = [SimSemaphore alloc];
    bodyOf<SemaphoreBody>(semaphore)->value = value;
    return semaphore;
}

intptr_t dispatch_semaphore_signal(dispatch_semaphore_t semaphore)
{
    const auto body = bodyOf<SemaphoreBody>(semaphore);
    const std::scoped_lock lock(body->mutex);
    ++body->value;
    body->changed.notify_one();
    return 0;
}

intptr_t dispatch_semaphore_wait(dispatch_semaphore_t semaphore, dispatch_time_t until)
{
    const auto body = bodyOf<SemaphoreBody>(semaphore);
    const auto asked = askedLimit(until);
    macsim::system::note([asked](macsim::Record& record) { record.waits.push_back(asked.count()); });
    Patience patience(asked);
    std::unique_lock lock(body->mutex);
    ++body->waiting;
    while (body->value <= 0 && !patience.isOver()) {
        if (!body->changed.wait_for(lock, Patience::step, [&] { return body->value > 0; }))
            patience.stepPassed();
    }
    --body->waiting;
    if (body->value <= 0)
        return 1;
    --body->value;
    return 0;
}

dispatch_time_t dispatch_time(dispatch_time_t from, int64_t nanoseconds)
{
    const auto now = std::uint64_t(std::chrono::steady_clock::now().time_since_epoch().count());
    const dispatch_time_t instant = (from == DISPATCH_TIME_NOW ? now : from) + std::uint64_t(nanoseconds);
    const std::scoped_lock lock(limits().mutex);
    limits().nanoseconds[instant] = nanoseconds;
    return instant;
}

dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t attributes)
{
    if (attributes != DISPATCH_QUEUE_SERIAL)
        macsim::ledger::fault("a queue that is not serial");
    SimQueue* queue = [SimQueue alloc];
    const auto body = bodyOf<QueueBody>(queue);
    body->label = label;
    std::thread(runLine, body->line).detach();
    macsim::system::note([label](macsim::Record& record) { record.queueLabels.emplace_back(label); });
    return queue;
}

void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work)
{
    macsim::runOnQueue(queue, [context, work] { work(context); });
}
}

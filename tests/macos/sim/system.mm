#include "system.h"

#import <Foundation/Foundation.h>

#include "ledger.h"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace macsim {

namespace {

struct HeldAnswer {
    Call call;
    std::function<void()> work;
};

/// Never destroyed: threads of the system may outlive the statics.
struct State {
    std::mutex mutex;
    std::condition_variable changed;
    int running = 0;
    std::deque<HeldAnswer> held;
    Record record;
    Answers answers;
};

State& state()
{
    static auto* instance = new State;
    return *instance;
}

/// The work and all that it holds end in the pool.
void runInPool(std::function<void()>& work)
{
    @autoreleasepool {
        work();
        work = nullptr;
    }
}

}

Answers& answers()
{
    return state().answers;
}

Record record()
{
    const std::scoped_lock lock(state().mutex);
    return state().record;
}

void system::note(const std::function<void(Record&)>& change)
{
    const std::scoped_lock lock(state().mutex);
    change(state().record);
}

bool system::isBusy()
{
    const std::scoped_lock lock(state().mutex);
    return state().running > 0;
}

system::Running::Running()
{
    const std::scoped_lock lock(state().mutex);
    ++state().running;
}

system::Running::~Running()
{
    const std::scoped_lock lock(state().mutex);
    --state().running;
    state().changed.notify_all();
}

void system::onThread(std::function<void()> work)
{
    auto running = std::make_unique<Running>();
    std::thread([work = std::move(work), running = std::move(running)]() mutable {
        runInPool(work);
        running.reset();
    }).detach();
}

void system::answer(Call call, When when, std::function<void()> work)
{
    switch (when) {
    case When::Soon:
        onThread(std::move(work));
        break;
    case When::AtOnce:
        runInPool(work);
        break;
    case When::Held: {
        const std::scoped_lock lock(state().mutex);
        state().held.push_back({call, std::move(work)});
        break;
    }
    }
}

bool answerHeld(Call call)
{
    std::deque<HeldAnswer> others;
    std::vector<std::function<void()>> found;
    {
        const std::scoped_lock lock(state().mutex);
        for (auto& one : state().held) {
            if (one.call == call)
                found.push_back(std::move(one.work));
            else
                others.push_back(std::move(one));
        }
        state().held.swap(others);
    }
    const bool any = !found.empty();
    for (auto& work : found)
        system::onThread(std::move(work));
    settle();
    return any;
}

int heldAnswers()
{
    const std::scoped_lock lock(state().mutex);
    return int(state().held.size());
}

void forgetHeld()
{
    std::deque<HeldAnswer> forgotten;
    {
        const std::scoped_lock lock(state().mutex);
        forgotten.swap(state().held);
    }
    @autoreleasepool {
        forgotten.clear();
    }
}

void settle()
{
    constexpr std::chrono::seconds patience{30};
    std::unique_lock lock(state().mutex);
    if (!state().changed.wait_for(lock, patience, [] { return state().running == 0; }))
        ledger::fault("something of the system does not end");
}

int live(const std::string& className)
{
    const auto counts = ledger::live();
    const auto found = counts.find(className);
    return found != counts.end() ? found->second : 0;
}

std::string verdict()
{
    settle();
    std::string text;
    for (const auto& fault : ledger::faults())
        text += "fault: " + fault + "\n";
    if (const int streams = runningStreams())
        text += std::to_string(streams) + " streams still run\n";
    if (const int held = heldAnswers())
        text += std::to_string(held) + " answers are held\n";
    for (const auto& [name, count] : ledger::live())
        text += "not released: " + std::to_string(count) + " " + name + "\n";
    return text;
}

}

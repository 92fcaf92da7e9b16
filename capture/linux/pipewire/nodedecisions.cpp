// Questions and answers about nodes.
#include "nodedecisions.h"

#include "backgroundtasks.h"
#include "containment.h"
#include "pipewiregraph.h"

#include <algorithm>
#include <condition_variable>
#include <list>
#include <map>
#include <mutex>
#include <stop_token>
#include <utility>

namespace pipewire {

/// What the thread that asks shares with the object that may be gone before the answer.
struct NodeDecisions::Shared {
    using Key = std::pair<uint32_t, qint64>; // node, process
    using Clock = std::chrono::steady_clock;
    struct Waiting {
        Key key;
        Question ask;
        Clock::time_point due;
        std::chrono::milliseconds pause; // after an attempt without an answer
    };

    std::optional<Waiting> nextQuestion(const std::stop_token& stop);
    void settle(Waiting question, std::optional<bool> answer);
    void answerAll(const std::stop_token& stop);

    Pauses pauses;
    std::mutex mutex; // guards the following
    std::condition_variable_any changed; // the questions
    std::map<Key, std::optional<bool>> answers; // nothing while the question waits or is asked
    std::list<Waiting> questions;
    bool asking = false; // a thread takes them

    std::mutex calling; // held while decided runs, and guards it
    std::function<void()> decided; // null when the object is gone
};

/// Waits until one is due. Nothing when there are none, or the process ends.
std::optional<NodeDecisions::Shared::Waiting> NodeDecisions::Shared::nextQuestion(const std::stop_token& stop)
{
    const auto sooner = [](const Waiting& first, const Waiting& second) { return first.due < second.due; };
    std::unique_lock lock(mutex);
    while (!questions.empty() && !stop.stop_requested()) {
        const auto next = std::min_element(questions.begin(), questions.end(), sooner);
        const Clock::time_point due = next->due;
        if (due <= Clock::now()) {
            Waiting question = std::move(*next);
            questions.erase(next);
            return question;
        }
        changed.wait_until(lock, stop, due, [&] {
            return questions.empty() || std::min_element(questions.begin(), questions.end(), sooner)->due < due;
        });
    }
    asking = false;
    return std::nullopt;
}

void NodeDecisions::Shared::settle(Waiting question, std::optional<bool> answer)
{
    {
        const std::lock_guard lock(mutex);
        const auto waiting = answers.find(question.key);
        if (waiting == answers.end())
            return; // the node has gone
        if (!answer && waiting->second)
            return; // a question that was asked of the same node before knew it
        waiting->second = answer;
        if (!answer) {
            question.due = Clock::now() + question.pause;
            question.pause = std::min(2 * question.pause, pauses.longest);
            questions.push_back(std::move(question));
            return;
        }
    }
    const std::lock_guard lock(calling);
    if (decided)
        decided();
}

void NodeDecisions::Shared::answerAll(const std::stop_token& stop)
{
    while (std::optional<Waiting> question = nextQuestion(stop)) {
        std::optional<bool> answer;
        contain([&] { answer = question->ask(); });
        contain([&] { settle(std::move(*question), answer); });
    }
}

NodeDecisions::NodeDecisions(ProcessFilter filter, std::function<void()> decided, Pauses pauses)
    : filter_(std::move(filter)), shared_(std::make_shared<Shared>())
{
    shared_->decided = std::move(decided);
    shared_->pauses = pauses;
}

NodeDecisions::~NodeDecisions()
{
    {
        const std::lock_guard lock(shared_->mutex);
        shared_->questions.clear();
        shared_->answers.clear(); // nor is the question asked again that is being asked
    }
    shared_->changed.notify_all();
    const std::lock_guard lock(shared_->calling);
    shared_->decided = nullptr;
}

std::optional<bool> NodeDecisions::of(uint32_t node, qint64 processId)
{
    if (processId <= 0)
        return std::nullopt;
    const std::lock_guard lock(shared_->mutex);
    const Shared::Key key{node, processId};
    auto entry = shared_->answers.find(key);
    if (entry == shared_->answers.end()) {
        Verdict verdict = filter_(processId);
        const bool* known = std::get_if<bool>(&verdict);
        if (!known)
            shared_->questions.push_back(
                {key, std::get<Question>(std::move(verdict)), Shared::Clock::now(), shared_->pauses.first});
        entry = shared_->answers.emplace(key, known ? std::optional(*known) : std::nullopt).first;
        shared_->changed.notify_all();
    }
    if (!shared_->questions.empty() && !shared_->asking)
        shared_->asking
            = backgroundtasks::start([shared = shared_](const std::stop_token& stop) { shared->answerAll(stop); });
    return entry->second;
}

void NodeDecisions::keepNodesOf(const Graph& graph)
{
    const auto hasGone = [&graph](const Shared::Key& key) { return graph.nodes.count(key.first) == 0; };
    const std::lock_guard lock(shared_->mutex);
    std::erase_if(shared_->answers, [&](const auto& entry) { return hasGone(entry.first); });
    std::erase_if(shared_->questions, [&](const Shared::Waiting& question) { return hasGone(question.key); });
    shared_->changed.notify_all();
}

}

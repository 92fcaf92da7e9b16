// Questions and answers about nodes.
#include "nodedecisions.h"

#include "backgroundtasks.h"
#include "pipewiregraph.h"

#include <deque>
#include <map>
#include <mutex>
#include <utility>

namespace pipewire {

/// What the thread that asks shares with the object that may be gone before the answer.
struct NodeDecisions::Desk {
    using Key = std::pair<uint32_t, qint64>; // node, process
    using Question = std::pair<Key, std::function<bool()>>;

    std::optional<Question> nextQuestion();
    void answerAll();

    std::mutex mutex; // guards the following
    std::map<Key, std::optional<bool>> answers; // nothing while the question waits or is asked
    std::deque<Question> questions;
    bool asking = false; // a thread takes them

    std::mutex calling; // held while decided runs, and guards it
    std::function<void()> decided; // null when the object is gone
};

std::optional<NodeDecisions::Desk::Question> NodeDecisions::Desk::nextQuestion()
{
    const std::lock_guard lock(mutex);
    if (questions.empty()) {
        asking = false;
        return std::nullopt;
    }
    Question question = std::move(questions.front());
    questions.pop_front();
    return question;
}

void NodeDecisions::Desk::answerAll()
{
    while (const std::optional<Question> question = nextQuestion()) {
        const bool answer = question->second();
        {
            const std::lock_guard lock(mutex);
            if (const auto waiting = answers.find(question->first); waiting != answers.end())
                waiting->second = answer;
        }
        const std::lock_guard lock(calling);
        if (decided)
            decided();
    }
}

NodeDecisions::NodeDecisions(ProcessFilter filter, std::function<void()> decided)
    : filter_(std::move(filter)), desk_(std::make_shared<Desk>())
{
    desk_->decided = std::move(decided);
}

NodeDecisions::~NodeDecisions()
{
    {
        const std::lock_guard lock(desk_->mutex);
        desk_->questions.clear();
    }
    const std::lock_guard lock(desk_->calling);
    desk_->decided = nullptr;
}

std::optional<bool> NodeDecisions::of(uint32_t node, qint64 processId)
{
    if (processId <= 0)
        return std::nullopt;
    const std::lock_guard lock(desk_->mutex);
    const auto [entry, isNew] = desk_->answers.try_emplace({node, processId});
    if (isNew) {
        Verdict verdict = filter_(processId);
        if (const bool* known = std::get_if<bool>(&verdict))
            entry->second = *known;
        else
            desk_->questions.emplace_back(entry->first, std::get<std::function<bool()>>(std::move(verdict)));
    }
    if (!desk_->questions.empty() && !desk_->asking)
        desk_->asking = backgroundtasks::start([desk = desk_](const std::stop_token&) { desk->answerAll(); });
    return entry->second;
}

void NodeDecisions::keepNodesOf(const Graph& graph)
{
    const std::lock_guard lock(desk_->mutex);
    std::erase_if(desk_->answers, [&](const auto& entry) { return graph.nodes.count(entry.first.first) == 0; });
}

}

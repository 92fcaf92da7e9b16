// NodeDecisions: whether the audio of a node is wanted, without anybody having to wait for the answer.
#pragma once

#include <QtGlobal>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <variant>

namespace pipewire {

struct Graph;

/// Whether the audio of a process is wanted; nothing while that cannot be told.
using Question = std::function<std::optional<bool>()>;
/// Known at once, or the answer to a question. A question may take as long as it likes; it is asked on another
/// thread, one at a time, and asked again later, less and less often, as long as it has no answer.
using Verdict = std::variant<bool, Question>;
using ProcessFilter = std::function<Verdict(qint64 processId)>;

/**
 * Asks the filter once for each node and process and keeps the answer as long as the node is there. The process of a
 * node can become known late, and a node that is the server's own never has one. As long as there is none, nothing is
 * known and nothing is asked: what plays could be a program that is left out.
 */
class NodeDecisions {
public:
    /// When a question without an answer is asked again: first after that time, then after twice as much, and so on.
    struct Pauses {
        std::chrono::milliseconds first{250};
        std::chrono::milliseconds longest{8000};
    };

    /// decided is called on the thread of the questions when of() has a new answer.
    NodeDecisions(ProcessFilter filter, std::function<void()> decided, Pauses pauses = defaultPauses());
    /// When it returns, decided does not run and will not. It does not wait for an answer: hold no lock that decided
    /// takes.
    ~NodeDecisions();
    NodeDecisions(const NodeDecisions&) = delete;
    NodeDecisions& operator=(const NodeDecisions&) = delete;

    /// Nothing while it is not known. processId: 0 for unknown. One thread at a time, as is keepNodesOf().
    std::optional<bool> of(uint32_t node, qint64 processId);
    /// Forgets nodes that are not in the graph any more.
    void keepNodesOf(const Graph& graph);

private:
    struct Shared;
    static Pauses defaultPauses() { return {}; }

    ProcessFilter filter_;
    std::shared_ptr<Shared> shared_; // also of the thread that asks
};

}

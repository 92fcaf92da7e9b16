// Which ports of others are linked to the ports of the capture, and the links themselves.
#pragma once

#include "pipewiregraph.h"
#include "pipewirehandles.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

namespace pipewire {

/// The node that the graph's default sink is; nothing when there is none yet.
std::optional<uint32_t> defaultSinkNode(const Graph& graph);

/// The links that bring what a sink plays to the capture's node. Channels go to their own side, those of the middle
/// to both.
std::set<PortPair> sinkLinks(const Graph& graph, uint32_t sink, uint32_t capture);

/// The nodes that programs play through, as far as it is known whose they are, in the order of their ids. Neither
/// those that only pass audio on nor the capture's own.
std::vector<uint32_t> playbackNodes(const Graph& graph, uint32_t capture);

/// The links that bring the audio of those nodes to the capture's.
std::set<PortPair> playbackLinks(const Graph& graph, const std::set<uint32_t>& nodes, uint32_t capture);

/// Links that this process made. Used under the connection's lock; released before its core.
class LinkSet {
public:
    explicit LinkSet(pw_core* core);
    ~LinkSet();
    LinkSet(const LinkSet&) = delete;
    LinkSet& operator=(const LinkSet&) = delete;

    /// Makes those that are missing and ends those that are not wanted. One that the server has refused is not tried
    /// again as long as it is wanted.
    void set(const std::set<PortPair>& wanted);

private:
    struct Link;

    pw_core* core_;
    std::map<PortPair, std::unique_ptr<Link>> links_;
};

}

// StreamPlan: through which stream of the recorder's each playing node is captured.
//
// A node has one latency, which it tells all who play to it. Players of sinks with different latencies can therefore
// not share one: a player would be told something between its own sink's latency and another one's, and move its
// video.
#pragma once

#include "pipewiregraph.h"

#include <cstddef>
#include <cstdint>
#include <set>
#include <vector>

namespace pipewire {

/// One stream for those that play to the same sinks. Streams stay what they are as long as they can, for a new one
/// begins with a gap: one that is not needed any more goes to those who need another, and the last one always stays.
class StreamPlan {
public:
    static constexpr std::size_t mostStreams = 8;

    struct Stream {
        uint32_t id = 0; ///< never given twice
        std::set<uint32_t> sinks; ///< of its players; several where each plays to several
        std::set<uint32_t> nodes; ///< that are captured through it
        spa_latency_info latency{}; ///< what those are told
    };

    /// wanted: nodes of the graph. Where the streams do not suffice, nodes share the one with the nearest latency.
    const std::vector<Stream>& update(const Graph& graph, const std::set<uint32_t>& wanted);

private:
    Stream* takeFree(const std::vector<Stream>& groups, const Stream& group);
    Stream& nearest(const spa_latency_info& latency);

    std::vector<Stream> streams_{Stream{}};
    uint32_t nextId_ = 1;
};

}

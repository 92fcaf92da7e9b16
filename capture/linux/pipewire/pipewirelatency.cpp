// Latencies of the graph.
#include "pipewirelatency.h"

#include "pipewirelinks.h"

#include <spa/param/latency-utils.h>

#include <algorithm>
#include <cmath>
#include <optional>

namespace pipewire {

namespace {

/// For telling which of two is longer.
constexpr CycleLength usualLength{21'333'333, 1e9 / 48000};

class Range {
public:
    Range() { spa_latency_info_combine_start(&combined_, SPA_DIRECTION_INPUT); }
    void add(const Port& port)
    {
        if (port.latency)
            spa_latency_info_combine(&combined_, &*port.latency);
    }
    spa_latency_info finished()
    {
        spa_latency_info_combine_finish(&combined_);
        return combined_;
    }

private:
    spa_latency_info combined_{};
};

spa_latency_info defaultLatency(const Graph& graph)
{
    const std::optional<uint32_t> sink = defaultSinkNode(graph);
    return sink ? sinkLatency(graph, *sink) : spa_latency_info{};
}

/// It may be anything that a program writes into it.
double middleNs(const spa_latency_info& latency, const CycleLength& length)
{
    const double cycles = (double(latency.min_quantum) + double(latency.max_quantum)) / 2;
    const double frames = (double(latency.min_rate) + double(latency.max_rate)) / 2;
    const double fixedNs = (double(latency.min_ns) + double(latency.max_ns)) / 2;
    return cycles * double(length.cycleNs) + frames * length.frameNs + fixedNs;
}

bool isRecorder(const Graph& graph, uint32_t id)
{
    const auto node = graph.nodes.find(id);
    return node != graph.nodes.end() && node->second && node->second->name == captureNodeName;
}

}

spa_latency_info sinkLatency(const Graph& graph, uint32_t sink)
{
    Range range;
    for (const auto& [id, port] : graph.ports) {
        if (port.node == sink && !port.output)
            range.add(port);
    }
    return range.finished();
}

std::set<uint32_t> playbackSinks(const Graph& graph, uint32_t node)
{
    std::set<uint32_t> sinks;
    for (const auto& [id, link] : graph.links) {
        if (link.outputNode == node && graph.ports.count(link.inputPort) > 0 && !isRecorder(graph, link.inputNode))
            sinks.insert(link.inputNode);
    }
    const std::optional<uint32_t> sink = sinks.empty() ? defaultSinkNode(graph) : std::nullopt;
    if (sink)
        sinks.insert(*sink);
    return sinks;
}

spa_latency_info playbackLatency(const Graph& graph, uint32_t node)
{
    Range range;
    bool linked = false;
    for (const auto& [id, link] : graph.links) {
        const auto input = graph.ports.find(link.inputPort);
        if (link.outputNode != node || input == graph.ports.end() || isRecorder(graph, link.inputNode))
            continue;
        range.add(input->second);
        linked = true;
    }
    return linked ? range.finished() : defaultLatency(graph);
}

spa_latency_info longestLatency(const Graph& graph, const std::set<uint32_t>& nodes)
{
    std::optional<spa_latency_info> longest;
    for (const uint32_t node : nodes) {
        const spa_latency_info latency = playbackLatency(graph, node);
        if (!longest || usualLatencyNs(latency) > usualLatencyNs(*longest))
            longest = latency;
    }
    return longest ? *longest : defaultLatency(graph);
}

qint64 latencyNs(const spa_latency_info& latency, const CycleLength& length)
{
    const double ns = middleNs(latency, length);
    return ns > 0 ? qint64(std::min(ns, double(mostLatencyNs))) : 0; // also where it is no number
}

qint64 usualLatencyNs(const spa_latency_info& latency)
{
    return latencyNs(latency, usualLength);
}

spa_latency_info boundedLatency(const spa_latency_info& latency)
{
    const double ns = middleNs(latency, usualLength);
    if (ns >= 0 && ns <= double(mostLatencyNs))
        return latency;
    spa_latency_info bounded{};
    bounded.min_ns = quint64(usualLatencyNs(latency));
    bounded.max_ns = bounded.min_ns;
    return bounded;
}

}

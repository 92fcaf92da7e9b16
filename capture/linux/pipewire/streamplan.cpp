// Keeping, giving away and making streams.
#include "streamplan.h"

#include "pipewirelatency.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace pipewire {

namespace {

using Stream = StreamPlan::Stream;

/// The one with these sinks; null when there is none.
template <typename Streams>
auto* withSinks(Streams& streams, const std::set<uint32_t>& sinks)
{
    const auto found = std::find_if(
        streams.begin(), streams.end(), [&sinks](const Stream& stream) { return stream.sinks == sinks; });
    return found == streams.end() ? nullptr : &*found;
}

/// Nodes that play to the same sinks. They are told the same.
std::vector<Stream> groupsOf(const Graph& graph, const std::set<uint32_t>& wanted)
{
    std::vector<Stream> groups;
    for (const uint32_t node : wanted) {
        const std::set<uint32_t> sinks = playbackSinks(graph, node);
        Stream* group = withSinks(groups, sinks);
        if (!group)
            group = &groups.emplace_back(Stream{0, sinks, {}, {}});
        group->nodes.insert(node);
    }
    for (Stream& group : groups)
        group.latency = boundedLatency(longestLatency(graph, group.nodes));
    return groups;
}

std::size_t sharedNodes(const Stream& first, const Stream& second)
{
    std::vector<uint32_t> shared;
    std::set_intersection(
        first.nodes.begin(), first.nodes.end(), second.nodes.begin(), second.nodes.end(), std::back_inserter(shared));
    return shared.size();
}

}

/// One whose sinks nobody plays to any more; rather one that the group's nodes are captured through: they have moved
/// to another sink, and do not notice. Null when there is none.
Stream* StreamPlan::takeFree(const std::vector<Stream>& groups, const Stream& group)
{
    Stream* best = nullptr;
    for (Stream& stream : streams_) {
        if (!withSinks(groups, stream.sinks) && (!best || sharedNodes(stream, group) > sharedNodes(*best, group)))
            best = &stream;
    }
    return best;
}

Stream& StreamPlan::nearest(const spa_latency_info& latency)
{
    const qint64 wantedNs = usualLatencyNs(latency);
    const auto distance
        = [wantedNs](const Stream& stream) { return std::abs(usualLatencyNs(stream.latency) - wantedNs); };
    return *std::min_element(streams_.begin(), streams_.end(),
        [&distance](const Stream& first, const Stream& second) { return distance(first) < distance(second); });
}

const std::vector<Stream>& StreamPlan::update(const Graph& graph, const std::set<uint32_t>& wanted)
{
    const std::vector<Stream> groups = groupsOf(graph, wanted);
    std::vector<const Stream*> without;
    for (const Stream& group : groups) {
        Stream* stream = withSinks(streams_, group.sinks);
        if (!stream)
            stream = takeFree(groups, group);
        if (!stream && streams_.size() < mostStreams) {
            streams_.emplace_back().id = nextId_++;
            stream = &streams_.back();
        }
        if (!stream) {
            without.push_back(&group);
            continue;
        }
        const uint32_t id = stream->id;
        *stream = group;
        stream->id = id;
    }
    if (groups.empty()) {
        streams_.resize(1);
        streams_[0] = {streams_[0].id, {}, {}, boundedLatency(longestLatency(graph, {}))};
    } else {
        std::erase_if(streams_, [&groups](const Stream& stream) { return !withSinks(groups, stream.sinks); });
    }
    for (const Stream* group : without)
        nearest(group->latency).nodes.insert(group->nodes.begin(), group->nodes.end());
    return streams_;
}

}

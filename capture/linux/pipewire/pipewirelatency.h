// How long captured audio still takes to be heard: the latency that sinks tell, for the nodes that are captured.
//
// Players hold their video back by what they are told of it, so that is when the audio belongs to what they show.
#pragma once

#include "pipewiregraph.h"

#include <QtGlobal>

#include <cstdint>
#include <set>

namespace pipewire {

inline constexpr const char* captureNodeName = "orvantis-recorder"; ///< of every recorder's node

/// What a sink tells those who play to it; no latency while it has not told any.
spa_latency_info sinkLatency(const Graph& graph, uint32_t sink);

/// The nodes that a playing node plays to, recorders left out. Without any link, the default sink: the session
/// manager is about to make the link. Empty when there is none of these.
std::set<uint32_t> playbackSinks(const Graph& graph, uint32_t node);

/// What a playing node is told: the range of all that it is linked to. Recorders only repeat what others say, and do
/// not count. Without any link, what the default sink tells.
spa_latency_info playbackLatency(const Graph& graph, uint32_t node);

/// For audio that several nodes play at once: the longest of theirs, for audio that is early disturbs more than audio
/// that is late. What the default sink tells when there are no nodes.
spa_latency_info longestLatency(const Graph& graph, const std::set<uint32_t>& nodes);

/// One cycle of the graph.
struct CycleLength {
    qint64 cycleNs = 0;
    double frameNs = 0; ///< of the graph, whose rate is not always 48000 Hz
};

/// The middle of the range, as players see it, within sane bounds: from 0 to mostLatencyNs. Any thread, and in real
/// time.
qint64 latencyNs(const spa_latency_info& latency, const CycleLength& length);

/// latencyNs() in a graph with the usual cycles, for comparing latencies.
qint64 usualLatencyNs(const spa_latency_info& latency);

/// The same latency where it lies within the bounds of latencyNs(), else the nearest that does.
spa_latency_info boundedLatency(const spa_latency_info& latency);

inline constexpr qint64 mostLatencyNs = 5'000'000'000; ///< speakers on a network take up to 2 s

}

// Keeping the streams and links as the graph demands.
#include "pipewirecapture.h"

#include "pipewirelatency.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace pipewire {

namespace {

constexpr uint32_t onlyStream = 0; ///< for the audio of a sink

}

AudioCapture::AudioCapture(ProcessFilter processFilter, std::function<void(const QString& error)> lost)
    : lost_(std::move(lost))
{
    QString error;
    connection_ = CoreConnection::open(CoreConnection::Purpose::AudioCapture, &error);
    if (!connection_) {
        error_ = error;
        return;
    }
    try {
        open(std::move(processFilter));
    } catch (...) {
        connection_->stop(); // before the members go
        throw;
    }
}

void AudioCapture::open(ProcessFilter processFilter)
{
    const LoopLock lock = connection_->lock();
    if (processFilter)
        decisions_ = std::make_unique<NodeDecisions>(std::move(processFilter), [this] { followDecision(); });
    connection_->setLostHandler([this](const QString& text) { reportLoss(text); });
    links_ = std::make_unique<LinkSet>(connection_->core());
    mirror_ = std::make_unique<GraphMirror>(connection_->core(), [this] { followGraph(); });
    addStream(onlyStream);
    if (streams_.empty())
        error_ = QStringLiteral("PipeWire has no stream");
}

AudioCapture::~AudioCapture()
{
    if (connection_)
        connection_->stop(); // holds no lock, so that a decision that is being followed can end
}

void AudioCapture::setActive(bool active, Answer answer)
{
    const LoopLock lock = connection_->lock();
    active_ = active;
    for (const auto& [id, stream] : streams_)
        stream->setActive(active);
    connection_->synchronise(std::move(answer));
}

BlockQueues AudioCapture::queues()
{
    const std::lock_guard lock(queuesMutex_);
    return queues_;
}

void AudioCapture::publishQueues()
{
    BlockQueues queues;
    for (const auto& [id, stream] : streams_)
        queues.push_back(stream->queue());
    const std::lock_guard lock(queuesMutex_);
    queues_ = std::move(queues);
}

/// There is none where PipeWire makes none; it is tried again with the next change.
void AudioCapture::addStream(uint32_t id)
{
    auto stream = std::make_unique<CaptureStream>(connection_->core(),
        CaptureStream::Handlers{[this] { follow(); }, [this](const QString& text) { reportLoss(text); }}, active_);
    if (!stream->isValid())
        return;
    streams_[id] = std::move(stream);
    publishQueues();
}

void AudioCapture::retireAllBut(const std::vector<StreamPlan::Stream>& planned)
{
    const std::size_t before = retired_.size();
    for (auto& [id, stream] : streams_) {
        const auto isIts = [id = id](const StreamPlan::Stream& entry) { return entry.id == id; };
        if (std::none_of(planned.begin(), planned.end(), isIts))
            retired_.push_back(std::move(stream));
    }
    if (retired_.size() == before)
        return;
    std::erase_if(streams_, [](const auto& entry) { return !entry.second; });
    publishQueues();
}

/// Called by a stream, which may not go before it returns.
void AudioCapture::follow()
{
    if (links_ && mirror_)
        links_->set(decisions_ ? linksOfPrograms() : linksOfSink());
}

void AudioCapture::followGraph()
{
    retired_.clear();
    follow();
}

/// On the thread of the questions.
void AudioCapture::followDecision()
{
    const LoopLock lock = connection_->lock();
    followGraph();
}

std::optional<uint32_t> AudioCapture::captureNode(uint32_t stream) const
{
    const auto found = streams_.find(stream);
    return found == streams_.end() ? std::nullopt : found->second->node();
}

std::set<PortPair> AudioCapture::linksOfSink()
{
    const std::optional<uint32_t> capture = captureNode(onlyStream);
    if (!capture)
        return {};
    CaptureStream& stream = *streams_.at(onlyStream);
    const std::optional<uint32_t> sink = defaultSinkNode(mirror_->graph());
    if (!sink) {
        stream.setSource({});
        return {};
    }
    stream.setSource({*sink, sinkLatency(mirror_->graph(), *sink)});
    return sinkLinks(mirror_->graph(), *sink, *capture);
}

/// A node whose stream is not in the graph yet stays linked to the one that it was linked to.
std::set<PortPair> AudioCapture::linksOfPrograms()
{
    const Graph& graph = mirror_->graph();
    decisions_->keepNodesOf(graph);
    std::set<uint32_t> wanted;
    for (const uint32_t id : playbackNodes(graph, SPA_ID_INVALID)) {
        if (decisions_->of(id, ownerProcess(graph, *graph.nodes.at(id))).value_or(false))
            wanted.insert(id);
    }
    std::erase_if(streamOf_, [&wanted](const auto& entry) { return wanted.count(entry.first) == 0; });
    const std::vector<StreamPlan::Stream>& planned = plan_.update(graph, wanted);
    for (const StreamPlan::Stream& entry : planned) {
        if (streams_.count(entry.id) == 0)
            addStream(entry.id);
        if (!captureNode(entry.id))
            continue;
        streams_.at(entry.id)->setSource({SPA_ID_INVALID, entry.latency});
        streams_.at(entry.id)->tellLatency(entry.latency); // before the links are asked for
        for (const uint32_t node : entry.nodes)
            streamOf_[node] = entry.id;
    }
    retireAllBut(planned);
    std::map<uint32_t, std::set<uint32_t>> nodesOf; // by the capture's node
    for (const auto& [node, stream] : streamOf_) {
        if (const std::optional<uint32_t> capture = captureNode(stream))
            nodesOf[*capture].insert(node);
    }
    std::set<PortPair> links;
    for (const auto& [capture, nodes] : nodesOf)
        links.merge(playbackLinks(graph, nodes, capture));
    return links;
}

void AudioCapture::reportLoss(const QString& error)
{
    if (std::exchange(lossReported_, true))
        return;
    lost_(error);
}

}

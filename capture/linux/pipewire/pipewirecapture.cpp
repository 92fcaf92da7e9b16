// Keeping the links as the graph demands.
#include "pipewirecapture.h"

#include <utility>

namespace pipewire {

AudioCapture::AudioCapture(ProcessFilter processFilter, std::function<void(const QString& error)> lost)
    : isWanted_(std::move(processFilter)), lost_(std::move(lost))
{
    QString error;
    connection_ = CoreConnection::open(CoreConnection::Purpose::AudioCapture, &error);
    if (!connection_) {
        error_ = error;
        return;
    }
    const LoopLock lock = connection_->lock();
    connection_->setLostHandler([this](const QString& text) { reportLoss(text); });
    links_ = std::make_unique<LinkSet>(connection_->core());
    mirror_ = std::make_unique<GraphMirror>(connection_->core(), [this] { follow(); });
    input_ = std::make_unique<CaptureStream>(connection_->core(),
        CaptureStream::Handlers{[this] { follow(); }, [this](const QString& text) { reportLoss(text); }});
    if (!input_->isValid())
        error_ = QStringLiteral("PipeWire has no stream");
}

AudioCapture::~AudioCapture()
{
    if (connection_)
        connection_->stop();
}

void AudioCapture::setActive(bool active, Answer answer)
{
    const LoopLock lock = connection_->lock();
    input_->setActive(active);
    connection_->synchronise(std::move(answer));
}

void AudioCapture::follow()
{
    if (!input_ || !input_->node())
        return;
    const uint32_t capture = *input_->node();
    links_->set(isWanted_ ? linksOfPrograms(capture) : linksOfSink(capture));
}

std::set<PortPair> AudioCapture::linksOfSink(uint32_t capture)
{
    const std::optional<uint32_t> sink = defaultSinkNode(mirror_->graph());
    input_->setMonitoredSink(sink);
    return sink ? sinkLinks(mirror_->graph(), *sink, capture) : std::set<PortPair>();
}

std::set<PortPair> AudioCapture::linksOfPrograms(uint32_t capture)
{
    const Graph& graph = mirror_->graph();
    std::erase_if(decisions_, [&](const auto& entry) { return graph.nodes.count(entry.first) == 0; });
    std::set<uint32_t> wanted;
    for (const uint32_t id : playbackNodes(graph, capture)) {
        auto decision = decisions_.find(id);
        if (decision == decisions_.end())
            decision = decisions_.emplace(id, isWanted_(ownerProcess(graph, *graph.nodes.at(id)))).first;
        if (decision->second)
            wanted.insert(id);
    }
    return playbackLinks(graph, wanted, capture);
}

void AudioCapture::reportLoss(const QString& error)
{
    if (std::exchange(lossReported_, true))
        return;
    lost_(error);
}

}

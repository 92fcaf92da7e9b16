// Keeping the links as the graph demands.
#include "pipewirecapture.h"

#include "pipewirelatency.h"

#include <utility>

namespace pipewire {

AudioCapture::AudioCapture(ProcessFilter processFilter, std::function<void(const QString& error)> lost)
    : lost_(std::move(lost))
{
    QString error;
    connection_ = CoreConnection::open(CoreConnection::Purpose::AudioCapture, &error);
    if (!connection_) {
        error_ = error;
        return;
    }
    const LoopLock lock = connection_->lock();
    if (processFilter)
        decisions_ = std::make_unique<NodeDecisions>(std::move(processFilter), [this] { followDecision(); });
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
        connection_->stop(); // holds no lock, so that a decision that is being followed can end
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
    links_->set(decisions_ ? linksOfPrograms(capture) : linksOfSink(capture));
}

/// On the thread of the questions.
void AudioCapture::followDecision()
{
    const LoopLock lock = connection_->lock();
    follow();
}

std::set<PortPair> AudioCapture::linksOfSink(uint32_t capture)
{
    const std::optional<uint32_t> sink = defaultSinkNode(mirror_->graph());
    if (!sink) {
        input_->setSource({});
        return {};
    }
    input_->setSource({*sink, sinkLatency(mirror_->graph(), *sink)});
    return sinkLinks(mirror_->graph(), *sink, capture);
}

std::set<PortPair> AudioCapture::linksOfPrograms(uint32_t capture)
{
    const Graph& graph = mirror_->graph();
    decisions_->keepNodesOf(graph);
    std::set<uint32_t> wanted;
    for (const uint32_t id : playbackNodes(graph, capture)) {
        if (decisions_->of(id, ownerProcess(graph, *graph.nodes.at(id))).value_or(false))
            wanted.insert(id);
    }
    const spa_latency_info latency = longestLatency(graph, wanted);
    input_->setSource({SPA_ID_INVALID, latency});
    input_->tellLatency(latency); // before the links are asked for
    return playbackLinks(graph, wanted, capture);
}

void AudioCapture::reportLoss(const QString& error)
{
    if (std::exchange(lossReported_, true))
        return;
    lost_(error);
}

}

// Keeping the links as the graph demands.
#include "pipewirecapture.h"

#include <utility>

namespace pipewire {

SoundCapture::SoundCapture(Judge judge, std::function<void(const QString& error)> lost)
    : judge_(std::move(judge)), lost_(std::move(lost))
{
    QString error;
    connection_ = Connection::open(Connection::Purpose::Sound, &error);
    if (!connection_) {
        error_ = error;
        return;
    }
    const LoopLock lock = connection_->lock();
    connection_->setLostHandler([this](const QString& text) { reportLoss(text); });
    links_ = std::make_unique<LinkSet>(connection_->core());
    mirror_ = std::make_unique<GraphMirror>(connection_->core(), [this] { follow(); });
    input_ = std::make_unique<SoundInput>(connection_->core(),
        SoundInput::Handlers{[this] { follow(); }, [this](const QString& text) { reportLoss(text); }});
    if (!input_->isValid())
        error_ = QStringLiteral("PipeWire has no stream");
}

SoundCapture::~SoundCapture()
{
    if (connection_)
        connection_->stop();
}

void SoundCapture::setActive(bool active, Answer answer)
{
    const LoopLock lock = connection_->lock();
    input_->setActive(active);
    connection_->synchronise(std::move(answer));
}

void SoundCapture::follow()
{
    if (!input_ || !input_->node())
        return;
    const uint32_t capture = *input_->node();
    links_->set(judge_ ? linksOfPrograms(capture) : linksOfSink(capture));
}

std::set<PortPair> SoundCapture::linksOfSink(uint32_t capture)
{
    const std::optional<uint32_t> sink = defaultSinkNode(mirror_->graph());
    input_->setMonitoredSink(sink);
    return sink ? sinkLinks(mirror_->graph(), *sink, capture) : std::set<PortPair>();
}

std::set<PortPair> SoundCapture::linksOfPrograms(uint32_t capture)
{
    const Graph& graph = mirror_->graph();
    std::erase_if(verdicts_, [&](const auto& entry) { return graph.nodes.count(entry.first) == 0; });
    std::set<uint32_t> wanted;
    for (const uint32_t id : playbackNodes(graph, capture)) {
        auto verdict = verdicts_.find(id);
        if (verdict == verdicts_.end())
            verdict = verdicts_.emplace(id, judge_(ownerProcess(graph, *graph.nodes.at(id)))).first;
        if (verdict->second)
            wanted.insert(id);
    }
    return playbackLinks(graph, wanted, capture);
}

void SoundCapture::reportLoss(const QString& error)
{
    if (std::exchange(lossReported_, true))
        return;
    lost_(error);
}

}

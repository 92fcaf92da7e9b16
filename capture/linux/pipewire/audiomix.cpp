// Following the streams, adding their audio.
#include "audiomix.h"

#include <QScopeGuard>

#include <algorithm>
#include <functional>

namespace pipewire {

namespace {

constexpr qint64 nsPerMs = 1000000;

}

void AudioMix::start(qint64 startMs)
{
    startMs_ = deliveredMs_ = startMs;
    delivered_ = false;
    missed_ = false;
    std::erase_if(voices_, [](const Voice& voice) { return voice.ended; });
    for (Voice& voice : voices_)
        voice.timeline.start(startMs);
}

void AudioMix::follow(const BlockQueues& queues)
{
    for (Voice& voice : voices_)
        voice.ended = std::find(queues.begin(), queues.end(), voice.queue) == queues.end();
    for (const std::shared_ptr<BlockQueue>& queue : queues) {
        const auto isIts = [&queue](const Voice& voice) { return voice.queue == queue; };
        if (std::none_of(voices_.begin(), voices_.end(), isIts)) {
            voices_.push_back({queue, AudioTimeline(holdBackMs_)});
            voices_.back().timeline.start(deliveredMs_, delivered_);
        }
    }
    for (Voice& voice : voices_) {
        while (const auto taken = voice.queue->pop(block_))
            voice.timeline.append({taken->startNs, taken->arrivedNs, taken->discontinuous}, block_);
        missed_ = missed_ || voice.timeline.hasMissed() || voice.queue->hasRefusedSince(startMs_ * nsPerMs);
    }
    std::erase_if(voices_, [](const Voice& voice) { return voice.ended && voice.timeline.isEmpty(); });
}

std::optional<std::vector<float>> AudioMix::deliver(const BlockQueues& queues, qint64 untilMs, bool last)
{
    follow(queues);
    const qint64 endMs = voices_.empty() ? untilMs : AudioTimeline::turnEnd(deliveredMs_, untilMs);
    const bool isOver = last || endMs < untilMs; // nothing of it is still awaited
    bool isThere = endMs > deliveredMs_;
    for (Voice& voice : voices_)
        isThere = voice.timeline.prepare(endMs, isOver || voice.ended) && isThere;
    if (!isThere)
        return std::nullopt;
    deliveredMs_ = endMs;
    delivered_ = true;
    // Some voices may be ahead of the others when one finds no memory: the turn is lost for all of them.
    auto lost = qScopeGuard([this] {
        for (Voice& voice : voices_)
            voice.timeline.start(deliveredMs_, true);
    });
    std::optional<std::vector<float>> mix;
    for (Voice& voice : voices_) {
        std::optional<std::vector<float>> audio = voice.timeline.deliver(endMs, isOver || voice.ended);
        if (mix && audio)
            std::transform(mix->begin(), mix->end(), audio->begin(), mix->begin(), std::plus<>());
        else if (audio)
            mix = std::move(audio);
    }
    lost.dismiss();
    return mix;
}

}

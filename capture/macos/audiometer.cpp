// How late blocks are, when those without a time were heard, and the samples as the timeline wants them.
#include "audiometer.h"

#include <QScopeGuard>

#include <algorithm>
#include <cmath>
#include <utility>

namespace macos {

namespace {

constexpr qint64 nsPerMs = 1000000;
constexpr qint64 nsPerSecond = 1000000000;
constexpr qint64 rate = 48000; // hertz

constexpr qint64 mostFrames = 10 * rate; ///< that wait for the reader

constexpr std::size_t enoughBlocks = 8; ///< to tell the latency by
constexpr qint64 enoughNs = 250 * nsPerMs; ///< of waiting for them
constexpr qint64 readerNs = 11 * nsPerMs; ///< the reader's interval, and a little more
constexpr qint64 mostLatencyNs = 400 * nsPerMs; ///< of audio that is not just old

// A block without a time follows the one before it, and comes nearer to the time that its arrival tells by so much.
constexpr double nearing = 0.01;
constexpr qint64 followsNs = 200 * nsPerMs; ///< further apart it does not follow

constexpr float fullScale = 32768;

qint16 sampleOf(float value)
{
    return qint16(std::clamp<long>(std::lrint(value * fullScale), -32768, 32767));
}

}

qint64 AudioMeter::Incoming::lengthNs() const
{
    return qint64(stereo.size() / 2) * nsPerSecond / rate;
}

void AudioMeter::start(qint64 startMs)
{
    takeIncoming();
    timeline_ = AudioTimeline(0);
    timeline_.start(startMs);
    first_.clear();
    latencyKnown_ = false;
    endNs_.reset();
    startMs_ = deliveredMs_ = startMs;
    missed_ = false;
}

void AudioMeter::append(std::optional<qint64> startNs, qint64 arrivedNs, std::span<const qint16> stereo)
{
    Incoming block{startNs, arrivedNs, {}};
    block.stereo.reserve(stereo.size());
    for (const qint16 sample : stereo)
        block.stereo.push_back(float(sample) / fullScale);
    const std::lock_guard lock(mutex_);
    const auto frames = qint64(stereo.size() / 2);
    if (incomingFrames_ + frames > mostFrames) {
        refused_ = true;
        return;
    }
    incoming_.push_back(std::move(block));
    incomingFrames_ += frames;
}

std::vector<AudioMeter::Incoming> AudioMeter::takeIncoming()
{
    const std::lock_guard lock(mutex_);
    incomingFrames_ = 0;
    missed_ = std::exchange(refused_, false) || missed_;
    return std::exchange(incoming_, {});
}

std::optional<std::vector<qint16>> AudioMeter::deliver(qint64 untilMs, bool last)
{
    for (Incoming& block : takeIncoming()) {
        if (latencyKnown_)
            timeline_.append(placed(block), block.stereo);
        else
            first_.push_back(std::move(block));
    }
    if (!first_.empty()) {
        if (!isLatencyKnown(untilMs, last))
            return std::nullopt;
        holdBack();
    }
    missed_ = missed_ || timeline_.hasMissed();
    const qint64 endMs = AudioTimeline::turnEnd(deliveredMs_, untilMs);
    auto lost = qScopeGuard([this, endMs] { // of a turn that finds no memory a part may have been taken
        deliveredMs_ = endMs;
        timeline_.start(endMs, true);
    });
    const auto audio = timeline_.deliver(endMs, last || endMs < untilMs);
    lost.dismiss();
    if (!audio)
        return std::nullopt;
    deliveredMs_ = endMs;
    std::vector<qint16> samples(audio->size());
    std::transform(audio->begin(), audio->end(), samples.begin(), sampleOf);
    return samples;
}

AudioTimeline::Block AudioMeter::placed(const Incoming& incoming)
{
    const qint64 length = incoming.lengthNs();
    qint64 start = incoming.startNs.value_or(incoming.arrivedNs - length);
    const qint64 apart = start - endNs_.value_or(start);
    if (!incoming.startNs && endNs_ && std::abs(apart) <= followsNs)
        start = *endNs_ + std::llround(double(apart) * nearing);
    endNs_ = start + length;
    return {start, incoming.arrivedNs};
}

bool AudioMeter::isLatencyKnown(qint64 untilMs, bool last) const
{
    return last || first_.size() >= enoughBlocks || untilMs * nsPerMs - first_.front().arrivedNs > enoughNs;
}

/// Half of the blocks may be later: the reader, who has to find the audio that has come until then only now and then,
/// gets more the next time.
void AudioMeter::holdBack()
{
    std::vector<AudioTimeline::Block> blocks;
    std::vector<qint64> latencies;
    for (const Incoming& block : first_) {
        blocks.push_back(placed(block));
        latencies.push_back(block.arrivedNs - *endNs_);
    }
    const auto middle = latencies.begin() + std::ptrdiff_t(latencies.size() / 2);
    std::nth_element(latencies.begin(), middle, latencies.end());
    const qint64 latency = std::clamp<qint64>(*middle, 0, mostLatencyNs);
    timeline_ = AudioTimeline(int((latency + readerNs) / nsPerMs));
    timeline_.start(deliveredMs_, deliveredMs_ > startMs_);
    for (std::size_t i = 0; i < blocks.size(); ++i)
        timeline_.append(blocks[i], first_[i].stereo);
    first_.clear();
    latencyKnown_ = true;
}

}

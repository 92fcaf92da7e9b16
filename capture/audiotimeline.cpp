// Placing blocks in time, and metering them out.
#include "audiotimeline.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <utility>

namespace {

constexpr qint64 framesPerMs = 48;
constexpr qint64 nsPerMs = 1000000;

constexpr qint64 toleranceFrames = 12 * framesPerMs; ///< by which a time stamp may be wrong
constexpr qint64 mostFrames = AudioTimeline::mostMs * framesPerMs; ///< in one delivery
constexpr qint64 mostQueued = mostFrames + 1000 * framesPerMs; ///< so that the audio goes on where a delivery ends
constexpr qint64 mostAheadNs = AudioTimeline::mostMs * nsPerMs; ///< of its arrival a block can end

// How long no block must have come for the rest to be silence, and how long a reader may keep coming when the audio
// is just not there yet; each in time and in blocks, of which both have to pass.
constexpr qint64 stallNs = 300 * nsPerMs;
constexpr qint64 stallBlocks = 3;
constexpr qint64 patienceNs = 500 * nsPerMs;
constexpr qint64 patienceBlocks = 6;
constexpr qint64 spareMs = 2; ///< beyond what would just have sufficed

constexpr qint64 seamFrames = 5 * framesPerMs;

/// The weight of audio that begins, in a frame of its seam; 1 minus that is the weight of what ends.
float weight(qint64 frame)
{
    return float(0.5 - 0.5 * std::cos(std::numbers::pi * double(frame + 1) / double(seamFrames + 1)));
}

}

AudioTimeline::AudioTimeline(int holdBackMs) : holdBackMs_(holdBackMs) { }

void AudioTimeline::start(qint64 startMs, bool inMidstream)
{
    startMs_ = startMs;
    inMidstream_ = inMidstream;
    delivered_ = 0;
    queue_.clear();
    stretch_.reset();
    running_ = false;
    past_.clear();
    echoFrames_ = 0;
    overlap_.clear();
    fadedIn_ = 0;
    arrivedNs_ = startMs * nsPerMs;
    blockNs_ = 0;
    ahead_.clear();
    aheadFrames_ = 0;
    missed_ = false;
    waitingSinceMs_.reset();
}

/// Beyond the last delivery.
qint64 AudioTimeline::framesUntil(qint64 untilMs) const
{
    return (untilMs - startMs_) * framesPerMs - delivered_;
}

/// The place of an instant in the stream, in frames from its start.
double AudioTimeline::frameAt(qint64 ns) const
{
    const qint64 sinceStartNs = ns - (startMs_ - holdBackMs_) * nsPerMs;
    return double(sinceStartNs) * double(framesPerMs) / double(nsPerMs);
}

/// It cannot be queued: the silence before it would take too much memory.
bool AudioTimeline::isFarAhead(const Block& block, qint64 frames) const
{
    return frameAt(block.startNs) + double(frames) > double(delivered_ + mostQueued);
}

void AudioTimeline::append(const Block& block, std::span<const float> stereo)
{
    const auto frames = qint64(stereo.size() / 2);
    const qint64 endNs = block.startNs + frames * nsPerMs / framesPerMs;
    if (frames == 0 || endNs - block.arrivedNs > mostAheadNs || frameAt(endNs) < double(delivered_ - mostFrames))
        return;
    if (!ahead_.empty() || isFarAhead(block, frames))
        keepApart(block, stereo);
    else
        place(block, stereo);
}

void AudioTimeline::keepApart(const Block& block, std::span<const float> stereo)
{
    const auto frames = qint64(stereo.size() / 2);
    if (aheadFrames_ + frames > mostFrames) {
        missed_ = true;
        return;
    }
    ahead_.push_back({block, {stereo.begin(), stereo.end()}});
    aheadFrames_ += frames;
}

void AudioTimeline::placeNear()
{
    while (!ahead_.empty()) {
        const auto frames = qint64(ahead_.front().stereo.size() / 2);
        if (isFarAhead(ahead_.front().block, frames))
            return;
        const FarBlock next = std::move(ahead_.front());
        ahead_.pop_front();
        aheadFrames_ -= frames;
        place(next.block, next.stereo);
    }
}

void AudioTimeline::place(const Block& block, std::span<const float> stereo)
{
    const auto frames = qint64(stereo.size() / 2);
    const double startFrame = frameAt(block.startNs);
    arrivedNs_ = std::max(arrivedNs_, block.arrivedNs);
    blockNs_ = frames * nsPerMs / framesPerMs;

    double step = 1;
    const double ahead = startFrame - (double(delivered_ + queuedFrames()) + stretch_.heldFrames());
    if (running_ && !block.discontinuous && std::abs(ahead) <= double(toleranceFrames))
        step = drift_.step(ahead / double(framesPerMs), double(frames) / double(framesPerMs));
    else
        beginRun(startFrame, stereo);
    if (!running_)
        return;
    const qint64 before = queuedFrames();
    stretch_.process(stereo, step, queue_);
    fadeIn(before);
}

/// Puts silence before the block, or cuts off its beginning. What is left of the echo there is mixed in later, with
/// the frames of the run.
void AudioTimeline::beginRun(double startFrame, std::span<const float>& stereo)
{
    endRun();
    const qint64 end = queuedFrames() - echoFrames_;
    const qint64 gap = std::llround(startFrame) - (delivered_ + end);
    const auto frames = qint64(stereo.size() / 2);
    if (gap < 0)
        stereo = stereo.subspan(size_t(std::min(-gap, frames)) * 2);
    running_ = !stereo.empty();
    if (!running_)
        return;
    const qint64 begin = end + std::max<qint64>(gap, 0);
    overlap_.assign(queue_.begin() + std::min(begin, queuedFrames()) * 2, queue_.end());
    queue_.resize(size_t(begin) * 2);
    echoFrames_ = 0;
    fadedIn_ = inMidstream_ || delivered_ + begin > 0 ? 0 : seamFrames;
}

void AudioTimeline::endRun()
{
    if (running_) {
        const qint64 before = queuedFrames();
        stretch_.flush(queue_);
        fadeIn(before);
        appendEcho();
    }
    stretch_.reset();
    drift_.restart();
    running_ = false;
}

/// The audio so far runs backwards from its end, so that neither its value nor its loudness jumps. Nothing of it has
/// to be there still: it may have been delivered.
void AudioTimeline::appendEcho()
{
    std::vector<float> audio = past_;
    const qint64 queued = std::min(queuedFrames(), seamFrames);
    audio.insert(audio.end(), queue_.end() - queued * 2, queue_.end());
    const auto frames = qint64(audio.size() / 2);
    echoFrames_ = std::min(frames, seamFrames);
    for (qint64 i = 0; i < echoFrames_; ++i) {
        const float share = 1 - weight(i);
        const auto mirrored = size_t(frames - 1 - i) * 2;
        queue_.insert(queue_.end(), {audio[mirrored] * share, audio[mirrored + 1] * share});
    }
}

/// For frames of the run that have just been queued.
void AudioTimeline::fadeIn(qint64 fromFrame)
{
    for (qint64 frame = fromFrame; frame < queuedFrames() && fadedIn_ < seamFrames; ++frame, ++fadedIn_) {
        const float share = weight(fadedIn_);
        for (const size_t channel : {0U, 1U}) {
            const size_t ended = size_t(fadedIn_) * 2 + channel;
            float& sample = queue_[size_t(frame) * 2 + channel];
            sample = sample * share + (ended < overlap_.size() ? overlap_[ended] : 0.F);
        }
    }
}

bool AudioTimeline::prepare(qint64 untilMs, bool last)
{
    const qint64 wanted = framesUntil(untilMs);
    if (wanted <= 0)
        return false;
    if (wanted <= queuedFrames())
        return true;
    if (!last && !isStalled(untilMs)) {
        waitForMore(untilMs, wanted - queuedFrames());
        return false;
    }
    endRun();
    return true;
}

std::optional<std::vector<float>> AudioTimeline::deliver(qint64 untilMs, bool last)
{
    if (!prepare(untilMs, last))
        return std::nullopt;
    waitingSinceMs_.reset();
    std::vector<float> audio = take(framesUntil(untilMs));
    placeNear();
    return audio;
}

bool AudioTimeline::isStalled(qint64 untilMs) const
{
    return untilMs * nsPerMs - arrivedNs_ > std::max(stallNs, stallBlocks * blockNs_);
}

/// A reader that always comes just before the audio gets it a little later from then on.
void AudioTimeline::waitForMore(qint64 untilMs, qint64 missingFrames)
{
    if (!waitingSinceMs_) {
        waitingSinceMs_ = untilMs;
        leastMissing_ = missingFrames;
    }
    leastMissing_ = std::min(leastMissing_, missingFrames);
    const qint64 waitedNs = (untilMs - *waitingSinceMs_) * nsPerMs;
    if (!running_ || waitedNs <= std::max(patienceNs, patienceBlocks * blockNs_))
        return;
    growHoldBack((leastMissing_ + framesPerMs - 1) / framesPerMs + spareMs);
    waitingSinceMs_.reset();
}

/// The next block is placed behind a gap as long as that.
void AudioTimeline::growHoldBack(qint64 milliseconds)
{
    endRun();
    holdBackMs_ += int(milliseconds);
}

void AudioTimeline::skip(qint64 frames)
{
    queue_.erase(queue_.begin(), queue_.begin() + std::min(frames, queuedFrames()) * 2);
    echoFrames_ = std::min(echoFrames_, queuedFrames());
    delivered_ += frames;
}

/// Silence stands in for what the queue lacks.
std::vector<float> AudioTimeline::take(qint64 frames)
{
    std::vector<float> taken(queue_.begin(), queue_.begin() + std::min(frames, queuedFrames()) * 2);
    taken.resize(size_t(frames) * 2);
    skip(frames);
    past_.insert(past_.end(), taken.end() - std::min(frames, seamFrames) * 2, taken.end());
    past_.erase(past_.begin(), past_.end() - std::min<qint64>(qint64(past_.size()), seamFrames * 2));
    return taken;
}

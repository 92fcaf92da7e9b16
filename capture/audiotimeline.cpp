// Placing blocks in time, and metering them out.
#include "audiotimeline.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr qint64 framesPerMs = 48;
constexpr qint64 nsPerMs = 1000000;

constexpr qint64 toleranceFrames = 12 * framesPerMs; ///< by which a time stamp may be wrong
constexpr qint64 mostFrames = 10000 * framesPerMs; ///< queued, and in one delivery

// How long no block must have come for the rest to be silence, and how long a reader may keep coming when the audio
// is just not there yet; each in time and in blocks, of which both have to pass.
constexpr qint64 stallNs = 300 * nsPerMs;
constexpr qint64 stallBlocks = 3;
constexpr qint64 patienceNs = 500 * nsPerMs;
constexpr qint64 patienceBlocks = 6;
constexpr qint64 spareMs = 2; ///< beyond what would just have sufficed

}

AudioTimeline::AudioTimeline(int holdBackMs) : holdBackMs_(holdBackMs) { }

void AudioTimeline::start(qint64 startMs)
{
    startMs_ = startMs;
    delivered_ = 0;
    queue_.clear();
    stretch_.reset();
    running_ = false;
    arrivedNs_ = startMs * nsPerMs;
    blockNs_ = 0;
    waitingSinceMs_.reset();
}

/// The place of an instant in the stream, in frames from its start.
double AudioTimeline::frameAt(qint64 ns) const
{
    const qint64 sinceStartNs = ns - (startMs_ - holdBackMs_) * nsPerMs;
    return double(sinceStartNs) * double(framesPerMs) / double(nsPerMs);
}

void AudioTimeline::append(const Block& block, std::span<const float> stereo)
{
    const auto frames = qint64(stereo.size() / 2);
    const double startFrame = frameAt(block.startNs);
    if (frames == 0 || startFrame + double(frames) > double(delivered_ + mostFrames))
        return;
    arrivedNs_ = std::max(arrivedNs_, block.arrivedNs);
    blockNs_ = frames * nsPerMs / framesPerMs;

    double step = 1;
    const double ahead = startFrame - (double(delivered_ + queuedFrames()) + stretch_.heldFrames());
    if (running_ && std::abs(ahead) <= double(toleranceFrames))
        step = drift_.step(ahead / double(framesPerMs), double(frames) / double(framesPerMs));
    else
        beginRun(startFrame, stereo);
    stretch_.process(stereo, step, queue_);
}

/// Puts silence before the block, or cuts off its beginning.
void AudioTimeline::beginRun(double startFrame, std::span<const float>& stereo)
{
    endRun();
    const qint64 gap = std::llround(startFrame) - (delivered_ + queuedFrames());
    const auto frames = qint64(stereo.size() / 2);
    if (gap > 0)
        queue_.resize(queue_.size() + size_t(gap) * 2);
    else
        stereo = stereo.subspan(size_t(std::min(-gap, frames)) * 2);
    running_ = !stereo.empty();
}

void AudioTimeline::endRun()
{
    if (running_)
        stretch_.flush(queue_);
    stretch_.reset();
    drift_.restart();
    running_ = false;
}

std::optional<std::vector<float>> AudioTimeline::deliver(qint64 untilMs, bool last)
{
    const qint64 wanted = (untilMs - startMs_) * framesPerMs - delivered_;
    if (wanted <= 0)
        return std::nullopt;
    if (wanted > queuedFrames()) {
        if (!last && !isStalled(untilMs)) {
            waitForMore(untilMs, wanted - queuedFrames());
            return std::nullopt;
        }
        endRun();
    }
    waitingSinceMs_.reset();
    const qint64 tooMany = wanted - mostFrames;
    if (tooMany > 0)
        skip(tooMany);
    return take(std::min(wanted, mostFrames));
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

void AudioTimeline::growHoldBack(qint64 milliseconds)
{
    endRun();
    holdBackMs_ += int(milliseconds);
    queue_.resize(queue_.size() + size_t(milliseconds * framesPerMs) * 2);
}

void AudioTimeline::skip(qint64 frames)
{
    queue_.erase(queue_.begin(), queue_.begin() + std::min(frames, queuedFrames()) * 2);
    delivered_ += frames;
}

/// Silence stands in for what the queue lacks.
std::vector<float> AudioTimeline::take(qint64 frames)
{
    std::vector<float> taken(queue_.begin(), queue_.begin() + std::min(frames, queuedFrames()) * 2);
    taken.resize(size_t(frames) * 2);
    skip(frames);
    return taken;
}

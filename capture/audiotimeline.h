// AudioTimeline: blocks of audio that carry time stamps become one gapless stream that is read by the millisecond.
#pragma once

#include "audiodrift.h"

#include <QtGlobal>

#include <algorithm>
#include <deque>
#include <optional>
#include <span>
#include <vector>

/**
 * Stereo float samples at 48000 Hz. Times are those of one monotonic clock. One thread at a time.
 *
 * Time stamps jitter, so a block follows the one before it without a gap as long as its time stamp is about right;
 * an error that builds up is removed by a very small change of speed. A block that is further off is placed by its
 * time stamp: a gap before it is silence, and what overlaps the audio so far is cut off.
 *
 * No such place makes a click. Audio that ends is followed by its own mirror image, which fades out within 5 ms, and
 * audio that begins fades in as long, except at the very start; where both meet that is a crossfade. Everything else
 * is delivered bit for bit as it came, unless the speed is being corrected.
 *
 * What is queued is bounded: what lies further ahead than the next delivery can reach is kept apart until the reader
 * comes near, as long as that is no more than mostMs.
 */
class AudioTimeline {
public:
    struct Block {
        qint64 startNs = 0; ///< when its first sample is heard, which may be later than it became known
        qint64 arrivedNs = 0; ///< when it became known
        bool discontinuous = false; ///< it does not continue the block before, however close its time is
    };

    /// Audio is delivered this much later than its time stamps say: at least the interval between the reader's turns
    /// when blocks arrive at the end of their time or later, and 0 when they arrive ahead of it.
    explicit AudioTimeline(int holdBackMs);

    /// Begins anew: the first delivery starts at this instant. inMidstream: other audio was heard before it, so that
    /// even what is there from the start on fades in.
    void start(qint64 startMs, bool inMidstream = false);

    /// The longest delivery. A reader that was away for longer comes to the present in several turns.
    static constexpr qint64 mostMs = 10000;
    /// The instant that the reader's next turn delivers up to.
    static qint64 turnEnd(qint64 deliveredMs, qint64 untilMs) { return std::min(untilMs, deliveredMs + mostMs); }

    /// stereo: two samples a frame. A block of no frames, or whose time is far from when it became known, is left
    /// out.
    void append(const Block& block, std::span<const float> stereo);

    /// The audio from the end of the last delivery up to this instant, 48 frames for each millisecond; nothing when
    /// there is no such time, or while its audio is on its way. When no block has come for a while, the rest of it is
    /// silence; the last time it is silence at once. See turnEnd() for an instant that is far away.
    std::optional<std::vector<float>> deliver(qint64 untilMs, bool last = false);

    /// Whether deliver() would hand out something now. One call of either is a turn of the reader.
    bool prepare(qint64 untilMs, bool last = false);

    /// There is no audio left beyond the last delivery.
    bool isEmpty() const { return !running_ && queue_.empty() && ahead_.empty(); }

    /// Since the start a block was left out because the reader had been away for too long.
    bool hasMissed() const { return missed_; }

private:
    struct FarBlock {
        Block block;
        std::vector<float> stereo;
    };

    qint64 queuedFrames() const { return qint64(queue_.size() / 2); }
    qint64 framesUntil(qint64 untilMs) const;
    double frameAt(qint64 ns) const;
    bool isFarAhead(const Block& block, qint64 frames) const;
    void keepApart(const Block& block, std::span<const float> stereo);
    void placeNear();
    void place(const Block& block, std::span<const float> stereo);
    void beginRun(double startFrame, std::span<const float>& stereo);
    void endRun();
    void appendEcho();
    void fadeIn(qint64 fromFrame);
    bool isStalled(qint64 untilMs) const;
    void waitForMore(qint64 untilMs, qint64 missingFrames);
    void growHoldBack(qint64 milliseconds);
    void skip(qint64 frames);
    std::vector<float> take(qint64 frames);

    int holdBackMs_;
    qint64 startMs_ = 0;
    qint64 delivered_ = 0; // frames since the start
    bool inMidstream_ = false;
    std::vector<float> queue_; // follows what was delivered
    VariableResampler stretch_; // holds what follows the queue
    DriftController drift_;
    bool running_ = false; // a block can follow the last one
    std::vector<float> past_; // the last of what was delivered, as long as a seam
    qint64 echoFrames_ = 0; // at the end of the queue, of a run that has ended
    std::vector<float> overlap_; // the echo on which the run has begun
    qint64 fadedIn_ = 0; // frames of the run; as many as a seam has when it is in
    qint64 arrivedNs_ = 0; // the last block, at first the start
    qint64 blockNs_ = 0; // length of the last block

    std::deque<FarBlock> ahead_; // in the order in which they came
    qint64 aheadFrames_ = 0;
    bool missed_ = false;

    // While audio is awaited:
    std::optional<qint64> waitingSinceMs_;
    qint64 leastMissing_ = 0; // frames; the reader came that close
};

// AudioMix: the audio of several streams, each on a timeline of its own, as one.
#pragma once

#include "audiotimeline.h"
#include "pipewireblocks.h"

#include <memory>
#include <optional>
#include <vector>

namespace pipewire {

using BlockQueues = std::vector<std::shared_ptr<BlockQueue>>;

/// Streams come and go; what they have put into their queues is heard to the end. One thread at a time.
class AudioMix {
public:
    /// See AudioTimeline; each of them begins with it.
    explicit AudioMix(int holdBackMs) : holdBackMs_(holdBackMs) { }

    void start(qint64 startMs);

    /// See AudioTimeline::deliver(). queues: of the streams that there are now; they do not change their order. One
    /// turn: where deliveredMs() is then before the instant there is more. A turn for which there is no memory is
    /// lost, and std::bad_alloc tells of it: the next one goes on behind it.
    std::optional<std::vector<float>> deliver(const BlockQueues& queues, qint64 untilMs, bool last);

    /// The end of the last delivery.
    qint64 deliveredMs() const { return deliveredMs_; }
    /// Since the start audio was left out because the reader had been away for too long.
    bool hasMissed() const { return missed_; }

private:
    struct Voice {
        std::shared_ptr<BlockQueue> queue;
        AudioTimeline timeline;
        bool ended = false; ///< there is no such stream any more
    };
    void follow(const BlockQueues& queues);

    int holdBackMs_;
    qint64 startMs_ = 0;
    qint64 deliveredMs_ = 0;
    bool missed_ = false;
    bool delivered_ = false; // since the start
    std::vector<Voice> voices_;
    std::vector<float> block_; // its samples
};

}

// AudioMeter: blocks of audio that the system pushes when it likes, handed out by the reader's clock.
#pragma once

#include "audiotimeline.h"

#include <QtGlobal>

#include <mutex>
#include <optional>
#include <span>
#include <vector>

namespace macos {

/**
 * Signed 16-bit stereo at 48000 Hz. Times are those of the steady clock. append() may be called on any one thread
 * while another one calls the rest.
 *
 * A block can be read some time after its last sample was heard, which the system does not tell beforehand. So the
 * first blocks only show how late they are, and then all of the audio is held back as long as that takes.
 */
class AudioMeter {
public:
    /// The first delivery starts at this instant. What has been appended is forgotten.
    void start(qint64 startMs);

    /// startNs: when its first sample is heard, where that is known. Left out, and noted, when nobody reads.
    void append(std::optional<qint64> startNs, qint64 arrivedNs, std::span<const qint16> stereo);

    /// See AudioTimeline::deliver(). One turn: where deliveredMs() is then before the instant there is more. A turn
    /// for which there is no memory is lost, and std::bad_alloc tells of it: the next one goes on behind it.
    std::optional<std::vector<qint16>> deliver(qint64 untilMs, bool last);

    /// The end of the last delivery.
    qint64 deliveredMs() const { return deliveredMs_; }
    /// Since the start audio was left out because the reader had been away for too long.
    bool hasMissed() const { return missed_; }

private:
    struct Incoming {
        std::optional<qint64> startNs;
        qint64 arrivedNs = 0;
        std::vector<float> stereo;

        qint64 lengthNs() const;
    };

    std::vector<Incoming> takeIncoming();
    AudioTimeline::Block placed(const Incoming& incoming);
    bool isLatencyKnown(qint64 untilMs, bool last) const;
    void holdBack();

    std::mutex mutex_; ///< guards what append() shares with the reader
    std::vector<Incoming> incoming_;
    qint64 incomingFrames_ = 0;
    bool refused_ = false; ///< a block, for want of room

    // The reader's:
    bool missed_ = false;
    AudioTimeline timeline_{0};
    std::vector<Incoming> first_; ///< until it is known how late they are
    bool latencyKnown_ = false;
    std::optional<qint64> endNs_; ///< of the last block that was placed
    qint64 startMs_ = 0;
    qint64 deliveredMs_ = 0;
};

}

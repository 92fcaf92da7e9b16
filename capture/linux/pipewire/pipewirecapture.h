// AudioCapture: the audio of the default sink, or of the programs that are wanted, whatever comes and goes.
#pragma once

#include "nodedecisions.h"
#include "pipewireconnection.h"
#include "pipewiregraph.h"
#include "pipewirelinks.h"
#include "pipewirestream.h"

#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace pipewire {

/**
 * Used on one thread; callbacks run on the connection's, or before the call returns, and not after the destructor.
 * A node is heard once it is decided that its process is wanted (see NodeDecisions); nothing waits for that.
 */
class AudioCapture {
public:
    using Answer = CoreConnection::Answer;

    /// processFilter: null for the audio of the default sink. lost is called once, when there is no more audio to
    /// come.
    AudioCapture(ProcessFilter processFilter, std::function<void(const QString& error)> lost);
    ~AudioCapture();
    AudioCapture(const AudioCapture&) = delete;
    AudioCapture& operator=(const AudioCapture&) = delete;

    /// Why there is no capture, or nothing when there is one.
    const std::optional<QString>& error() const { return error_; }

    /// Only while there is no error.
    void setActive(bool active, Answer answer);
    std::optional<AudioBlock> takeBlock(std::vector<float>& stereo) { return input_->takeBlock(stereo); }

private:
    void follow();
    void followDecision();
    std::set<PortPair> linksOfSink(uint32_t capture);
    std::set<PortPair> linksOfPrograms(uint32_t capture);
    void reportLoss(const QString& error);

    std::function<void(const QString& error)> lost_;
    bool lossReported_ = false;
    std::optional<QString> error_;

    std::unique_ptr<CoreConnection> connection_; // null after a failure
    std::unique_ptr<CaptureStream> input_;
    std::unique_ptr<LinkSet> links_;
    std::unique_ptr<GraphMirror> mirror_;
    std::unique_ptr<NodeDecisions> decisions_; // null for the audio of the default sink; last, for it calls follow()
};

}

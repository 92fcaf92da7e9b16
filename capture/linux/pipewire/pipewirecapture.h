// AudioCapture: the audio of the default sink, or of the programs that are wanted, whatever comes and goes.
#pragma once

#include "pipewireconnection.h"
#include "pipewiregraph.h"
#include "pipewirelinks.h"
#include "pipewirestream.h"

#include <QString>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace pipewire {

/**
 * Used on one thread; callbacks run on the connection's, or before the call returns, and not after the destructor.
 * The processFilter is asked on the connection's thread, once for each playing node.
 */
class AudioCapture {
public:
    /// Whether the audio of that process is wanted.
    using ProcessFilter = std::function<bool(qint64 processId)>;
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
    std::set<PortPair> linksOfSink(uint32_t capture);
    std::set<PortPair> linksOfPrograms(uint32_t capture);
    void reportLoss(const QString& error);

    ProcessFilter isWanted_;
    std::function<void(const QString& error)> lost_;
    bool lossReported_ = false;
    std::optional<QString> error_;
    std::map<uint32_t, bool> decisions_; // by playing node

    std::unique_ptr<CoreConnection> connection_; // null after a failure
    std::unique_ptr<CaptureStream> input_;
    std::unique_ptr<LinkSet> links_;
    std::unique_ptr<GraphMirror> mirror_;
};

}

// AudioCapture: the audio of the default sink, or of the programs that are wanted, whatever comes and goes.
#pragma once

#include "audiomix.h"
#include "nodedecisions.h"
#include "pipewireconnection.h"
#include "pipewiregraph.h"
#include "pipewirelinks.h"
#include "pipewirestream.h"
#include "streamplan.h"

#include <QString>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
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
    /// Of the streams that there are now: their audio belongs together. The caller takes what is in them.
    BlockQueues queues();

private:
    void open(ProcessFilter processFilter);
    void addStream(uint32_t id);
    void retireAllBut(const std::vector<StreamPlan::Stream>& planned);
    void publishQueues();
    void follow();
    void followGraph();
    void followDecision();
    std::set<PortPair> linksOfSink();
    std::set<PortPair> linksOfPrograms();
    std::optional<uint32_t> captureNode(uint32_t stream) const;
    void reportLoss(const QString& error);

    std::function<void(const QString& error)> lost_;
    bool lossReported_ = false;
    std::optional<QString> error_;

    std::unique_ptr<CoreConnection> connection_; // null after a failure
    bool active_ = false;
    std::map<uint32_t, std::unique_ptr<CaptureStream>> streams_; // by their ids in the plan
    std::vector<std::unique_ptr<CaptureStream>> retired_; // go when none of their callbacks can be running
    StreamPlan plan_;
    std::map<uint32_t, uint32_t> streamOf_; // by the node that is linked to it
    std::unique_ptr<LinkSet> links_;
    std::unique_ptr<GraphMirror> mirror_;
    std::unique_ptr<NodeDecisions> decisions_; // null for the audio of the default sink; last, for it calls follow()

    std::mutex queuesMutex_; // guards the following
    BlockQueues queues_;
};

}

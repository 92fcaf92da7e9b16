// NodeImages: one window that a compositor hands out as a node of PipeWire, as images.
#pragma once

#include "clientshadow.h"
#include "nodeconnection.h"
#include "platform/screen.h"
#include "sharedimages.h"
#include "videostream.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace wayland {

/// No compositor tells where a window is. Its images are reported here, with the pointer: a place where no display
/// is, so that no click's global position is taken for one in the window. Global screen points.
constexpr double nowhere = -1'000'000'000;

/**
 * What platform::WindowSource promises, and in the same way to be used. Frames arrive on the connection's thread;
 * sample() takes what is there. Only the first one waits for a frame, and not for long. When the stream has ended
 * there are no images any more: the node's number may be another window's by then.
 */
class NodeImages {
public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;

    /// What a node says is unchanged is compared after this time, when it has been left out since: it could be wrong.
    static constexpr std::chrono::seconds checkInterval{1};
    /// How long the first sample waits: less than what makes a capture one that has stalled (WindowSampling).
    static constexpr std::chrono::milliseconds longestFirstWait{800};
    /// A window whose frame is of another size, or otherwise new, and does not come in this time, shows nothing.
    static constexpr std::chrono::seconds longestWait{1};
    /// When nothing has come in this time the log says so, and what the reason may be: nobody tells it.
    static constexpr std::chrono::seconds patience{3};

    explicit NodeImages(quint32 nodeId, Now now = &Clock::now);
    ~NodeImages();
    NodeImages(const NodeImages&) = delete;
    NodeImages& operator=(const NodeImages&) = delete;

    platform::WindowSample sample();

private:
    class Node;
    struct Shown {
        QRect visible; // of the frame
        QMargins shadow; // around it
        qint64 version = 0; // the frame's
        Clock::time_point comparedAt; // all of it
        bool isPartial = false; // only what the node says is new was compared since
    };

    void awaitFirstFrame();
    bool takeImage(VideoStream& stream, platform::WindowSample& sample);
    bool isCurrent(const VideoStream& stream) const;
    bool readImage(const VideoStream::Frame& frame, platform::WindowSample& sample);
    RowSet rowsToRead(const VideoStream::Frame& frame, const QRect& visible) const;
    void logNoFrame();

    const Now now_;
    const quint32 nodeId_;
    const Clock::time_point madeAt_;
    std::shared_ptr<pipewire::CoreConnection> connection_; // null when there is none
    std::shared_ptr<Node> node_; // under the connection's lock
    bool awaited_ = false;
    bool endLogged_ = false;
    bool lateLogged_ = false;
    x11::ShadowLog shadowLog_;
    SharedImages images_;
    std::vector<quint32> pixels_; // on their way to images_
    std::optional<Shown> shown_; // what the last image of images_ shows; nothing when there is none now
};

}

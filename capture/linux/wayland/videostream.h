// VideoStream: the newest frame of a PipeWire node, and where the pointer is.
#pragma once

#include "nodeconnection.h"
#include "pipewirehandles.h"
#include "videobuffer.h"

#include <QRegion>
#include <QString>

#include <functional>
#include <optional>

namespace wayland {

/**
 * Everything under the connection's lock; callbacks have it. The newest buffer with a frame is held, and not copied,
 * until the next one comes; then the node gets it back. The session manager links the stream to the node.
 */
class VideoStream {
public:
    using Clock = std::chrono::steady_clock;

    struct Handlers {
        std::function<void()> changed; ///< there is something new
        std::function<void(const QString& error)> ended; ///< once; no frame will come any more
    };

    VideoStream(pw_core* core, uint32_t node, Handlers handlers);
    ~VideoStream();
    VideoStream(const VideoStream&) = delete;
    VideoStream& operator=(const VideoStream&) = delete;

    /// A link may stay paused, or a still window may never send its first frame: asks again, less often later,
    /// when there has been none since the format was agreed upon; also for new buffers, unless the old ones are to be
    /// kept. To be called now and then.
    enum class Buffers { Keep, Renew };
    void watch(Clock::time_point now, Buffers buffers);
    /// Of the stream's own node in the graph; SPA_ID_INVALID before it has one.
    uint32_t nodeId() const;

    struct Frame {
        PixelView view; ///< valid under this lock
        QRect crop; ///< the part that is the window
        /// What may differ from the frame that was current when clearDamage() was called last; nothing: all of it.
        std::optional<QRegion> damage;
    };
    /// The newest frame; nothing when it is not held (any more).
    std::optional<Frame> frame() const;
    /// Grows with each frame that comes.
    qint64 version() const { return version_; }
    void clearDamage() { damage_ = QRegion(); }

    /// When a format was agreed upon of which no frame has come yet.
    std::optional<Clock::time_point> waitingSince() const { return waitingSince_; }
    /// In pixels of the frame.
    std::optional<QPointF> pointer() const { return pointer_; }

private:
    static void onStateChanged(void* data, pw_stream_state old, pw_stream_state state, const char* error);
    static void onParameter(void* data, uint32_t id, const spa_pod* parameter);
    static void onRemoveBuffer(void* data, pw_buffer* buffer);
    static void onProcess(void* data);
    void connect(uint32_t node);
    void renewBuffers();
    void handleState(pw_stream_state state, const char* error);
    void handleFormat(const spa_pod* format);
    void takeBuffers();
    bool takeFrame(const spa_buffer& buffer);
    void end(const QString& error);

    static const pw_stream_events events;

    Handlers handlers_;
    std::optional<VideoFormat> format_;
    pw_buffer* held_ = nullptr; // the stream's; null while there is none
    std::optional<QRegion> damage_; // since clearDamage(); nothing: everything
    std::optional<QPointF> pointer_;
    std::optional<Clock::time_point> waitingSince_;
    Clock::time_point askAgainAt_;
    int asked_ = 0; // again, since then
    bool renewed_ = false; // the buffers, since the last frame
    qint64 version_ = 0;
    bool ended_ = false;
    pipewire::StreamHandle stream_; // last but the hook: its callbacks use the rest
    pipewire::Hook hook_;
};

}

// CaptureStream: the node that receives the audio of the ports that are linked to it.
#pragma once

#include "pipewireblocks.h"
#include "pipewirehandles.h"

#include <QString>

#include <spa/param/latency.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

struct spa_io_position;

namespace pipewire {

/**
 * Made and used under the connection's lock, or after its thread has ended, except for the queue's other end and what
 * PipeWire's data thread does.
 */
class CaptureStream {
public:
    struct Handlers {
        std::function<void()> nodeKnown; ///< node() has a value from now on
        std::function<void(const QString& error)> ended; ///< the server has ended it
    };

    CaptureStream(pw_core* core, Handlers handlers, bool active);
    ~CaptureStream();
    CaptureStream(const CaptureStream&) = delete;
    CaptureStream& operator=(const CaptureStream&) = delete;

    bool isValid() const { return connected_; }
    /// The server's id of the node; nothing while it has none.
    std::optional<uint32_t> node() const { return node_; }

    void setActive(bool active) { pw_stream_set_active(stream_.get(), active); }

    /// Where the audio comes from that arrives from now on, and how long it still takes to be heard. What comes from
    /// another one does not continue what came before.
    struct Source {
        /// The sink whose monitor is heard, or none. A sink that drives the graph has its audio ready only at the
        /// beginning of the next cycle, so its blocks are a whole cycle older than the moment they come in.
        uint32_t monitoredSink = SPA_ID_INVALID;
        spa_latency_info latency{};
    };
    void setSource(const Source& source);

    /// Tells those who play to this node the latency of those that they play to beside it: otherwise they would
    /// believe in the middle between that and none, and move their video.
    void tellLatency(const spa_latency_info& latency);

    /// What comes in; it outlives the stream. One thread of the user's takes from it.
    const std::shared_ptr<BlockQueue>& queue() const { return blocks_; }

private:
    bool connect(bool active);
    static void onStateChanged(void* data, pw_stream_state old, pw_stream_state state, const char* error);
    static void onControl(void* data, uint32_t id, const pw_stream_control* control);
    static void onIo(void* data, uint32_t id, void* area, uint32_t size);
    template <typename Value>
    void setOnDataThread(Value CaptureStream::*member, const Value& value, bool breaks);
    static void onProcess(void* data);
    void handleState(pw_stream_state state, const char* error);
    void handleControl(uint32_t id, const pw_stream_control& control);
    void handleBuffer(const spa_buffer& buffer);

    static const pw_stream_events events;

    pw_core* core_;
    Handlers handlers_;
    bool connected_ = false;
    std::optional<uint32_t> node_;
    Source source_; // as it was set
    spa_latency_info toldLatency_{};

    // Of the data thread:
    const spa_io_position* position_ = nullptr; // the graph's clock; null while not known
    Source currentSource_;
    uint32_t clock_ = SPA_ID_INVALID; // the node whose clock the last block has its time from
    bool broken_ = false; // the next block does not continue the last one in the queue
    const std::shared_ptr<BlockQueue> blocks_ = std::make_shared<BlockQueue>();
    StreamHandle stream_; // last but the hook: its data thread uses the rest
    Hook hook_;
};

}

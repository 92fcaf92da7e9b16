// CaptureStream: the node through which this process hears what is linked to it.
#pragma once

#include "pipewireblocks.h"
#include "pipewirehandles.h"

#include <QString>

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

struct spa_io_position;

namespace pipewire {

/**
 * Asleep at first. Made and used under the connection's lock, or after its thread has ended, except for takeBlock()
 * (one thread of the user's) and what PipeWire's data thread does.
 */
class CaptureStream {
public:
    struct Handlers {
        std::function<void()> nodeKnown; ///< node() has a value from now on
        std::function<void(const QString& error)> ended; ///< the server has ended it
    };

    CaptureStream(pw_core* core, Handlers handlers);
    ~CaptureStream();
    CaptureStream(const CaptureStream&) = delete;
    CaptureStream& operator=(const CaptureStream&) = delete;

    bool isValid() const { return connected_; }
    /// The server's id of the node; nothing while it has none.
    std::optional<uint32_t> node() const { return node_; }

    void setActive(bool active) { pw_stream_set_active(stream_.get(), active); }

    /// The sink whose monitor is heard, or nothing. A sink that drives the graph has its audio ready only at the
    /// beginning of the next cycle, so its blocks are a whole cycle older than the moment they come in.
    void setMonitoredSink(std::optional<uint32_t> sink) { monitoredSink_ = sink.value_or(SPA_ID_INVALID); }

    std::optional<AudioBlock> takeBlock(std::vector<float>& stereo) { return blocks_.pop(stereo); }

private:
    bool connect();
    static void onStateChanged(void* data, pw_stream_state old, pw_stream_state state, const char* error);
    static void onControl(void* data, uint32_t id, const pw_stream_control* control);
    static void onIo(void* data, uint32_t id, void* area, uint32_t size);
    static int setPosition(spa_loop* loop, bool async, uint32_t sequence, const void* data, size_t size, void* input);
    static void onProcess(void* data);
    void handleState(pw_stream_state state, const char* error);
    void handleControl(uint32_t id, const pw_stream_control& control);
    void handleBuffer(const spa_buffer& buffer);

    static const pw_stream_events events;

    pw_core* core_;
    Handlers handlers_;
    bool connected_ = false;
    std::optional<uint32_t> node_;
    std::atomic<uint32_t> monitoredSink_ = SPA_ID_INVALID;
    const spa_io_position* position_ = nullptr; // data thread; the graph's clock; null while not known
    BlockQueue blocks_;
    StreamHandle stream_; // last but the hook: its data thread uses the rest
    Hook hook_;
};

}

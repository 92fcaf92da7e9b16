// The stream, its formats and its buffers.
#include "videostream.h"

#include "containment.h"

#include <QScopeGuard>

#include <array>
#include <utility>

#include <spa/pod/builder.h>

namespace wayland {

namespace {

constexpr std::chrono::milliseconds firstAskAgain{200};
constexpr std::chrono::milliseconds laterAskAgain{2000};
constexpr int firstAsks = 5; // mutter gives a still window's first frame in four of five times that it is asked
constexpr int asksBeforeNewBuffers = 2;
constexpr int mostAreas = 64;
constexpr const char* nodeName = "orvantis-recorder-window";

template <typename Work>
void containWindow(const Work& work) noexcept
{
    pipewire::contain(work, &pipewire::reportContainedOfWindow);
}

}

const pw_stream_events VideoStream::events = [] {
    pw_stream_events table{};
    table.version = PW_VERSION_STREAM_EVENTS;
    table.state_changed = &VideoStream::onStateChanged;
    table.param_changed = &VideoStream::onParameter;
    table.remove_buffer = &VideoStream::onRemoveBuffer;
    table.process = &VideoStream::onProcess;
    return table;
}();

VideoStream::VideoStream(pw_core* core, uint32_t node, Handlers handlers)
    : handlers_(std::move(handlers)),
      stream_(pw_stream_new(core, nodeName,
          pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_MEDIA_ROLE, "Screen",
              PW_KEY_NODE_NAME, nodeName, nullptr)))
{
    if (!stream_) {
        end(QStringLiteral("PipeWire makes no stream"));
        return;
    }
    pw_stream_add_listener(stream_.get(), hook_.get(), &events, this);
    connect(node);
}

VideoStream::~VideoStream() = default;

void VideoStream::connect(uint32_t node)
{
    std::array<uint8_t, 1024> memory;
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    const spa_pod* format = wantedFormats(builder);
    // A node that has gone must not be followed by another one: that would be another window.
    const auto flags
        = pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_DONT_RECONNECT);
    if (pw_stream_connect(stream_.get(), PW_DIRECTION_INPUT, node, flags, &format, 1) < 0)
        end(QStringLiteral("PipeWire does not connect the stream"));
}

void VideoStream::onStateChanged(void* data, pw_stream_state /*old*/, pw_stream_state state, const char* error)
{
    containWindow([&] { static_cast<VideoStream*>(data)->handleState(state, error); });
}

void VideoStream::handleState(pw_stream_state state, const char* error)
{
    if (state == PW_STREAM_STATE_ERROR)
        end(error ? QString::fromUtf8(error) : QStringLiteral("PipeWire tells no reason"));
    else if (state == PW_STREAM_STATE_UNCONNECTED)
        end(format_ ? QStringLiteral("PipeWire has removed the stream")
                    : QStringLiteral(
                        "PipeWire has removed the stream, which never had a format (does the node have images "
                        "in memory, not only DMA-BUF?)"));
}

void VideoStream::onParameter(void* data, uint32_t id, const spa_pod* parameter)
{
    if (id == SPA_PARAM_Format && parameter)
        containWindow([&] { static_cast<VideoStream*>(data)->handleFormat(parameter); });
}

void VideoStream::handleFormat(const spa_pod* format)
{
    format_ = agreedFormat(format);
    damage_.reset();
    if (!format_) {
        end(QStringLiteral("the node has none of the formats that are recorded"));
        return;
    }
    waitingSince_ = Clock::now();
    if (!renewed_)
        asked_ = 0;
    askAgainAt_ = *waitingSince_ + firstAskAgain;
    std::array<uint8_t, 2048> memory;
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    BufferParameters parameters = wantedBuffers(builder);
    pw_stream_update_params(stream_.get(), parameters.data(), uint32_t(parameters.size()));
}

uint32_t VideoStream::nodeId() const
{
    return stream_ ? pw_stream_get_node_id(stream_.get()) : SPA_ID_INVALID;
}

void VideoStream::watch(Clock::time_point now, Buffers buffers)
{
    if (!waitingSince_ || ended_ || now < askAgainAt_)
        return;
    askAgainAt_ = now + (++asked_ < firstAsks ? firstAskAgain : laterAskAgain);
    if (buffers == Buffers::Renew && asked_ >= asksBeforeNewBuffers && !std::exchange(renewed_, true)) {
        renewBuffers();
        return;
    }
    pw_stream_set_active(stream_.get(), false);
    pw_stream_set_active(stream_.get(), true);
}

/// A recorder that ends, or is killed, keeps the buffer that it held: the node does not get it back, and has none
/// left after some recorders. Formats that are offered anew make it agree upon new ones.
void VideoStream::renewBuffers()
{
    std::array<uint8_t, 1024> memory;
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    const spa_pod* format = wantedFormats(builder);
    pw_stream_update_params(stream_.get(), &format, 1);
}

void VideoStream::onRemoveBuffer(void* data, pw_buffer* buffer)
{
    auto* self = static_cast<VideoStream*>(data);
    if (self->held_ == buffer)
        self->held_ = nullptr;
}

void VideoStream::onProcess(void* data)
{
    containWindow([&] { static_cast<VideoStream*>(data)->takeBuffers(); });
}

void VideoStream::takeBuffers()
{
    while (pw_buffer* buffer = pw_stream_dequeue_buffer(stream_.get())) {
        const auto givesBack = qScopeGuard([&] {
            if (buffer)
                pw_stream_queue_buffer(stream_.get(), buffer);
        });
        pointer_ = pointerOf(*buffer->buffer);
        if (hasFrame(*buffer->buffer) && takeFrame(*buffer->buffer))
            std::swap(held_, buffer);
    }
    handlers_.changed();
}

/// False when the frame cannot be read. What a frame changed that is left out, nobody tells any more.
bool VideoStream::takeFrame(const spa_buffer& buffer)
{
    std::optional<QRegion> known = std::exchange(damage_, std::nullopt);
    if (!format_ || !frameOf(buffer, *format_))
        return false;
    const auto damage = damageOf(buffer);
    if (known && damage && !waitingSince_) {
        for (const QRect& area : *damage)
            *known |= area;
        if (known->rectCount() > mostAreas) // nobody may look for hours
            known = known->boundingRect();
        damage_ = std::move(known);
    }
    waitingSince_.reset();
    renewed_ = false;
    ++version_;
    return true;
}

std::optional<VideoStream::Frame> VideoStream::frame() const
{
    if (!held_ || !format_)
        return std::nullopt;
    const std::optional<PixelView> view = frameOf(*held_->buffer, *format_);
    if (!view)
        return std::nullopt;
    return Frame{*view, cropOf(*held_->buffer, format_->size), damage_};
}

void VideoStream::end(const QString& error)
{
    if (std::exchange(ended_, true))
        return;
    held_ = nullptr;
    handlers_.ended(error);
}

}

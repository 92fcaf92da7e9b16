// The stream and its data thread.
#include "pipewirestream.h"

#include "containment.h"
#include "pipewirelatency.h"

#include <spa/node/io.h>
#include <spa/param/audio/format-utils.h>
#include <spa/param/latency-utils.h>
#include <spa/param/props.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace pipewire {

namespace {

constexpr qint64 nsPerSecond = 1000000000;
constexpr uint32_t sampleRate = 48000;

qint64 monotonicNs()
{
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// A latency that is long never makes the graph run faster than it does: that could silence what plays. Without
/// always-process the stream would get no time stamps during silence.
pw_properties* streamProperties()
{
    return pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_NODE_NAME,
        captureNodeName, PW_KEY_NODE_LATENCY, "8192/48000", PW_KEY_NODE_AUTOCONNECT, "false",
        PW_KEY_NODE_DONT_RECONNECT, "true", PW_KEY_NODE_ALWAYS_PROCESS, "true", nullptr);
}

struct Cycle {
    qint64 startNs;
    CycleLength length;
};

/// Nothing when the clock makes no sense: it has not started, or it is not the monotonic one.
std::optional<Cycle> cycle(const spa_io_clock& clock, qint64 nowNs)
{
    const auto startNs = qint64(clock.nsec);
    if (clock.rate.num == 0 || clock.rate.denom == 0 || std::abs(nowNs - startNs) > nsPerSecond)
        return std::nullopt;
    const double frameNs = double(nsPerSecond) * clock.rate.num / clock.rate.denom;
    return Cycle{startNs, {qint64(double(clock.duration) * frameNs), frameNs}};
}

bool sameLatency(const spa_latency_info& first, const spa_latency_info& second)
{
    spa_latency_info other = second; // the function leaves it as it is, but does not say so
    return spa_latency_info_compare(&first, &other) == 0;
}

}

const pw_stream_events CaptureStream::events = [] {
    pw_stream_events table{};
    table.version = PW_VERSION_STREAM_EVENTS;
    table.state_changed = &CaptureStream::onStateChanged;
    table.control_info = &CaptureStream::onControl;
    table.io_changed = &CaptureStream::onIo;
    table.process = &CaptureStream::onProcess;
    return table;
}();

CaptureStream::CaptureStream(pw_core* core, Handlers handlers, bool active)
    : core_(core), handlers_(std::move(handlers)), stream_(pw_stream_new(core, captureNodeName, streamProperties()))
{
    if (!stream_)
        return;
    pw_stream_add_listener(stream_.get(), hook_.get(), &events, this);
    connected_ = connect(active);
}

CaptureStream::~CaptureStream() = default;

bool CaptureStream::connect(bool active)
{
    std::array<uint8_t, 1024> memory;
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    spa_audio_info_raw format{};
    format.format = SPA_AUDIO_FORMAT_F32;
    format.rate = sampleRate;
    format.channels = 2;
    format.position[0] = SPA_AUDIO_CHANNEL_FL;
    format.position[1] = SPA_AUDIO_CHANNEL_FR;
    const spa_pod* parameters[] = {spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &format)};
    const auto flags = pw_stream_flags(
        PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS | (active ? 0 : PW_STREAM_FLAG_INACTIVE));
    return pw_stream_connect(stream_.get(), PW_DIRECTION_INPUT, PW_ID_ANY, flags, parameters, 1) >= 0;
}

void CaptureStream::onStateChanged(void* data, pw_stream_state /*old*/, pw_stream_state state, const char* error)
{
    contain([&] { static_cast<CaptureStream*>(data)->handleState(state, error); });
}

void CaptureStream::handleState(pw_stream_state state, const char* error)
{
    const uint32_t id = pw_stream_get_node_id(stream_.get());
    if (state == PW_STREAM_STATE_PAUSED || state == PW_STREAM_STATE_STREAMING) {
        if (node_ == id || id == SPA_ID_INVALID)
            return;
        node_ = id;
        handlers_.nodeKnown();
    } else if (state == PW_STREAM_STATE_ERROR || (state == PW_STREAM_STATE_UNCONNECTED && node_)) {
        node_.reset();
        handlers_.ended(error ? QString::fromUtf8(error) : QStringLiteral("PipeWire has removed the stream"));
    }
}

void CaptureStream::onControl(void* data, uint32_t id, const pw_stream_control* control)
{
    contain([&] { static_cast<CaptureStream*>(data)->handleControl(id, *control); });
}

/// The session manager gives a stream the volume that somebody once chose for one like it; the audio is to be heard
/// as it is played.
void CaptureStream::handleControl(uint32_t id, const pw_stream_control& control)
{
    const auto differsFrom = [&](float value) {
        return std::any_of(
            control.values, control.values + control.n_values, [value](float current) { return current != value; });
    };
    if (id == SPA_PROP_channelVolumes && differsFrom(1)) {
        std::vector<float> full(control.n_values, 1.F);
        pw_stream_set_control(stream_.get(), id, control.n_values, full.data(), 0);
    } else if (id == SPA_PROP_mute && differsFrom(0)) {
        float off = 0;
        pw_stream_set_control(stream_.get(), id, 1, &off, 0);
    }
}

void CaptureStream::onIo(void* data, uint32_t id, void* area, uint32_t size)
{
    if (id != SPA_IO_Position)
        return;
    const auto* position = size >= sizeof(spa_io_position) ? static_cast<const spa_io_position*>(area) : nullptr;
    static_cast<CaptureStream*>(data)->setOnDataThread(&CaptureStream::position_, position, false);
}

/// Once this returns, the data thread does not look at the old value, whose memory may go then. breaks: what comes
/// afterwards does not continue what came before.
template <typename Value>
void CaptureStream::setOnDataThread(Value CaptureStream::*member, const Value& value, bool breaks)
{
    struct Change {
        CaptureStream* self;
        Value CaptureStream::*member;
        Value value;
        bool breaks;
    };
    const Change change{this, member, value, breaks};
    const auto apply = [](spa_loop*, bool, uint32_t, const void* data, size_t, void*) {
        Change wanted;
        std::memcpy(&wanted, data, sizeof(wanted));
        wanted.self->*wanted.member = wanted.value;
        wanted.self->broken_ = wanted.self->broken_ || wanted.breaks;
        return 0;
    };
    pw_data_loop* dataLoop = pw_context_get_data_loop(pw_core_get_context(core_));
    constexpr bool untilDone = true;
    pw_data_loop_invoke(dataLoop, apply, 0, &change, sizeof(change), untilDone, nullptr);
}

void CaptureStream::setSource(const Source& source)
{
    if (source.monitoredSink == source_.monitoredSink && sameLatency(source.latency, source_.latency))
        return;
    source_ = source;
    setOnDataThread(&CaptureStream::currentSource_, source, true);
}

void CaptureStream::tellLatency(const spa_latency_info& latency)
{
    if (sameLatency(latency, toldLatency_))
        return;
    toldLatency_ = latency;
    std::array<uint8_t, 512> memory;
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    const spa_pod* parameter = spa_latency_build(&builder, SPA_PARAM_Latency, &latency);
    pw_stream_update_params(stream_.get(), &parameter, 1);
}

void CaptureStream::onProcess(void* data)
{
    auto* self = static_cast<CaptureStream*>(data);
    pw_buffer* buffer = pw_stream_dequeue_buffer(self->stream_.get());
    if (!buffer)
        return;
    self->handleBuffer(*buffer->buffer);
    pw_stream_queue_buffer(self->stream_.get(), buffer);
}

/// On the data thread, in real time: it must not lock, allocate or wait.
void CaptureStream::handleBuffer(const spa_buffer& buffer)
{
    if (buffer.n_datas == 0 || !buffer.datas[0].data || !buffer.datas[0].chunk)
        return;
    const spa_data& data = buffer.datas[0];
    const uint32_t offset = std::min(data.chunk->offset, data.maxsize);
    const uint32_t bytes = std::min(data.chunk->size, data.maxsize - offset);

    if (bytes < BlockQueue::frameBytes)
        return;

    AudioBlock block;
    block.arrivedNs = monotonicNs();
    block.startNs = block.arrivedNs;
    block.frames = qint64(bytes / BlockQueue::frameBytes);
    if (const spa_io_position* position = position_) {
        broken_ = std::exchange(clock_, position->clock.id) != position->clock.id || broken_;
        if (const auto current = cycle(position->clock, block.arrivedNs)) {
            const bool fromLastCycle = position->clock.id == currentSource_.monitoredSink;
            block.startNs = current->startNs - (fromLastCycle ? current->length.cycleNs : 0)
                + latencyNs(currentSource_.latency, current->length);
        }
    }
    block.discontinuous = broken_;
    broken_ = !blocks_->push(block, static_cast<const char*>(data.data) + offset);
}

}

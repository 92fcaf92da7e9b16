// VideoNode: the stream, and how its buffers are filled.
#include "videonode.h"

#include <pipewire/pipewire.h>
#include <spa/buffer/buffer.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>

#include <QElapsedTimer>
#include <QThread>

#include <algorithm>
#include <array>

#pragma GCC diagnostic ignored "-Wold-style-cast"

namespace {

constexpr int limitMs = 20'000;
constexpr int mostDamage = 4;

/// The places of blue, green, red and the fourth byte.
std::array<int, 4> byteOrder(uint32_t format)
{
    switch (format) {
    case SPA_VIDEO_FORMAT_RGBA:
    case SPA_VIDEO_FORMAT_RGBx:
        return {2, 1, 0, 3};
    case SPA_VIDEO_FORMAT_ARGB:
    case SPA_VIDEO_FORMAT_xRGB:
        return {3, 2, 1, 0};
    case SPA_VIDEO_FORMAT_ABGR:
    case SPA_VIDEO_FORMAT_xBGR:
        return {1, 2, 3, 0};
    default:
        return {0, 1, 2, 3};
    }
}

template <typename Content>
Content* metaOf(spa_buffer& buffer, uint32_t type)
{
    return static_cast<Content*>(spa_buffer_find_meta_data(&buffer, type, sizeof(Content)));
}

spa_region regionOf(const QRect& rect)
{
    return {{rect.x(), rect.y()}, {uint32_t(rect.width()), uint32_t(rect.height())}};
}

const spa_pod* metadata(spa_pod_builder& builder, uint32_t type, int size)
{
    return static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
        SPA_PARAM_META_type, SPA_POD_Id(type), SPA_PARAM_META_size, SPA_POD_Int(size)));
}

}

struct VideoNode::Impl {
    explicit Impl(const Options& wanted) : options(wanted) { }

    const spa_pod* formatPod(spa_pod_builder& builder) const;
    void handleParameter(uint32_t id, const spa_pod* parameter);
    void handleState(pw_stream_state state);
    bool fill(pw_buffer& buffer, const NodeFrame& frame) const;
    void tell(spa_buffer& buffer, const NodeFrame& frame) const;
    bool sendLocked(const NodeFrame& frame);

    Options options;
    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_stream* stream = nullptr;
    spa_hook hook{};
    bool streaming = false;
    int starts = 0;
};

const spa_pod* VideoNode::Impl::formatPod(spa_pod_builder& builder) const
{
    spa_pod_frame object;
    spa_pod_builder_push_object(&builder, &object, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat);
    spa_rectangle size{uint32_t(options.size.width()), uint32_t(options.size.height())};
    spa_fraction none{0, 1};
    spa_fraction rate{60, 1};
    spa_pod_builder_add(&builder, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype,
        SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format, SPA_POD_Id(options.format), 0);
    if (options.onlyGraphicsMemory) {
        spa_pod_builder_prop(&builder, SPA_FORMAT_VIDEO_modifier, SPA_POD_PROP_FLAG_MANDATORY);
        spa_pod_builder_long(&builder, 0);
    }
    spa_pod_builder_add(&builder, SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size), SPA_FORMAT_VIDEO_framerate,
        SPA_POD_Fraction(&none), SPA_FORMAT_VIDEO_maxFramerate, SPA_POD_Fraction(&rate), 0);
    return static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &object));
}

void VideoNode::Impl::handleParameter(uint32_t id, const spa_pod* parameter)
{
    if (id != SPA_PARAM_Format || !parameter)
        return;
    std::array<uint8_t, 2048> memory;
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    const int stride = options.size.width() * 4;
    constexpr int region = sizeof(spa_meta_region);
    const spa_pod* parameters[] = {
        static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder, SPA_TYPE_OBJECT_ParamBuffers,
            SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers, SPA_POD_CHOICE_RANGE_Int(4, 2, 8), SPA_PARAM_BUFFERS_blocks,
            SPA_POD_Int(1), SPA_PARAM_BUFFERS_size, SPA_POD_Int(stride * options.size.height()),
            SPA_PARAM_BUFFERS_stride, SPA_POD_Int(stride))),
        metadata(builder, SPA_META_Header, sizeof(spa_meta_header)),
        metadata(builder, SPA_META_VideoCrop, region),
        metadata(builder, SPA_META_VideoDamage, mostDamage * region),
        metadata(builder, SPA_META_Cursor, int(sizeof(spa_meta_cursor) + sizeof(spa_meta_bitmap)) + 64 * 64 * 4),
    };
    pw_stream_update_params(stream, parameters, uint32_t(std::size(parameters)));
}

void VideoNode::Impl::handleState(pw_stream_state state)
{
    streaming = state == PW_STREAM_STATE_STREAMING;
    if (!streaming)
        return;
    ++starts;
    if (options.atStart && starts > options.startsWithout)
        sendLocked(*options.atStart);
}

bool VideoNode::Impl::fill(pw_buffer& buffer, const NodeFrame& frame) const
{
    const spa_data& data = buffer.buffer->datas[0];
    const int stride = options.size.width() * 4;
    *data.chunk = {0, 0, stride, frame.corrupted ? int32_t(SPA_CHUNK_FLAG_CORRUPTED) : 0};
    tell(*buffer.buffer, frame);
    if (frame.image.isNull())
        return true;
    const auto size = uint32_t(stride * options.size.height());
    if (!data.data || data.maxsize < size || frame.image.size() != options.size)
        return false;
    data.chunk->size = size;
    const std::array<int, 4> order = byteOrder(options.format);
    auto* to = static_cast<uint8_t*>(data.data);
    for (int y = 0; y < frame.image.height(); ++y) {
        const uchar* from = frame.image.constScanLine(y); // blue first
        for (int at = 0; at < stride; ++at)
            to[y * stride + at / 4 * 4 + order[std::size_t(at % 4)]] = from[at];
    }
    return true;
}

void VideoNode::Impl::tell(spa_buffer& buffer, const NodeFrame& frame) const
{
    if (auto* header = metaOf<spa_meta_header>(buffer, SPA_META_Header))
        *header = {};
    if (auto* crop = metaOf<spa_meta_region>(buffer, SPA_META_VideoCrop))
        crop->region = regionOf(frame.crop.value_or(QRect(0, 0, 0, 0)));
    if (auto* cursor = metaOf<spa_meta_cursor>(buffer, SPA_META_Cursor)) {
        *cursor = {};
        cursor->id = frame.pointer ? 1 : 0;
        if (frame.pointer)
            cursor->position = {frame.pointer->x(), frame.pointer->y()};
    }
    if (auto* damage = metaOf<spa_meta_region>(buffer, SPA_META_VideoDamage)) {
        std::fill_n(damage, mostDamage, spa_meta_region{});
        int index = 0;
        for (const QRect& area : frame.damage.value_or(std::vector<QRect>()))
            damage[index++].region = regionOf(area);
    }
}

bool VideoNode::Impl::sendLocked(const NodeFrame& frame)
{
    pw_buffer* buffer = pw_stream_dequeue_buffer(stream);
    if (!buffer)
        return false;
    const bool filled = fill(*buffer, frame);
    pw_stream_queue_buffer(stream, buffer);
    return filled;
}

VideoNode::VideoNode(const Options& options) : impl_(std::make_unique<Impl>(options))
{
    if (impl_->options.format == 0)
        impl_->options.format = SPA_VIDEO_FORMAT_BGRx;
    pw_init(nullptr, nullptr);
    impl_->loop = pw_thread_loop_new("video-node", nullptr);
    impl_->context = pw_context_new(pw_thread_loop_get_loop(impl_->loop), nullptr, 0);
    impl_->core = pw_context_connect(impl_->context, nullptr, 0);
    if (!impl_->core)
        return;
    pw_properties* properties = pw_properties_new(PW_KEY_NODE_NAME, "video-node", nullptr);
    if (options.mediaClass)
        pw_properties_set(properties, PW_KEY_MEDIA_CLASS, options.mediaClass);
    impl_->stream = pw_stream_new(impl_->core, "video-node", properties);
    static const pw_stream_events events = [] {
        pw_stream_events table{};
        table.version = PW_VERSION_STREAM_EVENTS;
        table.state_changed = [](void* data, pw_stream_state, pw_stream_state state, const char*) {
            static_cast<Impl*>(data)->handleState(state);
        };
        table.param_changed = [](void* data, uint32_t id, const spa_pod* parameter) {
            static_cast<Impl*>(data)->handleParameter(id, parameter);
        };
        return table;
    }();
    pw_stream_add_listener(impl_->stream, &impl_->hook, &events, impl_.get());
    std::array<uint8_t, 1024> memory;
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    const spa_pod* format = impl_->formatPod(builder);
    pw_stream_connect(impl_->stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
        pw_stream_flags(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS), &format, 1);
    pw_thread_loop_start(impl_->loop);
    QElapsedTimer waited;
    waited.start();
    while (id() == 0 && !waited.hasExpired(limitMs))
        QThread::msleep(1);
}

VideoNode::~VideoNode()
{
    pw_thread_loop_stop(impl_->loop);
    if (impl_->stream)
        pw_stream_destroy(impl_->stream);
    if (impl_->core)
        pw_core_disconnect(impl_->core);
    pw_context_destroy(impl_->context);
    pw_thread_loop_destroy(impl_->loop);
}

namespace {

class Locked {
public:
    explicit Locked(pw_thread_loop* loop) : loop_(loop) { pw_thread_loop_lock(loop_); }
    ~Locked() { pw_thread_loop_unlock(loop_); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

private:
    pw_thread_loop* loop_;
};

}

uint32_t VideoNode::id() const
{
    const Locked locked(impl_->loop);
    const uint32_t id = impl_->stream ? pw_stream_get_node_id(impl_->stream) : SPA_ID_INVALID;
    return id == SPA_ID_INVALID ? 0 : id;
}

bool VideoNode::isStreaming() const
{
    const Locked locked(impl_->loop);
    return impl_->streaming;
}

int VideoNode::starts() const
{
    const Locked locked(impl_->loop);
    return impl_->starts;
}

bool VideoNode::send(const NodeFrame& frame)
{
    QElapsedTimer waited;
    waited.start();
    while (!waited.hasExpired(limitMs)) {
        {
            const Locked locked(impl_->loop);
            if (impl_->streaming && impl_->sendLocked(frame))
                return true;
        }
        QThread::msleep(1);
    }
    return false;
}

bool VideoNode::setFormat(const QSize& size, uint32_t format)
{
    const Locked locked(impl_->loop);
    impl_->options.size = size;
    impl_->options.format = format;
    std::array<uint8_t, 1024> memory;
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    const spa_pod* parameter = impl_->formatPod(builder);
    return pw_stream_update_params(impl_->stream, &parameter, 1) >= 0;
}

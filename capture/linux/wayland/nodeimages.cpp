// Windows from PipeWire. A compositor makes a node of each window that somebody was allowed to record; whoever asked
// for it knows the node's id, and hands it over.
#include "nodeimages.h"

#include "containment.h"
#include "pipewirehandles.h"

#include <QDebug>

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

namespace wayland {

/// The node with that id, and the stream from it once it is known to be one of video. Under the connection's lock.
class NodeImages::Node {
public:
    explicit Node(quint32 id) : id_(id) { }

    static void lookFor(const std::shared_ptr<Node>& node, pipewire::CoreConnection& connection);

    VideoStream* stream() const { return stream_.get(); }
    const std::optional<QString>& error() const { return error_; } ///< nothing more comes, and why
    bool isVideo() const { return isVideo_; } ///< as far as is known
    void watch(Clock::time_point now);
    Wakeup& wakeup() { return wakeup_; }

private:
    static void onGlobal(void* data, uint32_t id, uint32_t permissions, const char* type, uint32_t version,
        const spa_dict* properties);
    static void onGlobalRemove(void* data, uint32_t id);
    void handleListed(pw_core* core, const std::optional<QString>& error);
    void handleLink(uint32_t link, const spa_dict& properties);
    bool othersUseIt() const;
    void end(const QString& error);

    static const pw_registry_events events;

    const quint32 id_;
    bool isVideo_ = false;
    std::optional<QString> error_;
    Wakeup wakeup_;
    std::map<uint32_t, uint32_t> users_; // of the node: the id of the node at the other end, by the id of the link
    pipewire::ProxyHandle<pw_registry> registry_;
    pipewire::Hook hook_;
    std::unique_ptr<VideoStream> stream_;
};

const pw_registry_events NodeImages::Node::events = [] {
    pw_registry_events table{};
    table.version = PW_VERSION_REGISTRY_EVENTS;
    table.global = &Node::onGlobal;
    table.global_remove = &Node::onGlobalRemove;
    return table;
}();

/// A stream that asks for a node which is not there, or is none of video, would wait for ever and say nothing.
void NodeImages::Node::lookFor(const std::shared_ptr<Node>& node, pipewire::CoreConnection& connection)
{
    pw_core* core = connection.core();
    node->registry_.reset(pw_core_get_registry(core, PW_VERSION_REGISTRY, 0));
    if (!node->registry_) {
        node->end(QStringLiteral("PipeWire does not list its nodes"));
        return;
    }
    pipewire::listen(node->registry_.get(), node->hook_, events, node.get());
    connection.synchronise([core, known = std::weak_ptr<Node>(node)](const std::optional<QString>& error) {
        if (const std::shared_ptr<Node> awaiting = known.lock())
            awaiting->handleListed(core, error);
    });
}

void NodeImages::Node::onGlobal(
    void* data, uint32_t id, uint32_t /*permissions*/, const char* type, uint32_t, const spa_dict* properties)
{
    auto* self = static_cast<Node*>(data);
    if (!properties)
        return;
    if (std::string_view(type) == PW_TYPE_INTERFACE_Link)
        pipewire::contain([&] { self->handleLink(id, *properties); }, &pipewire::reportContainedOfWindow);
    if (id != self->id_ || std::string_view(type) != PW_TYPE_INTERFACE_Node)
        return;
    const char* text = spa_dict_lookup(properties, PW_KEY_MEDIA_CLASS);
    const std::string_view mediaClass = text ? text : "";
    self->isVideo_ = mediaClass == "Stream/Output/Video" || mediaClass == "Video/Source";
}

/// At the latest now: what has the id from here on is something else.
void NodeImages::Node::onGlobalRemove(void* data, uint32_t id)
{
    auto* self = static_cast<Node*>(data);
    self->users_.erase(id);
    if (id == self->id_ && self->isVideo_)
        pipewire::contain(
            [&] { self->end(QStringLiteral("its node has gone")); }, &pipewire::reportContainedOfWindow);
}

void NodeImages::Node::handleListed(pw_core* core, const std::optional<QString>& error)
{
    if (error || !isVideo_) {
        end(error.value_or(QStringLiteral("there is no such node, or it is not one of video")));
        return;
    }
    stream_ = std::make_unique<VideoStream>(
        core, id_, VideoStream::Handlers{[this] { wakeup_.wake(); }, [this](const QString& reason) { end(reason); }});
}

void NodeImages::Node::handleLink(uint32_t link, const spa_dict& properties)
{
    const auto idOf = [&](const char* key) {
        uint32_t id = SPA_ID_INVALID;
        const char* const text = spa_dict_lookup(&properties, key);
        return text && spa_atou32(text, &id, 10) ? id : SPA_ID_INVALID;
    };
    if (idOf(PW_KEY_LINK_OUTPUT_NODE) == id_)
        users_[link] = idOf(PW_KEY_LINK_INPUT_NODE);
}

bool NodeImages::Node::othersUseIt() const
{
    return std::any_of(
        users_.begin(), users_.end(), [this](const auto& user) { return user.second != stream_->nodeId(); });
}

/// New buffers are everybody's, and PipeWire (0.3.65) gives none to those who had some: they would get no frame any
/// more.
void NodeImages::Node::watch(Clock::time_point now)
{
    if (stream_)
        stream_->watch(now, othersUseIt() ? VideoStream::Buffers::Keep : VideoStream::Buffers::Renew);
}

void NodeImages::Node::end(const QString& error)
{
    if (!error_)
        error_ = error;
    wakeup_.wake();
}

NodeImages::NodeImages(quint32 nodeId, Now now) : now_(std::move(now)), nodeId_(nodeId), madeAt_(now_())
{
    QString error;
    connection_ = connectToServer(&error);
    if (!connection_) {
        logNoServer(error);
        return;
    }
    const pipewire::LoopLock lock = connection_->lock();
    node_ = std::make_shared<Node>(nodeId);
    Node::lookFor(node_, *connection_);
}

NodeImages::~NodeImages()
{
    if (!connection_)
        return;
    const pipewire::LoopLock lock = connection_->lock();
    node_.reset();
}

platform::WindowSample NodeImages::sample()
{
    if (!connection_)
        return {};
    if (!std::exchange(awaited_, true))
        awaitFirstFrame();
    platform::WindowSample sample;
    {
        const pipewire::LoopLock lock = connection_->lock();
        VideoStream* const stream = node_->stream();
        node_->watch(now_());
        if (!node_->error() && stream && takeImage(*stream, sample)) {
            sample.image = images_.last();
            const QPointF origin(nowhere, nowhere);
            sample.bounds = QRectF(origin, shown_->visible.size());
            if (const auto pointer = stream->pointer())
                sample.pointer = origin + *pointer - QPointF(shown_->visible.topLeft());
        }
    }
    if (sample.image.isNull()) {
        shown_.reset();
        logNoFrame();
        return {};
    }
    shadowLog_.note(shown_->shadow, now_());
    return sample;
}

/// The recorder takes a window that gives no image at first for one that is gone.
void NodeImages::awaitFirstFrame()
{
    constexpr std::chrono::milliseconds step{20}; // for the watch
    const auto latest = Wakeup::Clock::now() + longestFirstWait;
    while (Wakeup::Clock::now() < latest) {
        {
            const pipewire::LoopLock lock = connection_->lock();
            VideoStream* const stream = node_->stream();
            if (node_->error() || (stream && stream->version() > 0))
                return;
            node_->watch(now_());
        }
        node_->wakeup().waitUntil(Wakeup::Clock::now() + step);
    }
}

/// Brings shown_ up to date. False when there is no image.
bool NodeImages::takeImage(VideoStream& stream, platform::WindowSample& sample)
{
    if (stream.waitingSince() && now_() - *stream.waitingSince() > longestWait)
        return false;
    if (shown_ && isCurrent(stream))
        return true;
    const std::optional<VideoStream::Frame> frame = stream.frame();
    if (!frame)
        return shown_.has_value(); // its format has just changed
    if (!readImage(*frame, sample))
        return false;
    shown_->version = stream.version();
    stream.clearDamage();
    return true;
}

bool NodeImages::isCurrent(const VideoStream& stream) const
{
    return stream.version() == shown_->version
        && !(shown_->isPartial && now_() - shown_->comparedAt >= checkInterval);
}

/// Brings images_ and shown_ up to date, but for the version. False when there is no memory.
bool NodeImages::readImage(const VideoStream::Frame& frame, platform::WindowSample& sample)
{
    const QMargins shadow = shadowIn(frame.view, frame.crop);
    const QRect visible = frame.crop.marginsRemoved(shadow);
    const RowSet rows = rowsToRead(frame, visible);
    images_.update(visible.size(), frame.view.order.imageFormat());
    for (const RowSet::Range& range : rows.ranges()) {
        copyRows(frame.view, visible, range.top, range.count(), pixels_);
        images_.put(range.top, range.count(), pixels_.data(), frame.view.order.setBits());
    }
    const SharedImages::Image taken = images_.finish();
    if (taken.image.isNull())
        return false;
    const bool isPartial = rows.count() < visible.height();
    const auto comparedAt = isPartial ? shown_->comparedAt : now_();
    shown_ = Shown{visible, shadow, 0, comparedAt, isPartial};
    sample.changedRows = taken.changedRows;
    sample.ownBytes = taken.ownBytes;
    return true;
}

/// Of the visible part.
RowSet NodeImages::rowsToRead(const VideoStream::Frame& frame, const QRect& visible) const
{
    RowSet all(0, visible.height());
    const bool isSame
        = shown_ && shown_->visible == visible && images_.last().format() == frame.view.order.imageFormat();
    if (!isSame || !frame.damage || now_() - shown_->comparedAt >= checkInterval)
        return all;
    RowSet rows;
    for (const QRect& area : *frame.damage) {
        const QRect part = area & visible;
        rows.add(part.top() - visible.top(), part.bottom() + 1 - visible.top());
    }
    return rows;
}

/// Once.
void NodeImages::logNoFrame()
{
    bool wasVideo = false;
    bool hadFrame = false;
    std::optional<QString> error;
    {
        const pipewire::LoopLock lock = connection_->lock();
        wasVideo = node_->isVideo();
        hadFrame = node_->stream() && node_->stream()->version() > 0;
        error = node_->error();
    }
    const bool isLate = !hadFrame && !lateLogged_ && now_() - madeAt_ >= patience;
    if (error && std::exchange(endLogged_, true))
        return;
    if (error && wasVideo)
        qWarning() << "Window's PipeWire stream has ended; node:" << nodeId_ << *error;
    else if (error)
        qWarning() << "Window argument is not a PipeWire node of video:" << nodeId_ << *error;
    else if (isLate) {
        lateLogged_ = true;
        qWarning() << "PipeWire gives no frame of the window yet (is there a session manager, does the node have "
                      "images in memory, not only DMA-BUF?); node:"
                   << nodeId_;
    }
}

}

// Mouse clicks on X11. Raw events (XInput 2.2) come for every press, also while a client grabs the pointer, but they
// carry neither position nor window: both are asked for at once. A separate thread does so, because a stopped X
// server does not answer.
#include "clickwatcher.h"
#include "xcbhandles.h"

#include <QDateTime>
#include <QMetaObject>

#include <xcb/xcb.h>
#include <xcb/xinput.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <sys/socket.h>
#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr quint32 lastClickButton = 3; // 4 and above are wheels
constexpr auto startLimit = 1s; // an X server that works takes milliseconds

/// Asks for the raw presses of every pointer (not of the devices behind it: each press would come twice).
bool selectRawPresses(xcb_connection_t* connection, xcb_window_t root)
{
    struct {
        xcb_input_event_mask_t head{XCB_INPUT_DEVICE_ALL_MASTER, 1};
        uint32_t mask = XCB_INPUT_XI_EVENT_MASK_RAW_BUTTON_PRESS;
    } selection;
    const x11::Allocated<xcb_generic_error_t> error(
        xcb_request_check(connection, xcb_input_xi_select_events_checked(connection, root, 1, &selection.head)));
    return !error && !xcb_connection_has_error(connection);
}

bool hasRawPresses(xcb_connection_t* connection)
{
    const xcb_query_extension_reply_t* extension = xcb_get_extension_data(connection, &xcb_input_id);
    if (!extension || !extension->present)
        return false;
    const x11::Allocated<xcb_input_xi_query_version_reply_t> version(
        xcb_input_xi_query_version_reply(connection, xcb_input_xi_query_version(connection, 2, 2), nullptr));
    return version && (version->major_version > 2 || (version->major_version == 2 && version->minor_version >= 2));
}

/// The X server, as far as clicks go. Used on the separate thread: a call can wait for the server without a limit.
class ClickDisplay {
public:
    explicit ClickDisplay(xcb_window_t window) : connection_(xcb_connect(nullptr, nullptr)), window_(window) { }

    int descriptor() const { return xcb_get_file_descriptor(connection_.get()); }
    QString findWindow();
    QString watchPresses() const;
    x11::Allocated<xcb_generic_event_t> waitForEvent() const
    {
        return x11::Allocated<xcb_generic_event_t>(xcb_wait_for_event(connection_.get()));
    }
    bool isRawPress(const xcb_generic_event_t& event) const;
    bool isClosing(const xcb_generic_event_t& event) const;
    bool locateClick(Click* click) const;

private:
    bool isOnTop(QPoint position) const;

    x11::Allocated<xcb_translate_coordinates_reply_t> translate(xcb_window_t to, QPoint position) const
    {
        return x11::Allocated<xcb_translate_coordinates_reply_t>(xcb_translate_coordinates_reply(connection_.get(),
            xcb_translate_coordinates(connection_.get(), root_, to, int16_t(position.x()), int16_t(position.y())),
            nullptr));
    }
    x11::Allocated<xcb_get_geometry_reply_t> geometry() const
    {
        return x11::Allocated<xcb_get_geometry_reply_t>(
            xcb_get_geometry_reply(connection_.get(), xcb_get_geometry(connection_.get(), window_), nullptr));
    }

    const x11::DisplayHandle connection_; // never null, but it can be in error
    const xcb_window_t window_;
    xcb_window_t root_ = XCB_NONE; // of the screen that holds the window
};

constexpr quint8 typeMask = 0x7f; // the top bit marks events that clients send

/// Empty when the window is there, and its closing is going to be told; else why not.
QString ClickDisplay::findWindow()
{
    if (xcb_connection_has_error(connection_.get()))
        return QStringLiteral("no X display can be reached");
    constexpr uint32_t closing = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    xcb_change_window_attributes(connection_.get(), window_, XCB_CW_EVENT_MASK, &closing);
    const auto place = geometry();
    if (!place)
        return QStringLiteral("there is no window 0x%1 on this display").arg(window_, 0, 16);
    root_ = place->root;
    return QString();
}

/// Empty when clicks are going to be told, else why not.
QString ClickDisplay::watchPresses() const
{
    if (!hasRawPresses(connection_.get()))
        return QStringLiteral("the X server has no XInput 2.2");
    if (!selectRawPresses(connection_.get(), root_))
        return QStringLiteral("the X server refuses to report button presses");
    return QString();
}

bool ClickDisplay::isRawPress(const xcb_generic_event_t& event) const
{
    if ((event.response_type & typeMask) != XCB_GE_GENERIC)
        return false;
    const auto& press = reinterpret_cast<const xcb_input_raw_button_press_event_t&>(event);
    return press.extension == xcb_get_extension_data(connection_.get(), &xcb_input_id)->major_opcode
        && press.event_type == XCB_INPUT_RAW_BUTTON_PRESS && press.detail >= 1 && press.detail <= lastClickButton;
}

bool ClickDisplay::isClosing(const xcb_generic_event_t& event) const
{
    return (event.response_type & typeMask) == XCB_DESTROY_NOTIFY
        && reinterpret_cast<const xcb_destroy_notify_event_t&>(event).window == window_;
}

/// Walks down from the root through the window that lies uppermost at the position (root coordinates, pixels).
bool ClickDisplay::isOnTop(QPoint position) const
{
    for (xcb_window_t at = root_; at != XCB_NONE;) {
        if (at == window_)
            return true;
        const auto inside = translate(at, position);
        at = inside ? inside->child : xcb_window_t(XCB_NONE);
    }
    return false;
}

/// Fills in the place of a press that has just happened; false when it did not hit the window.
bool ClickDisplay::locateClick(Click* click) const
{
    const x11::Allocated<xcb_query_pointer_reply_t> pointer(
        xcb_query_pointer_reply(connection_.get(), xcb_query_pointer(connection_.get(), root_), nullptr));
    if (!pointer || !pointer->same_screen)
        return false;
    const QPoint position(pointer->root_x, pointer->root_y);
    if (!isOnTop(position))
        return false;
    const auto inside = translate(window_, position);
    const auto place = geometry();
    if (!inside || !place || place->width == 0 || place->height == 0)
        return false;
    click->global = position;
    click->normalized = QPointF(double(inside->dst_x) / place->width, double(inside->dst_y) / place->height);
    return true;
}

}

/// Shared by the watcher and its thread. The thread outlives the watcher when xcb_connect() does not return.
struct ClickWatcher::Impl {
    static void run(const std::shared_ptr<Impl>& shared, xcb_window_t window, Watched watched);
    void watch(ClickDisplay& display);
    void reportStart(const QString& error);

    /// Calls a function with the watcher on the main thread, unless the watcher was destroyed.
    template <typename Function>
    void tell(Function function)
    {
        const std::lock_guard lock(mutex);
        tellLocked(function);
    }
    template <typename Function>
    void tellLocked(Function function)
    {
        if (watcher)
            QMetaObject::invokeMethod(
                watcher, [to = watcher, function] { function(*to); }, Qt::QueuedConnection);
    }

    std::thread thread; // main thread only

    std::mutex mutex; // guards what follows
    std::condition_variable startIsOver;
    ClickWatcher* watcher = nullptr; // null when it was destroyed
    bool connected = false; // xcb_connect() has returned
    int descriptor = -1; // of the connection; below 0 when there is none to shut down
    std::optional<QString> startError; // empty text: clicks are watched
    bool startWasOverdue = false;
};

void ClickWatcher::Impl::run(const std::shared_ptr<Impl>& shared, xcb_window_t window, Watched watched)
{
    ClickDisplay display(window);
    {
        const std::lock_guard lock(shared->mutex);
        if (!shared->watcher)
            return;
        shared->connected = true;
        shared->descriptor = display.descriptor();
    }
    QString error = display.findWindow();
    const bool isFound = error.isEmpty();
    if (isFound && watched == Watched::ClicksAndClosing)
        error = display.watchPresses();
    shared->reportStart(error);
    if (isFound)
        shared->watch(display);
    const std::lock_guard lock(shared->mutex);
    shared->descriptor = -1; // the connection is closed next
}

void ClickWatcher::Impl::reportStart(const QString& error)
{
    const std::lock_guard lock(mutex);
    startError = error;
    startIsOver.notify_all();
    if (!startWasOverdue)
        return;
    tellLocked([error](ClickWatcher& to) {
        to.errorString_ = error;
        if (!error.isEmpty())
            Q_EMIT to.failed();
    });
}

/// Until the connection is lost.
void ClickWatcher::Impl::watch(ClickDisplay& display)
{
    while (const auto event = display.waitForEvent()) {
        Click click;
        click.atMs = QDateTime::currentMSecsSinceEpoch();
        if (display.isClosing(*event))
            tell([](ClickWatcher& to) { Q_EMIT to.windowClosed(); });
        if (!display.isRawPress(*event))
            continue;
        if (display.locateClick(&click))
            tell([click](ClickWatcher& to) { Q_EMIT to.clicked(click); });
        else
            tell([](ClickWatcher& to) { Q_EMIT to.clickedElsewhere(); });
    }
    tell([](ClickWatcher& to) {
        to.errorString_ = QStringLiteral("the connection to the X server is lost");
        Q_EMIT to.failed();
    });
}

ClickWatcher::ClickWatcher(quint32 window, Watched watched, QObject* parent)
    : QObject(parent), impl_(std::make_shared<Impl>())
{
    impl_->watcher = this;
    impl_->thread = std::thread(&Impl::run, impl_, window, watched);
    std::unique_lock lock(impl_->mutex);
    if (impl_->startIsOver.wait_for(lock, startLimit, [this] { return impl_->startError.has_value(); })) {
        errorString_ = *impl_->startError;
    } else {
        errorString_ = QStringLiteral("the X server does not answer");
        impl_->startWasOverdue = true;
    }
}

ClickWatcher::~ClickWatcher()
{
    std::unique_lock lock(impl_->mutex);
    impl_->watcher = nullptr;
    if (impl_->descriptor >= 0)
        ::shutdown(impl_->descriptor, SHUT_RDWR); // every wait of the thread fails with that
    const bool endsSoon = impl_->connected;
    lock.unlock();
    if (endsSoon)
        impl_->thread.join();
    else
        impl_->thread.detach();
}

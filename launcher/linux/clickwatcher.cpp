// Mouse clicks on X11. Raw events (XInput 2.2) come for every press, also while a client grabs the pointer, but they
// carry neither position nor window: both are asked for at once.
#include "clickwatcher.h"
#include "xcbhandles.h"

#include <QDateTime>
#include <QSocketNotifier>

#include <xcb/xcb.h>
#include <xcb/xinput.h>

#include <array>
#include <cstdlib>

namespace {

constexpr quint32 lastClickButton = 3; // 4 and above are wheels

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

}

struct ClickWatcher::Impl {
    explicit Impl(xcb_window_t target) : connection(xcb_connect(nullptr, nullptr)), window(target) { }

    QString start();
    bool isRawPress(const xcb_generic_event_t& event) const;
    bool isOnTop(QPoint position) const;
    bool locateClick(Click* click) const;

    x11::Allocated<xcb_translate_coordinates_reply_t> translate(xcb_window_t to, QPoint position) const
    {
        return x11::Allocated<xcb_translate_coordinates_reply_t>(xcb_translate_coordinates_reply(connection.get(),
            xcb_translate_coordinates(connection.get(), root, to, int16_t(position.x()), int16_t(position.y())),
            nullptr));
    }
    x11::Allocated<xcb_get_geometry_reply_t> geometry() const
    {
        return x11::Allocated<xcb_get_geometry_reply_t>(
            xcb_get_geometry_reply(connection.get(), xcb_get_geometry(connection.get(), window), nullptr));
    }

    const x11::DisplayHandle connection; // never null, but it can be in error
    const xcb_window_t window;
    xcb_window_t root = XCB_NONE; // of the screen that holds the window
    std::unique_ptr<QSocketNotifier> notifier; // destroyed before the connection
};

/// Empty when everything is in place, else why not.
QString ClickWatcher::Impl::start()
{
    if (xcb_connection_has_error(connection.get()))
        return QStringLiteral("no X display can be reached");
    if (!hasRawPresses(connection.get()))
        return QStringLiteral("the X server has no XInput 2.2");
    const auto place = geometry();
    if (!place)
        return QStringLiteral("there is no window 0x%1 on this display").arg(window, 0, 16);
    root = place->root;
    if (!selectRawPresses(connection.get(), root))
        return QStringLiteral("the X server refuses to report button presses");
    notifier = std::make_unique<QSocketNotifier>(xcb_get_file_descriptor(connection.get()), QSocketNotifier::Read);
    return QString();
}

bool ClickWatcher::Impl::isRawPress(const xcb_generic_event_t& event) const
{
    constexpr quint8 typeMask = 0x7f; // the top bit marks events that clients send
    if ((event.response_type & typeMask) != XCB_GE_GENERIC)
        return false;
    const auto& press = reinterpret_cast<const xcb_input_raw_button_press_event_t&>(event);
    return press.extension == xcb_get_extension_data(connection.get(), &xcb_input_id)->major_opcode
        && press.event_type == XCB_INPUT_RAW_BUTTON_PRESS && press.detail >= 1 && press.detail <= lastClickButton;
}

/// Walks down from the root through the window that lies uppermost at the position (root coordinates, pixels).
bool ClickWatcher::Impl::isOnTop(QPoint position) const
{
    for (xcb_window_t at = root; at != XCB_NONE;) {
        if (at == window)
            return true;
        const auto inside = translate(at, position);
        at = inside ? inside->child : xcb_window_t(XCB_NONE);
    }
    return false;
}

/// Fills in the place of a press that has just happened; false when it did not hit the window.
bool ClickWatcher::Impl::locateClick(Click* click) const
{
    const x11::Allocated<xcb_query_pointer_reply_t> pointer(
        xcb_query_pointer_reply(connection.get(), xcb_query_pointer(connection.get(), root), nullptr));
    if (!pointer || !pointer->same_screen)
        return false;
    const QPoint position(pointer->root_x, pointer->root_y);
    if (!isOnTop(position))
        return false;
    const auto inside = translate(window, position);
    const auto place = geometry();
    if (!inside || !place || place->width == 0 || place->height == 0)
        return false;
    click->global = position;
    click->normalized = QPointF(double(inside->dst_x) / place->width, double(inside->dst_y) / place->height);
    return true;
}

ClickWatcher::ClickWatcher(quint32 window, QObject* parent) : QObject(parent), impl_(std::make_unique<Impl>(window))
{
    errorString_ = impl_->start();
    if (isWatching())
        connect(impl_->notifier.get(), &QSocketNotifier::activated, this, &ClickWatcher::readEvents);
}

ClickWatcher::~ClickWatcher() = default;

void ClickWatcher::readEvents()
{
    // Until nothing is left: the replies that a click needs may bring further events along.
    for (;;) {
        const x11::Allocated<xcb_generic_event_t> event(xcb_poll_for_event(impl_->connection.get()));
        if (!event)
            break;
        Click click;
        click.atMs = QDateTime::currentMSecsSinceEpoch();
        if (!impl_->isRawPress(*event))
            continue;
        if (impl_->locateClick(&click))
            Q_EMIT clicked(click);
        else
            Q_EMIT clickedElsewhere();
    }
    if (xcb_connection_has_error(impl_->connection.get())) {
        impl_->notifier->setEnabled(false);
        errorString_ = QStringLiteral("the connection to the X server is lost");
        Q_EMIT failed();
    }
}

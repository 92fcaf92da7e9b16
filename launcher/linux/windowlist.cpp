// Windows on X11: those that the window manager lists, or without one the children of the root.
#include "windowlist.h"

#include "windowpicker.h"
#include "xcbhandles.h"
#include "xcbreplies.h"

#include <QFile>
#include <QSet>

#include <xcb/res.h>
#include <xcb/xcb.h>

#include <optional>
#include <string_view>

namespace {

constexpr uint32_t longestProperty = 16 * 1024; // words of four bytes

/// One question after the other to one X server.
class Display {
public:
    Display() : connection_(xcb_connect(nullptr, &screen_)) { }

    bool isThere() const { return !xcb_connection_has_error(connection_.get()); }
    xcb_connection_t* xcb() const { return connection_.get(); }
    xcb_window_t root() const
    {
        auto screen = xcb_setup_roots_iterator(xcb_get_setup(xcb()));
        for (int i = 0; i < screen_ && screen.rem > 1; ++i)
            xcb_screen_next(&screen);
        return screen.data->root;
    }

    xcb_atom_t atom(std::string_view name) const;
    x11::Allocated<xcb_get_property_reply_t> property(xcb_window_t window, std::string_view name) const;
    QList<quint32> numbersIn(xcb_window_t window, std::string_view property) const;
    QByteArray textIn(xcb_window_t window, std::string_view property) const;
    QList<xcb_window_t> children(xcb_window_t window) const;
    bool isApplicationWindow(xcb_window_t window) const;
    bool isClient(xcb_window_t window) const { return !numbersIn(window, "WM_STATE").isEmpty(); }
    xcb_window_t clientBelow(xcb_window_t window) const;
    std::optional<WindowInfo> describe(xcb_window_t window) const;

private:
    qint64 processOf(xcb_window_t window) const;
    QString titleOf(xcb_window_t window) const;

    int screen_ = 0;
    const x11::DisplayHandle connection_; // never null, but it can be in error
};

xcb_atom_t Display::atom(std::string_view name) const
{
    const x11::Allocated<xcb_intern_atom_reply_t> reply(
        xcb_intern_atom_reply(xcb(), xcb_intern_atom(xcb(), 1, uint16_t(name.size()), name.data()), nullptr));
    return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
}

x11::Allocated<xcb_get_property_reply_t> Display::property(xcb_window_t window, std::string_view name) const
{
    return x11::Allocated<xcb_get_property_reply_t>(xcb_get_property_reply(xcb(),
        xcb_get_property(xcb(), 0, window, atom(name), XCB_GET_PROPERTY_TYPE_ANY, 0, longestProperty), nullptr));
}

QList<quint32> Display::numbersIn(xcb_window_t window, std::string_view name) const
{
    const auto reply = property(window, name);
    const auto values = x11::propertyValues(reply.get());
    return QList<quint32>(values.begin(), values.end());
}

QByteArray Display::textIn(xcb_window_t window, std::string_view name) const
{
    return x11::propertyText(property(window, name).get()).toByteArray();
}

QList<xcb_window_t> Display::children(xcb_window_t window) const
{
    const x11::Allocated<xcb_query_tree_reply_t> tree(
        xcb_query_tree_reply(xcb(), xcb_query_tree(xcb(), window), nullptr));
    const auto windows = x11::childrenIn(tree.get());
    return QList<xcb_window_t>(windows.begin(), windows.end());
}

/// Something that an application shows and that is neither a menu nor a helper.
bool Display::isApplicationWindow(xcb_window_t window) const
{
    const x11::Allocated<xcb_get_window_attributes_reply_t> attributes(
        xcb_get_window_attributes_reply(xcb(), xcb_get_window_attributes(xcb(), window), nullptr));
    return attributes && attributes->map_state == XCB_MAP_STATE_VIEWABLE && !attributes->override_redirect
        && attributes->_class == XCB_WINDOW_CLASS_INPUT_OUTPUT;
}

/// The application's own window in the frame of a window manager; the window itself when there is none.
xcb_window_t Display::clientBelow(xcb_window_t window) const
{
    constexpr int deepest = 4; // frames have one or two levels
    QList<xcb_window_t> level{window};
    for (int depth = 0; depth < deepest && !level.isEmpty(); ++depth) {
        QList<xcb_window_t> next;
        for (const xcb_window_t candidate : std::as_const(level)) {
            if (isClient(candidate))
                return candidate;
            next += children(candidate);
        }
        level = next;
    }
    return window;
}

/// The process that the X server knows behind the window, else what the window says.
qint64 Display::processOf(xcb_window_t window) const
{
    const xcb_query_extension_reply_t* extension = xcb_get_extension_data(xcb(), &xcb_res_id);
    if (extension && extension->present) {
        const xcb_res_client_id_spec_t wanted{window, XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID};
        const x11::Allocated<xcb_res_query_client_ids_reply_t> reply(
            xcb_res_query_client_ids_reply(xcb(), xcb_res_query_client_ids(xcb(), 1, &wanted), nullptr));
        if (const qint64 process = x11::clientProcess(reply.get()))
            return process;
    }
    const QList<quint32> said = numbersIn(window, "_NET_WM_PID");
    return said.isEmpty() ? 0 : qint64(said.first());
}

QString Display::titleOf(xcb_window_t window) const
{
    const QByteArray modern = textIn(window, "_NET_WM_NAME");
    return modern.isEmpty() ? QString::fromLatin1(textIn(window, "WM_NAME")) : QString::fromUtf8(modern);
}

QString nameOfProcess(qint64 process)
{
    QFile file(QStringLiteral("/proc/%1/comm").arg(process));
    return process > 0 && file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readAll()).trimmed()
                                                         : QString();
}

/// Nothing when there is no such window.
std::optional<WindowInfo> Display::describe(xcb_window_t window) const
{
    const x11::Allocated<xcb_get_geometry_reply_t> geometry(
        xcb_get_geometry_reply(xcb(), xcb_get_geometry(xcb(), window), nullptr));
    const x11::Allocated<xcb_get_window_attributes_reply_t> attributes(
        xcb_get_window_attributes_reply(xcb(), xcb_get_window_attributes(xcb(), window), nullptr));
    if (!geometry || !attributes) // not there, or no window but a pixmap
        return std::nullopt;
    WindowInfo info;
    info.id = window;
    info.process = processOf(window);
    info.processName = nameOfProcess(info.process);
    info.title = titleOf(window);
    info.size = QSize(geometry->width, geometry->height);
    info.isShown = attributes->map_state == XCB_MAP_STATE_VIEWABLE;
    return info;
}

const QString noDisplay = QStringLiteral("no X display can be reached");

WindowAnswer described(const Display& display, const QList<xcb_window_t>& windows)
{
    WindowAnswer answer;
    for (const xcb_window_t window : windows) {
        if (const std::optional<WindowInfo> info = display.describe(window))
            answer.windows.append(*info);
    }
    if (!display.isThere())
        return {{}, QStringLiteral("the connection to the X server is lost")};
    return answer;
}

}

WindowAnswer windowlist::all()
{
    const Display display;
    if (!display.isThere())
        return {{}, noDisplay};
    QList<xcb_window_t> windows = display.numbersIn(display.root(), "_NET_CLIENT_LIST");
    if (windows.isEmpty()) {
        for (const xcb_window_t child : display.children(display.root())) {
            if (display.isApplicationWindow(child))
                windows.append(display.clientBelow(child));
        }
    }
    return described(display, windows);
}

WindowAnswer windowlist::withId(quint32 id)
{
    const Display display;
    return display.isThere() ? described(display, {id}) : WindowAnswer{{}, noDisplay};
}

WindowAnswer windowlist::active()
{
    const Display display;
    if (!display.isThere())
        return {{}, noDisplay};
    QList<xcb_window_t> windows = display.numbersIn(display.root(), "_NET_ACTIVE_WINDOW");
    if (!windows.isEmpty())
        return described(display, windows.first() == XCB_NONE ? QList<xcb_window_t>() : windows.mid(0, 1));
    const x11::Allocated<xcb_get_input_focus_reply_t> focus(
        xcb_get_input_focus_reply(display.xcb(), xcb_get_input_focus(display.xcb()), nullptr));
    const bool isWindow = focus && focus->focus != XCB_NONE && focus->focus != XCB_INPUT_FOCUS_POINTER_ROOT
        && focus->focus != display.root();
    return described(display, isWindow ? QList<xcb_window_t>{focus->focus} : QList<xcb_window_t>());
}

WindowAnswer windowlist::picked()
{
    const Display display;
    if (!display.isThere())
        return {{}, noDisplay};
    QString error;
    const xcb_window_t top = windowpicker::pick(display.xcb(), display.root(), &error);
    if (!error.isEmpty())
        return {{}, error};
    return described(
        display, top == XCB_NONE ? QList<xcb_window_t>() : QList<xcb_window_t>{display.clientBelow(top)});
}

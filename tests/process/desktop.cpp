// Desktop: requests to a test's X server.
#include "desktop.h"
#include "xcbhandles.h"

#include <QThread>

#include <xcb/xcb.h>

#include <algorithm>
#include <array>
#include <cstdlib>

namespace {

}

struct Desktop::Impl {
    x11::DisplayHandle connection;
    const xcb_screen_t* screen = nullptr;

    xcb_connection_t* xcb() const { return connection.get(); }

    /// The server has carried out everything before it answers this.
    void synchronise() const
    {
        const x11::Allocated<xcb_get_input_focus_reply_t> reply(
            xcb_get_input_focus_reply(xcb(), xcb_get_input_focus(xcb()), nullptr));
    }

    xcb_atom_t atom(const QByteArray& name) const
    {
        const auto cookie = xcb_intern_atom(xcb(), 0, quint16(name.size()), name.constData());
        const x11::Allocated<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(xcb(), cookie, nullptr));
        return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    }

    x11::Allocated<xcb_get_property_reply_t> property(quint32 window, const QByteArray& name) const
    {
        constexpr quint32 longest = 1024; // words
        const auto cookie = xcb_get_property(xcb(), 0, window, atom(name), XCB_GET_PROPERTY_TYPE_ANY, 0, longest);
        return x11::Allocated<xcb_get_property_reply_t>(xcb_get_property_reply(xcb(), cookie, nullptr));
    }
};

Desktop::Desktop(const QByteArray& display) : impl_(std::make_unique<Impl>())
{
    impl_->connection.reset(xcb_connect(display.constData(), nullptr));
    if (isConnected())
        impl_->screen = xcb_setup_roots_iterator(xcb_get_setup(impl_->xcb())).data;
}

Desktop::~Desktop() = default;

bool Desktop::isConnected() const
{
    return !xcb_connection_has_error(impl_->xcb());
}

quint32 Desktop::create(const QRect& geometry, quint32 rgb, bool mapped)
{
    const xcb_window_t window = xcb_generate_id(impl_->xcb());
    const std::array<quint32, 2> values{rgb, 1}; // background, override-redirect
    xcb_create_window(impl_->xcb(), XCB_COPY_FROM_PARENT, window, impl_->screen->root, qint16(geometry.x()),
        qint16(geometry.y()), quint16(geometry.width()), quint16(geometry.height()), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
        impl_->screen->root_visual, XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, values.data());
    if (mapped)
        xcb_map_window(impl_->xcb(), window);
    impl_->synchronise();
    return window;
}

void Desktop::place(quint32 window, const QRect& geometry)
{
    const std::array<quint32, 4> values{
        quint32(geometry.x()), quint32(geometry.y()), quint32(geometry.width()), quint32(geometry.height())};
    xcb_configure_window(impl_->xcb(), window,
        XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y | XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT,
        values.data());
    impl_->synchronise();
}

void Desktop::map(quint32 window)
{
    xcb_map_window(impl_->xcb(), window);
    impl_->synchronise();
}

void Desktop::unmap(quint32 window)
{
    xcb_unmap_window(impl_->xcb(), window);
    impl_->synchronise();
}

void Desktop::destroy(quint32 window)
{
    xcb_destroy_window(impl_->xcb(), window);
    impl_->synchronise();
}

void Desktop::iconify(quint32 window)
{
    constexpr quint32 iconicState = 3;
    xcb_client_message_event_t message{};
    message.response_type = XCB_CLIENT_MESSAGE;
    message.format = 32;
    message.window = window;
    message.type = impl_->atom("WM_CHANGE_STATE");
    message.data.data32[0] = iconicState;
    xcb_send_event(impl_->xcb(), 0, impl_->screen->root,
        XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT,
        reinterpret_cast<const char*>(&message));
    impl_->synchronise();
}

void Desktop::movePointer(QPoint position)
{
    xcb_warp_pointer(
        impl_->xcb(), XCB_NONE, impl_->screen->root, 0, 0, 0, 0, qint16(position.x()), qint16(position.y()));
    impl_->synchronise();
}

bool Desktop::windowManagerObeys()
{
    if (property(root(), "_NET_SUPPORTING_WM_CHECK").isEmpty())
        return false;
    const xcb_window_t window = xcb_generate_id(impl_->xcb());
    xcb_create_window(impl_->xcb(), XCB_COPY_FROM_PARENT, window, impl_->screen->root, 0, 0, 100, 100, 0,
        XCB_WINDOW_CLASS_INPUT_OUTPUT, impl_->screen->root_visual, 0, nullptr);
    map(window);
    bool shown = false;
    constexpr int tries = 20;
    for (int i = 0; i < tries && !shown; ++i) {
        QThread::msleep(10);
        shown = isViewable(window);
    }
    destroy(window);
    return shown;
}

void Desktop::claimCompositor()
{
    const quint32 owner = create(QRect(0, 0, 1, 1), 0, false);
    xcb_set_selection_owner(impl_->xcb(), owner, impl_->atom("_NET_WM_CM_S0"), XCB_CURRENT_TIME);
    impl_->synchronise();
}

bool Desktop::isViewable(quint32 window) const
{
    const x11::Allocated<xcb_get_window_attributes_reply_t> reply(
        xcb_get_window_attributes_reply(impl_->xcb(), xcb_get_window_attributes(impl_->xcb(), window), nullptr));
    return reply && reply->map_state == XCB_MAP_STATE_VIEWABLE;
}

QRect Desktop::geometry(quint32 window) const
{
    const auto sizeCookie = xcb_get_geometry(impl_->xcb(), window);
    const auto placeCookie = xcb_translate_coordinates(impl_->xcb(), window, impl_->screen->root, 0, 0);
    const x11::Allocated<xcb_get_geometry_reply_t> size(xcb_get_geometry_reply(impl_->xcb(), sizeCookie, nullptr));
    const x11::Allocated<xcb_translate_coordinates_reply_t> place(
        xcb_translate_coordinates_reply(impl_->xcb(), placeCookie, nullptr));
    return size && place ? QRect(place->dst_x, place->dst_y, size->width, size->height) : QRect();
}

QList<quint32> Desktop::property(quint32 window, const QByteArray& name) const
{
    const auto reply = impl_->property(window, name);
    if (!reply || reply->format != 32)
        return {};
    const auto* const values = static_cast<const quint32*>(xcb_get_property_value(reply.get()));
    return QList<quint32>(values, values + reply->value_len);
}

QString Desktop::stringProperty(quint32 window, const QByteArray& name) const
{
    const auto reply = impl_->property(window, name);
    if (!reply || reply->format != 8)
        return {};
    return QString::fromUtf8(
        static_cast<const char*>(xcb_get_property_value(reply.get())), qsizetype(reply->value_len));
}

void Desktop::setProperty(quint32 window, const QByteArray& name, const QList<quint32>& numbers)
{
    xcb_change_property(impl_->xcb(), XCB_PROP_MODE_REPLACE, window, impl_->atom(name), XCB_ATOM_CARDINAL, 32,
        quint32(numbers.size()), numbers.constData());
    impl_->synchronise();
}

quint32 Desktop::titled(const QString& text) const
{
    for (const quint32 window : children(root())) {
        if (isViewable(window) && stringProperty(window, "_NET_WM_NAME").contains(text))
            return window;
    }
    return 0;
}

quint32 Desktop::root() const
{
    return impl_->screen->root;
}

QList<quint32> Desktop::children(quint32 window) const
{
    const x11::Allocated<xcb_query_tree_reply_t> reply(
        xcb_query_tree_reply(impl_->xcb(), xcb_query_tree(impl_->xcb(), window), nullptr));
    if (!reply)
        return {};
    const xcb_window_t* const first = xcb_query_tree_children(reply.get());
    return QList<quint32>(first, first + reply->children_len);
}

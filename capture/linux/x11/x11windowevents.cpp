// Telling the server's own events about a window from all others.
#include "x11windowevents.h"

#include <xcb/damage.h>

namespace x11 {

namespace {

constexpr int sentByClient = 0x80; // in the type of an event
constexpr int moreFollow = 0x80; // in the level of a damage event

template <typename Event>
const Event& as(const xcb_generic_event_t& event)
{
    return reinterpret_cast<const Event&>(event);
}

/// Whether an event that tells two windows, the one that watches and the one it is about, means this one.
template <typename Event>
bool concerns(const xcb_generic_event_t& event, xcb_window_t window)
{
    return as<Event>(event).event == window && as<Event>(event).window == window;
}

std::optional<WindowEvent> plainEvent(WindowEvent::Kind kind, bool concerned)
{
    WindowEvent own;
    own.kind = kind;
    return concerned ? std::optional(own) : std::nullopt;
}

std::optional<WindowEvent> damageEvent(const xcb_damage_notify_event_t& event, const WatchedWindow& watched)
{
    if (event.drawable != watched.window || event.damage != watched.damage)
        return std::nullopt;
    WindowEvent own;
    own.kind = WindowEvent::Kind::Damaged;
    own.area = QRect(event.area.x, event.area.y, event.area.width, event.area.height);
    own.more = event.level & moreFollow;
    return own;
}

std::optional<WindowEvent> configureEvent(const xcb_configure_notify_event_t& event, xcb_window_t window)
{
    if (event.event != window || event.window != window)
        return std::nullopt;
    WindowEvent own;
    own.kind = WindowEvent::Kind::Configured;
    own.area = QRect(event.x, event.y, event.width, event.height);
    return own;
}

}

std::optional<WindowEvent> windowEvent(const xcb_generic_event_t& event, const WatchedWindow& watched)
{
    using Kind = WindowEvent::Kind;
    const xcb_window_t window = watched.window;
    const int type = event.response_type;
    if (type & sentByClient)
        return std::nullopt;
    if (watched.damageNotify == type)
        return damageEvent(as<xcb_damage_notify_event_t>(event), watched);
    switch (type) {
    case XCB_DESTROY_NOTIFY:
        return plainEvent(Kind::Destroyed, concerns<xcb_destroy_notify_event_t>(event, window));
    case XCB_MAP_NOTIFY:
        return plainEvent(Kind::Mapped, concerns<xcb_map_notify_event_t>(event, window));
    case XCB_UNMAP_NOTIFY:
        return plainEvent(Kind::Mapped, concerns<xcb_unmap_notify_event_t>(event, window));
    case XCB_REPARENT_NOTIFY:
        return plainEvent(Kind::Mapped, concerns<xcb_reparent_notify_event_t>(event, window));
    case XCB_VISIBILITY_NOTIFY:
        return plainEvent(Kind::Shown, as<xcb_visibility_notify_event_t>(event).window == window);
    case XCB_CONFIGURE_NOTIFY:
        return configureEvent(as<xcb_configure_notify_event_t>(event), window);
    default:
        return std::nullopt;
    }
}

}

// What the X server reports about one window, out of everything that arrives.
#pragma once

#include <QRect>
#include <QSize>

#include <xcb/xcb.h>

#include <optional>

namespace x11 {

/// Whose events count.
struct WatchedWindow {
    xcb_window_t window = XCB_NONE;
    std::optional<quint8> damageNotify; ///< event code; nothing without the extension
    xcb_window_t damage = XCB_NONE; ///< the damage object on the window
};

struct WindowEvent {
    enum class Kind {
        Destroyed,
        Mapped, ///< mapped, unmapped or given another parent
        Shown, ///< it or one of its parents was mapped: its pixels are new, the background is not painted yet
        Configured,
        Damaged,
    };

    Kind kind = Kind::Damaged;
    QRect area; ///< Damaged: what was drawn on; Configured: position in the parent, and size without the border
    bool more = false; ///< Damaged: another area of the same report follows
};

/// Nothing for errors, for events about other windows, and for what a client has sent: any client can send any event
/// to whoever watches a window, and the server only marks it.
std::optional<WindowEvent> windowEvent(const xcb_generic_event_t& event, const WatchedWindow& watched);

}

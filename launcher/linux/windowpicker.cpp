// The pointer is grabbed meanwhile, so that the click does nothing else, and the keyboard for the key that cancels.
// Both are free again when the connection ends.
#include "windowpicker.h"

#include "xcbhandles.h"

namespace {

constexpr uint16_t crossHair = 34; // its place in the cursor font; the mask follows it
constexpr std::string_view cursorFont = "cursor";

xcb_cursor_t makeCursor(xcb_connection_t* connection)
{
    const xcb_font_t font = xcb_generate_id(connection);
    xcb_open_font(connection, font, uint16_t(cursorFont.size()), cursorFont.data());
    const xcb_cursor_t cursor = xcb_generate_id(connection);
    constexpr uint16_t most = 0xffff;
    xcb_create_glyph_cursor(connection, cursor, font, font, crossHair, crossHair + 1, 0, 0, 0, most, most, most);
    return cursor;
}

/// The choice can do without: the right button cancels, too.
void grabKeyboard(xcb_connection_t* connection, xcb_window_t root)
{
    const xcb_grab_keyboard_cookie_t cookie
        = xcb_grab_keyboard(connection, 0, root, XCB_CURRENT_TIME, XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC);
    xcb_discard_reply(connection, cookie.sequence);
}

bool isEscape(xcb_connection_t* connection, xcb_keycode_t key)
{
    constexpr xcb_keysym_t escape = 0xff1b; // XK_Escape
    const x11::Allocated<xcb_get_keyboard_mapping_reply_t> mapping(
        xcb_get_keyboard_mapping_reply(connection, xcb_get_keyboard_mapping(connection, key, 1), nullptr));
    return mapping && xcb_get_keyboard_mapping_keysyms_length(mapping.get()) > 0
        && xcb_get_keyboard_mapping_keysyms(mapping.get())[0] == escape;
}

bool grabPointer(xcb_connection_t* connection, xcb_window_t root)
{
    constexpr uint16_t wanted = XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_BUTTON_RELEASE;
    const x11::Allocated<xcb_grab_pointer_reply_t> reply(xcb_grab_pointer_reply(connection,
        xcb_grab_pointer(connection, 0, root, wanted, XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC, XCB_NONE,
            makeCursor(connection), XCB_CURRENT_TIME),
        nullptr));
    return reply && reply->status == XCB_GRAB_STATUS_SUCCESS;
}

}

xcb_window_t windowpicker::pick(xcb_connection_t* connection, xcb_window_t root, QString* error)
{
    grabKeyboard(connection, root);
    if (!grabPointer(connection, root)) {
        *error = QStringLiteral("the pointer is held by another program; try again");
        return XCB_NONE;
    }
    constexpr uint8_t typeMask = 0x7f; // the top bit marks events that clients send
    xcb_window_t chosen = XCB_NONE;
    bool isPressed = false;
    while (const x11::Allocated<xcb_generic_event_t> event{xcb_wait_for_event(connection)}) {
        const uint8_t type = event->response_type & typeMask;
        const auto& button = reinterpret_cast<const xcb_button_press_event_t&>(*event);
        if (type == XCB_BUTTON_PRESS && !isPressed) {
            isPressed = true;
            chosen = button.detail == XCB_BUTTON_INDEX_1 ? button.child : xcb_window_t(XCB_NONE);
        } else if (type == XCB_BUTTON_RELEASE && isPressed) {
            return chosen;
        } else if (type == XCB_KEY_PRESS && !isPressed && isEscape(connection, button.detail)) {
            return XCB_NONE;
        }
    }
    *error = QStringLiteral("the connection to the X server is lost");
    return XCB_NONE;
}

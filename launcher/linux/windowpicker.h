// The click that chooses a window on X11.
#pragma once

#include <QString>

#include <xcb/xcb.h>

namespace windowpicker {

/// Shows a cross-hair pointer and waits for a press and its release. The child of the root that lies there; none when
/// it was another button than the first, no window was hit, or Escape was pressed.
xcb_window_t pick(xcb_connection_t* connection, xcb_window_t root, QString* error);

}

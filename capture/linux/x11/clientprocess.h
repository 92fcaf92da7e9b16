// Which process is behind a client of the X server.
#pragma once

#include "x11connection.h"
#include "xcbreplies.h"

#include <xcb/res.h>

namespace x11 {

/// Whether the server tells: it knows the process at the other end of a local connection.
bool knowsClientProcesses(DisplayConnection& connection);

/// Only where it does. clientProcess() reads the answer.
xcb_res_query_client_ids_cookie_t askClientProcess(DisplayConnection& connection, xcb_window_t window);

}

// Which process is behind a client of the X server.
#pragma once

#include "x11connection.h"

#include <xcb/res.h>

namespace x11 {

/// Whether the server tells: it knows the process at the other end of a local connection.
bool knowsClientProcesses(DisplayConnection& connection);

/// Only where it does.
xcb_res_query_client_ids_cookie_t askClientProcess(DisplayConnection& connection, xcb_window_t window);

/// The process id in the answer; 0 when there is none.
qint64 clientProcess(const xcb_res_query_client_ids_reply_t* reply);

}

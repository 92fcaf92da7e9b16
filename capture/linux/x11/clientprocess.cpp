// The Resource extension.
#include "clientprocess.h"

namespace x11 {

bool knowsClientProcesses(DisplayConnection& connection)
{
    xcb_prefetch_extension_data(connection.xcb(), &xcb_res_id);
    if (!connection.synchronise())
        return false;
    const xcb_query_extension_reply_t* data = xcb_get_extension_data(connection.xcb(), &xcb_res_id);
    if (!data || !data->present)
        return false;
    Request<xcb_res_query_version_reply_t> request(connection, xcb_res_query_version(connection.xcb(), 1, 2));
    const auto version = request.reply();
    return version && (version->server_major > 1 || (version->server_major == 1 && version->server_minor >= 2));
}

xcb_res_query_client_ids_cookie_t askClientProcess(DisplayConnection& connection, xcb_window_t window)
{
    const xcb_res_client_id_spec_t spec{window, XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID};
    return xcb_res_query_client_ids(connection.xcb(), 1, &spec);
}

}

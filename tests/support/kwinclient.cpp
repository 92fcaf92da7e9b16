#include "kwinclient.h"

#include "fake-input-client.h"
#include "plasma-window-management-client.h"
#include "zkde-screencast-unstable-v1-client.h"

#include <cstdio>

namespace {

/// Of a window of KWin: its title may come after its number.
struct Known {
    std::map<std::string, std::string>* uuids;
    std::string uuid;
};

void onTitle(void* data, org_kde_plasma_window*, const char* title)
{
    const auto* known = static_cast<Known*>(data);
    (*known->uuids)[title] = known->uuid;
}

const org_kde_plasma_window_listener knownEvents = [] {
    org_kde_plasma_window_listener table{};
    table.title_changed = &onTitle;
    table.app_id_changed = &ignore;
    table.state_changed = &ignore;
    table.virtual_desktop_changed = &ignore;
    table.themed_icon_name_changed = &ignore;
    table.unmapped = &ignore;
    table.initial_state = &ignore;
    table.parent_window = &ignore;
    table.geometry = &ignore;
    table.icon_changed = &ignore;
    table.pid_changed = &ignore;
    table.virtual_desktop_entered = &ignore;
    table.virtual_desktop_left = &ignore;
    table.application_menu = &ignore;
    table.activity_entered = &ignore;
    table.activity_left = &ignore;
    table.resource_name_changed = &ignore;
    return table;
}();

void onWindow(void* data, org_kde_plasma_window_management* management, uint32_t, const char* uuid)
{
    org_kde_plasma_window* window = org_kde_plasma_window_management_get_window_by_uuid(management, uuid);
    org_kde_plasma_window_add_listener(window, &knownEvents,
        new Known{static_cast<std::map<std::string, std::string>*>(data), uuid}); // until the process ends
}

const org_kde_plasma_window_management_listener managementEvents = [] {
    org_kde_plasma_window_management_listener table{};
    table.show_desktop_changed = &ignore;
    table.window = &ignore;
    table.stacking_order_changed = &ignore;
    table.stacking_order_uuid_changed = &ignore;
    table.window_with_uuid = &onWindow;
    return table;
}();

void onCreated(void*, zkde_screencast_stream_unstable_v1*, uint32_t node)
{
    say("node " + std::to_string(node));
}

void onFailed(void*, zkde_screencast_stream_unstable_v1*, const char* error)
{
    say(std::string("failed ") + error);
}

const zkde_screencast_stream_unstable_v1_listener streamEvents{&ignore, &onCreated, &onFailed};

}

void say(const std::string& line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

void KWinClient::bind(const WaylandGlobal& global)
{
    global.bind(screencast_, zkde_screencast_unstable_v1_interface, 1);
    global.bind(management_, org_kde_plasma_window_management_interface, 13);
    global.bind(input_, org_kde_kwin_fake_input_interface, 3);
}

void KWinClient::cast(wl_display* display, const std::string& title)
{
    if (management_)
        org_kde_plasma_window_management_add_listener(management_, &managementEvents, &uuids_);
    wl_display_roundtrip(display); // the windows
    wl_display_roundtrip(display); // their titles
    if (!screencast_ || uuids_.count(title) == 0) {
        say("failed no such window, or not KWin");
        return;
    }
    auto* stream = zkde_screencast_unstable_v1_stream_window(
        screencast_, uuids_[title].c_str(), ZKDE_SCREENCAST_UNSTABLE_V1_POINTER_METADATA);
    zkde_screencast_stream_unstable_v1_add_listener(stream, &streamEvents, nullptr);
}

void KWinClient::movePointer(int x, int y)
{
    if (!input_) {
        say("failed not KWin");
        return;
    }
    org_kde_kwin_fake_input_authenticate(input_, "waylandwindow", "tests");
    org_kde_kwin_fake_input_pointer_motion_absolute(input_, wl_fixed_from_int(x), wl_fixed_from_int(y));
}

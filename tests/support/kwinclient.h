// KWinClient: who asks KWin for the stream of a window and moves the pointer; and what such programs of the tests
// share.
#pragma once

#include <wayland-client.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <string>

struct org_kde_kwin_fake_input;
struct org_kde_plasma_window_management;
struct zkde_screencast_unstable_v1;

/// A line on stdout, at once.
void say(const std::string& line);

/// Nothing is done with an event.
template <typename... Arguments>
void ignore(Arguments...)
{
}

/// Something that a compositor has, as its registry names it.
struct WaylandGlobal {
    wl_registry* registry;
    uint32_t name;
    const char* interface;

    /// When it is of the wanted kind, object is it from then on.
    template <typename Object>
    void bind(Object*& object, const wl_interface& wanted, uint32_t version) const
    {
        if (std::strcmp(interface, wanted.name) == 0)
            object = static_cast<Object*>(wl_registry_bind(registry, name, &wanted, version));
    }
};

class KWinClient {
public:
    void bind(const WaylandGlobal& global);
    /// Prints "node ID" of a stream of the window with this title, or "failed WHY". The stream lasts as long as the
    /// process.
    void cast(wl_display* display, const std::string& title);
    /// To a place of the screen, in points.
    void movePointer(int x, int y);

private:
    zkde_screencast_unstable_v1* screencast_ = nullptr;
    org_kde_plasma_window_management* management_ = nullptr;
    org_kde_kwin_fake_input* input_ = nullptr;
    std::map<std::string, std::string> uuids_; // by title
};

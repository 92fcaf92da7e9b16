// What libxcb hands out, owned. For the files that speak X11; a header without a library.
#pragma once

#include <xcb/xcb.h>

#include <cstdlib>
#include <memory>

namespace x11 {

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};

/// A reply, an error or an event: memory from malloc().
template <typename T>
using Allocated = std::unique_ptr<T, FreeDeleter>;

struct DisconnectDeleter {
    void operator()(xcb_connection_t* connection) const { xcb_disconnect(connection); }
};

using DisplayHandle = std::unique_ptr<xcb_connection_t, DisconnectDeleter>;

}

// waylandwindow: a window of Wayland for tests, and on KWin who asks for the stream of one.
//   waylandwindow TITLE WIDTH HEIGHT [still] [shadow POINTS] [scale PIXELS-TO-A-POINT]
//   waylandwindow cast TITLE
// Four coloured quarters; the topmost rows have the number of the frame as their colour. Answers "ready" when it is
// shown and active. Commands on stdin, one a line:
//   size W H | minimise | fullscreen | step | pointer X Y | quit
// With "cast" it shows nothing, and prints "node ID" of a stream of the window with this title, or "failed WHY".
#include "kwinclient.h"
#include "xdg-shell-client.h"

#include <wayland-client.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <utility>

#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr int numberRows = 8; // as in compositorfixture.h
constexpr uint32_t opaque = 0xff000000U;
constexpr int darkestShadow = 0x60; // its alpha beside the window; at its own edge it is nearly gone

/// Memory that the compositor reads.
struct Buffer {
    wl_buffer* buffer = nullptr;
    uint32_t* pixels = nullptr;
    std::size_t bytes = 0;
    int width = 0;
    int height = 0;
    bool busy = false;
};

struct Window {
    // Of the compositor.
    wl_display* display = nullptr;
    wl_compositor* compositor = nullptr;
    wl_shm* shm = nullptr;
    xdg_wm_base* base = nullptr;
    KWinClient kwin;
    // Of the window.
    wl_surface* surface = nullptr;
    xdg_surface* shell = nullptr;
    xdg_toplevel* toplevel = nullptr;
    std::array<Buffer, 4> buffers;
    int width = 0;
    int height = 0;
    int shadow = 0;
    int scale = 1;
    bool still = false;
    bool configured = false;
    bool active = false; ///< has the keyboard, or would have it
    bool told = false; ///< that it is shown
    bool waits = false; ///< for the compositor to show the last frame
    bool quits = false;
    uint32_t number = 0;
    std::string text; ///< of stdin, not yet a line

    void connect();
    void show(const char* title);
    void draw();
    void obey(const std::string& line);
    void run();
    void readCommands();
    Buffer* freeBuffer(int ofWidth, int ofHeight);
    uint32_t pixelAt(int x, int y) const;
};

Window* self(void* data)
{
    return static_cast<Window*>(data);
}

// ---- what the compositor has

void onPing(void*, xdg_wm_base* base, uint32_t serial)
{
    xdg_wm_base_pong(base, serial);
}

const xdg_wm_base_listener baseEvents{&onPing};

void onGlobal(void* data, wl_registry* registry, uint32_t name, const char* interface, uint32_t)
{
    const WaylandGlobal global{registry, name, interface};
    Window* const window = self(data);
    global.bind(window->compositor, wl_compositor_interface, 4);
    global.bind(window->shm, wl_shm_interface, 1);
    global.bind(window->base, xdg_wm_base_interface, 1);
    window->kwin.bind(global);
}

const wl_registry_listener registryEvents{&onGlobal, &ignore};

void Window::connect()
{
    display = wl_display_connect(nullptr);
    if (!display)
        return;
    wl_registry* registry = wl_display_get_registry(display);
    wl_registry_add_listener(registry, &registryEvents, this);
    wl_display_roundtrip(display);
    if (base)
        xdg_wm_base_add_listener(base, &baseEvents, nullptr);
}

// ---- the window

void onReleased(void* data, wl_buffer*)
{
    static_cast<Buffer*>(data)->busy = false;
}

const wl_buffer_listener bufferEvents{&onReleased};

void onShown(void* data, wl_callback* callback, uint32_t)
{
    wl_callback_destroy(callback);
    self(data)->waits = false;
    if (!self(data)->still)
        self(data)->draw();
}

const wl_callback_listener shownEvents{&onShown};

void onConfigured(void* data, xdg_surface* shell, uint32_t serial)
{
    xdg_surface_ack_configure(shell, serial);
    self(data)->configured = true;
    self(data)->waits = false;
    self(data)->draw();
    if (self(data)->active && !std::exchange(self(data)->told, true))
        say("ready");
}

const xdg_surface_listener shellEvents{&onConfigured};

void onSize(void* data, xdg_toplevel*, int32_t width, int32_t height, wl_array* states)
{
    const auto* const first = static_cast<const uint32_t*>(states->data);
    const auto* const end = first + states->size / sizeof(uint32_t);
    self(data)->active = std::find(first, end, uint32_t(XDG_TOPLEVEL_STATE_ACTIVATED)) != end;
    if (width > 0 && height > 0) {
        self(data)->width = width;
        self(data)->height = height;
    }
}

void onClose(void* data, xdg_toplevel*)
{
    self(data)->quits = true;
}

const xdg_toplevel_listener toplevelEvents{&onSize, &onClose, &ignore, &ignore};

Buffer* Window::freeBuffer(int ofWidth, int ofHeight)
{
    for (Buffer& buffer : buffers) {
        if (buffer.busy)
            continue;
        if (buffer.buffer && buffer.width == ofWidth && buffer.height == ofHeight)
            return &buffer;
        if (buffer.buffer) {
            wl_buffer_destroy(buffer.buffer);
            ::munmap(buffer.pixels, buffer.bytes);
        }
        buffer.bytes = std::size_t(ofWidth) * std::size_t(ofHeight) * sizeof(uint32_t);
        const int file = ::memfd_create("pixels", MFD_CLOEXEC);
        if (file < 0 || ::ftruncate(file, off_t(buffer.bytes)) != 0)
            std::exit(1);
        void* const memory = ::mmap(nullptr, buffer.bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        if (memory == MAP_FAILED)
            std::exit(1);
        buffer.pixels = static_cast<uint32_t*>(memory);
        wl_shm_pool* pool = wl_shm_create_pool(shm, file, int32_t(buffer.bytes));
        buffer.buffer = wl_shm_pool_create_buffer(pool, 0, ofWidth, ofHeight, ofWidth * 4, WL_SHM_FORMAT_ARGB8888);
        wl_shm_pool_destroy(pool);
        ::close(file);
        buffer.width = ofWidth;
        buffer.height = ofHeight;
        wl_buffer_add_listener(buffer.buffer, &bufferEvents, &buffer);
        return &buffer;
    }
    return nullptr;
}

uint32_t Window::pixelAt(int x, int y) const
{
    const int columns = width * scale;
    const int rows = height * scale;
    const int outside = std::max({-x, x + 1 - columns, -y, y + 1 - rows});
    if (outside > 0)
        return uint32_t(darkestShadow - darkestShadow * outside / (shadow * scale + 1)) << 24U;
    if (y < numberRows * scale)
        return opaque | number;
    if (y < rows / 2)
        return x < columns / 2 ? 0xffff0000U : 0xff00ff00U;
    return x < columns / 2 ? 0xff0000ffU : 0xffffff00U;
}

void Window::draw()
{
    const int wholeWidth = (width + 2 * shadow) * scale;
    const int wholeHeight = (height + 2 * shadow) * scale;
    Buffer* const buffer = configured && !waits ? freeBuffer(wholeWidth, wholeHeight) : nullptr;
    if (!buffer)
        return;
    ++number;
    for (int y = 0; y < wholeHeight; ++y) {
        for (int x = 0; x < wholeWidth; ++x)
            buffer->pixels[y * wholeWidth + x] = pixelAt(x - shadow * scale, y - shadow * scale);
    }
    buffer->busy = true;
    xdg_surface_set_window_geometry(shell, shadow, shadow, width, height);
    wl_surface_set_buffer_scale(surface, scale);
    wl_surface_attach(surface, buffer->buffer, 0, 0);
    wl_surface_damage_buffer(surface, 0, 0, wholeWidth, wholeHeight);
    waits = true;
    wl_callback_add_listener(wl_surface_frame(surface), &shownEvents, this);
    wl_surface_commit(surface);
}

void Window::show(const char* title)
{
    surface = wl_compositor_create_surface(compositor);
    shell = xdg_wm_base_get_xdg_surface(base, surface);
    xdg_surface_add_listener(shell, &shellEvents, this);
    toplevel = xdg_surface_get_toplevel(shell);
    xdg_toplevel_add_listener(toplevel, &toplevelEvents, this);
    xdg_toplevel_set_title(toplevel, title);
    xdg_toplevel_set_app_id(toplevel, title);
    wl_surface_commit(surface);
}

void Window::obey(const std::string& line)
{
    std::istringstream words(line);
    std::string command;
    words >> command;
    if (command == "size") {
        words >> width >> height;
        waits = false;
        draw();
    } else if (command == "step") {
        waits = false;
        draw();
    } else if (command == "minimise") {
        xdg_toplevel_set_minimized(toplevel);
    } else if (command == "fullscreen") {
        xdg_toplevel_set_fullscreen(toplevel, nullptr);
    } else if (command == "pointer") { // of the screen, on KWin
        int x = 0;
        int y = 0;
        words >> x >> y;
        kwin.movePointer(x, y);
    } else if (command == "quit") {
        quits = true;
    }
}

void Window::readCommands()
{
    std::array<char, 256> part;
    const ssize_t count = ::read(STDIN_FILENO, part.data(), part.size());
    if (count <= 0) {
        quits = true;
        return;
    }
    text.append(part.data(), std::size_t(count));
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n')) {
        obey(text.substr(0, end));
        text.erase(0, end + 1);
    }
}

void Window::run()
{
    while (!quits) {
        while (wl_display_prepare_read(display) != 0)
            wl_display_dispatch_pending(display);
        wl_display_flush(display);
        std::array<pollfd, 2> sources{pollfd{wl_display_get_fd(display), POLLIN, 0}, pollfd{STDIN_FILENO, POLLIN, 0}};
        ::poll(sources.data(), sources.size(), -1);
        if (sources[0].revents & POLLIN)
            wl_display_read_events(display);
        else
            wl_display_cancel_read(display);
        if (wl_display_dispatch_pending(display) < 0 || (sources[0].revents & (POLLHUP | POLLERR)))
            return;
        if (sources[1].revents)
            readCommands();
    }
}

}

int main(int argc, char** argv)
{
    if (argc < 3)
        return 2;
    Window window;
    if (argc == 3 && std::strcmp(argv[1], "cast") == 0) {
        window.connect();
        if (!window.display)
            return 1;
        window.kwin.cast(window.display, argv[2]);
        window.run();
        return 0;
    }
    window.width = std::atoi(argv[2]);
    window.height = std::atoi(argv[3]);
    for (int i = 4; i < argc; ++i) {
        if (std::strcmp(argv[i], "still") == 0)
            window.still = true;
        else if (std::strcmp(argv[i], "shadow") == 0 && i + 1 < argc)
            window.shadow = std::atoi(argv[++i]);
        else if (std::strcmp(argv[i], "scale") == 0 && i + 1 < argc)
            window.scale = std::atoi(argv[++i]);
    }
    window.connect();
    if (!window.display || !window.compositor || !window.shm || !window.base)
        return 1;
    window.show(argv[1]);
    window.run();
    return 0;
}

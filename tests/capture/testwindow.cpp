// testwindow: a window in another process, under a test's control.
//
//   testwindow X Y WIDTH HEIGHT DEPTH BORDER PIXEL [override]
//
// Makes an unmapped window on the default screen, prints "window ID", and obeys one command a line from standard
// input. Each is answered with "ok" when the X server has carried it out, or with "error CODE" (an X error, or 0 for
// a command that makes no sense). Pixels are hexadecimal pixel values of the window's depth. The end of the input
// ends the process.
#include "xcbhandles.h"

#include <xcb/shape.h>
#include <xcb/xcb.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

struct WindowOptions {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    int depth = 0;
    int border = 0;
    uint32_t pixel = 0;
    bool overrideRedirect = false;
};

class TestWindow {
public:
    TestWindow();
    ~TestWindow();
    TestWindow(const TestWindow&) = delete;
    TestWindow& operator=(const TestWindow&) = delete;

    bool create(const WindowOptions& options);
    uint32_t id() const { return window_; }
    /// The X error, 0 for a senseless command, or nothing when all went well.
    std::optional<int> obey(const std::string& line);

private:
    using Arguments = std::istringstream;
    /// False when the arguments make no sense.
    using Command = std::function<bool(Arguments&)>;

    void addWindowCommands();
    void addDrawingCommands();
    void addStackingCommands();
    void addPropertyCommands();
    void addPopupCommands();

    bool configure(Arguments& arguments, uint16_t mask);
    bool fill(xcb_window_t target, Arguments& arguments);
    bool setExtents(Arguments& arguments, uint8_t format);
    bool setText(Arguments& arguments, const char* property, const char* type);
    bool setProcess(Arguments& arguments);
    bool makePopup(Arguments& arguments);
    bool onPopup(Arguments& arguments);
    bool setShape(Arguments& arguments);
    bool run(Arguments& arguments);
    bool warp(Arguments& arguments);
    void iconify();

    xcb_window_t makeWindow(xcb_window_t parent, const WindowOptions& options, xcb_visualid_t visual);
    xcb_visualid_t visualOfDepth(int depth) const;
    xcb_atom_t atom(const std::string& name);
    xcb_screen_t* screen(int number) const;
    bool waitFor(uint8_t eventType);
    std::optional<int> synchronise();

    xcb_connection_t* xcb_;
    xcb_screen_t* screen_;
    xcb_window_t window_ = XCB_NONE;
    xcb_window_t cover_ = XCB_NONE;
    xcb_window_t child_ = XCB_NONE;
    xcb_window_t frame_ = XCB_NONE;
    std::map<std::string, xcb_window_t> popups_;
    std::vector<pid_t> children_; // each the leader of a group
    std::map<std::string, Command> commands_;
    std::optional<int> error_;
};

TestWindow::TestWindow() : xcb_(xcb_connect(nullptr, nullptr)), screen_(screen(0))
{
    addWindowCommands();
    addDrawingCommands();
    addStackingCommands();
    addPropertyCommands();
    addPopupCommands();
}

TestWindow::~TestWindow()
{
    for (const pid_t child : children_)
        kill(-child, SIGKILL);
    xcb_disconnect(xcb_);
}

xcb_screen_t* TestWindow::screen(int number) const
{
    auto screens = xcb_setup_roots_iterator(xcb_get_setup(xcb_));
    while (screens.rem > 1 && number-- > 0)
        xcb_screen_next(&screens);
    return screens.data;
}

xcb_visualid_t TestWindow::visualOfDepth(int depth) const
{
    if (depth == screen_->root_depth)
        return screen_->root_visual;
    for (auto depths = xcb_screen_allowed_depths_iterator(screen_); depths.rem; xcb_depth_next(&depths)) {
        if (depths.data->depth == depth && xcb_depth_visuals_length(depths.data) > 0)
            return xcb_depth_visuals(depths.data)->visual_id;
    }
    return XCB_NONE;
}

xcb_window_t TestWindow::makeWindow(xcb_window_t parent, const WindowOptions& options, xcb_visualid_t visual)
{
    const auto colormap = xcb_generate_id(xcb_);
    xcb_create_colormap(xcb_, XCB_COLORMAP_ALLOC_NONE, colormap, screen_->root, visual);
    const uint32_t values[]
        = {options.pixel, 0xff00ffff, options.overrideRedirect, XCB_EVENT_MASK_STRUCTURE_NOTIFY, colormap};
    const xcb_window_t window = xcb_generate_id(xcb_);
    xcb_create_window(xcb_, uint8_t(options.depth), window, parent, int16_t(options.x), int16_t(options.y),
        uint16_t(options.width), uint16_t(options.height), uint16_t(options.border), XCB_WINDOW_CLASS_INPUT_OUTPUT,
        visual,
        XCB_CW_BACK_PIXEL | XCB_CW_BORDER_PIXEL | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK | XCB_CW_COLORMAP,
        values);
    return window;
}

bool TestWindow::create(const WindowOptions& options)
{
    if (xcb_connection_has_error(xcb_))
        return false;
    window_ = makeWindow(screen_->root, options, visualOfDepth(options.depth));
    // WM_NORMAL_HINTS: position and size are the user's, so that a window manager keeps them.
    uint32_t hints[18]
        = {1 | 2, uint32_t(options.x), uint32_t(options.y), uint32_t(options.width), uint32_t(options.height)};
    xcb_change_property(
        xcb_, XCB_PROP_MODE_REPLACE, window_, XCB_ATOM_WM_NORMAL_HINTS, XCB_ATOM_WM_SIZE_HINTS, 32, 18, hints);
    return !synchronise();
}

void TestWindow::addWindowCommands()
{
    commands_["map"] = [this](Arguments&) {
        xcb_map_window(xcb_, window_);
        return waitFor(XCB_MAP_NOTIFY);
    };
    commands_["unmap"] = [this](Arguments&) {
        xcb_unmap_window(xcb_, window_);
        return waitFor(XCB_UNMAP_NOTIFY);
    };
    commands_["iconify"] = [this](Arguments&) {
        iconify();
        return waitFor(XCB_UNMAP_NOTIFY);
    };
    commands_["destroy"] = [this](Arguments&) {
        xcb_destroy_window(xcb_, window_);
        return waitFor(XCB_DESTROY_NOTIFY);
    };
    commands_["move"]
        = [this](Arguments& arguments) { return configure(arguments, XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y); };
    commands_["resize"] = [this](Arguments& arguments) {
        return configure(arguments, XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT);
    };
    commands_["border"]
        = [this](Arguments& arguments) { return configure(arguments, XCB_CONFIG_WINDOW_BORDER_WIDTH); };
    commands_["warp"] = [this](Arguments& arguments) { return warp(arguments); };
}

void TestWindow::addDrawingCommands()
{
    // fill PIXEL X Y WIDTH HEIGHT
    commands_["fill"] = [this](Arguments& arguments) { return fill(window_, arguments); };
    commands_["fillchild"] = [this](Arguments& arguments) { return fill(child_, arguments); };
    // nobackground: the server paints nothing by itself; keeppixels: a change of size leaves what was drawn
    commands_["nobackground"] = [this](Arguments&) {
        const uint32_t none = XCB_BACK_PIXMAP_NONE;
        xcb_change_window_attributes(xcb_, window_, XCB_CW_BACK_PIXMAP, &none);
        return true;
    };
    commands_["keeppixels"] = [this](Arguments&) {
        const uint32_t gravity = XCB_GRAVITY_NORTH_WEST;
        xcb_change_window_attributes(xcb_, window_, XCB_CW_BIT_GRAVITY, &gravity);
        return true;
    };
    // background PIXEL: shows where nothing is drawn, and after every change of size
    commands_["background"] = [this](Arguments& arguments) {
        uint32_t pixel = 0;
        arguments >> std::hex >> pixel;
        xcb_change_window_attributes(xcb_, window_, XCB_CW_BACK_PIXEL, &pixel);
        xcb_clear_area(xcb_, 0, window_, 0, 0, 0, 0);
        return !arguments.fail();
    };
}

void TestWindow::addStackingCommands()
{
    // cover PIXEL: another window over the whole screen, in front of everything
    commands_["cover"] = [this](Arguments& arguments) {
        WindowOptions options{
            0, 0, screen_->width_in_pixels, screen_->height_in_pixels, screen_->root_depth, 0, 0, true};
        arguments >> std::hex >> options.pixel;
        cover_ = makeWindow(screen_->root, options, screen_->root_visual);
        xcb_map_window(xcb_, cover_);
        return !arguments.fail();
    };
    commands_["uncover"] = [this](Arguments&) {
        xcb_destroy_window(xcb_, cover_);
        return true;
    };
    // child PIXEL X Y WIDTH HEIGHT: of the window's own depth
    commands_["child"] = [this](Arguments& arguments) {
        const x11::Allocated<xcb_get_geometry_reply_t> parent(
            xcb_get_geometry_reply(xcb_, xcb_get_geometry(xcb_, window_), nullptr));
        WindowOptions options;
        options.depth = parent ? parent->depth : 0;
        arguments >> std::hex >> options.pixel >> std::dec >> options.x >> options.y >> options.width
            >> options.height;
        child_ = makeWindow(window_, options, visualOfDepth(options.depth));
        xcb_map_window(xcb_, child_);
        return !arguments.fail();
    };
    // frame X Y: a window around the window, as a window manager makes it; the window lies at 5, 20 in it
    commands_["frame"] = [this](Arguments& arguments) {
        WindowOptions options{0, 0, 400, 400, screen_->root_depth, 0, 0xff808080, true};
        arguments >> options.x >> options.y;
        frame_ = makeWindow(screen_->root, options, screen_->root_visual);
        xcb_map_window(xcb_, frame_);
        xcb_reparent_window(xcb_, window_, frame_, 5, 20);
        return !arguments.fail();
    };
    commands_["mapframe"] = [this](Arguments&) {
        xcb_map_window(xcb_, frame_);
        return true;
    };
    commands_["unmapframe"] = [this](Arguments&) {
        xcb_unmap_window(xcb_, frame_);
        return true;
    };
}

void TestWindow::addPropertyCommands()
{
    // extents LEFT RIGHT TOP BOTTOM: the shadow that the application draws around its window
    commands_["extents"] = [this](Arguments& arguments) { return setExtents(arguments, 32); };
    commands_["extents8"] = [this](Arguments& arguments) { return setExtents(arguments, 8); };
    commands_["noextents"] = [this](Arguments&) {
        xcb_delete_property(xcb_, window_, atom("_GTK_FRAME_EXTENTS"));
        return true;
    };
    // class NAME, appid NAME, pid NUMBER: what the application says about itself
    commands_["class"] = [this](Arguments& arguments) { return setText(arguments, "WM_CLASS", "STRING"); };
    commands_["appid"]
        = [this](Arguments& arguments) { return setText(arguments, "_GTK_APPLICATION_ID", "UTF8_STRING"); };
    commands_["pid"] = [this](Arguments& arguments) { return setProcess(arguments); };
    // run COMMAND: a child process; it and its children end with this one, unless that is killed
    commands_["run"] = [this](Arguments& arguments) { return run(arguments); };
}

void TestWindow::addPopupCommands()
{
    // popup NAME X Y WIDTH HEIGHT DEPTH PIXEL: another window, unmapped, that no window manager touches
    commands_["popup"] = [this](Arguments& arguments) { return makePopup(arguments); };
    // on NAME COMMAND: a command for that window instead of the first one
    commands_["on"] = [this](Arguments& arguments) { return onPopup(arguments); };
    commands_["raise"] = [this](Arguments&) {
        const uint32_t above = XCB_STACK_MODE_ABOVE;
        xcb_configure_window(xcb_, window_, XCB_CONFIG_WINDOW_STACK_MODE, &above);
        return true;
    };
    // into WINDOW X Y: its parent from now on, whoever made it
    commands_["into"] = [this](Arguments& arguments) {
        uint32_t parent = 0;
        int x = 0;
        int y = 0;
        arguments >> parent >> x >> y;
        xcb_reparent_window(xcb_, window_, parent, int16_t(x), int16_t(y));
        return !arguments.fail();
    };
    // managed: a window manager may touch it from now on
    commands_["managed"] = [this](Arguments&) {
        const uint32_t no = 0;
        xcb_change_window_attributes(xcb_, window_, XCB_CW_OVERRIDE_REDIRECT, &no);
        return true;
    };
    // transient ID, type NAME: what the application says of a popup
    commands_["transient"] = [this](Arguments& arguments) {
        uint32_t parent = 0;
        arguments >> parent;
        xcb_change_property(
            xcb_, XCB_PROP_MODE_REPLACE, window_, XCB_ATOM_WM_TRANSIENT_FOR, XCB_ATOM_WINDOW, 32, 1, &parent);
        return !arguments.fail();
    };
    commands_["type"] = [this](Arguments& arguments) {
        std::string name;
        arguments >> name;
        const xcb_atom_t type = atom(name);
        xcb_change_property(
            xcb_, XCB_PROP_MODE_REPLACE, window_, atom("_NET_WM_WINDOW_TYPE"), XCB_ATOM_ATOM, 32, 1, &type);
        return !name.empty();
    };
    // shape X Y WIDTH HEIGHT: only this part of it is shown
    commands_["shape"] = [this](Arguments& arguments) { return setShape(arguments); };
}

bool TestWindow::makePopup(Arguments& arguments)
{
    std::string name;
    WindowOptions options;
    options.overrideRedirect = true;
    arguments >> name >> options.x >> options.y >> options.width >> options.height >> options.depth >> std::hex
        >> options.pixel;
    popups_[name] = makeWindow(screen_->root, options, visualOfDepth(options.depth));
    return !arguments.fail();
}

bool TestWindow::onPopup(Arguments& arguments)
{
    std::string name;
    std::string command;
    arguments >> name >> command;
    const auto popup = popups_.find(name);
    const auto found = commands_.find(command);
    if (popup == popups_.end() || found == commands_.end())
        return false;
    const xcb_window_t own = std::exchange(window_, popup->second);
    const bool sensible = found->second(arguments);
    window_ = own;
    return sensible;
}

bool TestWindow::setShape(Arguments& arguments)
{
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    arguments >> x >> y >> width >> height;
    const xcb_rectangle_t rectangle{int16_t(x), int16_t(y), uint16_t(width), uint16_t(height)};
    xcb_shape_rectangles(
        xcb_, XCB_SHAPE_SO_SET, XCB_SHAPE_SK_BOUNDING, XCB_CLIP_ORDERING_UNSORTED, window_, 0, 0, 1, &rectangle);
    return !arguments.fail();
}

bool TestWindow::configure(Arguments& arguments, uint16_t mask)
{
    uint32_t values[2] = {};
    int count = 0;
    for (int value = 0; count < 2 && arguments >> value; ++count)
        values[count] = uint32_t(value);
    xcb_configure_window(xcb_, window_, mask, values);
    return count == (mask == XCB_CONFIG_WINDOW_BORDER_WIDTH ? 1 : 2);
}

bool TestWindow::fill(xcb_window_t target, Arguments& arguments)
{
    uint32_t pixel = 0;
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    arguments >> std::hex >> pixel >> std::dec >> x >> y >> width >> height;
    const xcb_gcontext_t context = xcb_generate_id(xcb_);
    xcb_create_gc(xcb_, context, target, XCB_GC_FOREGROUND, &pixel);
    const xcb_rectangle_t rectangle{int16_t(x), int16_t(y), uint16_t(width), uint16_t(height)};
    xcb_poly_fill_rectangle(xcb_, target, context, 1, &rectangle);
    xcb_free_gc(xcb_, context);
    return !arguments.fail();
}

/// Any number of values.
bool TestWindow::setExtents(Arguments& arguments, uint8_t format)
{
    uint32_t values[8] = {};
    uint8_t bytes[8] = {};
    uint32_t count = 0;
    for (uint32_t value = 0; count < 8 && arguments >> value; ++count) {
        values[count] = value;
        bytes[count] = uint8_t(value);
    }
    const void* data = format == 32 ? static_cast<const void*>(values) : static_cast<const void*>(bytes);
    xcb_change_property(
        xcb_, XCB_PROP_MODE_REPLACE, window_, atom("_GTK_FRAME_EXTENTS"), XCB_ATOM_CARDINAL, format, count, data);
    return count > 0;
}

/// A class is two texts, of which the first, the instance, is not the one that counts.
bool TestWindow::setText(Arguments& arguments, const char* property, const char* type)
{
    std::string text;
    arguments >> text;
    if (std::string(property) == "WM_CLASS")
        text = std::string("instance") + '\0' + text + '\0';
    xcb_change_property(
        xcb_, XCB_PROP_MODE_REPLACE, window_, atom(property), atom(type), 8, uint32_t(text.size()), text.data());
    return !text.empty();
}

bool TestWindow::setProcess(Arguments& arguments)
{
    uint32_t pid = 0;
    arguments >> pid;
    xcb_change_property(xcb_, XCB_PROP_MODE_REPLACE, window_, atom("_NET_WM_PID"), XCB_ATOM_CARDINAL, 32, 1, &pid);
    return bool(arguments);
}

bool TestWindow::run(Arguments& arguments)
{
    std::string command;
    std::getline(arguments, command);
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        setpgid(0, 0);
        const int null = open("/dev/null", O_RDWR);
        dup2(null, STDIN_FILENO);
        dup2(null, STDOUT_FILENO); // the answers are the window's
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    if (child < 0)
        return false;
    setpgid(child, child); // in parent and child: either may be first
    children_.push_back(child);
    return true;
}

/// warp SCREEN X Y
bool TestWindow::warp(Arguments& arguments)
{
    int number = 0;
    int x = 0;
    int y = 0;
    arguments >> number >> x >> y;
    xcb_warp_pointer(xcb_, XCB_NONE, screen(number)->root, 0, 0, 0, 0, int16_t(x), int16_t(y));
    return !arguments.fail();
}

/// Asks the window manager, as an application does.
void TestWindow::iconify()
{
    xcb_client_message_event_t event{};
    event.response_type = XCB_CLIENT_MESSAGE;
    event.format = 32;
    event.window = window_;
    event.type = atom("WM_CHANGE_STATE");
    event.data.data32[0] = 3; // IconicState
    xcb_send_event(xcb_, 0, screen_->root, XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT,
        reinterpret_cast<const char*>(&event));
}

xcb_atom_t TestWindow::atom(const std::string& name)
{
    const x11::Allocated<xcb_intern_atom_reply_t> reply(
        xcb_intern_atom_reply(xcb_, xcb_intern_atom(xcb_, 0, uint16_t(name.size()), name.c_str()), nullptr));
    return reply ? reply->atom : xcb_atom_t(XCB_NONE);
}

/// Until the window has got such an event; false when the connection breaks or an error comes first.
bool TestWindow::waitFor(uint8_t eventType)
{
    xcb_flush(xcb_);
    while (const x11::Allocated<xcb_generic_event_t> event{xcb_wait_for_event(xcb_)}) {
        if (event->response_type == 0) {
            error_ = reinterpret_cast<const xcb_generic_error_t*>(event.get())->error_code;
            return false;
        }
        const auto* unmap = reinterpret_cast<const xcb_unmap_notify_event_t*>(event.get());
        if ((event->response_type & 0x7f) == eventType && unmap->window == window_)
            return true;
    }
    return false;
}

/// The first error since the last time, after the server has carried out everything.
std::optional<int> TestWindow::synchronise()
{
    const x11::Allocated<xcb_get_input_focus_reply_t> reply(
        xcb_get_input_focus_reply(xcb_, xcb_get_input_focus(xcb_), nullptr));
    if (!reply)
        return 0;
    while (const x11::Allocated<xcb_generic_event_t> event{xcb_poll_for_event(xcb_)}) {
        if (event->response_type == 0 && !error_)
            error_ = reinterpret_cast<const xcb_generic_error_t*>(event.get())->error_code;
    }
    return std::exchange(error_, std::nullopt);
}

std::optional<int> TestWindow::obey(const std::string& line)
{
    Arguments arguments(line);
    std::string name;
    arguments >> name;
    const auto command = commands_.find(name);
    const bool sensible = command != commands_.end() && command->second(arguments);
    const std::optional<int> error = synchronise();
    return sensible || error ? error : std::optional(0);
}

std::optional<WindowOptions> parseOptions(int argc, char** argv)
{
    if (argc != 8 && argc != 9)
        return std::nullopt;
    WindowOptions options{std::atoi(argv[1]), std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]),
        std::atoi(argv[5]), std::atoi(argv[6]), uint32_t(std::strtoul(argv[7], nullptr, 16)), argc == 9};
    return options;
}

}

int main(int argc, char** argv)
{
    const auto options = parseOptions(argc, argv);
    if (!options) {
        std::cerr << "usage: testwindow X Y WIDTH HEIGHT DEPTH BORDER PIXEL [override]\n";
        return 2;
    }
    TestWindow window;
    if (!window.create(*options)) {
        std::cerr << "testwindow: no window\n";
        return 1;
    }
    std::cout << "window " << window.id() << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        if (const auto error = window.obey(line))
            std::cout << "error " << *error << std::endl;
        else
            std::cout << "ok" << std::endl;
    }
    return 0;
}

// XcbWindow: a plain X11 window with images in shared memory.
#include "xcbwindow.h"
#include "xcbhandles.h"

#include <xcb/shm.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

/// Images of one size in memory that the X server reads too, each below the one before.
class SharedImages {
public:
    SharedImages(xcb_connection_t* connection, QSize size, int count)
        : connection_(connection),
          bytes_(std::size_t(size.width()) * std::size_t(size.height()) * std::size_t(count) * 4)
    {
        const int descriptor = memfd_create("images", MFD_CLOEXEC);
        if (descriptor < 0 || ftruncate(descriptor, off_t(bytes_)) < 0) {
            close(descriptor);
            return;
        }
        void* const memory = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
        if (memory == MAP_FAILED) {
            close(descriptor);
            return;
        }
        memory_ = static_cast<uchar*>(memory);
        segment_ = xcb_generate_id(connection_);
        // The library closes the descriptor once it is sent.
        const x11::Allocated<xcb_generic_error_t> error(
            xcb_request_check(connection_, xcb_shm_attach_fd_checked(connection_, segment_, descriptor, true)));
        for (int i = 0; i < count && !error; ++i) {
            images_.emplace_back(memory_ + bytes_ / std::size_t(count) * std::size_t(i), size.width(), size.height(),
                size.width() * 4, QImage::Format_RGB32);
        }
    }
    ~SharedImages()
    {
        if (!images_.empty())
            xcb_shm_detach(connection_, segment_);
        if (memory_)
            munmap(memory_, bytes_);
    }
    SharedImages(const SharedImages&) = delete;
    SharedImages& operator=(const SharedImages&) = delete;

    std::vector<QImage>& images() { return images_; } ///< empty when the memory could not be shared
    xcb_shm_seg_t segment() const { return segment_; }

private:
    xcb_connection_t* connection_;
    std::size_t bytes_;
    uchar* memory_ = nullptr;
    xcb_shm_seg_t segment_ = 0;
    std::vector<QImage> images_;
};

xcb_atom_t atom(xcb_connection_t* connection, std::string_view name)
{
    const auto cookie = xcb_intern_atom(connection, false, quint16(name.size()), name.data());
    const x11::Allocated<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(connection, cookie, nullptr));
    return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
}

}

struct XcbWindow::Impl {
    QString error;
    x11::DisplayHandle connection;
    xcb_window_t window = XCB_WINDOW_NONE;
    xcb_gcontext_t context = XCB_NONE;
    xcb_atom_t protocols = XCB_ATOM_NONE;
    xcb_atom_t deleteWindow = XCB_ATOM_NONE;
    QSize size; // pixels; as last reported by the server
    int buffers = 1;
    std::unique_ptr<SharedImages> shared;

    bool open(const QRect& geometry, const char* title);
    void create(const xcb_screen_t& screen, const QRect& geometry);
    void describe(const QRect& geometry, const char* title);
    bool waitUntilMapped();
    bool shareImages();
};

bool XcbWindow::Impl::open(const QRect& geometry, const char* title)
{
    connection.reset(xcb_connect(nullptr, nullptr));
    if (xcb_connection_has_error(connection.get())) {
        error = QStringLiteral("no X server at DISPLAY=%1").arg(qEnvironmentVariable("DISPLAY"));
        return false;
    }
    const xcb_screen_t* const screen = xcb_setup_roots_iterator(xcb_get_setup(connection.get())).data;
    const x11::Allocated<xcb_shm_query_version_reply_t> shm(
        xcb_shm_query_version_reply(connection.get(), xcb_shm_query_version(connection.get()), nullptr));
    if (!shm || screen->root_depth != 24) {
        error = QStringLiteral("the X server has no shared memory or is not 24 bits deep");
        return false;
    }
    size = geometry.size();
    create(*screen, geometry);
    describe(geometry, title);
    xcb_map_window(connection.get(), window);
    return waitUntilMapped() && shareImages();
}

void XcbWindow::Impl::create(const xcb_screen_t& screen, const QRect& geometry)
{
    window = xcb_generate_id(connection.get());
    // No background: the server never paints anything between two images.
    const quint32 values[] = {XCB_BACK_PIXMAP_NONE, XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_STRUCTURE_NOTIFY};
    xcb_create_window(connection.get(), XCB_COPY_FROM_PARENT, window, screen.root, qint16(geometry.x()),
        qint16(geometry.y()), quint16(geometry.width()), quint16(geometry.height()), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
        screen.root_visual, XCB_CW_BACK_PIXMAP | XCB_CW_EVENT_MASK, values);
    context = xcb_generate_id(connection.get());
    const quint32 noExposures = 0;
    xcb_create_gc(connection.get(), context, window, XCB_GC_GRAPHICS_EXPOSURES, &noExposures);
}

/// What window managers want to know.
void XcbWindow::Impl::describe(const QRect& geometry, const char* title)
{
    xcb_connection_t* const c = connection.get();
    xcb_change_property(
        c, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8, quint32(std::strlen(title)), title);
    const auto pid = quint32(getpid());
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, atom(c, "_NET_WM_PID"), XCB_ATOM_CARDINAL, 32, 1, &pid);
    protocols = atom(c, "WM_PROTOCOLS");
    deleteWindow = atom(c, "WM_DELETE_WINDOW");
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, protocols, XCB_ATOM_ATOM, 32, 1, &deleteWindow);
    // WM_NORMAL_HINTS: flags (place and size are the user's), then place and size; 18 words in all.
    const quint32 hints[18] = {
        1 | 2, quint32(geometry.x()), quint32(geometry.y()), quint32(geometry.width()), quint32(geometry.height())};
    xcb_change_property(
        c, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_NORMAL_HINTS, XCB_ATOM_WM_SIZE_HINTS, 32, 18, hints);
}

bool XcbWindow::Impl::waitUntilMapped()
{
    xcb_flush(connection.get());
    while (const x11::Allocated<xcb_generic_event_t> event{xcb_wait_for_event(connection.get())}) {
        const int type = event->response_type & 0x7f;
        if (type == XCB_CONFIGURE_NOTIFY) {
            const auto* const configured = reinterpret_cast<const xcb_configure_notify_event_t*>(event.get());
            size = QSize(configured->width, configured->height);
        }
        if (type == XCB_MAP_NOTIFY)
            return true;
        if (event->response_type == 0)
            break;
    }
    error = QStringLiteral("the window did not appear");
    return false;
}

bool XcbWindow::Impl::shareImages()
{
    shared.reset();
    shared = std::make_unique<SharedImages>(connection.get(), size, buffers);
    if (shared->images().empty())
        error = QStringLiteral("no memory to share with the X server");
    return error.isEmpty();
}

XcbWindow::XcbWindow(const QRect& geometry, const char* title, int buffers) : impl_(std::make_unique<Impl>())
{
    impl_->buffers = buffers;
    impl_->open(geometry, title);
}

XcbWindow::~XcbWindow() = default;

QString XcbWindow::errorString() const
{
    return impl_->error;
}

quint32 XcbWindow::id() const
{
    return impl_->window;
}

int XcbWindow::descriptor() const
{
    return xcb_get_file_descriptor(impl_->connection.get());
}

int XcbWindow::buffers() const
{
    return impl_->buffers;
}

QImage& XcbWindow::image(int buffer)
{
    return impl_->shared->images()[std::size_t(buffer)];
}

void XcbWindow::show(const QRect& area, int buffer)
{
    const QSize size = image(buffer).size();
    const int above = buffer * size.height(); // rows of the images before it
    xcb_connection_t* const c = impl_->connection.get();
    const auto cookie = xcb_shm_put_image_checked(c, impl_->window, impl_->context, quint16(size.width()),
        quint16(size.height() * impl_->buffers), quint16(area.x()), quint16(above + area.y()), quint16(area.width()),
        quint16(area.height()), qint16(area.x()), qint16(area.y()), 24, XCB_IMAGE_FORMAT_Z_PIXMAP, false,
        impl_->shared->segment(), 0);
    // The check waits for the server, which has read the image then. An error says that the window is gone,
    // which handleEvents() reports.
    const x11::Allocated<xcb_generic_error_t> error(xcb_request_check(c, cookie));
}

XcbWindow::State XcbWindow::handleEvents()
{
    State state = State::Unchanged;
    QSize newSize = impl_->size;
    while (const x11::Allocated<xcb_generic_event_t> event{xcb_poll_for_event(impl_->connection.get())}) {
        switch (event->response_type & 0x7f) {
        case XCB_DESTROY_NOTIFY:
            return State::Gone;
        case XCB_CLIENT_MESSAGE: {
            const auto* const message = reinterpret_cast<const xcb_client_message_event_t*>(event.get());
            if (message->type == impl_->protocols && message->data.data32[0] == impl_->deleteWindow)
                return State::Gone;
            break;
        }
        case XCB_CONFIGURE_NOTIFY: {
            const auto* const configured = reinterpret_cast<const xcb_configure_notify_event_t*>(event.get());
            newSize = QSize(configured->width, configured->height);
            break;
        }
        case XCB_EXPOSE:
            state = State::NeedsPainting;
            break;
        default:
            break;
        }
    }
    if (xcb_connection_has_error(impl_->connection.get()))
        return State::ConnectionLost;
    if (newSize != impl_->size) {
        impl_->size = newSize;
        state = impl_->shareImages() ? State::NeedsPainting : State::ConnectionLost;
    }
    return state;
}

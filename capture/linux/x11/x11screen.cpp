// Windows of an X server as images. The Composite extension draws a redirected window into a separate pixmap, so that
// covered and off-screen parts are there too; the Damage extension reports changes.
//
// No pixmap is kept between two images. One round trip asks where the window is and what happened to it; when it has
// changed, a second one names its present pixmap, reads it and frees the name. A name that was kept would still show
// the old pixels after the window was resized, or after it or one of its parents was mapped again.
#include "platform/screen.h"

#include "x11connection.h"
#include "x11pixelreader.h"
#include "x11pixels.h"

#include <QMargins>
#include <QRect>

#include <string_view>

#include <xcb/composite.h>
#include <xcb/damage.h>

namespace platform {

namespace {

using x11::DisplayConnection;
using x11::Request;

/// Where a window is and which part of it counts. Pixels; a root window's coordinates are the global screen points.
struct Placement {
    QSize size; ///< without the border
    int border = 0; ///< width of the border around it
    QPoint origin; ///< top left pixel inside the border, in the root window's coordinates
    QMargins clientShadow; ///< inside the size; drawn by the application around what the user takes for the window

    /// What the user takes for the window, relative to the origin.
    QRect visible() const { return QRect(QPoint(0, 0), size).marginsRemoved(clientShadow); }
    QSize pixmapSize() const { return size + QSize(2 * border, 2 * border); }

    bool hasPixelsOf(const Placement& other) const
    {
        return size == other.size && border == other.border && clientShadow == other.clientShadow;
    }
};

/// A window's present pixmap under a name, for as long as the object lives.
class NamedPixmap {
public:
    NamedPixmap(DisplayConnection& connection, xcb_window_t window, xcb_pixmap_t id)
        : connection_(connection), id_(id),
          naming_(connection, xcb_composite_name_window_pixmap_checked(connection.xcb(), window, id))
    {
    }
    ~NamedPixmap()
    {
        // An error only says that there was no pixmap to name.
        const Request<void> freeing(connection_, xcb_free_pixmap_checked(connection_.xcb(), id_));
    }
    NamedPixmap(const NamedPixmap&) = delete;
    NamedPixmap& operator=(const NamedPixmap&) = delete;

private:
    DisplayConnection& connection_;
    xcb_pixmap_t id_;
    Request<void> naming_; ///< its result is not needed: requests for a missing pixmap fail themselves
};

/// _GTK_FRAME_EXTENTS: left, right, top, bottom. None when the property is not set or makes no sense.
QMargins clientShadow(xcb_get_property_reply_t* property, QSize window)
{
    if (!property || property->format != 32 || property->value_len != 4 || property->bytes_after != 0)
        return QMargins();
    const auto* values = static_cast<const quint32*>(xcb_get_property_value(property));
    const quint64 left = values[0];
    const quint64 right = values[1];
    const quint64 top = values[2];
    const quint64 bottom = values[3];
    if (left + right >= quint64(window.width()) || top + bottom >= quint64(window.height()))
        return QMargins();
    return QMargins(int(left), int(top), int(right), int(bottom));
}

}

bool preflightScreenCaptureAccess()
{
    const auto connection = DisplayConnection::open();
    return connection && connection->extensions().composite;
}

// An X server knows no such permission.
bool requestScreenCaptureAccess()
{
    return preflightScreenCaptureAccess();
}

struct WindowSource::Impl {
    explicit Impl(quint32 windowId);

    QImage image();
    std::optional<QRectF> bounds() const;
    std::optional<QPointF> pointerLocation();

private:
    struct Shown {
        QImage image;
        Placement placement;
    };

    bool watchWindow();
    std::optional<Placement> placement();
    void handleEvents();
    void handleEvent(const xcb_generic_event_t& event);
    void handleConfigure(const xcb_configure_notify_event_t& event);
    QImage readPixels(const Placement& placement);
    void endCapture();

    const xcb_window_t window_;
    std::unique_ptr<DisplayConnection> connection_; // null: there are no more images
    std::unique_ptr<x11::PixelReader> reader_; // uses connection_; made and ended with it
    xcb_window_t root_ = XCB_NONE; // of the window's screen
    x11::PixelLayout layout_;
    xcb_atom_t frameExtents_ = XCB_NONE;
    xcb_pixmap_t pixmapId_ = XCB_NONE; // free between two images
    xcb_damage_damage_t damage_ = XCB_NONE; // none: every image is read
    bool changed_ = true; // since shown_ was read
    bool gone_ = false;
    std::optional<Shown> shown_; // the last image; nothing when that was null
};

WindowSource::Impl::Impl(quint32 windowId) : window_(windowId), connection_(DisplayConnection::open())
{
    if (!connection_ || !connection_->extensions().composite || !watchWindow())
        endCapture();
}

/// The window stays redirected from here on. Directly after the redirection its covered parts hold nothing but
/// background, until the application draws them again; so this is done once, and early.
bool WindowSource::Impl::watchWindow()
{
    xcb_connection_t* xcb = connection_->xcb();
    static constexpr std::string_view frameExtents = "_GTK_FRAME_EXTENTS";
    Request<xcb_intern_atom_reply_t> atomRequest(
        *connection_, xcb_intern_atom(xcb, 0, uint16_t(frameExtents.size()), frameExtents.data()));
    Request<xcb_get_window_attributes_reply_t> attributesRequest(
        *connection_, xcb_get_window_attributes(xcb, window_));
    Request<xcb_get_geometry_reply_t> geometryRequest(*connection_, xcb_get_geometry(xcb, window_));
    const uint32_t events = XCB_EVENT_MASK_STRUCTURE_NOTIFY;
    Request<void> selecting(
        *connection_, xcb_change_window_attributes_checked(xcb, window_, XCB_CW_EVENT_MASK, &events));
    // Refused when another client already redirects the window manually: then it has a pixmap anyway.
    const Request<void> redirecting(
        *connection_, xcb_composite_redirect_window_checked(xcb, window_, XCB_COMPOSITE_REDIRECT_AUTOMATIC));
    if (connection_->extensions().damageNotify) {
        damage_ = xcb_generate_id(xcb);
        Request<void> watching(
            *connection_, xcb_damage_create_checked(xcb, damage_, window_, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY));
        if (!connection_->synchronise())
            return false;
        if (!watching.succeeded())
            damage_ = XCB_NONE;
    } else if (!connection_->synchronise()) {
        return false;
    }

    const auto atom = atomRequest.reply();
    const auto attributes = attributesRequest.reply();
    const auto geometry = geometryRequest.reply();
    if (!atom || !attributes || !geometry || !selecting.succeeded())
        return false;
    const auto layout = x11::pixelLayout(xcb_get_setup(xcb), attributes->visual);
    if (!layout)
        return false;
    layout_ = *layout;
    root_ = geometry->root;
    frameExtents_ = atom->atom;
    pixmapId_ = xcb_generate_id(xcb);
    reader_ = std::make_unique<x11::PixelReader>(*connection_);
    return true;
}

QImage WindowSource::Impl::image()
{
    static constexpr int attempts = 3; // a window that is being resized can change between the two round trips
    for (int attempt = 0; attempt < attempts && connection_ && connection_->recover(); ++attempt) {
        const std::optional<Placement> now = placement();
        if (!now)
            break;
        if (shown_ && !changed_ && shown_->placement.hasPixelsOf(*now)) {
            shown_->placement = *now;
            return shown_->image;
        }
        QImage image = readPixels(*now);
        if (!image.isNull()) {
            shown_ = Shown{image, *now};
            return image;
        }
    }
    shown_.reset();
    if (gone_)
        endCapture();
    return QImage();
}

std::optional<QRectF> WindowSource::Impl::bounds() const
{
    if (!shown_)
        return std::nullopt;
    return QRectF(shown_->placement.visible().translated(shown_->placement.origin));
}

std::optional<QPointF> WindowSource::Impl::pointerLocation()
{
    if (!connection_ || !connection_->recover())
        return std::nullopt;
    Request<xcb_query_pointer_reply_t> request(*connection_, xcb_query_pointer(connection_->xcb(), root_));
    const auto pointer = request.reply();
    if (!pointer || !pointer->same_screen)
        return std::nullopt;
    return QPointF(pointer->root_x, pointer->root_y);
}

/// The window as it is now, or nothing when it shows nowhere. Afterwards changed_ and gone_ hold for the same moment:
/// every event that happened before the answer has come before the answer.
std::optional<Placement> WindowSource::Impl::placement()
{
    static constexpr uint32_t extentWords = 4;
    xcb_connection_t* xcb = connection_->xcb();
    Request<xcb_get_window_attributes_reply_t> attributesRequest(
        *connection_, xcb_get_window_attributes(xcb, window_));
    Request<xcb_get_geometry_reply_t> geometryRequest(*connection_, xcb_get_geometry(xcb, window_));
    Request<xcb_translate_coordinates_reply_t> originRequest(
        *connection_, xcb_translate_coordinates(xcb, window_, root_, 0, 0));
    Request<xcb_get_property_reply_t> extentsRequest(
        *connection_, xcb_get_property(xcb, 0, window_, frameExtents_, XCB_ATOM_CARDINAL, 0, extentWords));
    const auto extents = extentsRequest.reply(); // the last one first: then the other replies have arrived, too
    const auto attributes = attributesRequest.reply();
    const auto geometry = geometryRequest.reply();
    const auto origin = originRequest.reply();
    handleEvents();
    if (attributesRequest.errorCode() == XCB_WINDOW)
        gone_ = true;
    if (gone_ || !attributes || !geometry || !origin)
        return std::nullopt;
    if (attributes->map_state != XCB_MAP_STATE_VIEWABLE)
        return std::nullopt;

    Placement now;
    now.size = QSize(geometry->width, geometry->height);
    now.border = geometry->border_width;
    now.origin = QPoint(origin->dst_x, origin->dst_y);
    now.clientShadow = clientShadow(extents.get(), now.size);
    return now;
}

void WindowSource::Impl::handleEvents()
{
    for (const auto& event : connection_->takeEvents())
        handleEvent(*event);
}

/// Errors are events, too; those of requests whose answer is not awaited end here.
void WindowSource::Impl::handleEvent(const xcb_generic_event_t& event)
{
    const int type = event.response_type & 0x7f; // without the mark of an event that a client has sent
    if (type == XCB_DESTROY_NOTIFY)
        gone_ = true;
    else if (type == XCB_MAP_NOTIFY || type == XCB_UNMAP_NOTIFY || type == XCB_REPARENT_NOTIFY)
        changed_ = true;
    else if (connection_->extensions().damageNotify == type)
        changed_ = true;
    else if (type == XCB_CONFIGURE_NOTIFY)
        handleConfigure(reinterpret_cast<const xcb_configure_notify_event_t&>(event));
}

/// A move does not change the pixels. A new size does, also when the old size is back before the next image.
void WindowSource::Impl::handleConfigure(const xcb_configure_notify_event_t& event)
{
    if (shown_
        && (QSize(event.width, event.height) != shown_->placement.size
            || event.border_width != shown_->placement.border))
        changed_ = true;
}

QImage WindowSource::Impl::readPixels(const Placement& placement)
{
    xcb_connection_t* xcb = connection_->xcb();
    if (damage_ != XCB_NONE) {
        // Before reading: a change during the read is then reported again, and read the next time.
        const Request<void> subtracting(*connection_, xcb_damage_subtract_checked(xcb, damage_, XCB_NONE, XCB_NONE));
    }
    changed_ = true; // until it is read

    const NamedPixmap pixmap(*connection_, window_, pixmapId_);
    Request<xcb_get_geometry_reply_t> geometryRequest(*connection_, xcb_get_geometry(xcb, pixmapId_));
    const QRect visible = placement.visible();
    const uchar* pixels = reader_->read(pixmapId_, visible.translated(placement.border, placement.border), layout_);
    const auto geometry = geometryRequest.reply();
    if (!pixels || !geometry || QSize(geometry->width, geometry->height) != placement.pixmapSize())
        return QImage();
    QImage image = x11::imageFromPixels(pixels, visible.size(), layout_);
    changed_ = damage_ == XCB_NONE || image.isNull();
    return image;
}

void WindowSource::Impl::endCapture()
{
    reader_.reset();
    connection_.reset();
}

WindowSource::WindowSource(quint32 windowId) : impl_(std::make_unique<Impl>(windowId)) { }

WindowSource::~WindowSource() = default;

QImage WindowSource::image()
{
    return impl_->image();
}

// Every window of an X server has pixels, and they are read, not drawn.
bool WindowSource::imageWasUnusable() const
{
    return false;
}

std::optional<QRectF> WindowSource::bounds()
{
    return impl_->bounds();
}

std::optional<QPointF> WindowSource::pointerLocation()
{
    return impl_->pointerLocation();
}

}

// Windows of an X server as images. The Composite extension draws a redirected window into a separate pixmap, so that
// covered and off-screen parts are there too; the Damage extension reports changes.
//
// No pixmap is kept between two images. One round trip asks where the window is and what happened to it; when it has
// changed, a second one names its present pixmap, reads it and frees the name. A name that was kept would still show
// the old pixels after the window was resized, or after it or one of its parents was mapped again.
#include "x11windowimages.h"

#include "clientprocess.h"

#include <QDebug>
#include <QPainter>
#include <QScopeGuard>

#include <climits>
#include <string_view>
#include <utility>

#include <xcb/composite.h>
#include <xcb/damage.h>

namespace x11 {

namespace {

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

bool hasRowsOutside(const RowSet& rows, const QRect& area)
{
    return rows.intersects(0, area.top()) || rows.intersects(area.top() + area.height(), INT_MAX);
}

/// Makes a part of an image blank: black, or transparent where it has an alpha channel.
void makeBlank(QImage& image, const QRegion& area)
{
    if (area.isEmpty())
        return;
    const bool hasAlpha = image.hasAlphaChannel();
    QPainter painter(&image);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    for (const QRect& part : area)
        painter.fillRect(part, hasAlpha ? Qt::transparent : Qt::black);
}

}

WindowImages::WindowImages(quint32 windowId, Now now, QRegion doubtful, const NoMemoryWarning& noMemory)
    : now_(std::move(now)), doubtful_(std::move(doubtful)), images_(noMemory)
{
    watched_.window = windowId;
    if (!connect())
        endCapture();
    else
        origin_ = findOrigin();
}

bool WindowImages::connect()
{
    connection_ = DisplayConnection::open();
    return connection_ && connection_->extensions().composite && watchWindow();
}

WindowImages::Origin WindowImages::findOrigin()
{
    Origin origin;
    origin.server = connection_->serverProcess();
    if (knowsClientProcesses(*connection_)) {
        Request<xcb_res_query_client_ids_reply_t> request(
            *connection_, askClientProcess(*connection_, watched_.window));
        origin.client = clientProcess(request.reply().get());
    }
    return origin;
}

/// Any client can have the connection of another one ended. At once when that happens; when it fails, now and then.
/// It has to be the same server and the same program: another one's window may have the id by now.
void WindowImages::reconnect()
{
    if (failedAt_ && now_() - *failedAt_ < checkInterval)
        return;
    if (connection_ && !std::exchange(cutLogged_, true))
        qWarning() << "Connection to the X server was ended from outside; connecting again. Told once.";
    reader_.reset();
    connection_.reset();
    shown_.reset();
    changed_.addAll();
    failedAt_.reset();
    if (connect() && findOrigin() == origin_)
        return;
    failedAt_ = now_();
    reader_.reset();
    connection_.reset();
}

/// The window stays redirected from here on. Directly after the redirection its covered parts hold nothing but
/// background, or what covers them, until the application draws them again; so this is done once, and early. The
/// damage object is there before, and tells the difference.
bool WindowImages::watchWindow()
{
    xcb_connection_t* xcb = connection_->xcb();
    static constexpr std::string_view frameExtents = "_GTK_FRAME_EXTENTS";
    const xcb_window_t window = watched_.window;
    Request<xcb_intern_atom_reply_t> atomRequest(
        *connection_, xcb_intern_atom(xcb, 0, uint16_t(frameExtents.size()), frameExtents.data()));
    Request<xcb_get_window_attributes_reply_t> attributesRequest(
        *connection_, xcb_get_window_attributes(xcb, window));
    Request<xcb_get_geometry_reply_t> geometryRequest(*connection_, xcb_get_geometry(xcb, window));
    const uint32_t events = XCB_EVENT_MASK_STRUCTURE_NOTIFY | XCB_EVENT_MASK_VISIBILITY_CHANGE;
    Request<void> selecting(
        *connection_, xcb_change_window_attributes_checked(xcb, window, XCB_CW_EVENT_MASK, &events));
    watched_.damageNotify = connection_->extensions().damageNotify;
    if (watched_.damageNotify)
        createDamage();
    // Refused when another client already redirects the window manually: then it has a pixmap anyway.
    const Request<void> redirecting(
        *connection_, xcb_composite_redirect_window_checked(xcb, window, XCB_COMPOSITE_REDIRECT_AUTOMATIC));
    if (!connection_->synchronise())
        return false;

    const auto atom = atomRequest.reply();
    const auto attributes = attributesRequest.reply();
    const auto geometry = geometryRequest.reply();
    if (!atom || !attributes || !geometry || !selecting.succeeded())
        return false;
    const auto layout = pixelLayout(xcb_get_setup(xcb), attributes->visual);
    if (!layout)
        return false;
    layout_ = *layout;
    root_ = geometry->root;
    frameExtents_ = atom->atom;
    pixmapId_ = xcb_generate_id(xcb);
    reader_ = std::make_unique<PixelReader>(*connection_);
    unpainted_ = UnpaintedArea(QRect(geometry->x, geometry->y, geometry->width, geometry->height));
    takeFirstReports();
    return true;
}

/// The first report is what could be seen, and is therefore the window's own; the others come of the redirection.
void WindowImages::takeFirstReports()
{
    unpainted_.begin(now_());
    const QRegion doubtful = std::exchange(doubtful_, QRegion());
    for (const auto& event : connection_->takeEvents()) {
        const std::optional<WindowEvent> own = windowEvent(*event, watched_);
        if (!own || own->kind != WindowEvent::Kind::Damaged)
            continue;
        for (const QRect& seen : QRegion(own->area) - doubtful)
            unpainted_.addDamage(seen, own->more);
    }
}

QRegion WindowImages::blank() const
{
    return shown_ ? shown_->blank.translated(shown_->placement.origin) : QRegion();
}

QPoint WindowImages::origin() const
{
    return shown_ ? shown_->placement.origin : QPoint();
}

platform::WindowSample WindowImages::sample()
{
    platform::WindowSample sample;
    const bool isLost = !connection_ || connection_->isLost();
    if (isLost && !ended_ && origin_.server != 0 && origin_.client != 0)
        reconnect();
    if (takeImage(sample)) {
        sample.image = images_.last();
        sample.bounds = QRectF(shown_->placement.visible().translated(shown_->placement.origin));
        sample.pointer = pointer_;
        return sample;
    }
    shown_.reset();
    if (gone_)
        endCapture();
    platform::WindowSample none;
    none.unusable = sample.unusable;
    return none;
}

/// Brings shown_ up to date. False when there is no image.
bool WindowImages::takeImage(platform::WindowSample& sample)
{
    static constexpr int attempts = 3; // a window that is being resized can change between the two round trips
    for (int attempt = 0; attempt < attempts && connection_ && connection_->recover(); ++attempt) {
        const std::optional<Placement> now = placement();
        if (!now)
            return false;
        const bool current = isCurrent(*now);
        if (current) {
            shown_->placement = *now;
            if (now_() - readAt_ < checkInterval)
                return true;
        }
        if (readImage(*now, current, sample))
            return true;
        if (sample.unusable)
            return false;
    }
    return false;
}

/// The window as it is now, or nothing when it shows nowhere. Afterwards changed_ and gone_ hold for the same moment:
/// every event that happened before the answer has come before the answer.
std::optional<Placement> WindowImages::placement()
{
    static constexpr uint32_t extentWords = 4;
    xcb_connection_t* xcb = connection_->xcb();
    const xcb_window_t window = watched_.window;
    Request<xcb_get_window_attributes_reply_t> attributesRequest(
        *connection_, xcb_get_window_attributes(xcb, window));
    Request<xcb_get_geometry_reply_t> geometryRequest(*connection_, xcb_get_geometry(xcb, window));
    Request<xcb_translate_coordinates_reply_t> originRequest(
        *connection_, xcb_translate_coordinates(xcb, window, root_, 0, 0));
    Request<xcb_get_property_reply_t> extentsRequest(
        *connection_, xcb_get_property(xcb, 0, window, frameExtents_, XCB_ATOM_CARDINAL, 0, extentWords));
    Request<xcb_query_pointer_reply_t> pointerRequest(*connection_, xcb_query_pointer(xcb, root_));
    const auto pointer = pointerRequest.reply(); // the last one first: then the other replies have arrived, too
    const auto extents = extentsRequest.reply();
    const auto attributes = attributesRequest.reply();
    const auto geometry = geometryRequest.reply();
    const auto origin = originRequest.reply();
    if (attributes)
        keepsPixels_ = attributes->bit_gravity != XCB_GRAVITY_BIT_FORGET;
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
    shadowLog_.note(now.clientShadow, now_());
    pointer_.reset();
    if (pointer && pointer->same_screen)
        pointer_ = QPointF(pointer->root_x, pointer->root_y);
    return now;
}

/// Errors are events, too; those of requests whose answer is not awaited end here.
void WindowImages::handleEvents()
{
    for (const auto& event : connection_->takeEvents()) {
        if (const std::optional<WindowEvent> own = windowEvent(*event, watched_))
            handleEvent(*own);
    }
}

void WindowImages::handleEvent(const WindowEvent& event)
{
    switch (event.kind) {
    case WindowEvent::Kind::Destroyed:
        gone_ = true;
        break;
    case WindowEvent::Kind::Shown:
        unpainted_.begin(now_());
        [[fallthrough]];
    case WindowEvent::Kind::Mapped:
        changed_.addAll();
        ++pixmapsSeen_;
        break;
    case WindowEvent::Kind::Configured:
        handleConfigure(event);
        break;
    case WindowEvent::Kind::Damaged:
        changed_.add(event.area);
        unpainted_.addDamage(event.area, event.more);
        break;
    }
}

/// A move does not change the pixels. A new size does, also when the old size is back before the next image: then
/// they are not painted.
void WindowImages::handleConfigure(const WindowEvent& event)
{
    if (event.area.size() != unpainted_.size())
        ++pixmapsSeen_;
    unpainted_.configure(event.area, keepsPixels_, now_());
}

bool WindowImages::isCurrent(const Placement& placement)
{
    return shown_ && changed_.isEmpty() && shown_->placement.hasPixelsOf(placement) && shown_->blank == blankArea();
}

/// Without reports of damage nobody knows.
QRegion WindowImages::blankArea()
{
    return watched_.damage == XCB_NONE ? QRegion() : unpainted_.at(now_());
}

/// The part of the window that has to be read: whole rows of what is visible.
QRect WindowImages::areaToRead(const Placement& placement, bool current, const QRegion& unpainted) const
{
    const QRect visible = placement.visible();
    const bool wasRead = shown_ && shown_->placement.hasPixelsOf(placement);
    const bool allPainted = unpainted.isEmpty() && shown_ && shown_->blank.isEmpty();
    const bool isDue = now_() - wholeReadAt_ >= checkInterval;
    // Where damage lies in a window with a border is not the same for all servers.
    if (current || isDue || !wasRead || !allPainted || placement.border > 0 || watched_.damage == XCB_NONE)
        return visible;
    return changed_.rowsOf(visible);
}

/// Brings shown_ and images_ up to date. current: nothing was reported since they were. False when the window changes
/// while it is read, and when it cannot be read.
bool WindowImages::readImage(const Placement& placement, bool current, platform::WindowSample& sample)
{
    const QRegion unpainted = blankArea(); // what is painted from here on may be missing in the pixels
    const int pixmapsBefore = pixmapsSeen_;
    const QRect area = areaToRead(placement, current, unpainted);
    const QRect visible = placement.visible();
    const QRect reported = current ? QRect() : changed_.rowsOf(visible);
    auto failure = qScopeGuard([this] { // all has to be read anew, after an exception, too
        shown_.reset();
        changed_.addAll();
    });
    changed_.clear();
    if (area.isEmpty()) { // only in what is not shown
        shown_->placement = placement;
        failure.dismiss();
        return true;
    }
    if (watched_.damage == XCB_NONE)
        changed_.addAll();
    bool damageIsThere = true;
    const uchar* const pixels = readPixels(placement, area, damageIsThere);
    handleEvents();
    SharedImages::Image taken;
    if (pixels && pixmapsSeen_ == pixmapsBefore) {
        images_.update(visible.size(), imageFormat(layout_));
        putPixels(pixels, area, visible, unpainted);
        taken = images_.finish();
        sample.unusable = taken.image.isNull();
    }
    if (taken.image.isNull())
        return false;
    const bool missedSomething = shown_ && shown_->placement.hasPixelsOf(placement) && changed_.isEmpty()
        && hasRowsOutside(taken.changedRows, reported.translated(-visible.topLeft()));
    sample.changedRows.add(taken.changedRows);
    sample.ownBytes = taken.ownBytes;
    shown_ = Shown{placement, unpainted};
    readAt_ = now_();
    if (area == visible)
        wholeReadAt_ = readAt_;
    failure.dismiss();
    if (!damageIsThere || missedSomething)
        renewDamage();
    return true;
}

/// area: whole rows of the visible part of the window.
void WindowImages::putPixels(const uchar* pixels, const QRect& area, const QRect& visible, const QRegion& unpainted)
{
    const int firstRow = area.top() - visible.top();
    const QRegion hidden = (unpainted & area).translated(-area.topLeft());
    if (isTakenAsItIs(layout_) && hidden.isEmpty()) {
        images_.put(firstRow, area.height(), reinterpret_cast<const quint32*>(pixels), opaqueBits(layout_));
        return;
    }
    QImage image = imageFromPixels(pixels, area.size(), layout_);
    if (image.isNull()) {
        images_.abandon();
        return;
    }
    makeBlank(image, hidden);
    images_.put(firstRow, area.height(), reinterpret_cast<const quint32*>(image.constBits()));
}

/// Null when the window has been given another pixmap, or the server does not answer. damageIsThere is only then
/// told when the pixels are there.
const uchar* WindowImages::readPixels(const Placement& placement, const QRect& area, bool& damageIsThere)
{
    xcb_connection_t* xcb = connection_->xcb();
    std::optional<Request<void>> subtracting;
    if (watched_.damage != XCB_NONE) {
        // Before reading: a change during the read is then reported again, and read the next time.
        subtracting.emplace(*connection_, xcb_damage_subtract_checked(xcb, watched_.damage, XCB_NONE, XCB_NONE));
    }
    const NamedPixmap pixmap(*connection_, watched_.window, pixmapId_);
    Request<xcb_get_geometry_reply_t> geometryRequest(*connection_, xcb_get_geometry(xcb, pixmapId_));
    const uchar* pixels = reader_->read(pixmapId_, area.translated(placement.border, placement.border), layout_);
    const auto geometry = geometryRequest.reply();
    if (!pixels || !geometry || QSize(geometry->width, geometry->height) != placement.pixmapSize())
        return nullptr;
    damageIsThere = !subtracting || subtracting->succeeded();
    return pixels;
}

/// Every drawing is reported, as only so the first report of an area can be told from the next.
void WindowImages::createDamage()
{
    watched_.damage = xcb_generate_id(connection_->xcb());
    Request<void> creating(*connection_,
        xcb_damage_create_checked(
            connection_->xcb(), watched_.damage, watched_.window, XCB_DAMAGE_REPORT_LEVEL_RAW_RECTANGLES));
    if (!connection_->synchronise() || !creating.succeeded())
        watched_.damage = XCB_NONE;
}

/// Any client can destroy the damage object, and the server says nothing. What happened meanwhile is read.
void WindowImages::renewDamage()
{
    {
        const Request<void> destroying(*connection_, xcb_damage_destroy_checked(connection_->xcb(), watched_.damage));
    }
    createDamage();
    changed_.addAll();
}

void WindowImages::endCapture()
{
    ended_ = true;
    reader_.reset();
    connection_.reset();
}

}

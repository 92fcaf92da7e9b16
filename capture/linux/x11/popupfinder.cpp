// Which windows pop out of a window, by what the server knows of them.
#include "popupfinder.h"

#include "clientprocess.h"
#include "xcbreplies.h"

#include <algorithm>
#include <deque>
#include <utility>

#include <xcb/shape.h>

namespace x11 {

namespace {

/// Bounds for what one round of requests may hold. When more windows than that are above, nobody can tell.
constexpr std::size_t mostWindows = 1024;
constexpr quint32 mostRectangles = 4096;
constexpr int deepestWindow = 16; // frames around a window
constexpr quint32 mostTypes = 16; // that a window says it is

constexpr int sentByClient = 0x80; // in the type of an event

/// Any client can send such an event to whoever watches the root; the server marks it, and it does not count.
bool changesTree(const xcb_generic_event_t& event)
{
    switch (event.response_type) {
    case XCB_MAP_NOTIFY:
    case XCB_UNMAP_NOTIFY:
    case XCB_DESTROY_NOTIFY:
    case XCB_REPARENT_NOTIFY:
    case XCB_CONFIGURE_NOTIFY:
    case XCB_CIRCULATE_NOTIFY:
        static_assert(XCB_CIRCULATE_NOTIFY < sentByClient);
        return true;
    default:
        return false;
    }
}

}

/// A window, and where its parent is.
struct PopupFinder::Place {
    xcb_window_t window = XCB_NONE;
    xcb_window_t parent = XCB_NONE;
    QPoint parentOrigin;
};

/// A window that is shown.
struct PopupFinder::Seen {
    Popup popup; ///< without its shape
    xcb_window_t parent = XCB_NONE;
    std::vector<xcb_window_t> children;
    bool ours = false;
    bool unmanaged = false; ///< no window manager touches it
    bool saysPopup = false;

    bool isPopup() const { return ours && (unmanaged || saysPopup); }
};

/// What is asked about one window.
struct PopupFinder::Questions {
    Questions(DisplayConnection& connection, const Place& asked, xcb_atom_t windowType, bool askServer)
        : place(asked), attributes(connection, xcb_get_window_attributes(connection.xcb(), asked.window)),
          geometry(connection, xcb_get_geometry(connection.xcb(), asked.window)),
          tree(connection, xcb_query_tree(connection.xcb(), asked.window)),
          types(connection,
              xcb_get_property(connection.xcb(), 0, asked.window, windowType, XCB_ATOM_ATOM, 0, mostTypes))
    {
        if (askServer)
            client.emplace(connection, askClientProcess(connection, asked.window));
    }

    /// Nothing when the window is not shown.
    std::optional<Seen> answer();
    qint64 process() { return client ? clientProcess(client->reply().get()) : 0; }

    Place place;
    Request<xcb_get_window_attributes_reply_t> attributes;
    Request<xcb_get_geometry_reply_t> geometry;
    Request<xcb_query_tree_reply_t> tree;
    Request<xcb_get_property_reply_t> types;
    std::optional<Request<xcb_res_query_client_ids_reply_t>> client;
};

std::optional<PopupFinder::Seen> PopupFinder::Questions::answer()
{
    const auto shown = attributes.reply();
    const auto size = geometry.reply();
    if (!shown || !size || shown->map_state != XCB_MAP_STATE_VIEWABLE
        || shown->_class != XCB_WINDOW_CLASS_INPUT_OUTPUT)
        return std::nullopt;
    const int border = size->border_width;
    const QPoint corner = place.parentOrigin + QPoint(size->x, size->y);
    Seen seen;
    seen.popup.window = place.window;
    seen.popup.origin = corner + QPoint(border, border);
    seen.popup.area = QRect(corner, QSize(size->width + 2 * border, size->height + 2 * border));
    seen.parent = place.parent;
    const auto below = tree.reply();
    const auto children = childrenIn(below.get());
    seen.children.assign(children.begin(), children.end());
    seen.unmanaged = shown->override_redirect;
    return seen;
}

PopupFinder::PopupFinder(xcb_window_t window, Now now) : window_(window), now_(std::move(now)) { }

void PopupFinder::update()
{
    if (!isConnected()) {
        popups_.clear();
        return;
    }
    askShapes();
    handleEvents();
    if (!stale_ && now_() - scannedAt_ < checkInterval)
        return;
    scan();
    if (!popups_.empty())
        askShapes();
}

/// Connects when there is no connection: at first, and now and then when it was ended.
bool PopupFinder::isConnected()
{
    if (connection_ && !connection_->isLost())
        return connection_->recover();
    if (triedAt_ && now_() - *triedAt_ < checkInterval)
        return false;
    triedAt_ = now_();
    if (!connect())
        connection_.reset();
    return connection_ != nullptr;
}

bool PopupFinder::connect()
{
    connection_ = DisplayConnection::open();
    if (!connection_)
        return false;
    Request<xcb_query_tree_reply_t> tree(*connection_, xcb_query_tree(connection_->xcb(), window_));
    const auto reply = tree.reply();
    if (!reply)
        return false;
    root_ = reply->root;
    const uint32_t events = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
    Request<void> selecting(
        *connection_, xcb_change_window_attributes_checked(connection_->xcb(), root_, XCB_CW_EVENT_MASK, &events));
    findAtoms();
    shapes_ = hasShapes();
    askServer_ = knowsClientProcesses(*connection_);
    process_ = 0;
    if (askServer_) {
        Request<xcb_res_query_client_ids_reply_t> client(*connection_, askClientProcess(*connection_, window_));
        process_ = clientProcess(client.reply().get());
    }
    stale_ = true;
    return connection_->isResponsive();
}

void PopupFinder::findAtoms()
{
    static constexpr const char* names[]
        = {"_NET_WM_WINDOW_TYPE", "_NET_WM_WINDOW_TYPE_MENU", "_NET_WM_WINDOW_TYPE_POPUP_MENU",
            "_NET_WM_WINDOW_TYPE_DROPDOWN_MENU", "_NET_WM_WINDOW_TYPE_COMBO", "_NET_WM_WINDOW_TYPE_TOOLTIP"};
    std::deque<Request<xcb_intern_atom_reply_t>> requests;
    for (const char* name : names)
        requests.emplace_back(*connection_, xcb_intern_atom(connection_->xcb(), 0, uint16_t(qstrlen(name)), name));
    std::vector<xcb_atom_t> atoms;
    for (auto& request : requests) {
        const auto reply = request.reply();
        atoms.push_back(reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE));
    }
    windowType_ = atoms.front();
    popupTypes_.assign(atoms.begin() + 1, atoms.end());
}

bool PopupFinder::hasShapes()
{
    xcb_prefetch_extension_data(connection_->xcb(), &xcb_shape_id);
    if (!connection_->synchronise())
        return false;
    const xcb_query_extension_reply_t* data = xcb_get_extension_data(connection_->xcb(), &xcb_shape_id);
    return data && data->present;
}

void PopupFinder::handleEvents()
{
    for (const auto& event : connection_->takeEvents())
        stale_ = stale_ || changesTree(*event);
}

/// What happens to the windows meanwhile is reported, and makes the next scan.
void PopupFinder::scan()
{
    stale_ = false;
    scannedAt_ = now_();
    popups_.clear();
    othersBefore_ = std::exchange(others_, QRegion());
    const std::optional<std::vector<Place>> above = windowsAbove();
    if (!above)
        return;
    const std::vector<Seen> windows = lookAt(*above);
    const std::vector<Seen> framed = framedPopups(windows);
    const auto mask = xcb_get_setup(connection_->xcb())->resource_id_mask;
    for (const Seen& seen : windows) {
        if (seen.isPopup()) {
            popups_.push_back(seen.popup);
            continue;
        }
        bool isFrame = false;
        for (const Seen& inner : framed) {
            if (inner.parent == seen.popup.window) {
                popups_.push_back(inner.popup);
                isFrame = true;
            }
        }
        const bool ofServer = (seen.popup.window & ~mask) == 0; // a compositor's overlay: it is no program's
        if (!isFrame && !ofServer)
            others_ += seen.popup.area;
    }
}

/// From the lowest to the topmost; nothing when it cannot be told.
std::optional<std::vector<PopupFinder::Place>> PopupFinder::windowsAbove()
{
    xcb_window_t window = window_;
    for (int depth = 0; depth < deepestWindow; ++depth) {
        Request<xcb_query_tree_reply_t> request(*connection_, xcb_query_tree(connection_->xcb(), window));
        const auto tree = request.reply();
        if (!tree)
            return std::nullopt;
        if (tree->parent != root_) {
            window = tree->parent;
            continue;
        }
        Request<xcb_query_tree_reply_t> all(*connection_, xcb_query_tree(connection_->xcb(), root_));
        const auto allOfRoot = all.reply();
        const auto children = childrenIn(allOfRoot.get());
        const auto own = std::find(children.begin(), children.end(), window);
        if (own == children.end() || std::size_t(children.end() - own) > mostWindows)
            return std::nullopt;
        std::vector<Place> above;
        for (auto child = own + 1; child != children.end(); ++child)
            above.push_back({*child, root_, QPoint(0, 0)});
        return above;
    }
    return std::nullopt;
}

/// Those that are shown.
std::vector<PopupFinder::Seen> PopupFinder::lookAt(const std::vector<Place>& windows)
{
    std::deque<Questions> questions;
    for (const Place& place : windows)
        questions.emplace_back(
            *connection_, place, windowType_, askServer_ && process_ && !isOfSameClient(place.window));
    std::vector<Seen> shown;
    for (Questions& asked : questions) {
        std::optional<Seen> seen = asked.answer();
        if (!seen)
            continue;
        const qint64 process = asked.process();
        seen->ours = isOfSameClient(seen->popup.window) || (process && process == process_);
        const auto types = asked.types.reply();
        if (types && types->type == XCB_ATOM_ATOM) {
            const auto said = propertyValues(types.get());
            seen->saysPopup
                = std::find_first_of(said.begin(), said.end(), popupTypes_.begin(), popupTypes_.end()) != said.end();
        }
        shown.push_back(std::move(*seen));
    }
    return shown;
}

/// A menu that was torn off has a frame of the window manager's around it, which is a child of the root in its place.
std::vector<PopupFinder::Seen> PopupFinder::framedPopups(const std::vector<Seen>& windows)
{
    std::vector<Place> inFrames;
    for (const Seen& frame : windows) {
        if (frame.ours || inFrames.size() + frame.children.size() > mostWindows)
            continue;
        for (const xcb_window_t child : frame.children)
            inFrames.push_back({child, frame.popup.window, frame.popup.origin});
    }
    std::vector<Seen> framed = lookAt(inFrames);
    framed.erase(std::remove_if(framed.begin(), framed.end(),
                     [](const Seen& seen) { return !seen.ours || !seen.saysPopup || seen.unmanaged; }),
        framed.end());
    return framed;
}

/// The server gives every client a range of ids.
bool PopupFinder::isOfSameClient(xcb_window_t window) const
{
    const auto mask = xcb_get_setup(connection_->xcb())->resource_id_mask;
    return (window & ~mask) == (window_ & ~mask);
}

/// Also without popups a round trip: then all events that happened before it are there.
void PopupFinder::askShapes()
{
    std::deque<Request<xcb_shape_get_rectangles_reply_t>> requests;
    for (const Popup& popup : popups_) {
        if (shapes_)
            requests.emplace_back(
                *connection_, xcb_shape_get_rectangles(connection_->xcb(), popup.window, XCB_SHAPE_SK_BOUNDING));
    }
    connection_->synchronise();
    for (std::size_t i = 0; i < popups_.size(); ++i) {
        Popup& popup = popups_[i];
        popup.shape = QRegion();
        if (!shapes_) {
            popup.shape = popup.area.translated(-popup.origin);
            continue;
        }
        const auto reply = requests[i].reply();
        if (!reply || reply->rectangles_len > mostRectangles)
            continue;
        for (const xcb_rectangle_t& part : itemsOf<xcb_rectangle_t>(*reply, reply->rectangles_len))
            popup.shape += QRect(part.x, part.y, part.width, part.height);
    }
}

}

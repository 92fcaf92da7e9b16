// Who owns windows on the display.
#include "windowowners.h"

#include "clientprocess.h"
#include "x11connection.h"
#include "xcbreplies.h"

#include <QByteArray>
#include <QList>

#include <algorithm>
#include <deque>
#include <memory>
#include <optional>

namespace windowowners {

namespace {

using x11::Allocated;
using x11::DisplayConnection;
using x11::propertyText;
using x11::propertyValues;
using x11::Request;
using Property = Request<xcb_get_property_reply_t>;

constexpr std::size_t mostWindows = 1024; // a bound for what one round of requests may hold
constexpr quint32 textWords = 128; // of a property, 4 bytes each

struct Atoms {
    xcb_atom_t clientList = XCB_ATOM_NONE;
    xcb_atom_t supportingCheck = XCB_ATOM_NONE;
    xcb_atom_t processId = XCB_ATOM_NONE;
    xcb_atom_t applicationId = XCB_ATOM_NONE;
    xcb_atom_t utf8 = XCB_ATOM_NONE;
};

/// Atoms that do not exist yet stay 0: then no window has such a property.
Atoms findAtoms(DisplayConnection& connection)
{
    struct Wanted {
        const char* name;
        xcb_atom_t Atoms::*atom;
    };
    constexpr Wanted wanted[] = {{"_NET_CLIENT_LIST", &Atoms::clientList},
        {"_NET_SUPPORTING_WM_CHECK", &Atoms::supportingCheck}, {"_NET_WM_PID", &Atoms::processId},
        {"_GTK_APPLICATION_ID", &Atoms::applicationId}, {"UTF8_STRING", &Atoms::utf8}};
    std::deque<Request<xcb_intern_atom_reply_t>> requests;
    for (const Wanted& entry : wanted)
        requests.emplace_back(
            connection, xcb_intern_atom(connection.xcb(), 1, uint16_t(qstrlen(entry.name)), entry.name));
    Atoms atoms;
    for (std::size_t i = 0; i < requests.size(); ++i) {
        if (const auto reply = requests[i].reply())
            atoms.*wanted[i].atom = reply->atom;
    }
    return atoms;
}

xcb_get_property_cookie_t getProperty(
    DisplayConnection& connection, xcb_window_t window, xcb_atom_t property, xcb_atom_t type, quint32 words)
{
    return xcb_get_property(connection.xcb(), 0, window, property, type, 0, words);
}

/// 0 when there is none.
quint32 firstValue(const xcb_get_property_reply_t* reply)
{
    const auto values = propertyValues(reply);
    return values.empty() ? 0 : values.front();
}

/// The windows that a window manager keeps; nothing when none runs. A manager that has died leaves its list behind,
/// but not the window that both the root and that window itself name.
std::optional<std::vector<xcb_window_t>> managedWindows(
    DisplayConnection& connection, xcb_window_t root, const Atoms& atoms)
{
    if (!atoms.clientList || !atoms.supportingCheck)
        return std::nullopt;
    Property checkOfRoot(connection, getProperty(connection, root, atoms.supportingCheck, XCB_ATOM_WINDOW, 1));
    Property list(connection, getProperty(connection, root, atoms.clientList, XCB_ATOM_WINDOW, quint32(mostWindows)));
    const xcb_window_t manager = firstValue(checkOfRoot.reply().get());
    const auto listReply = list.reply();
    if (!manager || !listReply || listReply->type != XCB_ATOM_WINDOW)
        return std::nullopt;
    Property checkOfManager(connection, getProperty(connection, manager, atoms.supportingCheck, XCB_ATOM_WINDOW, 1));
    if (firstValue(checkOfManager.reply().get()) != manager)
        return std::nullopt;
    const auto windows = propertyValues(listReply.get());
    return std::vector<xcb_window_t>(windows.begin(), windows.end());
}

/// Without a window manager: what lies on the root and can be seen, menus and tool tips left out.
std::vector<xcb_window_t> shownWindows(DisplayConnection& connection, xcb_window_t root)
{
    Request<xcb_query_tree_reply_t> treeRequest(connection, xcb_query_tree(connection.xcb(), root));
    const auto tree = treeRequest.reply();
    const auto all = x11::childrenIn(tree.get());
    const auto children = all.first(std::min(all.size(), mostWindows));
    std::deque<Request<xcb_get_window_attributes_reply_t>> requests;
    for (const xcb_window_t child : children)
        requests.emplace_back(connection, xcb_get_window_attributes(connection.xcb(), child));
    std::vector<xcb_window_t> windows;
    for (std::size_t i = 0; i < children.size(); ++i) {
        const auto reply = requests[i].reply();
        if (reply && reply->map_state != XCB_MAP_STATE_UNMAPPED && reply->_class == XCB_WINDOW_CLASS_INPUT_OUTPUT
            && !reply->override_redirect)
            windows.push_back(children[i]);
    }
    return windows;
}

/// What is asked about one window.
struct OwnerQuery {
    OwnerQuery(DisplayConnection& connection, xcb_window_t window, const Atoms& atoms, bool askServer)
        : classes(connection, getProperty(connection, window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, textWords)),
          applicationId(connection, getProperty(connection, window, atoms.applicationId, atoms.utf8, textWords)),
          claimedPid(connection, getProperty(connection, window, atoms.processId, XCB_ATOM_CARDINAL, 1))
    {
        if (askServer)
            client.emplace(connection, x11::askClientProcess(connection, window));
    }

    Property classes;
    Property applicationId;
    Property claimedPid;
    std::optional<Request<xcb_res_query_client_ids_reply_t>> client;
};

Owner readOwner(OwnerQuery& query)
{
    Owner owner;
    const quint32 claimedPid = firstValue(query.claimedPid.reply().get());
    owner.processId = query.client ? x11::clientProcess(query.client->reply().get()) : 0;
    if (owner.processId == 0)
        owner.processId = claimedPid;
    owner.name = className(propertyText(query.classes.reply().get()));
    owner.applicationId = QString::fromUtf8(propertyText(query.applicationId.reply().get()));
    return owner;
}

void add(std::vector<Owner>& owners, const Owner& owner)
{
    const auto same = std::find_if(
        owners.begin(), owners.end(), [&owner](const Owner& other) { return other.processId == owner.processId; });
    if (same == owners.end()) {
        owners.push_back(owner);
        return;
    }
    if (same->name.isEmpty())
        same->name = owner.name;
    if (same->applicationId.isEmpty())
        same->applicationId = owner.applicationId;
}

}

QString className(QByteArrayView text)
{
    return QString::fromLatin1(text.toByteArray().split('\0').value(1));
}

std::optional<std::vector<Owner>> find()
{
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        return std::vector<Owner>();
    const std::unique_ptr<DisplayConnection> connection = DisplayConnection::open();
    if (!connection)
        return std::nullopt;
    const Atoms atoms = findAtoms(*connection);
    const bool askServer = x11::knowsClientProcesses(*connection);
    std::vector<Owner> owners;
    for (auto screen = xcb_setup_roots_iterator(xcb_get_setup(connection->xcb())); screen.rem > 0;
         xcb_screen_next(&screen)) {
        const xcb_window_t root = screen.data->root;
        const std::optional<std::vector<xcb_window_t>> managed = managedWindows(*connection, root, atoms);
        const std::vector<xcb_window_t> windows = managed ? *managed : shownWindows(*connection, root);
        std::deque<OwnerQuery> queries;
        for (const xcb_window_t window : windows)
            queries.emplace_back(*connection, window, atoms, askServer);
        for (OwnerQuery& query : queries) {
            const Owner owner = readOwner(query);
            if (owner.processId > 1)
                add(owners, owner);
        }
    }
    return connection->isResponsive() ? std::optional(std::move(owners)) : std::nullopt;
}

}

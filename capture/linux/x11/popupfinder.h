// PopupFinder: which windows pop out of a window: menus, lists, tool tips.
#pragma once

#include "x11connection.h"

#include <QPoint>
#include <QRect>
#include <QRegion>

#include <xcb/xcb.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace x11 {

/// Coordinates are the root window's.
struct Popup {
    xcb_window_t window = XCB_NONE;
    QPoint origin; ///< the top left pixel inside the border
    QRect area; ///< with the border
    QRegion shape; ///< what of it is shown at all, relative to the origin
};

/**
 * Follows the windows of the screen, on a connection of its own: what another client does to that, or however many
 * windows it makes, costs the recording the popups at most.
 *
 * A popup is above the window and shown, is one that no window manager touches or says that it is a menu or the like,
 * and belongs to the program that the window belongs to, as the server knows it. What a window says of itself
 * (WM_TRANSIENT_FOR, _NET_WM_PID) is not asked.
 */
class PopupFinder {
public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;

    /// Windows are looked at again after this time also when nothing is reported: reports can fail.
    static constexpr std::chrono::seconds checkInterval{1};

    PopupFinder(xcb_window_t window, Now now);

    /// Brings the others up to date: one round trip when nothing has happened to any window.
    void update();

    /// From the lowest to the topmost; none when the server does not tell.
    const std::vector<Popup>& popups() const { return popups_; }

    /// Where other windows are, or just were, that are above the window and are none of its popups.
    QRegion others() const { return others_ + othersBefore_; }

    /// The process whose window it is; 0 when it is unknown.
    qint64 process() const { return process_; }

private:
    struct Place;
    struct Seen;
    struct Questions;

    bool isConnected();
    bool connect();
    void findAtoms();
    bool hasShapes();
    void handleEvents();
    void scan();
    std::optional<std::vector<Place>> windowsAbove();
    std::vector<Seen> lookAt(const std::vector<Place>& windows);
    std::vector<Seen> framedPopups(const std::vector<Seen>& windows);
    bool isOfSameClient(xcb_window_t window) const;
    void askShapes();

    const xcb_window_t window_;
    const Now now_;
    std::unique_ptr<DisplayConnection> connection_; // null: there are no popups
    xcb_window_t root_ = XCB_NONE; // of the window's screen
    xcb_atom_t windowType_ = XCB_ATOM_NONE;
    std::vector<xcb_atom_t> popupTypes_;
    bool askServer_ = false; // for the process of a client
    bool shapes_ = false; // the server knows the extension
    qint64 process_ = 0;
    bool stale_ = true;
    std::optional<Clock::time_point> triedAt_; // to connect, last
    Clock::time_point scannedAt_;
    std::vector<Popup> popups_;
    QRegion others_;
    QRegion othersBefore_; // at the scan before
};

}

// UnpaintedArea: what a window's program has not painted yet, and where the server therefore still has the pixels of
// what was on the screen before. Values in, values out.
#pragma once

#include <QRect>
#include <QRegion>
#include <QSize>

#include <chrono>
#include <optional>

namespace x11 {

/**
 * Follows the server's reports about one window, in their order. The server gives a window new pixels when it is
 * shown and when its size changes, and copies what the screen shows there into them. Then it paints the background,
 * where the window has one, and asks the program to paint; both are reported as damage. Before that it reports by
 * itself what can be seen of the added area, and what it has moved of the old pixels; neither says that anything is
 * painted. Coordinates are pixels of the window, without its border.
 */
class UnpaintedArea {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// A program that does not paint is believed to be content with what is there: after this time from the first
    /// new pixels all counts as painted.
    static constexpr std::chrono::milliseconds patience{500};

    /// geometry: position in the parent, and size.
    explicit UnpaintedArea(const QRect& geometry = QRect()) : geometry_(geometry) { }

    QSize size() const { return geometry_.size(); }

    /// All pixels are new; what the server reports of that by itself, it has reported.
    void begin(TimePoint now);
    /// The window lies there now. keepsPixels: when its size changes, the server keeps what was painted (the window's
    /// bit gravity).
    void configure(const QRect& geometry, bool keepsPixels, TimePoint now);
    /// One rectangle of a report; more: it is not the last one of it.
    void addDamage(const QRect& area, bool more);
    /// What nobody has painted yet.
    QRegion at(TimePoint now);

private:
    void beginPatience(TimePoint now);

    QRect geometry_;
    QRegion missing_;
    QRegion added_; ///< the server itself reports next what can be seen of it, if anything
    bool copied_ = false; ///< the server itself reports next what it has moved
    std::optional<TimePoint> since_; ///< the first new pixels; nothing while nothing is missing
};

}

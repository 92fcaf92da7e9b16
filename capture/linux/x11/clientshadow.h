// The shadow that an application draws around what the user takes for its window, inside the X window.
#pragma once

#include <QMargins>
#include <QSize>

#include <xcb/xcb.h>

#include <chrono>
#include <optional>

namespace x11 {

/// _GTK_FRAME_EXTENTS as the property holds it: left, right, top, bottom. Nothing counts when it is not set, makes no
/// sense, or is more than a shadow: at most 128 pixels a side (shadows have up to 60, on screens of high density
/// twice that), and more than half of the width and of the height has to remain. An application could otherwise take
/// out of the recording what its window shows.
QMargins clientShadow(const xcb_get_property_reply_t* property, QSize window);
QMargins boundedShadow(quint32 left, quint32 right, quint32 top, quint32 bottom, QSize window);

/// Logs that a window counts another part of itself as its shadow. At most one line a minute.
class ShadowLog {
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    static constexpr std::chrono::minutes pause{1};

    void note(const QMargins& shadow, TimePoint now);

private:
    std::optional<QMargins> last_; ///< nothing before the first image
    std::optional<TimePoint> loggedAt_;
    int unlogged_ = 0; ///< changes since then
};

}

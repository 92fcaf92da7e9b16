// PopupPainter: puts what pops out of a window into the window's images.
#pragma once

#include "platform/screen.h"
#include "popupfinder.h"
#include "sharedimages.h"
#include "x11windowimages.h"

#include <QImage>
#include <QPoint>
#include <QRegion>

#include <memory>
#include <vector>

namespace x11 {

/**
 * Menus, lists and tool tips are windows of their own. Each is read like a window that is recorded: by its own
 * pixmap, through a connection of its own, and only when it has changed. As long as there are none, samples stay as
 * they are, for one round trip each. Used from one thread at a time.
 */
class PopupPainter {
public:
    explicit PopupPainter(quint32 windowId, WindowImages::Now now = &WindowImages::Clock::now);

    /// The window's next sample; every one has to be given. unpainted: what is not shown of it, in global screen
    /// points.
    void paint(platform::WindowSample& sample, const QRegion& unpainted);

private:
    struct Reader {
        xcb_window_t window = XCB_NONE;
        std::unique_ptr<WindowImages> images;
    };

    /// What is to be seen of one popup. Pixels of the window's image.
    struct Layer {
        xcb_window_t window = XCB_NONE;
        QImage image;
        QPoint at; ///< its top left pixel
        QRegion area; ///< what of it is painted; not empty
        RowSet changedRows; ///< since the last time

        bool liesAs(const Layer& other) const
        {
            return window == other.window && at == other.at && area == other.area;
        }
    };

    void followPopups(const QRect& window, const QRegion& unpainted);
    std::vector<Layer> takeLayers(const QRect& window);
    RowSet changedRows(const platform::WindowSample& plain, const std::vector<Layer>& layers) const;
    void compose(const QImage& plain, const RowSet& rows);

    const WindowImages::Now now_;
    PopupFinder finder_;
    std::vector<Reader> readers_; // from the lowest to the topmost
    std::vector<Layer> layers_; // of the last sample with an image
    const NoMemoryWarning noMemory_{NoMemoryWarning::Missing::Popup};
    SharedImages composed_{noMemory_};
};

}

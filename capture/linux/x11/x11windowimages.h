// WindowImages: one window of an X server as images.
#pragma once

#include "clientshadow.h"
#include "platform/screen.h"
#include "sharedimages.h"
#include "unpaintedarea.h"
#include "x11connection.h"
#include "x11pixelreader.h"
#include "x11pixels.h"
#include "x11windowevents.h"

#include <QImage>
#include <QMargins>
#include <QPointF>
#include <QRect>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace x11 {

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

/// What has been reported as changed since the window was read last. Pixels of the window, without its border.
class ReportedChange {
public:
    void addAll() { all_ = true; }
    void add(const QRect& area) { area_ |= area; }
    void clear() { *this = ReportedChange(); }

    bool isEmpty() const { return !all_ && area_.isEmpty(); }
    /// As whole rows of a part of the window.
    QRect rowsOf(const QRect& part) const
    {
        return all_ ? part : part & QRect(part.left(), area_.top(), part.width(), area_.height());
    }

private:
    bool all_ = false;
    QRect area_;
};

/**
 * What platform::WindowSource promises, and in the same way to be used. Other clients of the server are not trusted:
 * only events of the server's own count, and what they destroy of ours, the connection included, is noticed and made
 * anew.
 */
class WindowImages {
public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;

    /// What is reported as unchanged, the window or the rest of it, is read again after this time, and compared:
    /// reports can fail.
    static constexpr std::chrono::seconds checkInterval{1};

    /// doubtful: pixels of the window, without its border, that are not believed to be its own before it has painted
    /// them, although they can be seen. noMemory tells of the first image that is missing for want of memory.
    explicit WindowImages(quint32 windowId, Now now = &Clock::now, QRegion doubtful = QRegion(),
        const NoMemoryWarning& noMemory = NoMemoryWarning());

    platform::WindowSample sample();

    /// What the last image of sample() does not show, as it is not painted yet. Global screen points.
    QRegion blank() const;
    /// The top left pixel inside the border, as of the last image. Global screen points.
    QPoint origin() const;
    bool isConnected() const { return connection_ && !connection_->isLost(); }
    /// The process whose window it is; 0 when it is unknown.
    qint64 clientProcessId() const { return origin_.client; }

private:
    struct Shown {
        Placement placement;
        QRegion blank; // of the window; not painted yet, and so not shown
    };

    /// Who serves the display, and whose window it is. Process ids; 0 where they are unknown.
    struct Origin {
        qint64 server = 0;
        qint64 client = 0;
        bool operator==(const Origin&) const = default;
    };

    bool connect();
    void reconnect();
    Origin findOrigin();
    bool watchWindow();
    void takeFirstReports();
    bool takeImage(platform::WindowSample& sample);
    std::optional<Placement> placement();
    void handleEvents();
    void handleEvent(const WindowEvent& event);
    void handleConfigure(const WindowEvent& event);
    bool isCurrent(const Placement& placement);
    QRegion blankArea();
    QRect areaToRead(const Placement& placement, bool current, const QRegion& unpainted) const;
    bool readImage(const Placement& placement, bool current, platform::WindowSample& sample);
    const uchar* readPixels(const Placement& placement, const QRect& area, bool& damageIsThere);
    void putPixels(const uchar* pixels, const QRect& area, const QRect& visible, const QRegion& unpainted);
    void createDamage();
    void renewDamage();
    void endCapture();

    const Now now_;
    std::unique_ptr<DisplayConnection> connection_; // null: there are no images, and no more once ended_
    std::unique_ptr<PixelReader> reader_; // uses connection_; made and ended with it
    WatchedWindow watched_;
    xcb_window_t root_ = XCB_NONE; // of the window's screen
    PixelLayout layout_;
    xcb_atom_t frameExtents_ = XCB_NONE;
    xcb_pixmap_t pixmapId_ = XCB_NONE; // free between two images
    bool keepsPixels_ = false; // the window does, when its size changes
    ReportedChange changed_; // since shown_ was read
    bool gone_ = false;
    bool ended_ = false;
    bool cutLogged_ = false;
    Origin origin_;
    std::optional<Clock::time_point> failedAt_; // to connect again, last
    int pixmapsSeen_ = 0; // grows when the window may have been given a new pixmap
    UnpaintedArea unpainted_;
    QRegion doubtful_; // until the first reports of the window are taken
    ShadowLog shadowLog_;
    Clock::time_point readAt_; // shown_, or a part of it
    Clock::time_point wholeReadAt_; // all of it
    SharedImages images_;
    std::optional<Shown> shown_; // what the last image of images_ shows; nothing when there is none now
    std::optional<QPointF> pointer_; // asked for together with the placement
};

}

// MacWindowCapture: the window id of the command line as a source of window images, whatever the platform
// below (platform/screen.h) is.
#pragma once

#include "rowset.h"
#include "sharedimages.h"

#include <QImage>
#include <QPointF>
#include <QRect>
#include <QString>

#include <memory>
#include <optional>

namespace platform {
struct WindowSample;
}

class WindowSampling;

/// What the window showed at one moment.
struct CapturedWindow {
    /// QImage::Format_ARGB32 (straight alpha); null when there is no image.
    QImage image;
    bool opaque = false; ///< every alpha value of the image is 0xff
    /// Grows by one with each image that differs from the one before, never 0 with an image.
    qint64 version = 0;
    RowSet changedRows; ///< of the image; all others are as in the version before
    qint64 ownBytes = 0; ///< memory that the version before does not hold, too
    /// The window's rectangle in global screen points, or the image's own rectangle in pixels when the window's
    /// cannot be told. Invalid when it was not asked for.
    QRect bounds;
    std::optional<QPointF> pointer; ///< global screen points; nothing when the system does not say
};

/**
 * Parses the window id, makes sure that windows may be captured, and grabs one image a call.
 * Made on the main thread; captures belong to the recording worker. Usable for its
 * whole life or never: nothing is parsed or asked for again.
 */
class MacWindowCapture {
public:
    /// windowId is decimal text; a number above 32 bits is truncated to its low 32 bits. What fails is logged
    /// and leaves the object invalid.
    explicit MacWindowCapture(const QString& windowId);
    ~MacWindowCapture();
    MacWindowCapture(const MacWindowCapture&) = delete;
    MacWindowCapture& operator=(const MacWindowCapture&) = delete;

    /// The id was a number other than 0 and the permission is held.
    bool isValid() const { return valid; }

    /// The window now, or nothing in it: invalid object, window gone or not showing (a warning, the first time only),
    /// no memory (the same), an image without pixels or that cannot be drawn, a system that does not answer in time
    /// (no warning). Images of successive calls share the memory of what did not change. The bounds are only asked
    /// for when they are wanted.
    CapturedWindow captureWindow(bool withBounds = true) const;

    /// The image of captureWindow(). When bounds is given and an image is returned, it receives the bounds; otherwise
    /// it is left alone.
    QImage capture(QRect* bounds) const;

private:
    bool ensureAccess();
    void warnOfNoImage(const platform::WindowSample& sample) const;
    void warnOfEmptyImages() const;
    bool takeImage(const platform::WindowSample& sample) const;
    SharedImages::Image straightened(const platform::WindowSample& sample, const RowSet& rows) const;

    quint32 windowId = 0; ///< the system's id of the window; 0 until configured
    bool valid = false;
    mutable bool warnedNoImage = false; ///< worker thread; the warning was given, never cleared
    mutable int emptyImages = 0; ///< worker thread; so far, no more are counted once they are told of or one is not

    std::unique_ptr<WindowSampling> sampling; ///< null while invalid
    mutable CapturedWindow last; ///< worker thread; without bounds and pointer. A null image: what comes is all new
    mutable SharedImages straightImages; ///< worker thread; of translucent windows
};

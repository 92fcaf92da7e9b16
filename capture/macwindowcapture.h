// MacWindowCapture: the window id of the command line as a source of window images, whatever the platform
// below (platform/screen.h) is.
#pragma once

#include <QImage>
#include <QPointF>
#include <QRect>
#include <QString>

#include <memory>
#include <optional>

namespace platform {
class WindowSource;
}

/**
 * Parses the window id, makes sure that windows may be captured, and grabs one image a call.
 * Made on the main thread; capture() and pointerLocation() belong to the recording worker. Usable for its
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

    /**
     * The window's pixels in QImage::Format_ARGB32 (straight alpha), or a null image: invalid object, window
     * gone or not showing (a warning, the first time only), an image without pixels or that cannot be drawn (no
     * warning). Images of an unchanged window share their pixels. When bounds is given and an image is returned,
     * it receives the window's rectangle in global screen points, or the image's own rectangle in pixels when the
     * window's cannot be told; otherwise it is left alone.
     */
    QImage capture(QRect* bounds) const;

    /// Whether every alpha value of the image that was returned last is 0xff. Belongs to the recording worker.
    bool isOpaque() const { return lastIsOpaque; }

    /// The mouse pointer in global screen points, or nothing when the system does not say.
    std::optional<QPointF> pointerLocation() const;

private:
    bool ensureAccess();

    quint32 windowId = 0; ///< the system's id of the window; 0 until configured
    bool valid = false;
    mutable bool warnedNoImage = false; ///< worker thread; the warning was given, never cleared

    std::unique_ptr<platform::WindowSource> source; ///< null while invalid
    mutable qint64 lastSourceKey = 0; ///< worker thread; cacheKey() of the last image of the source; 0 is no image
    mutable QImage lastImage; ///< worker thread; that image as it was returned
    mutable bool lastIsOpaque = false; ///< worker thread; of that image
};

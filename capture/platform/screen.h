// The seam between the window capture and the operating system's screen. Each platform folder
// (capture/linux, ...) defines all of it; which one is used is decided at link time. An adapter holds no rule:
// parsing, rounding, fallbacks and warnings live in macwindowcapture.cpp.
#pragma once

#include <QImage>
#include <QPointF>
#include <QRectF>

#include <memory>
#include <optional>

namespace platform {

/// Whether windows can be captured now; shows no dialog. Any thread.
bool preflightScreenCaptureAccess();

/// Asks for the permission to capture windows (may show a dialog of the system) and tells whether it is held.
bool requestScreenCaptureAccess();

/**
 * One window of another application, by its system-wide id. Opening never fails: a window that does not exist, or
 * a display that cannot be reached, gives null images. Made on one thread, then used from one thread at a time.
 * Everything that was obtained from the system is released by the destructor.
 */
class WindowSource {
public:
    explicit WindowSource(quint32 windowId);
    ~WindowSource();
    WindowSource(const WindowSource&) = delete;
    WindowSource& operator=(const WindowSource&) = delete;

    /**
     * The window's pixels now, in image pixels, without frame effects such as shadows; null when there is no image
     * (no such window, minimised, display lost). The format is QImage::Format_ARGB32_Premultiplied, or
     * QImage::Format_RGB32 with 0xff in every top byte when the window has no alpha channel.
     * When nothing changed since the last call, an image that shares its pixels with the last one is returned
     * (equal QImage::cacheKey()).
     */
    QImage image();

    /// Whether the last image() was null although the system had an image: one without pixels, or one that it could
    /// not draw.
    bool imageWasUnusable() const;

    /// The rectangle of that image in global screen points (origin top left of the main display, y down), or nothing
    /// when it cannot be told. Call it after image(): both describe the same moment as closely as the system allows.
    std::optional<QRectF> bounds();

    /// The mouse pointer in global screen points, or nothing when it cannot be told.
    std::optional<QPointF> pointerLocation();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}

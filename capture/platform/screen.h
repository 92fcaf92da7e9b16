// The seam between the window capture and the operating system's screen. Each platform folder
// (capture/linux, ...) defines all of it; which one is used is decided at link time. An adapter holds no rule:
// parsing, rounding, fallbacks and warnings live in macwindowcapture.cpp.
#pragma once

#include "rowset.h"

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

/// After a refusal: has the system name the program where its user can give the permission later, if it has such a
/// place and does not do so by itself. Takes seconds at most.
void enrolForScreenCapture();

/// What a window shows at one moment.
struct WindowSample {
    /// The window's pixels, without frame effects such as shadows; null when there is no image (no such window,
    /// minimised, display lost). QImage::Format_ARGB32_Premultiplied, or QImage::Format_RGB32 with 0xff in every top
    /// byte when the window has no alpha channel. It stays as it is, whatever happens to the source.
    QImage image;

    /// Rows of the image that may differ from the last sample of the source that had one. All others do not, and when
    /// there are none, it is that sample's image (equal QImage::cacheKey()).
    RowSet changedRows;

    /// Bytes that the image takes beside that last one.
    qint64 ownBytes = 0;

    /// The image is null although the system had one: without pixels, or one that could not be drawn.
    bool unusable = false;

    /// The rectangle of the image in global screen points (origin top left of the main display, y down), or nothing
    /// when it cannot be told. It describes the same moment as closely as the system allows.
    std::optional<QRectF> bounds;

    /// The mouse pointer in global screen points, or nothing when it cannot be told.
    std::optional<QPointF> pointer;
};

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

    /// What the window shows now. Bounds cost a question to some systems: withBounds tells whether they are wanted.
    /// Without an image there are no bounds.
    WindowSample sample(bool withBounds);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}

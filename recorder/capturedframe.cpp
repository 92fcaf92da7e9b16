// One sample of the window: image, bounds, time and pointer. Worker thread.
#include "gstrecorder.h"

#include "macwindowcapture.h"

#include <QDateTime>

GstRecorder::CapturedFrame GstRecorder::captureWindowFrame() const
{
    CapturedFrame frame;
    if (!windowCapture)
        return frame;
    QRect bounds;
    QImage image = windowCapture->capture(&bounds);
    if (image.isNull() || !bounds.isValid())
        return frame;

    frame.image = std::move(image);
    frame.opaque = windowCapture->isOpaque();
    frame.windowBounds = bounds;
    frame.capturedAtMs = QDateTime::currentMSecsSinceEpoch();
    if (const auto pointer = windowCapture->pointerLocation()) {
        frame.cursorX = pointer->x();
        frame.cursorY = pointer->y();
        frame.hasCursor = true;
    }
    return frame;
}

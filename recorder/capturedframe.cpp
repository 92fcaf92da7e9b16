// One sample of the window: image, bounds, time and pointer. Worker thread.
#include "gstrecorder.h"

#include "macwindowcapture.h"

#include <QDateTime>

GstRecorder::CapturedFrame GstRecorder::captureWindowFrame() const
{
    CapturedFrame frame;
    if (!windowCapture)
        return frame;
    CapturedWindow captured = windowCapture->captureWindow();
    if (captured.image.isNull() || !captured.bounds.isValid())
        return frame;

    frame.image = std::move(captured.image);
    frame.imageVersion = captured.version;
    frame.changedRows = captured.changedRows;
    frame.ownBytes = captured.ownBytes;
    frame.opaque = captured.opaque;
    frame.windowBounds = captured.bounds;
    frame.capturedAtMs = QDateTime::currentMSecsSinceEpoch();
    if (captured.pointer) {
        frame.cursorX = captured.pointer->x();
        frame.cursorY = captured.pointer->y();
        frame.hasCursor = true;
    }
    return frame;
}

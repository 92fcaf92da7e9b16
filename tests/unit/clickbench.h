// ClickBench: a recorder that takes clicks and composes frames when the test asks for it.
#pragma once

#include "recorderbench.h"

#include <limits>

inline constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();

/// A black window in pixels that are its points, drawn 1:1 on the canvas of a recorder with ordinary arguments.
inline RecorderProbe::CapturedFrame blackFrame()
{
    RecorderProbe::CapturedFrame frame;
    frame.image = QImage(160, 96, QImage::Format_ARGB32);
    frame.image.fill(Qt::black);
    frame.windowBounds = QRect(0, 0, 160, 96);
    return frame;
}

/// Make a PrivateTempDir before it.
struct ClickBench : RecorderBench {
    RecorderProbe probe() { return RecorderProbe(*recorder); }

    void startRecordingAt(qint64 wallClockMs)
    {
        probe().recordingClock().start();
        probe().recordingStartedAtMs().store(wallClockMs);
    }

    QList<qint64> keys() { return probe().clicks().keys(); }

    std::unique_ptr<GstRecorder> recorder = makeIdleRecorder(); ///< destroyed before the launcher and the log
};

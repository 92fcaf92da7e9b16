// What the measuring programs share: a recorder whose stages can be called one by one, and frames to call them
// with.
#pragma once

#include "recorderprobe.h"
#include "truthscene.h"

#include <QImage>
#include <QList>
#include <QSize>

#include <memory>
#include <optional>

/// A recorder without a window: its worker has ended, so that the caller may do what the worker does. Its output lies
/// in a private directory that is removed with it. Make it on the thread that uses it.
class BenchRecorder {
public:
    /// canvas in pixels.
    explicit BenchRecorder(QSize canvas);
    BenchRecorder(const BenchRecorder&) = delete;
    BenchRecorder& operator=(const BenchRecorder&) = delete;

    RecorderProbe& probe() { return probe_; }

    /// Opens the output as a recording does; false after a line in the log.
    bool openOutput() { return probe_.openOutput(); }
    /// Opens the lossless output that a recording falls back to when there is no preferred encoder.
    bool openFallbackOutput();

private:
    PrivateTempDir directory_; // first: the server and the recorder meet in it
    LauncherServer launcher_;
    std::unique_ptr<GstRecorder> recorder_; // never null
    RecorderProbe probe_;
};

/// The recording time of a frame when none is missed, milliseconds.
qint64 frameTimeMs(int frameIndex);

/// Paints what a recording of the truth window shows at successive frames.
class WindowImages {
public:
    /// repaintsPerSecond 0: the window never changes. presented: how much a painting changes; without it the top
    /// band.
    WindowImages(QSize window, int repaintsPerSecond, std::optional<truthscene::Presented> presented = std::nullopt);

    /// The window at that frame, in QImage::Format_ARGB32 as the capture delivers it.
    QImage at(int frameIndex);

private:
    QImage painting_; ///< QImage::Format_RGB32
    int repaintsPerSecond_;
    std::optional<truthscene::Presented> presented_;
};

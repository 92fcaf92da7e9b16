// RecorderBench: what a recorder under test needs around it, and makers of recorders.
#pragma once

#include "fakeplatform.h"
#include "launcherserver.h"
#include "logcapture.h"
#include "recorderprobe.h"

#include <QTest>
#include <QThreadPool>

#include <memory>

/// The command line's values, filled with ones that work. Window "42" is the fake's, "0" none.
struct RecorderArguments {
    QString command = QStringLiteral("qt-window-capture");
    QString output;
    QString window = QStringLiteral("42");
    int screenOriginX = 0;
    int screenOriginY = 0;
    double canvasWidth = 160;
    double canvasHeight = 96;
    double scale = 1.0;
    QString audioSource;
};

/// With a worker thread that is new, as in a process that makes one recorder: the threads of earlier ones end first,
/// unless they are still busy after the limit.
inline std::unique_ptr<GstRecorder> makeRecorder(const RecorderArguments& arguments)
{
    constexpr int limitMs = 200;
    QThreadPool::globalInstance()->waitForDone(limitMs);
    return std::make_unique<GstRecorder>(arguments.command, arguments.output, arguments.window,
        arguments.screenOriginX, arguments.screenOriginY, arguments.canvasWidth, arguments.canvasHeight,
        arguments.scale, arguments.audioSource, nullptr);
}

/// A reset fake platform, a launcher that listens, and a log. Make a PrivateTempDir before it, and destroy recorders
/// before it.
struct RecorderBench {
    RecorderBench() { fakeplatform::reset(); }

    /// A recorder without a window: its worker has ended and it has no file, so that the test's own thread may use
    /// every part of it. Its lines are cleared from the log.
    std::unique_ptr<GstRecorder> makeIdleRecorder(RecorderArguments arguments = {})
    {
        arguments.window = QStringLiteral("0");
        auto recorder = makeRecorder(arguments);
        RecorderProbe(*recorder).waitForWorker();
        log.clear();
        return recorder;
    }

    LogCapture log;
    LauncherServer launcher;
};

/// What stop() answers, and what it logs.
inline QByteArray durationReply(quint32 durationMs)
{
    return "{\"duration\":" + QByteArray::number(durationMs) + "}\n";
}
inline QString stoppedLine(quint32 durationMs)
{
    return QStringLiteral("FFmpeg recorder stopped, duration %1").arg(durationMs);
}

/// A message handler for floods that a LogCapture need not keep.
inline void dropMessage(QtMsgType, const QMessageLogContext&, const QString&) { }

/// Bound of waits for conditions that hold within milliseconds on an idle machine.
inline constexpr int patienceMs = 20000;

// The life of a recording: construction, stop, end. Main thread.
#include "gstrecorder.h"

#include "macwindowcapture.h"
#include "recorderaudiocapture.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDebug>
#include <QThread>
#include <QThreadPool>
#include <QTimer>
#include <QtConcurrent/QtConcurrentRun>

using namespace std::chrono_literals;

namespace {

constexpr int captureSetupFailedExitCode = 2;
constexpr auto stopRetryDelay = 10ms;

}

GstRecorder::GstRecorder(const QString& commandText, const QString& output, const QString& windowText,
    const int& originX, const int& originY, const double& width, const double& height, const double& scaleFactor,
    const QString& audioSourceText, QObject* parent)
    : QObject(parent), outputPath(normalizedOutputPath(output)), command(commandText.trimmed()), window(windowText),
      canvasWidth(normalizedCanvasSize(width)), canvasHeight(normalizedCanvasSize(height)), screenOriginX(originX),
      screenOriginY(originY), scale(scaleFactor), audioSource(audioSourceText.trimmed())
{
    connect(this, &GstRecorder::frameCome, this, &GstRecorder::onFrameCome);

    qDebug() << "FFmpeg recorder starting"
             << "command" << command << "window" << window << "output" << outputPath << "canvas" << canvasWidth
             << canvasHeight << "screen origin" << screenOriginX << screenOriginY << "scale" << scale;

    connectControlSocket();

    if (command.compare(QLatin1String("qt-window-capture"), Qt::CaseInsensitive) != 0) {
        qWarning() << "macOS recorder uses CoreGraphics window capture; requested command" << command
                   << "will use CoreGraphics window capture.";
    }
    openWindowCapture();

    // Also without a window capture: the worker says so in the log and sets the flags that stop() waits for.
    worker = QtConcurrent::run(QThreadPool::globalInstance(), [this] { runRecordingLoop(); });
}

GstRecorder::~GstRecorder()
{
    stopRequested.store(true, std::memory_order_release);
    worker.waitForFinished();
    closeOutput();
    delete windowCapture;
    audioCapture.reset();
}

void GstRecorder::openWindowCapture()
{
    windowCapture = new MacWindowCapture(window);
    if (windowCapture->isValid())
        return;
    qWarning() << "macOS CoreGraphics window capture setup failed.";
    delete windowCapture;
    windowCapture = nullptr;
    QTimer::singleShot(0ms, QCoreApplication::instance(), [] { QCoreApplication::exit(captureSetupFailedExitCode); });
}

void GstRecorder::stop()
{
    stopRequested.store(true, std::memory_order_release);
    if (!workerStarted.load(std::memory_order_acquire)) {
        qDebug() << "FFmpeg recorder stop requested before worker started; deferring stop acknowledgement.";
        retryStopLater();
        return;
    }
    worker.waitForFinished();
    if (!finalized.load(std::memory_order_acquire)) {
        qDebug() << "FFmpeg recorder stop requested before finalization completed; deferring stop "
                    "acknowledgement.";
        retryStopLater();
        return;
    }
    if (stopAcknowledged)
        return;
    stopAcknowledged = true;
    qDebug() << "FFmpeg recorder stopped, duration" << durationMs;
    sendDuration();
}

void GstRecorder::retryStopLater()
{
    QTimer::singleShot(stopRetryDelay, this, [this] { stop(); });
}

bool GstRecorder::finishRecording(std::chrono::milliseconds limit)
{
    stopRequested.store(true, std::memory_order_release);
    const auto over = [this] { return finalized.load(std::memory_order_acquire) && worker.isFinished(); };
    for (const QDeadlineTimer deadline(limit); !over(); QThread::msleep(5)) {
        if (deadline.hasExpired())
            return false;
    }
    closeOutput();
    return true;
}

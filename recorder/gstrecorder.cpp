// The life of a recording: construction, stop, end. Main thread.
#include "gstrecorder.h"

#include "macwindowcapture.h"
#include "recorderaudiocapture.h"

#include <QCoreApplication>
#include <QDebug>
#include <QThread>
#include <QThreadPool>
#include <QTimer>
#include <QtConcurrent/QtConcurrentRun>

#include <chrono>
#include <system_error>
#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr int captureSetupFailedExitCode = 2;
constexpr auto stopRetryDelay = 10ms;
constexpr auto stopPatience = 5s; // the end of an ordinary recording, and some
constexpr ulong workerPollMs = 1;

bool systemHasThread()
{
    try {
        std::thread([] {}).join();
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

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

    startWorker();
}

GstRecorder::~GstRecorder()
{
    endRecording(QDeadlineTimer::Forever); // what the worker uses cannot go before it
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

/// Also without a window capture: the worker says so in the log and sets the flags that stop() waits for. A pool
/// whose thread the system refuses keeps the task for ever without a word.
void GstRecorder::startWorker()
{
    if (systemHasThread()) {
        worker = QtConcurrent::run(QThreadPool::globalInstance(), [this] { runRecordingLoop(); });
        return;
    }
    qCritical() << "No thread for the recording; nothing is recorded.";
    workerStarted.store(true, std::memory_order_release);
    finalized.store(true, std::memory_order_release);
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
    if (!endRecording(stopWaited ? 0s : stopPatience)) {
        if (!stopWaited)
            qWarning() << "Recorder worker still writes the output; the stop is acknowledged when it has ended.";
        stopWaited = true;
        retryStopLater();
        return;
    }
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
    if (stopRetryPending)
        return;
    stopRetryPending = true;
    QTimer::singleShot(stopRetryDelay, this, [this] {
        stopRetryPending = false;
        stop();
    });
}

bool GstRecorder::finishRecording(QDeadlineTimer deadline)
{
    if (!endRecording(deadline))
        return false;
    if (stopRetryPending) // no event loop runs the retry any more
        stop();
    return true;
}

/// The one way to the end of the worker: every caller requests it, waits as long as it can afford, and closes what
/// the worker left open.
bool GstRecorder::endRecording(QDeadlineTimer deadline)
{
    stopRequested.store(true, std::memory_order_release);
    if (deadline.isForever())
        worker.waitForFinished(); // runs the worker here when no thread was free for it
    while (!worker.isFinished()) {
        if (deadline.hasExpired())
            return false;
        QThread::msleep(workerPollMs);
    }
    if (finalized.load(std::memory_order_acquire)) // which also shows this thread what the worker wrote
        closeOutput();
    return true;
}

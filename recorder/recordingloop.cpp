// The worker's loop: pacing, warm-up, readiness, delay queue, the turns of the audio, and the end of the recording.
// Worker thread.
#include "gstrecorder.h"

#include "macwindowcapture.h"
#include "pacing.h"
#include "platform/application.h"
#include "queuelimit.h"
#include "recorderaudiocapture.h"

#include <QDebug>
#include <QScopeGuard>
#include <QThread>

#include <algorithm>
#include <exception>
#include <limits>
#include <new>
#include <utility>

using namespace pacing;

/// What lives as long as the loop. Times are milliseconds on the loop timer.
struct GstRecorder::LoopState {
    QElapsedTimer timer; ///< started when the output is open
    qint64 nextDueMs = 0;
    int warmupLeft = warmupCaptures;
    bool warmupLogged = false;
    QElapsedTimer settle; ///< started at the first image
    QElapsedTimer ready; ///< started when readiness is announced
    QList<QueuedFrame> queue; ///< first in, first out
    qint64 lastElapsedMs = -1; ///< recording time of the newest queued frame; -1 before the first
    QElapsedTimer limitAge; ///< started when queueLimitBytes was found
    qint64 queueLimitBytes = 0;
    bool queueLimitLogged = false;

    void advance(qint64 nowMs) { nextDueMs = nextDue(nextDueMs, nowMs); }
};

void GstRecorder::runRecordingLoop()
{
    workerStarted.store(true, std::memory_order_release);
    const auto end = qScopeGuard([this] { finalized.store(true, std::memory_order_release); });
    if (!windowCapture || !windowCapture->isValid()) {
        qCritical() << "macOS window capture is not available.";
        return;
    }
    bool open = false;
    attempt([&] { open = openOutput(); });
    if (!open)
        return;
    LoopState loop;
    loop.timer.start();
    setClock(false);
    attempt([&] { loop.queue.reserve(queueReserve); });
    while (!stopRequested.load(std::memory_order_acquire)) {
        if (!attempt([&] { takePass(loop); }))
            waitWithoutImage(loop);
    }
    finalizeRecording(loop);
}

/// Runs a step. What it throws, for want of memory mostly, ends that step, which is false, and not the recording.
bool GstRecorder::attempt(const std::function<void()>& step)
{
    try {
        step();
        return true;
    } catch (const std::exception& error) {
        logException(error.what());
    } catch (...) {
        logException("unknown");
    }
    return false;
}

/// Once: one that comes with every frame would fill the log.
void GstRecorder::logException(const char* what)
{
    if (exceptionLogged)
        return;
    try {
        qCritical() << "Recorder worker was interrupted by an exception:" << what;
        exceptionLogged = true;
    } catch (const std::bad_alloc&) { // the next one may find the memory for the line
    }
}

void GstRecorder::takePass(LoopState& loop)
{
    const qint64 nowMs = loop.timer.elapsed();
    if (nowMs < loop.nextDueMs) {
        useIdleTime(loop, nowMs);
        return;
    }
    CapturedFrame frame = captureWindowFrame();
    if (frame.image.isNull()) {
        waitWithoutImage(loop);
        return;
    }
    if (!loop.settle.isValid())
        loop.settle.start();
    if (!warmingUp(loop) && !waitingAfterReadiness(loop, frame))
        recordFrame(loop, std::move(frame));
    loop.advance(nowMs);
}

/// The encoder that was busy may have caught up. What is begun here can make the next capture late by half an
/// interval, which is still in its slot.
void GstRecorder::useIdleTime(LoopState& loop, qint64 nowMs)
{
    if (frameSending.isDone())
        collectEncoded();
    takeAudio();
    const qint64 sleepMs = idleSleep(loop.nextDueMs, nowMs);
    if (sleepMs >= longestIdleSleepMs && recordingClock.isValid() && sendPreparedIfFree()
        && drainNext(loop.queue, recordingClock.elapsed() - holdMs))
        return;
    if (preparedMs && frameSending.isUnderWay())
        frameSending.waitFor(std::chrono::milliseconds(sleepMs));
    else
        QThread::msleep(ulong(sleepMs));
}

/// What has been held long enough is written also while nothing new comes: a window may be hidden for hours.
void GstRecorder::waitWithoutImage(LoopState& loop)
{
    takeAudio();
    if (recordingClock.isValid())
        attempt([&] { drainDue(loop.queue, recordingClock.elapsed()); });
    if (frameSending.isDone())
        attempt([this] { collectEncoded(); });
    QThread::msleep(ulong(sleepAfterNoImageMs));
}

bool GstRecorder::warmingUp(LoopState& loop) const
{
    if (loop.warmupLeft <= 0 && loop.settle.elapsed() >= settleMs)
        return false;
    if (!loop.warmupLogged) {
        loop.warmupLogged = true;
        qDebug() << "Skipping initial window capture warmup frames"
                 << "frames" << warmupCaptures << "settle ms" << settleMs;
    }
    loop.warmupLeft = std::max(loop.warmupLeft - 1, 0);
    return true;
}

bool GstRecorder::waitingAfterReadiness(LoopState& loop, const CapturedFrame& frame)
{
    if (!frameComeSent.load(std::memory_order_acquire)) {
        announceFrameCome();
        loop.ready.start();
        rehearse(frame);
        qDebug() << "Recorder ready; delaying first encoded frame" << readyDelayMs << "ms";
        return true;
    }
    return loop.ready.isValid() && loop.ready.elapsed() < readyDelayMs;
}

/// The first frame costs several times what later ones do: its memory was never touched. Without this that time
/// falls into the recording, when the delay queue begins to drain. Canvas and encoder's frame keep their memory.
void GstRecorder::rehearse(const CapturedFrame& frame)
{
    CapturedFrame rehearsed = frame;
    letterbox(rehearsed);
    const QImage composed = composeFrame(rehearsed, 0);
    if (!composed.isNull())
        fillVideoFrame(composed);
}

/// Without memory for it, which throws, it is still to be announced.
void GstRecorder::announceFrameCome()
{
    if (frameComeSent.exchange(true, std::memory_order_acq_rel))
        return;
    auto failure = qScopeGuard([this] { frameComeSent.store(false, std::memory_order_release); });
    Q_EMIT frameCome();
    failure.dismiss();
}

void GstRecorder::recordFrame(LoopState& loop, CapturedFrame&& frame)
{
    if (!recordingClock.isValid()) {
        setClock(true);
        startAudio();
    }
    followWallClock();
    takeAudio();
    // The capture after one that stalled comes at once, maybe in the same millisecond; the encoder refuses a time
    // that does not rise, and the frame would be lost.
    const qint64 elapsedMs = std::max(recordingClock.elapsed(), loop.lastElapsedMs + 1);
    loop.lastElapsedMs = elapsedMs;
    letterbox(frame);
    loop.queue.append({std::move(frame), elapsedMs});
    drainDue(loop.queue, elapsedMs);
    boundQueue(loop);
    takeAudio();
}

/// A huge window that moves would otherwise fill the memory of the machine within the three seconds, and whoever is
/// killed for that, the evidence would end there. The newest frame stays.
void GstRecorder::boundQueue(LoopState& loop)
{
    const qint64 bytes = queuelimit::bytesOf(loop.queue);
    if (!loop.limitAge.isValid() || loop.limitAge.hasExpired(queuelimit::checkIntervalMs)) {
        loop.queueLimitBytes = queuelimit::largest(platform::availableMemory(), bytes);
        loop.limitAge.start();
    }
    if (bytes <= loop.queueLimitBytes)
        return;
    if (!std::exchange(loop.queueLimitLogged, true)) {
        qWarning() << "Recorder composes frames early for want of memory; late mouse clicks can miss them: MiB"
                   << (bytes >> 20) << "limit" << (loop.queueLimitBytes >> 20);
    }
    while (loop.queue.size() > 1 && queuelimit::bytesOf(loop.queue) > loop.queueLimitBytes)
        drainQueue(loop.queue, loop.queue.constFirst().elapsedMs, false);
}

/// Under the lock of addClick(), which reads the clock on its own thread.
void GstRecorder::setClock(bool runs)
{
    const CheckedLock lock(clickMutex);
    if (!runs) {
        recordingClock.invalidate();
        return;
    }
    constexpr qint64 longestReadingMs = 20; // between the two clocks this thread may have been stopped
    qint64 startedAtMs = 0;
    for (int tries = 0; tries < 5 && (tries == 0 || recordingClock.elapsed() > longestReadingMs); ++tries) {
        recordingClock.start();
        startedAtMs = wallClock.now();
    }
    recordingStartedAtMs.store(startedAtMs, std::memory_order_release);
    wallClock.start(startedAtMs);
}

/// Audio begins with the recording clock: its first sample belongs to the first recorded frame.
void GstRecorder::startAudio()
{
    if (!audioCapture || !audioCapture->isValid())
        return;
    attempt([this] { audioStarted = audioCapture->start(); });
    if (audioStarted)
        return;
    qWarning() << "Audio capture did not start; recording video only.";
    abandonAudio();
}

/// What fails costs audio, never video.
void GstRecorder::takeAudio(bool last)
{
    if (audioStarted)
        attempt([&] { encodePendingAudio(last); });
}

/// After a stall many frames are due at once. They are worked off beside the captures that follow: all in one go, the
/// work would be the next stall. Nor is the encoder waited for, which takes several intervals for a frame now and
/// then (for a key frame that does not fit its buffer), as long as what is late does not fill the memory.
void GstRecorder::drainDue(QList<QueuedFrame>& queue, qint64 elapsedMs)
{
    const qint64 limitMs = elapsedMs - holdMs;
    const bool waits = queuelimit::isTooLate(queue, limitMs);
    for (int frames = 0; frames < mostFramesAPass; ++frames) {
        if (waits)
            sendPrepared();
        if (!sendPreparedIfFree() || !drainNext(queue, limitMs))
            return;
    }
    sendPreparedIfFree();
}

/// Prepares the first frame for the encoder, when it is due. False when none is.
bool GstRecorder::drainNext(QList<QueuedFrame>& queue, qint64 limitMs)
{
    if (queue.isEmpty() || queue.constFirst().elapsedMs > limitMs)
        return false;
    // At the end there are no captures beside conversion and encoder: each has its processor, and needs no help.
    const bool onlyDrains = stopRequested.load(std::memory_order_acquire);
    isBehind = !onlyDrains && queue.size() > 1 && queue.at(1).elapsedMs <= limitMs;
    const QueuedFrame queued = queue.takeFirst();
    const QImage composed = composeFrame(queued.frame, queued.elapsedMs);
    if (composed.isNull())
        noMemory.give();
    else
        prepareFrame(composed, queued.elapsedMs); // counted when it is collected
    return true;
}

void GstRecorder::drainQueue(QList<QueuedFrame>& queue, long long limitMs, bool flushAll)
{
    while (drainNext(queue, flushAll ? std::numeric_limits<qint64>::max() : limitMs))
        sendPrepared();
}

void GstRecorder::finalizeRecording(LoopState& loop)
{
    durationMs = recordingClock.isValid() ? quint32(recordingClock.elapsed()) : 0;
    takeAudio(true);
    while (!loop.queue.isEmpty())
        attempt([&] { drainQueue(loop.queue, std::numeric_limits<qint64>::max(), true); });
    attempt([this] { sendPrepared(); });
    attempt([this] { collectEncoded(); });
    if (encodedFrameCount == 0)
        attempt([this] { encodeBlackFrame(); });
    attempt([this] { stopAudioCapture(); });
    attempt([this] { drainAudioEncoder(); });
    attempt([this] { drainEncoder(); });
    closeOutput();
    finalized.store(true, std::memory_order_release);
    qDebug() << "FFmpeg recorder finalized output" << outputPath << "duration" << durationMs;
}

void GstRecorder::encodeBlackFrame()
{
    QImage black(canvasWidth, canvasHeight, QImage::Format_ARGB32);
    black.fill(Qt::black);
    if (!encodeImage(black, 0))
        return;
    ++encodedFrameCount;
    durationMs = std::max(durationMs, blackFrameDurationMs);
    announceFrameCome();
}

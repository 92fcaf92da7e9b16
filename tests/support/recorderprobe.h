// RecorderProbe: the private side of GstRecorder, for tests. Header only; include it where the recorder is linked.
#pragma once

#include "gstrecorder.h"
#include "launcherserver.h"
#include "macwindowcapture.h"
#include "privatetempdir.h"
#include "recorderaudiocapture.h"

/// Each accessor has the name of its member. The member's thread rule holds: use what the worker owns only when the
/// worker has finished.
struct RecorderProbe {
    explicit RecorderProbe(GstRecorder& recorderToOpen) : recorder(recorderToOpen) { }

    using CapturedFrame = GstRecorder::CapturedFrame;
    using QueuedFrame = GstRecorder::QueuedFrame;
    using MouseClick = GstRecorder::MouseClick;

    bool serverIsOurs() { return recorder.serverIsOurs(); }
    CapturedFrame captureWindowFrame() { return recorder.captureWindowFrame(); }
    QImage composeFrame(const CapturedFrame& frame, long long timestampMs)
    {
        return recorder.composeFrame(frame, timestampMs);
    }
    void letterbox(CapturedFrame& frame) { recorder.letterbox(frame); }
    void rehearse(const CapturedFrame& frame) { recorder.rehearse(frame); }
    void drainQueue(QList<QueuedFrame>& queue, long long limitMs, bool flushAll)
    {
        recorder.drainQueue(queue, limitMs, flushAll);
        recorder.collectEncoded();
    }
    void drainDue(QList<QueuedFrame>& queue, qint64 elapsedMs) { recorder.drainDue(queue, elapsedMs); }
    bool prepareFrame(const QImage& image, long long ptsMs) { return recorder.prepareFrame(image, ptsMs); }
    bool sendPreparedIfFree() { return recorder.sendPreparedIfFree(); }
    void collectEncoded() { recorder.collectEncoded(); }
    void sendPrepared()
    {
        recorder.sendPrepared();
        recorder.collectEncoded();
    }
    QString normalizedOutputPath(const QString& path) { return recorder.normalizedOutputPath(path); }
    bool openOutput() { return recorder.openOutput(); }
    bool tryVideoEncoder(const QString& name) { return recorder.tryVideoEncoder(name); }
    bool allocateContainer() { return recorder.allocateContainer(); }
    bool openFallbackVideoEncoder() { return recorder.openFallbackVideoEncoder(); }
    bool createVideoStream() { return recorder.createVideoStream(); }
    bool openFileAndWriteHeader() { return recorder.openFileAndWriteHeader(); }
    bool allocateVideoFrame() { return recorder.allocateVideoFrame(); }
    bool transferPixels(const QImage& image)
    {
        return recorder.transferPixels(image, RowSet(0, recorder.canvasHeight));
    }
    bool& isBehind() { return recorder.isBehind; }
    bool transferRows(const QImage& image, const RowSet& rows) { return recorder.transferPixels(image, rows); }
    bool encodeImage(const QImage& image, long long ptsMs) { return recorder.encodeImage(image, ptsMs); }
    bool drainEncoder() { return recorder.drainEncoder(); }
    bool openAudioOutput() { return recorder.openAudioOutput(); }
    bool encodePendingAudio(bool last = false) { return recorder.encodePendingAudio(last); }
    bool padAudioToElapsedClock(qint64 elapsedMs) { return recorder.padAudioToElapsedClock(elapsedMs); }
    bool padAudioFifoWithSilence(int samples) { return recorder.padAudioFifoWithSilence(samples); }
    bool encodeAudioSamples(int samples) { return recorder.encodeAudioSamples(samples); }
    bool drainAudioEncoder() { return recorder.drainAudioEncoder(); }
    void stopAudioCapture() { recorder.stopAudioCapture(); }
    void closeOutput() { recorder.closeOutput(); }
    void waitForWorker() { recorder.worker.waitForFinished(); }
    void forgetClicks()
    {
        const CheckedLock lock(recorder.clickMutex);
        recorder.clicks.clear();
        recorder.freeClickKey.forget();
    }

    QString& outputPath() { return recorder.outputPath; }
    QString& command() { return recorder.command; }
    int& canvasWidth() { return recorder.canvasWidth; }
    int& canvasHeight() { return recorder.canvasHeight; }
    QString& audioSource() { return recorder.audioSource; }
    QLocalSocket* controlSocket() { return recorder.controlSocket; }
    QByteArray& controlBuffer() { return recorder.controlBuffer; }
    bool& discardingLongLine() { return recorder.discardingLongLine; }
    bool& exitRequested() { return recorder.exitRequested; }
    QElapsedTimer& recordingClock() { return recorder.recordingClock; }
    quint32& durationMs() { return recorder.durationMs; }
    std::atomic<bool>& stopRequested() { return recorder.stopRequested; }
    std::atomic<bool>& paused() { return recorder.paused; }
    std::atomic<bool>& frameComeSent() { return recorder.frameComeSent; }
    std::atomic<bool>& workerStarted() { return recorder.workerStarted; }
    std::atomic<bool>& finalized() { return recorder.finalized; }
    WallClock& wallClock() { return recorder.wallClock; }
    void followWallClock() { recorder.followWallClock(); }
    std::atomic<qint64>& recordingStartedAtMs() { return recorder.recordingStartedAtMs; }
    bool& stopAcknowledged() { return recorder.stopAcknowledged; }
    QMap<qint64, MouseClick>& clicks() { return recorder.clicks; }
    AVFormatContext*& formatContext() { return recorder.formatContext; }
    AVCodecContext*& videoCodecContext() { return recorder.videoCodecContext; }
    AVStream*& videoStream() { return recorder.videoStream; }
    AVFrame*& videoFrame() { return recorder.videoFrame; }
    SwsContext*& swsContext() { return recorder.swsContext; }
    QString& videoEncoderName() { return recorder.videoEncoderName; }
    bool& headerWritten() { return recorder.headerWritten; }
    qint64& encodedFrameCount() { return recorder.encodedFrameCount; }
    AVCodecContext*& audioCodecContext() { return recorder.audioCodecContext; }
    AVStream*& audioStream() { return recorder.audioStream; }
    AVAudioFifo*& audioFifo() { return recorder.audioFifo; }
    SwrContext*& audioResampler() { return recorder.audioResampler; }
    QString& audioEncoderName() { return recorder.audioEncoderName; }
    bool& audioStarted() { return recorder.audioStarted; }
    bool& audioPcmLogged() { return recorder.audioPcmLogged; }
    qint64& audioSamplesWritten() { return recorder.audioSamplesWritten; }
    std::unique_ptr<RecorderAudioCapture>& audioCapture() { return recorder.audioCapture; }
    MacWindowCapture*& windowCapture() { return recorder.windowCapture; }

    GstRecorder& recorder;
};

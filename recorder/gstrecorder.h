// GstRecorder: one recording of one window, from the launcher's arguments to the closed file.
//
//   Constructed --worker starts--> Recording --stop requested--> Finalising --> Finished --> Acknowledged
//   (workerStarted)    warm-up, ready delay, clock runs    (drain, trailer)  (finalized)  (stopAcknowledged)
//
// Threads: the MAIN thread owns the object, the control socket and every slot. One WORKER thread runs
// runRecordingLoop() and with it all capture, composition and FFmpeg work. (The window is sampled on a thread of
// windowCapture's, for which the worker waits within bounds; a frame is encoded on one of frameSending's, which it
// waits for when too much is late; half of a frame may be converted on one of bandConversion's, which it waits for.)
// They share only the atomics below, what clickMutex guards (the click map, and the clocks that give its keys), and
// durationMs, which the main thread reads after the worker has finished.
//
// The road of one frame: captureWindowFrame() -> delay queue (3000 ms, so that late clicks still reach it)
// -> composeFrame() -> prepareFrame(), sendPrepared(), finishEncoding() -> packet in the file.
//
// Clocks: names ending in AtMs are wall-clock milliseconds since the epoch; elapsedMs, ptsMs, click keys and
// frame times are recording milliseconds, counted from the first recorded frame.
// Coordinates: bounds, pointer and clicks are global screen points (origin top left of the main display, y down);
// images and the canvas are in pixels (framegeometry.h maps one to the other).
#pragma once

#include "avhandles.h"
#include "bandconversion.h"
#include "checkedlock.h"
#include "clickkeys.h"
#include "compositionsource.h"
#include "framegeometry.h"
#include "framesending.h"
#include "letterboxing.h"
#include "nomemorywarning.h"
#include "packetwriting.h"
#include "rowset.h"
#include "wallclock.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFuture>
#include <QImage>
#include <QList>
#include <QMap>
#include <QObject>
#include <QRect>
#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

class MacWindowCapture;
class RecorderAudioCapture;
class QLocalSocket;
class QPainter;

class GstRecorder : public QObject {
    Q_OBJECT

public:
    /// One sample of the window. A null image means "no frame"; the other fields then hold their defaults.
    struct CapturedFrame {
        QImage image; ///< QImage::Format_ARGB32 (straight alpha), pixels
        QRect windowBounds; ///< global screen points
        qint64 capturedAtMs = 0; ///< wall clock
        double cursorX = 0.0; ///< pointer, global screen points
        double cursorY = 0.0;
        bool hasCursor = false; ///< cursorX and cursorY hold a real sample
        bool opaque = false; ///< every alpha value of the image is known to be 0xff
        qint64 imageVersion = 0; ///< grows by one with each image that differs from the one before; 0 is unknown
        RowSet changedRows; ///< of the image; all others are as in the version before
        qint64 ownBytes = 0; ///< memory of the image that the version before does not hold, too
        /// The image is the canvas already, with the window on it: the size that the window's image had.
        std::optional<QSize> letterboxedFrom;

        QSize windowImageSize() const { return letterboxedFrom.value_or(image.size()); }
    };

    /// An entry of the delay queue.
    struct QueuedFrame {
        CapturedFrame frame;
        qint64 elapsedMs = 0; ///< recording time; becomes the frame's presentation time
    };

    /// A click that the launcher reported.
    struct MouseClick {
        double globalX = 0.0; ///< global screen points
        double globalY = 0.0;
        double normalizedX = 0.0; ///< fraction of the window, 0.0 to 1.0; 0.0 when absent
        double normalizedY = 0.0;
        bool hasNormalized = false;
    };

    /// A click that a frame shows.
    struct LiveClick {
        qint64 keyMs = 0; ///< recording time
        MouseClick click;
    };

    // ==== gstrecorder.cpp: life (main thread) ================================================================

    /**
     * Normalises the parameters, connects to the launcher (waits about 5 s at most when nobody listens), opens the
     * window capture and starts the worker. Never fails: a capture that cannot be set up ends the event loop with
     * exit code 2. The parameters are those of the command line, in its order; canvas sizes are in pixels.
     */
    GstRecorder(const QString& command, const QString& output, const QString& window, const int& screenOriginX,
        const int& screenOriginY, const double& canvasWidth, const double& canvasHeight, const double& scale,
        const QString& audioSource, QObject* parent);
    ~GstRecorder() override;

    /// Ends the recording and acknowledges it to the launcher, once. Blocks while the worker closes the file, but not
    /// for longer than 5 s. Defers itself in steps of 10 ms while the worker has not started, and when it takes
    /// longer.
    void stop();

    /// For the time after the event loop: requests the end, waits for the worker, closes the output, and acknowledges
    /// a stop that is deferred. False when the worker did not end in time; the output is then left alone.
    bool finishRecording(QDeadlineTimer deadline);

    // ==== clickoverlay.cpp: clicks (addClick: main thread; the rest: worker) =================================

    /// Adds a click at a global position; the normalised pair counts only when both lie in 0.0 to 1.0.
    /// timestampMs is the click's wall-clock time, or below 1 when unknown (the time of arrival then counts).
    void addClick(double globalX, double globalY, double normalizedX, double normalizedY, long long timestampMs);

Q_SIGNALS:
    /// Emitted once per run from the worker: the recording is about to begin (or holds only its black frame).
    void frameCome();

public Q_SLOTS:
    // ==== controlsocket.cpp: the launcher's line (main thread) ===============================================

    /// Tells the launcher, with the byte "1", that the recording is about to begin.
    void onFrameCome();
    /// Reads what the launcher sent and obeys every complete line. (The name is part of the meta-object.)
    void proceessData();

private:
    friend struct RecorderProbe; // tests look inside

    void connectControlSocket();
    bool findLauncher();
    bool serverIsOurs();
    void handleControlLine(const QByteArray& line);
    void handleClickLine(const QByteArray& line);
    void handleLegacyClicks(const QList<QByteArray>& fields);
    void handleAction(const QByteArray& line);
    void sendReply(const QByteArray& bytes);
    void sendDuration();

    // ==== gstrecorder.cpp: life (main thread) ================================================================

    void openWindowCapture();
    void startWorker();
    void retryStopLater();
    bool endRecording(QDeadlineTimer deadline);

    // ==== capturedframe.cpp: one sample of the window (worker) ===============================================

    CapturedFrame captureWindowFrame() const;

    // ==== recordingloop.cpp: pacing, warm-up, delay queue, the end (worker) ==================================

    struct LoopState;
    void runRecordingLoop();
    bool attempt(const std::function<void()>& step);
    void logException(const char* what);
    void takePass(LoopState& loop);
    void waitWithoutImage(LoopState& loop);
    bool warmingUp(LoopState& loop) const;
    bool waitingAfterReadiness(LoopState& loop, const CapturedFrame& frame);
    void rehearse(const CapturedFrame& frame);
    void recordFrame(LoopState& loop, CapturedFrame&& frame);
    void boundQueue(LoopState& loop);
    void setClock(bool runs);
    void startAudio();
    void takeAudio(bool last = false);
    void useIdleTime(LoopState& loop, qint64 nowMs);
    void drainDue(QList<QueuedFrame>& queue, qint64 elapsedMs);
    bool drainNext(QList<QueuedFrame>& queue, qint64 limitMs);
    void drainQueue(QList<QueuedFrame>& queue, long long limitMs, bool flushAll);
    void encodeBlackFrame();
    void finalizeRecording(LoopState& loop);
    void announceFrameCome();

    // ==== framecomposition.cpp: window image to canvas (worker) ==============================================

    void letterbox(CapturedFrame& frame);
    QImage composeFrame(const CapturedFrame& frame, long long timestampMs);
    RowSet rowsToPaint(const CompositionSource& source, const FrameGeometry& geometry, const RowSet& changedRows,
        const RowSet& overlay, bool hasMarkers) const;
    QImage takeCanvas(bool keepsPixels);
    static void paintRows(QImage& canvas, const RowSet& rows, const CapturedFrame& frame,
        const std::vector<LiveClick>& live, long long timestampMs);

    // ==== clickoverlay.cpp: clicks (addClick: main thread; the rest: worker) =================================

    bool makeRoomForClick(qint64 key) REQUIRES(clickMutex);
    void followWallClock();
    void followWallClockLocked() REQUIRES(clickMutex);
    qint64 clockCorrection(long long timestampMs) const REQUIRES(clickMutex);
    std::vector<LiveClick> liveClicks(long long timestampMs);
    static RowSet markerRows(
        const FrameGeometry& geometry, const std::vector<LiveClick>& live, long long timestampMs);
    static void drawClicks(
        QPainter& painter, const FrameGeometry& geometry, const std::vector<LiveClick>& live, long long timestampMs);

    // ==== outputcontainer.cpp: file, container, video encoder (worker) =======================================

    QString normalizedOutputPath(const QString& path) const;
    bool openOutput();
    bool allocateContainer();
    void openPreferredVideoEncoder();
    bool tryVideoEncoder(const QString& name);
    bool openFallbackVideoEncoder();
    void applyVideoSettings(AVCodecContext* context, const AVCodec* codec, AVPixelFormat pixelFormat) const;
    bool createVideoStream();
    bool openFileAndWriteHeader();
    bool allocateVideoFrame();
    QByteArray outputFileName() const;

    // ==== audiooutput.cpp: the file's audio stream (worker) ==================================================

    bool openAudioOutput();
    AvCodecContextHandle openAudioEncoder() const;
    bool createAudioStream(AVCodecContext& encoder);
    void abandonAudio();

    // ==== audioencoding.cpp: audio to packet, in step with the recording clock (worker) ======================

    bool encodePendingAudio(bool last = false);
    bool padAudioToElapsedClock(qint64 elapsedMs);
    bool padAudioFifoWithSilence(int samples);
    bool encodeFullAudioFrames();
    bool encodeAudioSamples(int samples);
    bool drainAudioEncoder();
    void stopAudioCapture();
    bool queueAudioChunk(const QByteArray& pcm, int frames, qint64& cursorMs);
    bool queueAudioSamples(uint8_t** planes, int first, int count);
    qint64 audioSamplesPresent() const;
    AvFrameHandle takeAudioFrame(int samples);
    bool writeAudioPackets(const char* receiveError, const char* writeError, int missingDuration);

    // ==== videoencoding.cpp: image to packet (worker) ======================================================

    bool encodeImage(const QImage& image, long long ptsMs);
    bool prepareFrame(const QImage& image, long long ptsMs);
    void sendPrepared();
    bool sendPreparedIfFree();
    bool finishEncoding();
    void collectEncoded();
    bool drainEncoder();
    bool fillVideoFrame(const QImage& image);
    bool isComposed(const QImage& image) const;
    bool transferPixels(const QImage& image, const RowSet& rows);
    bool writeVideoPackets(const char* receiveError, const char* writeError);

    // ==== finalization.cpp: trailer and release (worker, or the destructor's thread after it) ================

    void closeOutput();
    bool writeTrailer();

    // ==== data, in the order of construction =================================================================

    // Parameters: constant after the constructor, except outputPath (changed by the fallback in
    // outputcontainer.cpp, on the worker).
    QString outputPath; // normalised path of the file
    QString command; // requested capture command, trimmed
    QString window; // window selector as given
    int canvasWidth; // pixels, even, at least 16
    int canvasHeight;
    int screenOriginX; // screen points; only logged
    int screenOriginY;
    double scale; // only logged
    QString audioSource; // audio source selector, trimmed

    // Control socket: main thread, controlsocket.cpp.
    QLocalSocket* controlSocket = nullptr; // child of this object
    QByteArray controlBuffer; // received and not yet consumed; bounded
    bool discardingLongLine = false; // the rest of an over-long line is still to come
    bool exitRequested = false; // the launcher said "exit"; it may close the connection

    // Worker and clock.
    QFuture<void> worker; // main thread
    QElapsedTimer recordingClock; // started by the worker (recordingloop.cpp) under clickMutex, read by both
    bool exceptionLogged = false; // worker; the first exception was logged
    quint32 durationMs = 0; // written by the worker, read by stop() after the worker has finished

    // Flags between the threads: release stores, acquire loads. Each is written by the thread that is named; without
    // a worker the main thread sets its flags.
    std::atomic<bool> stopRequested{false}; // main; only ever set
    std::atomic<bool> paused{false}; // main, controlsocket.cpp; remembered, acted upon by nothing
    std::atomic<bool> frameComeSent{false}; // worker; the exchange that finds false emits frameCome()
    std::atomic<bool> workerStarted{false}; // worker
    std::atomic<bool> finalized{false}; // worker; the file is closed
    // Wall clock at which recordingClock was started, as the wall clock goes now; stored under clickMutex.
    std::atomic<qint64> recordingStartedAtMs{0};
    bool stopAcknowledged = false; // main; the duration reply was sent
    bool stopWaited = false; // main; stop() has waited in vain for the worker, and does not block again
    bool stopRetryPending = false; // main; stop() will be called again by a timer

    // Clicks, clickoverlay.cpp.
    CheckedMutex clickMutex;
    QMap<qint64, MouseClick> clicks GUARDED_BY(clickMutex); // keyed by recording milliseconds
    FreeKeyHint freeClickKey GUARDED_BY(clickMutex); // makes a flood of clicks at one time cheap
    bool clickLimitLogged GUARDED_BY(clickMutex) = false;
    WallClock wallClock GUARDED_BY(clickMutex);

    Letterboxing letterboxing; // worker; of frames that come, framecomposition.cpp

    // The image that was composed last: worker, framecomposition.cpp.
    QImage composedImage; // its memory serves the next one, too
    std::optional<CompositionSource> composedFrom; // nothing: the next one is painted whole
    RowSet composedOverlay; // its rows with the pointer and markers
    bool composedMarkers = false; // it shows markers, which change with the time
    qint64 composedVersion = 0; // grows by one with each image that differs from the one before; 0 before the first
    RowSet composedChanges; // its rows that may differ from the version before
    NoMemoryWarning noMemory; // for the next one; recordingloop.cpp

    // Media output: worker. Null or owned; only closeOutput() releases them, and the fallback the first container
    // (outputcontainer.cpp).
    AVFormatContext* formatContext = nullptr; // also holds the file handle
    AVCodecContext* videoCodecContext = nullptr;
    AVStream* videoStream = nullptr; // owned by formatContext
    AVFrame* videoFrame = nullptr; // the one frame, reused for every image
    qint64 videoFrameVersion = 0; // composedVersion that it holds, videoencoding.cpp; 0 is none
    FrameSending frameSending; // the frame that the encoder works on
    std::optional<qint64> preparedMs; // videoFrame is to be sent, with this time
    int64_t ptsBeforeMs = AV_NOPTS_VALUE; // of the frame before that one
    bool keyFrameIsDue = false; // the encoder refused the frame before, videoencoding.cpp
    BandConversion bandConversion; // of parts of an image; videoencoding.cpp
    bool isBehind = false; // more than one frame is due while captures go on; recordingloop.cpp
    SwsContext* swsContext = nullptr; // null when the encoder takes BGRA
    QString videoEncoderName; // FFmpeg's name of the opened encoder
    bool headerWritten = false; // decides the trailer, and only that
    WrittenBytes writtenBytes; // what has reached the file
    qint64 encodedFrameCount = 0; // frames whose packets, as far as ready, were written; videoencoding.cpp

    // Its audio, null or zero without: opened in audiooutput.cpp, filled in audioencoding.cpp. Same owner.
    AVCodecContext* audioCodecContext = nullptr; // set only when the whole set-up succeeded
    AVStream* audioStream = nullptr; // owned by formatContext
    AVAudioFifo* audioFifo = nullptr; // samples in the encoder's format that wait for a full frame
    SwrContext* audioResampler = nullptr; // from the capture's format to the encoder's
    QString audioEncoderName; // FFmpeg's name of the opened encoder
    bool audioStarted = false; // the capture was started (recordingloop.cpp) and not yet stopped
    bool audioPcmLogged = false; // the first chunk was logged
    qint64 audioSamplesWritten = 0; // a channel, at the encoder's rate; the next frame's presentation time
    std::unique_ptr<RecorderAudioCapture> audioCapture; // null: video only

    MacWindowCapture* windowCapture = nullptr; // owned; null when set-up failed; constant after the constructor
};

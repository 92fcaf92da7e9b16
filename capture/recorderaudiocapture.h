// RecorderAudioCapture: the audio of one application or of the whole display as PCM, whatever the platform below
// (platform/audio.h) is.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <memory>

class QElapsedTimer;
class RecorderAudioCapturePrivate;

/**
 * Made, started, read, stopped and destroyed by the recording worker. Audio is handed over in deliverUntil(), or by a
 * thread of the platform, and queued as chunks in one fixed format, which the accessors name. Every call is harmless
 * on an object that could not be configured.
 */
class RecorderAudioCapture {
public:
    /// A block of interleaved signed 16-bit little-endian samples, left then right.
    struct Chunk {
        QByteArray pcm; ///< frames * 4 bytes
        qint32 frames = 0; ///< one left and one right sample each
    };

    /**
     * Configures the capture at once; waits for the system for 5 seconds at most. device, trimmed, is "app-pid:" and
     * the process id of one application (decimal, blanks around it allowed), or anything else for the audio of the
     * first display. What fails is logged and leaves the object invalid.
     */
    explicit RecorderAudioCapture(const QString& device);
    /// Takes over a private object; null gives an object that does nothing.
    explicit RecorderAudioCapture(std::unique_ptr<RecorderAudioCapturePrivate> privateObject);
    ~RecorderAudioCapture();
    RecorderAudioCapture(const RecorderAudioCapture&) = delete;
    RecorderAudioCapture& operator=(const RecorderAudioCapture&) = delete;

    /// It was configured. Does not change.
    bool isValid() const;
    /// Starts the audio; waits for the system for 5 seconds at most. True when it is started, also when it was
    /// before.
    bool start();
    /// Stops it; waits for the system for 2 seconds at most. What was queued stays readable.
    void stop();

    /// Asks a platform that meters its audio out to queue what belongs before this instant (milliseconds of the
    /// monotonic clock), and, the last time, not to wait for what is on its way; see
    /// platform::AudioStream::deliverUntil(). Does nothing while not started. Returns how far that came: an earlier
    /// instant when there is more, for which it is called again once what is queued was taken.
    qint64 deliverUntil(qint64 monotonicMs, bool last = false);
    /// The same by a clock of the caller's, always the same one, which runs: the instant, and what is returned, are
    /// what it shows. It may go by another clock than the monotonic one, and stand still while the system sleeps
    /// (Qt's does, before 6.6 on macOS): so its start is looked up there with each call.
    qint64 deliverUntil(const QElapsedTimer& clock, qint64 elapsedMs, bool last = false);
    /// Takes every queued chunk, in the order of arrival.
    QList<Chunk> readAvailable();

    int sampleRate() const; ///< hertz
    int channelCount() const;
    int sampleFormat() const; ///< FFmpeg's number of the format: AV_SAMPLE_FMT_S16

private:
    std::unique_ptr<RecorderAudioCapturePrivate> d;
};

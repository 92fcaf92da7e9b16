// RecorderAudioCapturePrivate: the state behind RecorderAudioCapture. Internal to capture/ and its tests.
#pragma once

#include "checkedlock.h"
#include "platform/audio.h"
#include "recorderaudiocapture.h"

#include <atomic>
#include <cstdlib>
#include <memory>
#include <vector>

/**
 * Threads: everything belongs to the thread that made it, except chunks (under mutex), unsupportedFormatLogged (only
 * touched by handleAudioSampleBuffer(), which the platform calls from one thread at a time) and lossLogged.
 */
class RecorderAudioCapturePrivate {
public:
    /// Parses the device string and configures the stream.
    explicit RecorderAudioCapturePrivate(const QString& deviceText);
    /// Stops the stream if it is started; drops what is queued.
    ~RecorderAudioCapturePrivate();
    RecorderAudioCapturePrivate(const RecorderAudioCapturePrivate&) = delete;
    RecorderAudioCapturePrivate& operator=(const RecorderAudioCapturePrivate&) = delete;

    bool start();
    void stop();
    qint64 deliverUntil(qint64 monotonicMs, bool last);

    /// Where the reader's clock has its 0 on the monotonic one, in milliseconds: what was found first, so that no
    /// reading's error moves the audio, until the reader's clock has stood still while the system slept.
    static qint64 clockStart(std::optional<qint64> found, qint64 measured)
    {
        constexpr qint64 largestErrorMs = 20; // of a reading: the thread may be stopped between the clocks
        return found && std::abs(measured - *found) <= largestErrorMs ? *found : measured;
    }

    /// Converts one delivered buffer and queues the chunk (audiosampleintake.cpp). null is ignored.
    void handleAudioSampleBuffer(const platform::AudioSampleBuffer* buffer) noexcept;
    /// The platform ended the stream: a warning, when there is an error. No state changes.
    static void handleStreamStopped(const std::optional<QString>& error);

    QString device; ///< trimmed
    bool appOnly = false; ///< device begins with "app-pid:"
    qint64 appPid = 0; ///< 0 when not app-only or not a number above 0

    CheckedMutex mutex; ///< held for an append or a move only
    QList<RecorderAudioCapture::Chunk> chunks GUARDED_BY(mutex);

    std::unique_ptr<platform::AudioStream> stream; ///< null until configured
    std::unique_ptr<platform::AudioOutput> output;
    std::unique_ptr<platform::AudioQueue> queue;
    bool valid = false; ///< the configuration succeeded
    bool started = false; ///< between a successful start and the next stop
    bool unsupportedFormatLogged = false;
    std::atomic<bool> lossLogged{false};
    bool missedLogged = false;
    std::optional<qint64> clockStartMs; ///< of the reader's clock, on the monotonic one; unset until it is shown

private:
    void takeIn(const platform::AudioSampleBuffer* buffer);
    void tellOfLoss() noexcept;
    bool configure();
    std::shared_ptr<const platform::AudioContent> lookUpContent() const;
    std::optional<platform::AudioFilter> filterFor(
        const std::shared_ptr<const platform::AudioContent>& content) const;
    std::optional<platform::AudioFilter> applicationFilter(
        const std::shared_ptr<const platform::AudioContent>& content) const;
    void logCandidates(const std::vector<platform::AudioApplication>& applications) const;
    bool makeStream(const platform::AudioFilter& filter);
};

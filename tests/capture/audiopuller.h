// AudioPuller: captures audio through the platform seam as the recorder does, and keeps it.
#pragma once

#include "platform/audio.h"

#include <QString>

#include <atomic>
#include <memory>
#include <optional>
#include <set>
#include <vector>

/// What can be captured now; null when the platform refuses (then with its text) or does not answer.
std::shared_ptr<const platform::AudioContent> lookUpAudio(QString* error, int limitMs = 20'000);

/// The index of a process in the content.
std::optional<std::size_t> indexOf(const platform::AudioContent& content, qint64 pid);

/// Stereo at 48000 Hz, from the end of the constructor on, fetched every 10 ms while a method of this object runs.
/// When there is no capture, isCapturing() is false and errorString() says why. One thread.
class AudioPuller {
public:
    /// Of everything.
    AudioPuller();
    /// Without all processes that run now but these.
    explicit AudioPuller(const std::set<qint64>& wanted);
    ~AudioPuller();
    AudioPuller(const AudioPuller&) = delete;
    AudioPuller& operator=(const AudioPuller&) = delete;

    bool isCapturing() const { return capturing_; }
    QString errorString() const { return error_; }

    /// Fetches for that long.
    void pull(int ms);
    /// Fetches up to so much later than now, as if the recording ended then. Returns how many deliveries that took.
    int fetchTheLast(int laterMs);

    /// A piece of what is captured, channels alternating.
    struct Piece {
        std::vector<float> audio;
        double startMs = 0; ///< by the monotonic clock
    };
    /// The next audio of several captures, fetched side by side; less of it when it does not come.
    static std::vector<Piece> listen(const std::vector<AudioPuller*>& pullers, int ms);
    Piece listen(int ms);

    /// Everything since the constructor.
    const std::vector<float>& audio() const { return audio_; }
    /// When that begins, by the monotonic clock; known from the first delivery on.
    qint64 startMs() const { return startMs_; }
    /// Milliseconds of audio that are missing or too many, by the clock, at the last delivery.
    qint64 surplusMs() const { return surplusMs_; }

    /// Audio was left out, by the last delivery, because nobody had fetched it.
    bool hasMissed() const { return missed_; }

    int timesStopped() const { return timesStopped_; }
    bool stopCapture();
    bool startCapture(); ///< after stopCapture()

private:
    platform::AudioReceiver receiver();
    bool start(const std::set<qint64>* wanted);
    bool waitFor(void (platform::AudioStream::*request)(platform::AudioCompletion));
    void fetch();
    int fetchUntil(qint64 untilMs, bool last);
    void append(const platform::AudioSampleBuffer& buffer);

    std::vector<float> audio_;
    // The stream begins within startCapture(), and its first delivery tells at which millisecond of it.
    qint64 earliestStartMs_ = 0;
    qint64 latestStartMs_ = 0;
    qint64 startMs_ = 0;
    bool delivered_ = false; // since the start
    qint64 surplusMs_ = 0;
    bool missed_ = false;
    std::atomic<int> timesStopped_ = 0;
    bool capturing_ = false;
    QString error_;
    platform::AudioOutput output_;
    platform::AudioQueue queue_{"audio test"};
    std::unique_ptr<platform::AudioStream> stream_; // ends first
};

// The seam between the audio capture and the operating system's audio. Each platform folder (capture/linux, ...)
// defines all of it; which one is used is decided at link time. An adapter holds no rule: matching, time limits,
// conversion, states and log texts live in recorderaudiocapture.cpp and audiosampleintake.cpp.
#pragma once

#include "audioformat.h"
#include "waiting.h"

#include <QString>
#include <QtGlobal>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace platform {

// ---- what can be captured ------------------------------------------------------------------------------------

/// An application that runs now.
struct AudioApplication {
    qint32 processId = 0;
    QString bundleIdentifier; ///< the application's id where the system knows one; may be empty
    QString applicationName; ///< for people; may be empty
};

/// A snapshot of what can be captured.
struct AudioContent {
    std::size_t displays = 0; ///< how many displays can be captured; they are named by index
    std::vector<AudioApplication> applications; ///< in the system's order; named by index in AudioFilter
    std::shared_ptr<const void> native; ///< what the platform needs to make a filter from indices; null in fakes
};

/// Exactly one of the two is set. The error is the system's text for people, and may be empty.
using AudioContentCompletion
    = std::function<void(std::shared_ptr<const AudioContent> content, std::optional<QString> error)>;

/// Looks up the content; returns at once, or nearly. The completion is called exactly once, on a thread of the
/// platform's or before the call returns, or never when the system does not answer. Any thread.
void requestAudioContent(bool excludeDesktopWindows, bool onScreenWindowsOnly, AudioContentCompletion completion);

/// The full path of a process's executable; empty when there is no such process or the path cannot be told.
QString executablePath(qint64 processId);

// ---- audio -----------------------------------------------------------------------------------------------------

/// One block of audio as the platform delivers it. Lives as long as the call that delivers it.
struct AudioSampleBuffer {
    bool valid = true;
    std::optional<AudioStreamDescription> description; ///< nothing when the platform cannot tell
    qint64 frames = 0; ///< one sample of every channel each
    /// Fetches the samples; nothing when the platform fails to hand them out.
    std::function<std::optional<AudioBufferList>()> bufferList;
};

/// Which audio: that of one display, or that of the display without some applications.
struct AudioFilter {
    std::shared_ptr<const AudioContent> content;
    std::size_t display = 0; ///< index
    /// Indices into content->applications; nothing for the audio of the whole display.
    std::optional<std::vector<std::size_t>> excludedApplications;
};

/// Who receives what a stream delivers. Neither is called after the AudioStream has been destroyed.
struct AudioReceiver {
    /// On the reader's thread, in AudioStream::deliverUntil(); on the stream's queue where a platform delivers on its
    /// own, or leaves it to the receiver what a buffer is worth. Never by two threads at once.
    std::function<void(const AudioSampleBuffer* buffer)> handleSampleBuffer;
    /// The stream ended by itself. The error is nothing when the system gives none. On a thread of the platform's.
    std::function<void(const std::optional<QString>& error)> streamStopped;
};

/// The object that the system calls: receives the audio and the end of one stream. It makes no call after its own
/// destructor or the receiver's.
class AudioOutput {
public:
    explicit AudioOutput(AudioReceiver owner);
    ~AudioOutput();
    AudioOutput(const AudioOutput&) = delete;
    AudioOutput& operator=(const AudioOutput&) = delete;

    struct Impl;
    Impl& impl() { return *impl_; }

private:
    std::unique_ptr<Impl> impl_;
};

/// Nothing for success, else the system's text for people (may be empty). Called exactly once, on a thread of the
/// platform's or before the call returns, or never when the system does not answer.
using AudioCompletion = std::function<void(std::optional<QString> error)>;

/// What AudioStream::deliverUntil() has done.
struct AudioDelivery {
    /// How far it came: mostly the instant that was asked for, also when there was nothing to deliver. An earlier one
    /// when it has delivered 10 seconds, the most at a time: then there is more, for the next call.
    qint64 untilMs = 0;
    /// Since the start audio was left out, as it was not asked for until there was no room for more.
    bool missed = false;
    /// Audio was left out, as there was no memory for it when it came.
    bool outOfMemory = false;
};

/**
 * A stream of audio. Made, started, stopped and destroyed on one thread (another than the platform's own). Making it
 * never fails; what fails is told by addStreamOutput() or startCapture(). The output (and delegate) and the queue
 * outlive it.
 */
class AudioStream {
public:
    AudioStream(const AudioFilter& filter, const AudioStreamConfiguration& configuration, AudioOutput& delegate);
    /// When it returns, no callback runs and none will.
    ~AudioStream();
    AudioStream(const AudioStream&) = delete;
    AudioStream& operator=(const AudioStream&) = delete;

    /// Asks for the audio to be delivered to output, on queue. False on failure; error is then the system's text, or
    /// nothing when the system gives no error.
    bool addStreamOutput(AudioOutput& output, AudioQueue& queue, std::optional<QString>* error);

    void startCapture(AudioCompletion completion);
    void stopCapture(AudioCompletion completion);

    /**
     * For a platform whose audio the reader's clock meters out: delivers, before it returns and on the caller's
     * thread, the audio from the end of the last delivery (at first: from the start of the capture) up to this
     * instant, in whole milliseconds, so that the reader finds exactly as much audio as its clock has advanced. It
     * delivers nothing while audio of that time is still on its way. A platform that delivers on its own does
     * nothing here. The instant is in milliseconds of the monotonic clock (std::chrono::steady_clock). The last time,
     * what has not arrived is silence instead: it is not asked for later.
     */
    AudioDelivery deliverUntil(qint64 monotonicMs, bool last = false);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}

// Audio, as ScreenCaptureKit captures it. Plain C++: no Objective-C, no Qt. Texts are UTF-8; an error is nothing for
// success, else the system's text for people, which may be empty.
#pragma once

#include "platform/waiting.h"
#include "samplebuffer.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace macos {

using ErrorText = std::optional<std::string>;

// ---- what can be captured ------------------------------------------------------------------------------------

struct Application {
    std::int32_t processId = 0;
    std::string bundleIdentifier; ///< may be empty
    std::string name; ///< may be empty
};

/// A snapshot. Displays and applications are named by index.
struct ShareableContent {
    std::size_t displays = 0;
    std::vector<Application> applications; ///< in the system's order
    std::shared_ptr<const void> native; ///< the system's objects behind the indices
};

/// Exactly one of the two is set.
using ContentCompletion = std::function<void(std::shared_ptr<const ShareableContent> content, ErrorText error)>;

/// Returns at once. The completion is called on a thread of the system's, or never. Any thread.
void requestShareableContent(bool excludeDesktopWindows, bool onScreenWindowsOnly, ContentCompletion completion);

// ---- audio -----------------------------------------------------------------------------------------------------

/// The audio of one display, or of the display without some applications.
struct Filter {
    std::shared_ptr<const void> native; ///< of the content; may be null
    std::size_t display = 0; ///< index
    std::optional<std::vector<std::size_t>> excludedApplications; ///< indices; nothing for the whole display
};

/// Who is called, on threads of the system's.
struct OutputOwner {
    std::function<void(const SampleBuffer* buffer)> handleSampleBuffer; ///< the buffer may be null
    std::function<void(const ErrorText& error)> streamStopped;
};

/// The object that the system calls, for one stream. It makes no call after its own destructor or the owner's.
class AudioOutput {
public:
    explicit AudioOutput(OutputOwner owner);
    ~AudioOutput();
    AudioOutput(const AudioOutput&) = delete;
    AudioOutput& operator=(const AudioOutput&) = delete;

    struct Impl;
    Impl& impl() const { return *impl_; }

private:
    std::unique_ptr<Impl> impl_;
};

/// May be called on a thread of the system's, or never.
using Completion = std::function<void(ErrorText error)>;

struct AddResult {
    bool added = false;
    ErrorText error; ///< after a failure: nothing when the system gives no error
};

/**
 * A stream of audio. One thread. Delegate, output and queue must outlive it; what the system may still use of them
 * when it is destroyed, it keeps.
 */
class AudioStream {
public:
    AudioStream(const Filter& filter, const platform::AudioStreamConfiguration& configuration, AudioOutput& delegate);
    /// When it returns, no callback runs on another thread and none will. A capture that runs, or that the system has
    /// yet to start, is stopped behind it.
    ~AudioStream();
    AudioStream(const AudioStream&) = delete;
    AudioStream& operator=(const AudioStream&) = delete;

    AddResult addStreamOutput(AudioOutput& output, platform::AudioQueue& queue);
    void startCapture(Completion completion);
    void stopCapture(Completion completion);

private:
    struct CaptureSession;
    std::shared_ptr<CaptureSession> session_; ///< shared with the completions that the system holds
};

}

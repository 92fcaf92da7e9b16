// What the tests of the seam's audio streams share.
#pragma once

#include "macbench.h"
#include "platform/audio.h"

#include <QDeadlineTimer>

#include <memory>

inline const platform::AudioStreamConfiguration audioOnly{.width = 2, .height = 2, .capturesAudio = true};

/// A receiver that takes nothing.
inline platform::AudioReceiver nobody()
{
    return {[](const platform::AudioSampleBuffer*) {}, [](const std::optional<QString>&) {}};
}

/// With one display, unless the test asked for more, and one application, of process 7.
inline std::shared_ptr<const platform::AudioContent> content()
{
    macsim::answers().content = macsim::When::AtOnce;
    macsim::answers().applications = {{7, "org.seven", "Seven", macsim::Executable::Known, "/seven"}};
    std::shared_ptr<const platform::AudioContent> found;
    platform::requestAudioContent(
        true, false, [&found](std::shared_ptr<const platform::AudioContent> given, const std::optional<QString>&) {
            found = std::move(given);
        });
    return found;
}

/// What became of a call with a completion.
struct Answer {
    int calls = 0;
    std::optional<QString> error;

    platform::AudioCompletion completion()
    {
        return [this](std::optional<QString> given) {
            ++calls;
            error = std::move(given);
        };
    }
};

/// A stream of the first display. One object is its delegate and its output.
struct Rig {
    explicit Rig(const platform::AudioReceiver& receiver = nobody())
        : output(std::make_unique<platform::AudioOutput>(receiver)),
          stream(std::make_unique<platform::AudioStream>(
              platform::AudioFilter{content(), 0, std::nullopt}, audioOnly, *output))
    {
        std::optional<QString> error;
        if (!stream->addStreamOutput(*output, queue, &error))
            qFatal("the output was not added");
    }

    void startCapture() { stream->startCapture(start.completion()); }
    void stopCapture() { stream->stopCapture(stop.completion()); }

    /// Asks for all that has been delivered.
    void read() { stream->deliverUntil(QDeadlineTimer::current().deadline() + 1000, true); }

    Answer start;
    Answer stop;
    platform::AudioQueue queue{"queue"};
    std::unique_ptr<platform::AudioOutput> output;
    std::unique_ptr<platform::AudioStream> stream;
};

// Audio on the Mac, in Qt's types.
#include "platform/audio.h"

#include "appkit.h"
#include "screencapturekit.h"

#include <utility>

namespace platform {

namespace {

std::optional<QString> toQt(const macos::ErrorText& error)
{
    if (!error)
        return std::nullopt;
    return QString::fromStdString(*error);
}

std::shared_ptr<const AudioContent> toQt(const std::shared_ptr<const macos::ShareableContent>& content)
{
    if (!content)
        return nullptr;
    auto result = std::make_shared<AudioContent>();
    result->displays = content->displays;
    for (const macos::Application& application : content->applications) {
        result->applications.push_back({application.processId, QString::fromStdString(application.bundleIdentifier),
            QString::fromStdString(application.name)});
    }
    result->native = content->native;
    return result;
}

macos::Completion toNative(AudioCompletion completion)
{
    return [completion = std::move(completion)](const macos::ErrorText& error) { completion(toQt(error)); };
}

}

// ---- what can be captured ------------------------------------------------------------------------------------

void requestAudioContent(bool excludeDesktopWindows, bool onScreenWindowsOnly, AudioContentCompletion completion)
{
    macos::requestShareableContent(excludeDesktopWindows, onScreenWindowsOnly,
        [completion = std::move(completion)](const std::shared_ptr<const macos::ShareableContent>& content,
            const macos::ErrorText& error) { completion(toQt(content), toQt(error)); });
}

QString executablePath(qint64 processId)
{
    return QString::fromStdString(macos::executablePath(processId));
}

// ---- waiting with a bound --------------------------------------------------------------------------------------

struct Semaphore::Impl {
    macos::Semaphore native;
};

Semaphore::Semaphore() : impl_(std::make_unique<Impl>()) { }

Semaphore::~Semaphore() = default;

void Semaphore::signal()
{
    impl_->native.signal();
}

bool Semaphore::wait(qint64 nanoseconds)
{
    return impl_->native.wait(nanoseconds);
}

// ---- audio -----------------------------------------------------------------------------------------------------

namespace {

std::optional<AudioStreamDescription> toQt(const std::optional<macos::StreamDescription>& description)
{
    if (!description)
        return std::nullopt;
    return AudioStreamDescription{description->formatId, description->formatFlags, description->bytesPerFrame,
        description->channelsPerFrame, description->bitsPerChannel};
}

std::optional<AudioBufferList> toQt(const std::optional<macos::SampleBytesList>& list)
{
    if (!list)
        return std::nullopt;
    AudioBufferList result;
    for (const macos::SampleBytes& buffer : list->buffers)
        result.buffers.push_back({buffer.data, buffer.bytes});
    result.owner = list->owner;
    return result;
}

void deliver(const AudioReceiver& receiver, const macos::SampleBuffer* native)
{
    if (!native) {
        receiver.handleSampleBuffer(nullptr);
        return;
    }
    AudioSampleBuffer buffer;
    buffer.valid = native->isValid();
    if (buffer.valid) {
        buffer.description = toQt(native->description());
        buffer.frames = native->frames();
    }
    buffer.bufferList = [native] { return toQt(native->bytes()); };
    receiver.handleSampleBuffer(&buffer);
}

macos::OutputOwner toNative(const AudioReceiver& receiver)
{
    return {[receiver](const macos::SampleBuffer* buffer) { deliver(receiver, buffer); },
        [receiver](const macos::ErrorText& error) { receiver.streamStopped(toQt(error)); }};
}

}

struct AudioOutput::Impl {
    macos::AudioOutput native;
};

AudioOutput::AudioOutput(AudioReceiver owner) : impl_(new Impl{macos::AudioOutput(toNative(owner))}) { }

AudioOutput::~AudioOutput() = default;

struct AudioQueue::Impl {
    macos::SerialQueue native;
};

AudioQueue::AudioQueue(const char* label) : impl_(new Impl{macos::SerialQueue(label)}) { }

AudioQueue::~AudioQueue() = default;

namespace {

macos::Filter toNative(const AudioFilter& filter)
{
    return {filter.content ? filter.content->native : nullptr, filter.display, filter.excludedApplications};
}

macos::StreamConfiguration toNative(const AudioStreamConfiguration& configuration)
{
    return {
        .width = std::size_t(configuration.width),
        .height = std::size_t(configuration.height),
        .minimumFrameIntervalNumerator = configuration.minimumFrameIntervalNumerator,
        .minimumFrameIntervalDenominator = configuration.minimumFrameIntervalDenominator,
        .queueDepth = configuration.queueDepth,
        .showsCursor = configuration.showsCursor,
        .capturesAudio = configuration.capturesAudio,
        .sampleRate = configuration.sampleRate,
        .channelCount = configuration.channelCount,
        .excludesCurrentProcessAudio = configuration.excludesCurrentProcessAudio,
    };
}

}

struct AudioStream::Impl {
    macos::AudioStream native;
};

AudioStream::AudioStream(
    const AudioFilter& filter, const AudioStreamConfiguration& configuration, AudioOutput& delegate)
    : impl_(new Impl{macos::AudioStream(toNative(filter), toNative(configuration), delegate.impl().native)})
{
}

AudioStream::~AudioStream() = default;

bool AudioStream::addStreamOutput(AudioOutput& output, AudioQueue& queue, std::optional<QString>* error)
{
    const macos::AddResult result = impl_->native.addStreamOutput(output.impl().native, queue.impl().native);
    if (!result.added)
        *error = toQt(result.error);
    return result.added;
}

void AudioStream::startCapture(AudioCompletion completion)
{
    impl_->native.startCapture(toNative(std::move(completion)));
}

void AudioStream::stopCapture(AudioCompletion completion)
{
    impl_->native.stopCapture(toNative(std::move(completion)));
}

// ScreenCaptureKit delivers on its own.
void AudioStream::deliverUntil(qint64 /*monotonicMs*/, bool /*last*/) { }

}

// Audio on the Mac, in Qt's types. The system pushes its blocks when it likes; the reader gets them metered out by
// its own clock.
#include "platform/audio.h"

#include "appkit.h"
#include "audiometer.h"
#include "audiosampleintake.h"
#include "hostclock.h"
#include "screencapturekit.h"

#include <exception>
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

// ---- audio -----------------------------------------------------------------------------------------------------

namespace {

AudioSampleBuffer toQt(const macos::SampleBuffer& native)
{
    AudioSampleBuffer buffer;
    buffer.valid = native.isValid();
    if (buffer.valid) {
        buffer.description = native.description();
        buffer.frames = native.frames();
    }
    buffer.bufferList = [&native] { return native.bytes(); };
    return buffer;
}

AudioStreamDescription stereoOfSigned16()
{
    AudioStreamDescription description;
    description.formatFlags = pcmIsSignedInteger;
    description.bytesPerFrame = 2 * sizeof(qint16);
    description.channelsPerFrame = 2;
    description.bitsPerChannel = 16;
    return description;
}

/// Samples that the receiver can use.
bool hasAudio(const AudioSampleBuffer& buffer)
{
    return buffer.valid && buffer.description && buffer.description->formatId == linearPcm && buffer.frames >= 1
        && buffer.frames <= audiointake::mostFrames;
}

/// When the first sample is heard, on the steady clock. The clocks part whenever the machine sleeps, so they are
/// compared each time.
std::optional<qint64> steadyTime(const std::optional<std::int64_t>& hostNs, const macos::ClockReading& now)
{
    return hostNs ? std::optional<qint64>(*hostNs + (now.steadyNs - now.hostNs)) : std::nullopt;
}

}

struct AudioOutput::Impl {
    explicit Impl(AudioReceiver receiver)
        : owner(std::move(receiver)),
          native({[this](const macos::SampleBuffer* buffer) { take(buffer); },
              [this](const macos::ErrorText& error) { owner.streamStopped(toQt(error)); }})
    {
    }

    /// On the system's queue, whose code does not expect exceptions. A block for which there is no memory is left
    /// out.
    void take(const macos::SampleBuffer* block) noexcept
    {
        try {
            if (block)
                take(*block);
            else
                handOut(nullptr);
        } catch (const std::exception&) {
        }
    }

    void take(const macos::SampleBuffer& block)
    {
        const AudioSampleBuffer buffer = toQt(block);
        if (!hasAudio(buffer)) {
            handOut(&buffer); // whose business it is
            return;
        }
        const auto list = buffer.bufferList();
        const auto chunk = list ? audiointake::toChunk(*buffer.description, buffer.frames, list->buffers)
                                : std::optional<RecorderAudioCapture::Chunk>();
        if (!chunk)
            return;
        const macos::ClockReading now = macos::readClocks();
        meter.append(steadyTime(block.hostTimeNs(), now), now.steadyNs,
            {reinterpret_cast<const qint16*>(chunk->pcm.constData()), std::size_t(chunk->frames) * 2});
    }

    /// On the reader's thread.
    void deliverUntil(qint64 untilMs, bool last)
    {
        auto audio = meter.deliver(untilMs, last);
        if (!audio)
            return;
        const auto memory = std::make_shared<const std::vector<qint16>>(std::move(*audio));
        AudioSampleBuffer buffer;
        buffer.description = stereoOfSigned16();
        buffer.frames = qint64(memory->size() / 2);
        buffer.bufferList = [memory] {
            return AudioBufferList{{AudioBuffer{memory->data(), memory->size() * sizeof(qint16)}}, memory};
        };
        handOut(&buffer);
    }

    void handOut(const AudioSampleBuffer* buffer)
    {
        const std::lock_guard lock(ownerMutex);
        owner.handleSampleBuffer(buffer);
    }

    const AudioReceiver owner;
    std::mutex ownerMutex; ///< it is given one buffer at a time
    macos::AudioMeter meter;
    macos::AudioOutput native; ///< goes first
};

AudioOutput::AudioOutput(AudioReceiver owner) : impl_(std::make_unique<Impl>(std::move(owner))) { }

AudioOutput::~AudioOutput() = default;

namespace {

macos::Filter toNative(const AudioFilter& filter)
{
    return {filter.content ? filter.content->native : nullptr, filter.display, filter.excludedApplications};
}

}

struct AudioStream::Impl {
    macos::AudioStream native;
    AudioOutput* output = nullptr; ///< null until added
    bool started = false;
};

AudioStream::AudioStream(
    const AudioFilter& filter, const AudioStreamConfiguration& configuration, AudioOutput& delegate)
    : impl_(new Impl{macos::AudioStream(toNative(filter), configuration, delegate.impl().native)})
{
}

AudioStream::~AudioStream() = default;

bool AudioStream::addStreamOutput(AudioOutput& output, AudioQueue& queue, std::optional<QString>* error)
{
    const macos::AddResult result = impl_->native.addStreamOutput(output.impl().native, queue);
    if (result.added)
        impl_->output = &output;
    else
        *error = toQt(result.error);
    return result.added;
}

// The audio may come before the answer does.
void AudioStream::startCapture(AudioCompletion completion)
{
    if (impl_->output)
        impl_->output->impl().meter.start(macos::readClocks().steadyNs / 1000000);
    impl_->started = true;
    impl_->native.startCapture(toNative(std::move(completion)));
}

void AudioStream::stopCapture(AudioCompletion completion)
{
    impl_->started = false;
    impl_->native.stopCapture(toNative(std::move(completion)));
}

void AudioStream::deliverUntil(qint64 monotonicMs, bool last)
{
    if (impl_->started && impl_->output)
        impl_->output->impl().deliverUntil(monotonicMs, last);
}

}

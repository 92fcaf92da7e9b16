#include "fakeaudio.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>

namespace fakeplatform {

SoundState& sound()
{
    static SoundState instance;
    return instance;
}

std::function<void(platform::AudioContentCompletion)> contentOf(
    std::vector<platform::AudioApplication> applications, std::size_t displays)
{
    auto content = std::make_shared<platform::AudioContent>();
    content->displays = displays;
    content->applications = std::move(applications);
    return [content](const platform::AudioContentCompletion& completion) { completion(content, std::nullopt); };
}

namespace {

/// The output that was made last. Its receiver is called with the lock held, so that its end waits for the call.
struct Current {
    std::mutex mutex;
    platform::AudioReceiver* receiver = nullptr;
};

Current& current()
{
    static Current instance;
    return instance;
}

}

bool deliver(const platform::AudioSampleBuffer* buffer)
{
    const std::scoped_lock lock(current().mutex);
    if (!current().receiver)
        return false;
    current().receiver->handleSampleBuffer(buffer);
    return true;
}

bool deliverStereo(const std::vector<qint16>& samples)
{
    platform::AudioSampleBuffer buffer;
    buffer.description = platform::AudioStreamDescription{
        .formatFlags = platform::pcmIsSignedInteger, .bytesPerFrame = 4, .channelsPerFrame = 2, .bitsPerChannel = 16};
    buffer.frames = qint64(samples.size() / 2);
    buffer.bufferList = [&samples] {
        return platform::AudioBufferList{{{samples.data(), samples.size() * sizeof(qint16)}}, nullptr};
    };
    return deliver(&buffer);
}

bool stopStream(const std::optional<QString>& error)
{
    const std::scoped_lock lock(current().mutex);
    if (!current().receiver)
        return false;
    current().receiver->streamStopped(error);
    return true;
}

}

namespace platform {

using fakeplatform::sound;

void requestAudioContent(bool excludeDesktopWindows, bool onScreenWindowsOnly, AudioContentCompletion completion)
{
    sound().lookups.push_back({excludeDesktopWindows, onScreenWindowsOnly});
    if (sound().lookup)
        sound().lookup(std::move(completion));
    else
        completion(nullptr, fakeplatform::noSoundError);
}

QString executablePath(qint64 processId)
{
    sound().executablesAsked.push_back(processId);
    const auto found = sound().executables.find(processId);
    return found != sound().executables.end() ? found->second : QString();
}

struct Semaphore::Impl {
    std::mutex mutex;
    std::condition_variable changed;
    int signals = 0;
};

Semaphore::Semaphore() : impl_(std::make_unique<Impl>()) { }

Semaphore::~Semaphore() = default;

void Semaphore::signal()
{
    const std::scoped_lock lock(impl_->mutex);
    ++impl_->signals;
    impl_->changed.notify_one();
}

bool Semaphore::wait(qint64 nanoseconds)
{
    sound().waits.push_back(nanoseconds);
    const auto limit = std::min<std::chrono::nanoseconds>(std::chrono::nanoseconds(nanoseconds), sound().longestWait);
    std::unique_lock lock(impl_->mutex);
    if (!impl_->changed.wait_for(lock, limit, [this] { return impl_->signals > 0; }))
        return false;
    --impl_->signals;
    return true;
}

struct AudioOutput::Impl {
    AudioReceiver receiver;
};

AudioOutput::AudioOutput(AudioReceiver owner) : impl_(std::make_unique<Impl>(Impl{std::move(owner)}))
{
    const std::scoped_lock lock(fakeplatform::current().mutex);
    fakeplatform::current().receiver = &impl_->receiver;
    ++sound().liveOutputs;
}

AudioOutput::~AudioOutput()
{
    const std::scoped_lock lock(fakeplatform::current().mutex);
    if (fakeplatform::current().receiver == &impl_->receiver)
        fakeplatform::current().receiver = nullptr;
    --sound().liveOutputs;
}

struct AudioQueue::Impl { };

AudioQueue::AudioQueue(const char* label) : impl_(std::make_unique<Impl>())
{
    sound().queueLabels.emplace_back(label);
    ++sound().liveQueues;
}

AudioQueue::~AudioQueue()
{
    --sound().liveQueues;
}

struct AudioStream::Impl { };

AudioStream::AudioStream(const AudioFilter& filter, const AudioStreamConfiguration& configuration, AudioOutput&)
    : impl_(std::make_unique<Impl>())
{
    sound().streams.push_back({filter, configuration});
    ++sound().liveStreams;
}

AudioStream::~AudioStream()
{
    --sound().liveStreams;
}

bool AudioStream::addStreamOutput(AudioOutput&, AudioQueue&, std::optional<QString>* error)
{
    ++sound().outputsAdded;
    if (!sound().addOutputFailure)
        return true;
    *error = *sound().addOutputFailure;
    return false;
}

void AudioStream::startCapture(AudioCompletion completion)
{
    ++sound().starts;
    if (sound().start)
        sound().start(std::move(completion));
    else
        completion(std::nullopt);
}

void AudioStream::stopCapture(AudioCompletion completion)
{
    ++sound().stops;
    if (sound().stop)
        sound().stop(std::move(completion));
    else
        completion(std::nullopt);
}

void AudioStream::deliverUntil(qint64 monotonicMs, bool last)
{
    sound().lastDeliveries += last;
    if (sound().deliverUntil)
        sound().deliverUntil(monotonicMs);
}

}

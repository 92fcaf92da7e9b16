#include "fakeaudio.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>

namespace fakeplatform {

AudioState& audio()
{
    static AudioState instance;
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

using fakeplatform::audio;

void requestAudioContent(bool excludeDesktopWindows, bool onScreenWindowsOnly, AudioContentCompletion completion)
{
    audio().lookups.push_back({excludeDesktopWindows, onScreenWindowsOnly});
    if (audio().lookup)
        audio().lookup(std::move(completion));
    else
        completion(nullptr, fakeplatform::noAudioError);
}

QString executablePath(qint64 processId)
{
    audio().executablesAsked.push_back(processId);
    const auto found = audio().executables.find(processId);
    return found != audio().executables.end() ? found->second : QString();
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

bool Semaphore::wait(std::int64_t nanoseconds)
{
    audio().waits.push_back(nanoseconds);
    const auto limit = std::min<std::chrono::nanoseconds>(std::chrono::nanoseconds(nanoseconds), audio().longestWait);
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
    ++audio().liveOutputs;
}

AudioOutput::~AudioOutput()
{
    const std::scoped_lock lock(fakeplatform::current().mutex);
    if (fakeplatform::current().receiver == &impl_->receiver)
        fakeplatform::current().receiver = nullptr;
    --audio().liveOutputs;
}

struct AudioQueue::Impl { };

AudioQueue::AudioQueue(const char* label) : impl_(std::make_unique<Impl>())
{
    audio().queueLabels.emplace_back(label);
    ++audio().liveQueues;
}

AudioQueue::~AudioQueue()
{
    --audio().liveQueues;
}

struct AudioStream::Impl { };

AudioStream::AudioStream(const AudioFilter& filter, const AudioStreamConfiguration& configuration, AudioOutput&)
    : impl_(std::make_unique<Impl>())
{
    audio().streams.push_back({filter, configuration});
    ++audio().liveStreams;
}

AudioStream::~AudioStream()
{
    --audio().liveStreams;
}

bool AudioStream::addStreamOutput(AudioOutput&, AudioQueue&, std::optional<QString>* error)
{
    ++audio().outputsAdded;
    if (!audio().addOutputFailure)
        return true;
    *error = *audio().addOutputFailure;
    return false;
}

void AudioStream::startCapture(AudioCompletion completion)
{
    ++audio().starts;
    if (audio().start)
        audio().start(std::move(completion));
    else
        completion(std::nullopt);
}

void AudioStream::stopCapture(AudioCompletion completion)
{
    ++audio().stops;
    if (audio().stop)
        audio().stop(std::move(completion));
    else
        completion(std::nullopt);
}

AudioDelivery AudioStream::deliverUntil(qint64 monotonicMs, bool last)
{
    audio().lastDeliveries += last;
    if (audio().deliverUntil)
        audio().deliverUntil(monotonicMs);
    return audio().delivery ? audio().delivery(monotonicMs) : AudioDelivery{monotonicMs};
}

}

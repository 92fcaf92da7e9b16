// Audio on Linux: PipeWire. Its blocks come with the cycles of the graph, up to 170 ms at a time; the reader gets
// them metered out by its own clock.
#include "platform/audio.h"

#include "audiomix.h"
#include "pipewirecapture.h"
#include "streamowners.h"

#include <chrono>
#include <mutex>
#include <semaphore>
#include <utility>

namespace platform {

struct Semaphore::Impl {
    std::counting_semaphore<> semaphore{0};
};

Semaphore::Semaphore() : impl_(std::make_unique<Impl>()) { }

Semaphore::~Semaphore() = default;

void Semaphore::signal()
{
    impl_->semaphore.release();
}

bool Semaphore::wait(std::int64_t nanoseconds)
{
    return impl_->semaphore.try_acquire_for(std::chrono::nanoseconds(nanoseconds));
}

struct AudioOutput::Impl {
    AudioReceiver owner;
};

AudioOutput::AudioOutput(AudioReceiver owner) : impl_(std::make_unique<Impl>(Impl{std::move(owner)})) { }

AudioOutput::~AudioOutput() = default;

/// Deliveries are made on the reader's own thread; the queue only keeps them apart.
struct AudioQueue::Impl {
    std::mutex mutex;
};

AudioQueue::AudioQueue(const char* /*label*/) : impl_(std::make_unique<Impl>()) { }

AudioQueue::~AudioQueue() = default;

namespace {

/// Programs are heard a cycle ahead of their time, a sink at the end of it: the reader, who comes every 10 ms, mostly
/// finds that in its next turn.
constexpr int monitorHoldBackMs = 8;

qint64 monotonicMs()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

/// The X server is asked on another thread, and only where the process table does not decide.
pipewire::ProcessFilter processFilter(const AudioFilter& filter)
{
    if (!filter.excludedApplications)
        return nullptr;
    auto snapshot = std::static_pointer_cast<const streamowners::ApplicationSnapshot>(filter.content->native);
    auto accepting = std::make_shared<streamowners::ProcessFilter>(std::move(snapshot), *filter.excludedApplications);
    return [accepting](qint64 processId) -> pipewire::Verdict {
        auto ancestry = accepting->ancestryOf(processId);
        if (const std::optional<bool> known = accepting->acceptsAtOnce(ancestry))
            return *known;
        return [accepting, processId, ancestry = std::move(ancestry)]() mutable {
            if (ancestry.empty()) // nobody knew the process
                ancestry = accepting->ancestryOf(processId);
            return accepting->accepts(ancestry);
        };
    };
}

AudioStreamDescription stereoFloat()
{
    AudioStreamDescription description;
    description.formatFlags = pcmIsFloat;
    description.bytesPerFrame = pipewire::BlockQueue::frameBytes;
    description.channelsPerFrame = 2;
    description.bitsPerChannel = 32;
    return description;
}

}

struct AudioStream::Impl {
    Impl(const AudioFilter& filter, AudioOutput& delegate)
        : mix(filter.excludedApplications ? 0 : monitorHoldBackMs),
          capture(processFilter(filter),
              [&delegate](const QString& error) { delegate.impl().owner.streamStopped(error); })
    {
    }

    void deliver(std::vector<float> stereo) const
    {
        const auto memory = std::make_shared<const std::vector<float>>(std::move(stereo));
        AudioSampleBuffer buffer;
        buffer.description = stereoFloat();
        buffer.frames = qint64(memory->size() / 2);
        buffer.bufferList = [memory] {
            return AudioBufferList{{AudioBuffer{memory->data(), memory->size() * sizeof(float)}}, memory};
        };
        const std::lock_guard lock(queue->impl().mutex);
        output->impl().owner.handleSampleBuffer(&buffer);
    }

    pipewire::AudioMix mix;
    AudioOutput* output = nullptr; // null until added
    AudioQueue* queue = nullptr;
    bool started = false;
    pipewire::AudioCapture capture;
};

AudioStream::AudioStream(
    const AudioFilter& filter, const AudioStreamConfiguration& /*configuration*/, AudioOutput& delegate)
    : impl_(std::make_unique<Impl>(filter, delegate))
{
}

AudioStream::~AudioStream() = default;

bool AudioStream::addStreamOutput(AudioOutput& output, AudioQueue& queue, std::optional<QString>* error)
{
    if (impl_->capture.error()) {
        *error = impl_->capture.error();
        return false;
    }
    impl_->output = &output;
    impl_->queue = &queue;
    return true;
}

void AudioStream::startCapture(AudioCompletion completion)
{
    if (impl_->capture.error()) {
        completion(impl_->capture.error());
        return;
    }
    impl_->mix.start(monotonicMs());
    impl_->started = true;
    impl_->capture.setActive(true, std::move(completion));
}

void AudioStream::stopCapture(AudioCompletion completion)
{
    if (impl_->capture.error()) {
        completion(impl_->capture.error());
        return;
    }
    impl_->started = false;
    impl_->capture.setActive(false, std::move(completion));
}

AudioDelivery AudioStream::deliverUntil(qint64 untilMs, bool last)
{
    AudioDelivery delivery{untilMs};
    if (!impl_->started || !impl_->output)
        return delivery;
    if (auto audio = impl_->mix.deliver(impl_->capture.queues(), untilMs, last)) {
        impl_->deliver(std::move(*audio));
        delivery.untilMs = impl_->mix.deliveredMs();
    }
    delivery.missed = impl_->mix.hasMissed();
    return delivery;
}

}

#include "audiooutput.h"

#include "audiosampleintake.h"
#include "containment.h"
#include "hostclock.h"
#include "nstext.h"
#include "samplebuffer.h"

#include <utility>

@implementation MacScreenAudioOutput

- (instancetype)initWithOwner:(platform::AudioOutput::Impl*)owner
{
    self = [super init];
    if (self)
        _owner = owner;
    return self;
}

- (void)disown
{
    @synchronized(self) {
        _owner = nullptr;
    }
}

- (void)stream:(SCStream*)stream didOutputSampleBuffer:(CMSampleBufferRef)sampleBuffer ofType:(SCStreamOutputType)type
{
    if (type != SCStreamOutputTypeAudio)
        return;
    @autoreleasepool {
        @synchronized(self) {
            if (_owner)
                _owner->take(sampleBuffer);
        }
    }
}

- (void)stream:(SCStream*)stream didStopWithError:(NSError*)error
{
    @autoreleasepool {
        @synchronized(self) {
            if (_owner)
                macos::contain([&] { _owner->receiver.streamStopped(macos::errorText(error)); });
        }
    }
}

@end

namespace platform {

namespace {

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

AudioOutput::Impl::Impl(AudioReceiver theReceiver)
    : receiver(std::move(theReceiver)),
      object(macos::Retained<MacScreenAudioOutput*>::adopt([[MacScreenAudioOutput alloc] initWithOwner:this]))
{
}

void AudioOutput::Impl::take(CMSampleBufferRef block) noexcept
{
    const bool done = macos::contain([&] {
        if (block)
            takeBlock(block);
        else
            handOut(nullptr);
    });
    if (!done)
        outOfMemory_ = true;
}

void AudioOutput::Impl::takeBlock(CMSampleBufferRef block)
{
    const AudioSampleBuffer buffer = macos::sampleBuffer(block);
    if (!hasAudio(buffer)) {
        handOut(&buffer); // whose business it is
        return;
    }
    const auto list = buffer.bufferList();
    if (!list)
        return;
    const auto chunk = audiointake::toChunk(*buffer.description, buffer.frames, list->buffers);
    if (!chunk) {
        outOfMemory_ = true;
        return;
    }
    const macos::ClockReading now = macos::readClocks();
    meter.append(steadyTime(macos::hostTimeNs(block), now), now.steadyNs,
        {reinterpret_cast<const qint16*>(chunk->pcm.constData()), std::size_t(chunk->frames) * 2});
}

AudioDelivery AudioOutput::Impl::deliverUntil(qint64 untilMs, bool last)
{
    auto audio = meter.deliver(untilMs, last);
    if (audio)
        handOver(std::move(*audio));
    return {audio ? meter.deliveredMs() : untilMs, meter.hasMissed(), outOfMemory_};
}

void AudioOutput::Impl::handOver(std::vector<qint16> audio)
{
    const auto memory = std::make_shared<const std::vector<qint16>>(std::move(audio));
    AudioSampleBuffer buffer;
    buffer.description = stereoOfSigned16();
    buffer.frames = qint64(memory->size() / 2);
    buffer.bufferList = [memory] {
        return AudioBufferList{{AudioBuffer{memory->data(), memory->size() * sizeof(qint16)}}, memory};
    };
    handOut(&buffer);
}

void AudioOutput::Impl::handOut(const AudioSampleBuffer* buffer)
{
    const std::lock_guard lock(receiverMutex_);
    receiver.handleSampleBuffer(buffer);
}

AudioOutput::AudioOutput(AudioReceiver owner) : impl_(std::make_unique<Impl>(std::move(owner))) { }

AudioOutput::~AudioOutput()
{
    [impl_->object.get() disown];
}

}

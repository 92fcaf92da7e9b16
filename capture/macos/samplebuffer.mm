#include "samplebuffer.h"

#include "cmtime.h"
#include "handles.h"

#include <algorithm>
#include <cstddef>

namespace macos {

namespace {

// The numbers that the rules above the platform know.
static_assert(kAudioFormatLinearPCM == platform::linearPcm);
static_assert(kAudioFormatFlagIsFloat == platform::pcmIsFloat);
static_assert(kAudioFormatFlagIsSignedInteger == platform::pcmIsSignedInteger);
static_assert(kAudioFormatFlagIsNonInterleaved == platform::pcmIsNonInterleaved);

constexpr std::uint32_t alignment = kCMSampleBufferFlag_AudioBufferList_Assure16ByteAlignment;

CMSampleBufferRef nativeBuffer(void* buffer)
{
    return static_cast<CMSampleBufferRef>(buffer);
}

/// How many bytes a list of this audio's buffers takes; 0 when the system cannot tell.
std::size_t listSize(CMSampleBufferRef buffer)
{
    std::size_t size = 0;
    const OSStatus status = CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(
        buffer, &size, nullptr, 0, kCFAllocatorDefault, kCFAllocatorDefault, alignment, nullptr);
    return status == 0 ? size : 0;
}

std::vector<platform::AudioBuffer> buffersOf(const AudioBufferList& list, std::size_t size)
{
    const std::size_t room = (size - offsetof(AudioBufferList, mBuffers)) / sizeof(::AudioBuffer);
    const std::size_t count = std::min<std::size_t>(list.mNumberBuffers, room);
    std::vector<platform::AudioBuffer> buffers;
    buffers.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
        buffers.push_back({list.mBuffers[i].mData, list.mBuffers[i].mDataByteSize});
    return buffers;
}

}

bool SampleBuffer::isValid() const
{
    return CMSampleBufferIsValid(nativeBuffer(native_));
}

std::optional<platform::AudioStreamDescription> SampleBuffer::description() const
{
    const CMFormatDescriptionRef format = CMSampleBufferGetFormatDescription(nativeBuffer(native_));
    const auto* native = format ? CMAudioFormatDescriptionGetStreamBasicDescription(format) : nullptr;
    if (!native)
        return std::nullopt;
    return platform::AudioStreamDescription{native->mFormatID, native->mFormatFlags, native->mBytesPerFrame,
        native->mChannelsPerFrame, native->mBitsPerChannel};
}

std::optional<std::int64_t> SampleBuffer::hostTimeNs() const
{
    return nanoseconds(CMSampleBufferGetPresentationTimeStamp(nativeBuffer(native_)));
}

std::int64_t SampleBuffer::frames() const
{
    return CMSampleBufferGetNumSamples(nativeBuffer(native_));
}

std::optional<platform::AudioBufferList> SampleBuffer::bytes() const
{
    const std::size_t size = listSize(nativeBuffer(native_));
    if (size < offsetof(AudioBufferList, mBuffers))
        return std::nullopt;
    const std::unique_ptr<std::max_align_t[]> memory(new std::max_align_t[size / sizeof(std::max_align_t) + 1]);
    auto* list = reinterpret_cast<AudioBufferList*>(memory.get());
    CMBlockBufferRef block = nullptr;
    const OSStatus status = CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(
        nativeBuffer(native_), nullptr, list, size, kCFAllocatorDefault, kCFAllocatorDefault, alignment, &block);
    // Also a call that failed may have left one.
    CfHandle<CMBlockBufferRef> retained(block);
    if (status != 0)
        return std::nullopt;
    return platform::AudioBufferList{buffersOf(*list, size), std::shared_ptr<const void>(std::move(retained))};
}

}

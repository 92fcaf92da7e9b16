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

/// Nothing when the block tells no format of audio.
std::optional<platform::AudioStreamDescription> descriptionOf(CMSampleBufferRef block)
{
    const CMFormatDescriptionRef format = CMSampleBufferGetFormatDescription(block);
    const auto* native = format ? CMAudioFormatDescriptionGetStreamBasicDescription(format) : nullptr;
    if (!native)
        return std::nullopt;
    return platform::AudioStreamDescription{native->mFormatID, native->mFormatFlags, native->mBytesPerFrame,
        native->mChannelsPerFrame, native->mBitsPerChannel};
}

/// How many bytes a list of this audio's buffers takes; 0 when the system cannot tell.
std::size_t listSize(CMSampleBufferRef block)
{
    std::size_t size = 0;
    const OSStatus status = CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(
        block, &size, nullptr, 0, kCFAllocatorDefault, kCFAllocatorDefault, alignment, nullptr);
    return status == 0 ? size : 0;
}

std::vector<platform::AudioBuffer> buffersOf(const AudioBufferList& list, std::size_t size)
{
    const std::size_t room = (size - offsetof(AudioBufferList, mBuffers)) / sizeof(AudioBuffer);
    const std::size_t count = std::min<std::size_t>(list.mNumberBuffers, room);
    std::vector<platform::AudioBuffer> buffers;
    buffers.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
        buffers.push_back({list.mBuffers[i].mData, list.mBuffers[i].mDataByteSize});
    return buffers;
}

/// Nothing when the system fails to hand the samples out.
std::optional<platform::AudioBufferList> bufferListOf(CMSampleBufferRef block)
{
    const std::size_t size = listSize(block);
    if (size < offsetof(AudioBufferList, mBuffers))
        return std::nullopt;
    const std::unique_ptr<std::max_align_t[]> memory(new std::max_align_t[size / sizeof(std::max_align_t) + 1]);
    auto* list = reinterpret_cast<AudioBufferList*>(memory.get());
    CMBlockBufferRef samples = nullptr;
    const OSStatus status = CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(
        block, nullptr, list, size, kCFAllocatorDefault, kCFAllocatorDefault, alignment, &samples);
    // Also a call that failed may have left one.
    CfHandle<CMBlockBufferRef> retained(samples);
    if (status != 0)
        return std::nullopt;
    return platform::AudioBufferList{buffersOf(*list, size), std::shared_ptr<const void>(std::move(retained))};
}

}

platform::AudioSampleBuffer sampleBuffer(CMSampleBufferRef block)
{
    platform::AudioSampleBuffer buffer;
    buffer.valid = CMSampleBufferIsValid(block);
    if (buffer.valid) {
        buffer.description = descriptionOf(block);
        buffer.frames = CMSampleBufferGetNumSamples(block);
    }
    buffer.bufferList = [block] { return bufferListOf(block); };
    return buffer;
}

std::optional<std::int64_t> hostTimeNs(CMSampleBufferRef block)
{
    return nanoseconds(CMSampleBufferGetPresentationTimeStamp(block));
}

}

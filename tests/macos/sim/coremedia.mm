// Sample buffers and times.
#import <CoreMedia/CoreMedia.h>

#include "objects.h"
#include "runtime.h"
#include "samples.h"
#include "system.h"

#include <malloc.h>

#include <algorithm>
#include <cstring>

@interface SimSampleBuffer : NSObject
@end
@implementation SimSampleBuffer
@end
@interface SimFormatDescription : NSObject
@end
@implementation SimFormatDescription
@end
@interface SimBlockBuffer : NSObject
@end
@implementation SimBlockBuffer
@end

namespace {

using macsim::bodyOf;
using macsim::Strong;

constexpr OSStatus arrayTooSmall = -12737;
constexpr std::uint32_t alignTo16 = 1;
constexpr unsigned char spoilt = 0x6b;

struct FormatBody : macsim::ledger::Body {
    AudioStreamBasicDescription description{};
    bool isAudio = true;
    void end() override { description = {}; }
};

struct SampleBody : macsim::ledger::Body {
    macsim::Audio audio;
    std::optional<Strong> format;
    std::optional<Strong> block; ///< when the caller gets none
    void end() override
    {
        format.reset();
        block.reset();
    }
};

/// The memory of the samples. Each buffer has one of its exact size, so that a reader of more is seen.
struct BlockBody : macsim::ledger::Body {
    struct Piece {
        std::unique_ptr<unsigned char[]> memory;
        unsigned char* data = nullptr; ///< in it, to its end
        std::size_t size = 0;
    };
    std::vector<Piece> pieces;

    void end() override
    {
        for (auto& piece : pieces)
            std::fill_n(piece.data, piece.size, spoilt);
    }
};

template <typename T>
T handleOf(id object)
{
    return reinterpret_cast<T>(const_cast<void*>(static_cast<const void*>(object)));
}

/// Aligned or just not, as it was asked for.
BlockBody::Piece pieceOf(const std::vector<std::uint8_t>& bytes, bool aligned)
{
    static_assert(__STDCPP_DEFAULT_NEW_ALIGNMENT__ >= 16);
    const std::size_t skip = aligned ? 0 : 1;
    BlockBody::Piece piece{std::make_unique<unsigned char[]>(skip + bytes.size()), nullptr, bytes.size()};
    piece.data = piece.memory.get() + skip;
    std::copy(bytes.begin(), bytes.end(), piece.data);
    return piece;
}

Strong makeBlock(const macsim::Audio& audio, bool aligned)
{
    Strong block = Strong::adopt([SimBlockBuffer alloc]);
    const auto body = bodyOf<BlockBody>(block.get());
    for (const auto& bytes : audio.buffers)
        body->pieces.push_back(pieceOf(bytes, aligned));
    return block;
}

std::size_t listSize(const macsim::Audio& audio)
{
    const std::size_t truth = offsetof(AudioBufferList, mBuffers) + audio.buffers.size() * sizeof(AudioBuffer);
    return audio.claimedListSize.value_or(truth);
}

/// As many of the buffers as have room in that size.
void fillList(AudioBufferList* list, std::size_t size, const macsim::Audio& audio, const BlockBody& block)
{
    list->mNumberBuffers = audio.claimedBuffers.value_or(std::uint32_t(audio.buffers.size()));
    for (std::size_t i = 0; i < audio.buffers.size(); ++i) {
        if (size < offsetof(AudioBufferList, mBuffers) + (i + 1) * sizeof(AudioBuffer))
            return;
        const bool null = i < audio.nullBuffers.size() && audio.nullBuffers[i];
        AudioBuffer buffer{};
        buffer.mNumberChannels = std::uint32_t(audio.channels / std::max<std::size_t>(1, audio.buffers.size()));
        buffer.mDataByteSize = std::uint32_t(audio.buffers[i].size());
        buffer.mData = null ? nullptr : block.pieces[i].data;
        std::memcpy(list->mBuffers + i, &buffer, sizeof(buffer));
    }
}

Strong makeFormat(const macsim::Audio& audio)
{
    Strong format = Strong::adopt([SimFormatDescription alloc]);
    const auto body = bodyOf<FormatBody>(format.get());
    body->isAudio = audio.descriptionIsAudio;
    body->description.mSampleRate = 48000;
    body->description.mFormatID = audio.formatId;
    body->description.mFormatFlags = audio.formatFlags;
    body->description.mBytesPerPacket = audio.bytesPerFrame;
    body->description.mFramesPerPacket = 1;
    body->description.mBytesPerFrame = audio.bytesPerFrame;
    body->description.mChannelsPerFrame = audio.channels;
    body->description.mBitsPerChannel = audio.bitsPerChannel;
    return format;
}

}

namespace macsim {

id makeSampleBuffer(const Audio& audio)
{
    if (audio.null)
        return nil;
    id buffer = [SimSampleBuffer alloc];
    const auto body = bodyOf<SampleBody>(buffer);
    body->audio = audio;
    if (audio.hasDescription)
        body->format = makeFormat(audio);
    return buffer;
}

Audio stereoAudio(const std::vector<std::int16_t>& samples)
{
    Audio audio;
    audio.formatFlags = 4 | 8;
    audio.bytesPerFrame = 4;
    audio.channels = 2;
    audio.bitsPerChannel = 16;
    audio.frames = std::int64_t(samples.size() / 2);
    audio.buffers.resize(1);
    audio.buffers[0].resize(samples.size() * sizeof(std::int16_t));
    std::memcpy(audio.buffers[0].data(), samples.data(), audio.buffers[0].size());
    return audio;
}

}

extern "C" {

CMTime CMTimeMake(int64_t value, int32_t timescale)
{
    CMTime time{};
    time.value = value;
    time.timescale = timescale;
    time.flags = 1;
    return time;
}

Boolean CMSampleBufferIsValid(CMSampleBufferRef buffer)
{
    return buffer && bodyOf<SampleBody>(buffer)->audio.valid;
}

CMTime CMSampleBufferGetPresentationTimeStamp(CMSampleBufferRef buffer)
{
    const auto& audio = bodyOf<SampleBody>(buffer)->audio;
    const std::int64_t scale = audio.timeScale;
    CMTime time = CMTimeMake(
        audio.timeNs / 1000000000 * scale + audio.timeNs % 1000000000 * scale / 1000000000, audio.timeScale);
    time.flags = audio.timeFlags;
    return time;
}

CMItemCount CMSampleBufferGetNumSamples(CMSampleBufferRef buffer)
{
    return bodyOf<SampleBody>(buffer)->audio.frames;
}

CMFormatDescriptionRef CMSampleBufferGetFormatDescription(CMSampleBufferRef buffer)
{
    const auto body = bodyOf<SampleBody>(buffer);
    return body->format ? handleOf<CMFormatDescriptionRef>(body->format->get()) : nullptr;
}

const AudioStreamBasicDescription* CMAudioFormatDescriptionGetStreamBasicDescription(
    CMAudioFormatDescriptionRef format)
{
    if (!format) {
        macsim::ledger::fault("asked for the description of no format");
        return nullptr;
    }
    const auto body = bodyOf<FormatBody>(format);
    return body->isAudio ? &body->description : nullptr;
}

OSStatus CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(CMSampleBufferRef buffer, size_t* sizeNeeded,
    AudioBufferList* list, size_t size, CFAllocatorRef, CFAllocatorRef, uint32_t flags, CMBlockBufferRef* block)
{
    macsim::system::note([flags](macsim::Record& record) { record.listFlags.push_back(flags); });
    if (!list && macsim::answers().samplesAsked)
        macsim::answers().samplesAsked();
    const auto& audio = bodyOf<SampleBody>(buffer)->audio;
    if (sizeNeeded)
        *sizeNeeded = listSize(audio);
    if (!list)
        return audio.sizeStatus;
    if (!block)
        macsim::ledger::fault("samples without the block buffer that keeps them");
    if (size < listSize(audio))
        return arrayTooSmall;
    if (malloc_usable_size(list) < size) { // the program keeps its lists on the heap
        macsim::ledger::fault("a buffer list that is larger than its memory");
        return arrayTooSmall;
    }
    Strong made = makeBlock(audio, flags & alignTo16);
    const bool given = audio.listStatus == 0 ? !audio.noBlock : audio.blockDespiteFailure;
    if (given && block)
        *block = handleOf<CMBlockBufferRef>([made.get() retain]);
    if (audio.listStatus != 0)
        return audio.listStatus;
    if (!given)
        bodyOf<SampleBody>(buffer)->block = made;
    fillList(list, size, audio, *bodyOf<BlockBody>(made.get()));
    return 0;
}
}

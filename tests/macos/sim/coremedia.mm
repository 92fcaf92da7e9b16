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
    macsim::Sound sound;
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

Strong makeBlock(const macsim::Sound& sound, bool aligned)
{
    Strong block = Strong::adopt([SimBlockBuffer alloc]);
    const auto body = bodyOf<BlockBody>(block.get());
    for (const auto& bytes : sound.buffers)
        body->pieces.push_back(pieceOf(bytes, aligned));
    return block;
}

std::size_t listSize(const macsim::Sound& sound)
{
    const std::size_t truth = offsetof(AudioBufferList, mBuffers) + sound.buffers.size() * sizeof(AudioBuffer);
    return sound.claimedListSize.value_or(truth);
}

/// As many of the buffers as have room in that size.
void fillList(AudioBufferList* list, std::size_t size, const macsim::Sound& sound, const BlockBody& block)
{
    list->mNumberBuffers = sound.claimedBuffers.value_or(std::uint32_t(sound.buffers.size()));
    for (std::size_t i = 0; i < sound.buffers.size(); ++i) {
        if (size < offsetof(AudioBufferList, mBuffers) + (i + 1) * sizeof(AudioBuffer))
            return;
        const bool null = i < sound.nullBuffers.size() && sound.nullBuffers[i];
        AudioBuffer buffer{};
        buffer.mNumberChannels = std::uint32_t(sound.channels / std::max<std::size_t>(1, sound.buffers.size()));
        buffer.mDataByteSize = std::uint32_t(sound.buffers[i].size());
        buffer.mData = null ? nullptr : block.pieces[i].data;
        std::memcpy(list->mBuffers + i, &buffer, sizeof(buffer));
    }
}

Strong makeFormat(const macsim::Sound& sound)
{
    Strong format = Strong::adopt([SimFormatDescription alloc]);
    const auto body = bodyOf<FormatBody>(format.get());
    body->isAudio = sound.descriptionIsAudio;
    body->description.mSampleRate = 48000;
    body->description.mFormatID = sound.formatId;
    body->description.mFormatFlags = sound.formatFlags;
    body->description.mBytesPerPacket = sound.bytesPerFrame;
    body->description.mFramesPerPacket = 1;
    body->description.mBytesPerFrame = sound.bytesPerFrame;
    body->description.mChannelsPerFrame = sound.channels;
    body->description.mBitsPerChannel = sound.bitsPerChannel;
    return format;
}

}

namespace macsim {

id makeSampleBuffer(const Sound& sound)
{
    if (sound.null)
        return nil;
    id buffer = [SimSampleBuffer alloc];
    const auto body = bodyOf<SampleBody>(buffer);
    body->sound = sound;
    if (sound.hasDescription)
        body->format = makeFormat(sound);
    return buffer;
}

Sound stereoSound(const std::vector<std::int16_t>& samples)
{
    Sound sound;
    sound.formatFlags = 4 | 8;
    sound.bytesPerFrame = 4;
    sound.channels = 2;
    sound.bitsPerChannel = 16;
    sound.frames = std::int64_t(samples.size() / 2);
    sound.buffers.resize(1);
    sound.buffers[0].resize(samples.size() * sizeof(std::int16_t));
    std::memcpy(sound.buffers[0].data(), samples.data(), sound.buffers[0].size());
    return sound;
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
    return buffer && bodyOf<SampleBody>(buffer)->sound.valid;
}

CMItemCount CMSampleBufferGetNumSamples(CMSampleBufferRef buffer)
{
    return bodyOf<SampleBody>(buffer)->sound.frames;
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
    const auto& sound = bodyOf<SampleBody>(buffer)->sound;
    if (sizeNeeded)
        *sizeNeeded = listSize(sound);
    if (!list)
        return sound.sizeStatus;
    if (!block)
        macsim::ledger::fault("samples without the block buffer that keeps them");
    if (size < listSize(sound))
        return arrayTooSmall;
    if (malloc_usable_size(list) < size) { // the program keeps its lists on the heap
        macsim::ledger::fault("a buffer list that is larger than its memory");
        return arrayTooSmall;
    }
    Strong made = makeBlock(sound, flags & alignTo16);
    const bool given = sound.listStatus == 0 ? !sound.noBlock : sound.blockDespiteFailure;
    if (given && block)
        *block = handleOf<CMBlockBufferRef>([made.get() retain]);
    if (sound.listStatus != 0)
        return sound.listStatus;
    if (!given)
        bodyOf<SampleBody>(buffer)->block = made;
    fillList(list, size, sound, *bodyOf<BlockBody>(made.get()));
    return 0;
}
}

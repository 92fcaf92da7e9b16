// CoreMedia: rational time, and sample buffers of audio.
#pragma once

#include <CoreAudioTypes/CoreAudioTypes.h>

PLATFORM_BEGIN

#pragma pack(push, 4)
typedef struct {
    int64_t value;
    int32_t timescale;
    uint32_t flags;
    int64_t epoch;
} CMTime;
#pragma pack(pop)

PLATFORM_C CMTime CMTimeMake(int64_t value, int32_t timescale);

enum {
    kCMTimeFlags_Valid = 1U << 0,
    kCMTimeFlags_ImpliedValueFlagsMask = 1U << 2 | 1U << 3 | 1U << 4,
};

typedef struct __attribute__((objc_bridge(id))) OpaqueCMClock* CMClockRef;
PLATFORM_C CMClockRef CMClockGetHostTimeClock(void);
PLATFORM_C CMTime CMClockGetTime(CMClockRef clock);

typedef CFIndex CMItemCount;
typedef struct __attribute__((objc_bridge(id))) opaqueCMSampleBuffer* CMSampleBufferRef;
typedef struct __attribute__((objc_bridge(id))) OpaqueCMBlockBuffer* CMBlockBufferRef;
typedef const struct __attribute__((objc_bridge(id))) opaqueCMFormatDescription* CMFormatDescriptionRef;
typedef CMFormatDescriptionRef CMAudioFormatDescriptionRef;

PLATFORM_C Boolean CMSampleBufferIsValid(CMSampleBufferRef buffer);
PLATFORM_C CMItemCount CMSampleBufferGetNumSamples(CMSampleBufferRef buffer);
PLATFORM_C CMTime CMSampleBufferGetPresentationTimeStamp(CMSampleBufferRef buffer);
PLATFORM_C CMFormatDescriptionRef _Nullable CMSampleBufferGetFormatDescription(CMSampleBufferRef buffer);
PLATFORM_C const AudioStreamBasicDescription* _Nullable CMAudioFormatDescriptionGetStreamBasicDescription(
    CMAudioFormatDescriptionRef description);

enum {
    kCMSampleBufferFlag_AudioBufferList_Assure16ByteAlignment = 1U << 0,
};
PLATFORM_C OSStatus CMSampleBufferGetAudioBufferListWithRetainedBlockBuffer(CMSampleBufferRef buffer,
    size_t* _Nullable bufferListSizeNeeded, AudioBufferList* _Nullable bufferList, size_t bufferListSize,
    CFAllocatorRef _Nullable blockBufferStructureAllocator, CFAllocatorRef _Nullable blockBufferBlockAllocator,
    uint32_t flags, PLATFORM_RETURNS_RETAINED CMBlockBufferRef _Nullable* _Nullable blockBuffer);

PLATFORM_END

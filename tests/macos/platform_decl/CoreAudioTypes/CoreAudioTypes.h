// CoreAudioTypes: how samples lie in memory.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

PLATFORM_BEGIN

typedef struct AudioBuffer {
    uint32_t mNumberChannels;
    uint32_t mDataByteSize;
    void* _Nullable mData;
} AudioBuffer;

typedef struct AudioBufferList {
    uint32_t mNumberBuffers;
    AudioBuffer mBuffers[1]; // as many as mNumberBuffers says
} AudioBufferList;

enum : uint32_t {
    kAudioFormatLinearPCM = 0x6c70636d, // 'lpcm'
};

typedef PLATFORM_OPTIONS(uint32_t, AudioFormatFlags){
    kAudioFormatFlagIsFloat = 1U << 0,
    kAudioFormatFlagIsSignedInteger = 1U << 2,
    kAudioFormatFlagIsNonInterleaved = 1U << 5,
};

typedef struct AudioStreamBasicDescription {
    double mSampleRate;
    uint32_t mFormatID;
    AudioFormatFlags mFormatFlags;
    uint32_t mBytesPerPacket;
    uint32_t mFramesPerPacket;
    uint32_t mBytesPerFrame;
    uint32_t mChannelsPerFrame;
    uint32_t mBitsPerChannel;
    uint32_t mReserved;
} AudioStreamBasicDescription;

PLATFORM_END

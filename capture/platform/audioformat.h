// How audio lies in memory and how it is to be delivered: values of the seam.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace platform {

inline constexpr std::uint32_t linearPcm = 0x6c70636d; ///< AudioStreamDescription::formatId: 'lpcm'
inline constexpr std::uint32_t pcmIsFloat = 1; ///< AudioStreamDescription::formatFlags
inline constexpr std::uint32_t pcmIsSignedInteger = 4;
inline constexpr std::uint32_t pcmIsNonInterleaved = 32; ///< one buffer a channel

/// How the samples of a buffer lie in memory. Samples are in the machine's byte order.
struct AudioStreamDescription {
    std::uint32_t formatId = linearPcm;
    std::uint32_t formatFlags = 0;
    std::uint32_t bytesPerFrame = 0; ///< of one buffer
    std::uint32_t channelsPerFrame = 0;
    std::uint32_t bitsPerChannel = 0;
};

struct AudioBuffer {
    const void* data = nullptr; ///< may be null
    std::size_t bytes = 0; ///< readable at data
};

struct AudioBufferList {
    std::vector<AudioBuffer> buffers;
    std::shared_ptr<const void> owner; ///< keeps the memory of the buffers; null when that outlives the call anyway
};

/// How a stream delivers its audio. The video that some platforms tie to the audio is never read.
struct AudioStreamConfiguration {
    int width = 0; ///< of the video, pixels
    int height = 0;
    int minimumFrameIntervalNumerator = 0; ///< seconds: numerator / denominator
    int minimumFrameIntervalDenominator = 1;
    int queueDepth = 0;
    bool showsCursor = false;
    bool capturesAudio = false;
    int sampleRate = 0; ///< hertz
    int channelCount = 0;
    bool excludesCurrentProcessAudio = false;
};

}

// Delivered audio to chunks of 16-bit stereo: pure, values in, values out.
#pragma once

#include "platform/audio.h"
#include "recorderaudiocapture.h"

#include <optional>
#include <span>

namespace audiointake {

/// The most frames that one delivered buffer may hold: a chunk counts them in 32 bits.
inline constexpr qint64 mostFrames = 2147483647;

/**
 * Interleaved signed 16-bit stereo of the frames that a buffer list holds. Mono goes to both sides, channels beyond
 * the second are dropped. Float of 32 bits, unsigned of 16, signed of 16 and 32 bits are read; every other kind, and
 * every sample that lies outside the memory of its buffer, gives silence. frames is 1 to mostFrames. Nothing when
 * there is no memory for the chunk.
 */
std::optional<RecorderAudioCapture::Chunk> toChunk(const platform::AudioStreamDescription& description, qint64 frames,
    std::span<const platform::AudioBuffer> buffers);

}

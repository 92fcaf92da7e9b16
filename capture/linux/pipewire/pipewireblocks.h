// BlockQueue: blocks of audio on their way from PipeWire's data thread to the reader.
#pragma once

#include <QtGlobal>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

namespace pipewire {

/// What the data thread knows of a block of stereo float samples.
struct AudioBlock {
    qint64 startNs = 0; ///< when its first sample plays; monotonic clock
    qint64 arrivedNs = 0;
    qint64 frames = 0;
};

/**
 * One thread puts blocks in, one takes them out. Neither waits for the other, and putting in needs no memory from the
 * system. Holds 4 seconds; what finds no room is left out.
 */
class BlockQueue {
public:
    static constexpr quint64 frameCapacity = 4 * 48000;
    static constexpr quint64 blockCapacity = 8192;
    static constexpr std::size_t frameBytes = 2 * sizeof(float);

    /// For the thread that puts in. samples: block.frames pairs, of any alignment. False when it was left out.
    bool push(const AudioBlock& block, const void* samples)
    {
        const auto frames = quint64(block.frames);
        const quint64 put = blocksPut_.load(std::memory_order_relaxed);
        const quint64 taken = blocksTaken_.load(std::memory_order_acquire);
        const quint64 framesTaken = framesTaken_.load(std::memory_order_acquire);
        if (block.frames <= 0 || put - taken == blockCapacity || framesPut_ - framesTaken + frames > frameCapacity)
            return false;
        const quint64 place = framesPut_ % frameCapacity;
        const quint64 first = std::min(frames, frameCapacity - place);
        const auto* bytes = static_cast<const char*>(samples);
        std::memcpy(frames_.get() + place * 2, bytes, first * frameBytes);
        std::memcpy(frames_.get(), bytes + first * frameBytes, (frames - first) * frameBytes);
        blocks_[put % blockCapacity] = block;
        framesPut_ += frames;
        blocksPut_.store(put + 1, std::memory_order_release);
        return true;
    }

    /// For the thread that takes out: the oldest block, and its samples in place of what stereo held.
    std::optional<AudioBlock> pop(std::vector<float>& stereo)
    {
        const quint64 taken = blocksTaken_.load(std::memory_order_relaxed);
        if (taken == blocksPut_.load(std::memory_order_acquire))
            return std::nullopt;
        const AudioBlock block = blocks_[taken % blockCapacity];
        const auto frames = quint64(block.frames);
        const quint64 framesTaken = framesTaken_.load(std::memory_order_relaxed);
        const quint64 place = framesTaken % frameCapacity;
        const quint64 first = std::min(frames, frameCapacity - place);
        stereo.resize(frames * 2);
        std::memcpy(stereo.data(), frames_.get() + place * 2, first * frameBytes);
        std::memcpy(stereo.data() + first * 2, frames_.get(), (frames - first) * frameBytes);
        framesTaken_.store(framesTaken + frames, std::memory_order_release);
        blocksTaken_.store(taken + 1, std::memory_order_release);
        return block;
    }

private:
    std::unique_ptr<float[]> frames_ = std::make_unique<float[]>(frameCapacity * 2);
    std::array<AudioBlock, blockCapacity> blocks_;
    quint64 framesPut_ = 0; // of the thread that puts in
    std::atomic<quint64> blocksPut_ = 0;
    std::atomic<quint64> framesTaken_ = 0;
    std::atomic<quint64> blocksTaken_ = 0;
};

}

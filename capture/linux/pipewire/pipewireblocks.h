// BlockQueue: blocks of audio on their way from PipeWire's data thread to the reader.
#pragma once

#include <QtGlobal>

#include <spa/utils/ringbuffer.h>

#include <atomic>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

namespace pipewire {

/// What the data thread knows of a block of stereo float samples.
struct AudioBlock {
    qint64 startNs = 0; ///< when its first sample is heard; monotonic clock
    qint64 arrivedNs = 0;
    qint64 frames = 0;
    bool discontinuous = false; ///< of another source or clock than the block before it, or that one was left out
};

/**
 * One thread puts blocks in, one takes them out. Neither waits for the other, and putting in needs no memory from the
 * system. Holds about 5 seconds; what finds no room is left out, and noted. Each block lies in the ring with its
 * samples behind it.
 */
class BlockQueue {
public:
    static constexpr quint32 byteCapacity = 1U << 21; ///< a power of 2: the ring's indices run over at 32 bits
    static constexpr std::size_t frameBytes = 2 * sizeof(float);

    /// For the thread that puts in. samples: block.frames pairs, of any alignment. False when it was left out.
    bool push(const AudioBlock& block, const void* samples)
    {
        quint32 index = 0;
        const qint32 used = spa_ringbuffer_get_write_index(&ring_, &index);
        const qint64 room = qint64(byteCapacity) - used - qint64(sizeof(block));
        if (block.frames <= 0)
            return false;
        if (block.frames > room / qint64(frameBytes)) {
            refusedNs_.store(block.arrivedNs, std::memory_order_relaxed);
            return false;
        }
        const auto bytes = quint32(block.frames) * quint32(frameBytes);
        write(index, &block, sizeof(block));
        write(index + quint32(sizeof(block)), samples, bytes);
        spa_ringbuffer_write_update(&ring_, qint32(index + quint32(sizeof(block)) + bytes));
        return true;
    }

    /// For the thread that takes out: the oldest block, and its samples in place of what stereo held.
    std::optional<AudioBlock> pop(std::vector<float>& stereo)
    {
        quint32 index = 0;
        if (spa_ringbuffer_get_read_index(&ring_, &index) == 0)
            return std::nullopt;
        AudioBlock block;
        read(index, &block, sizeof(block));
        const auto bytes = quint32(block.frames) * quint32(frameBytes);
        stereo.resize(std::size_t(block.frames) * 2);
        read(index + quint32(sizeof(block)), stereo.data(), bytes);
        spa_ringbuffer_read_update(&ring_, qint32(index + quint32(sizeof(block)) + bytes));
        return block;
    }

    /// Whether a block that has arrived since then found no room. Any thread.
    bool hasRefusedSince(qint64 ns) const { return refusedNs_.load(std::memory_order_relaxed) >= ns; }

private:
    void write(quint32 index, const void* from, quint32 bytes)
    {
        spa_ringbuffer_write_data(&ring_, memory_.get(), byteCapacity, index % byteCapacity, from, bytes);
    }
    void read(quint32 index, void* to, quint32 bytes)
    {
        spa_ringbuffer_read_data(&ring_, memory_.get(), byteCapacity, index % byteCapacity, to, bytes);
    }

    std::atomic<qint64> refusedNs_{std::numeric_limits<qint64>::min()}; // when the last of them arrived
    spa_ringbuffer ring_{};
    std::unique_ptr<char[]> memory_ = std::make_unique<char[]>(byteCapacity);
};

}
